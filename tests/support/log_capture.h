// Collects the library's log lines while it lives (one capture at a time: it takes the sink).
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "dm/log.h"
#include "support/test_support.h"

namespace dmtest {

class LogCapture {
public:
    LogCapture() { dm::setLogSink(&LogCapture::receive, this); }
    ~LogCapture() { dm::setLogSink(nullptr, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_lines;
    }
    int count(const std::string& line) const {
        std::lock_guard<std::mutex> guard(m_lock);
        return static_cast<int>(std::count(m_lines.begin(), m_lines.end(), line));
    }
    // Waits (bounded) until `line` has been logged at least `times` times.
    bool waitFor(const std::string& line, int times = 1) const {
        return waitUntil([&] { return count(line) >= times; });
    }

private:
    static void receive(void* context, const char* line) {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_lines.emplace_back(line);
    }

    mutable std::mutex m_lock;
    std::vector<std::string> m_lines;
};

}  // namespace dmtest
