// A drawing interface for console tests: a monospaced font whose line height is given for the
// text size 0.02, the only size the console uses; at any other size (and before a size is set)
// it is 0, so measuring without setting the size shows up. Counts the calls it gets.
#pragma once

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "dm/console.h"

namespace dmtest {

class FakeShapeEngine : public dm::ShapeEngineInterface {
public:
    explicit FakeShapeEngine(float lineHeight = 0.025f) : m_lineHeight(lineHeight) {}

    void begin() override { ++m_calls; }
    void setTextSize(float size) override {
        ++m_calls;
        m_textSize = size;
    }
    float getLineHeight() override {
        ++m_calls;
        return m_textSize == 0.02f ? m_lineHeight : 0.0f;
    }
    m::Vector2Template<float> getTextExtent(const char* text) override {
        ++m_calls;
        return {0.01f * static_cast<float>(std::strlen(text)), m_lineHeight};
    }
    void setColor(const g::Color&) override { ++m_calls; }
    void drawRectangle(const m::Vector2Template<float>&,
                       const m::Vector2Template<float>&) override {
        ++m_calls;
    }
    void drawText(const m::Vector2Template<float>&, const char*) override { ++m_calls; }

    int calls() const { return m_calls.load(); }
    void resetCalls() { m_calls = 0; }

private:
    float m_lineHeight;
    float m_textSize = 0.0f;
    std::atomic<int> m_calls{0};
};

// Line k of the window (0 = newest) as a std::string.
inline std::string consoleLine(const dm::ScrollingTextWindow& window, uint64_t k) {
    return window.getConsoleLine(k).c_str();
}

// Line k from the bottom of the window's view as a std::string.
inline std::string visibleLine(const dm::ScrollingTextWindow& window, uint64_t k) {
    return window.getVisibleLine(k).c_str();
}

// All stored lines, oldest first.
inline std::vector<std::string> consoleLinesOldestFirst(const dm::ScrollingTextWindow& window) {
    std::vector<std::string> lines;
    for (uint64_t k = window.getConsoleLineCount(); k-- > 0;) {
        lines.push_back(consoleLine(window, k));
    }
    return lines;
}

}  // namespace dmtest
