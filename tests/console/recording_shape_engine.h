// A drawing interface for console tests: a monospaced font (characters 0.01 wide) whose line
// height is given for the text size 0.02, the only size the console uses; at any other size
// (and before a size is set) it is 0, so measuring without setting the size shows up. Records
// every call, so that a test can check what a frame drew and in which order.
#pragma once

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "dm/console.h"

namespace dmtest {

class RecordingShapeEngine : public dm::ShapeEngineInterface {
public:
    explicit RecordingShapeEngine(float lineHeight = 0.025f) : m_lineHeight(lineHeight) {}

    void begin() override { record("begin"); }
    void setTextSize(float size) override {
        m_textSize = size;
        record("setTextSize " + number(size));
    }
    float getLineHeight() override {
        record("getLineHeight");
        return m_textSize == 0.02f ? m_lineHeight : 0.0f;
    }
    m::Vector2Template<float> getTextExtent(const char* text) override {
        record(std::string("getTextExtent ") + text);
        return {0.01f * static_cast<float>(std::strlen(text)), m_lineHeight};
    }
    void setColor(const g::Color& color) override {
        m_color = color;
        record("setColor " + colorText(color));
    }
    void drawRectangle(const m::Vector2Template<float>& position,
                       const m::Vector2Template<float>& size) override {
        record("drawRectangle " + point(position) + " " + point(size));
        m_rectangles.push_back({position, size, m_color});
    }
    void drawText(const m::Vector2Template<float>& position, const char* text) override {
        record("drawText " + point(position) + " " + text);
        m_texts.push_back({position, text, m_color});
    }

    struct Rectangle {
        m::Vector2Template<float> position;
        m::Vector2Template<float> size;
        g::Color color;
    };
    struct Text {
        m::Vector2Template<float> position;
        std::string text;
        g::Color color;
    };
    // One run of a drawn line: its text and colour.
    struct Run {
        std::string text;
        g::Color color;
    };

    const std::vector<std::string>& calls() const { return m_calls; }
    const std::vector<Rectangle>& rectangles() const { return m_rectangles; }
    const std::vector<Text>& texts() const { return m_texts; }
    void reset() {
        m_calls.clear();
        m_rectangles.clear();
        m_texts.clear();
    }

    // The runs drawn above `commandLineY`, by line from the bottom (0) upwards.
    std::vector<std::vector<Run>> linesDrawnAbove(float commandLineY) const {
        std::map<float, std::vector<Run>, std::greater<float>> byY;
        for (const Text& text : m_texts) {
            if (text.position.y < commandLineY - 0.001f) {
                byY[text.position.y].push_back({text.text, text.color});
            }
        }
        std::vector<std::vector<Run>> lines;
        for (auto& entry : byY) {
            lines.push_back(entry.second);
        }
        return lines;
    }

    static std::string number(float value) {
        char text[32];
        std::snprintf(text, sizeof text, "%.5g", static_cast<double>(value));
        return text;
    }
    static std::string point(const m::Vector2Template<float>& p) {
        return number(p.x) + "," + number(p.y);
    }
    static std::string colorText(const g::Color& c) {
        char text[32];
        std::snprintf(text, sizeof text, "%d,%d,%d,%d", c.red, c.green, c.blue, c.alpha);
        return text;
    }

private:
    void record(std::string call) { m_calls.push_back(std::move(call)); }

    float m_lineHeight;
    float m_textSize = 0.0f;
    g::Color m_color;
    std::vector<std::string> m_calls;
    std::vector<Rectangle> m_rectangles;
    std::vector<Text> m_texts;
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
