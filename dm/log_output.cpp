#include "log_output.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "dm/log.h"

namespace dm {
namespace {

void writeToStandardOutput(void*, const char* line) {
    std::fputs(line, stdout);
    // Diagnostic lines are rare; flushing keeps them in order with a host's own output when
    // standard output is a pipe.
    std::fflush(stdout);
}

struct LogTarget {
    std::mutex lock;  // held while a line is delivered, so setLogSink can wait for it
    LogSink sink = writeToStandardOutput;
    void* context = nullptr;
};

LogTarget& logTarget() {
    static LogTarget target;
    return target;
}

}  // namespace

void setLogSink(LogSink sink, void* context) {
    LogTarget& target = logTarget();
    std::lock_guard<std::mutex> guard(target.lock);
    target.sink = sink ? sink : writeToStandardOutput;
    target.context = sink ? context : nullptr;
}

void logLine(const char* format, ...) {
    char line[1024];
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (written < 0) {
        return;
    }
    LogTarget& target = logTarget();
    std::lock_guard<std::mutex> guard(target.lock);
    target.sink(target.context, line);
}

}  // namespace dm
