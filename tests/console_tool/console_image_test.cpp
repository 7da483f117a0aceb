// dm-console --script replays keystrokes and draws the console into a PNG; the image is read
// back and checked by its pixels where the window's geometry puts the text and the scroll bar.
#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "console_backends/cairo_shape_engine.h"
#include "dm/console.h"
#include "support/test_support.h"

namespace {

using dm::ScrollingTextWindow;

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
// The tool's margin around the console in its images.
constexpr float kMargin = 0.03f;

struct Rgb {
    int red, green, blue;
};

bool near(const Rgb& pixel, const g::Color& color, int tolerance) {
    return std::abs(pixel.red - color.red) <= tolerance &&
           std::abs(pixel.green - color.green) <= tolerance &&
           std::abs(pixel.blue - color.blue) <= tolerance;
}

// A PNG read back through Cairo.
class Png {
public:
    explicit Png(const std::string& path)
        : m_surface(cairo_image_surface_create_from_png(path.c_str())) {}
    ~Png() { cairo_surface_destroy(m_surface); }
    Png(const Png&) = delete;
    Png& operator=(const Png&) = delete;

    bool ok() const { return cairo_surface_status(m_surface) == CAIRO_STATUS_SUCCESS; }
    int width() const { return cairo_image_surface_get_width(m_surface); }
    int height() const { return cairo_image_surface_get_height(m_surface); }
    Rgb at(int x, int y) const {
        const unsigned char* data = cairo_image_surface_get_data(m_surface);
        const int stride = cairo_image_surface_get_stride(m_surface);
        uint32_t pixel;
        std::memcpy(&pixel, data + y * stride + x * 4, 4);
        return {static_cast<int>((pixel >> 16) & 0xFF), static_cast<int>((pixel >> 8) & 0xFF),
                static_cast<int>(pixel & 0xFF)};
    }
    // Pixels in the box [x0, x1) x [y0, y1) within `tolerance` of `color`.
    int count(int x0, int y0, int x1, int y1, const g::Color& color, int tolerance) const {
        int found = 0;
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
                found += near(at(x, y), color, tolerance) ? 1 : 0;
            }
        }
        return found;
    }

private:
    cairo_surface_t* m_surface;
};

// Runs the tool on `script` once for all the tests and measures the console as the tool lays
// it out: the same image size, margin and font.
class ConsoleImage : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_folder = new dmtest::TempDir;
        const std::string script = s_folder->file("session.txt");
        dmtest::writeFile(script,
                          "# three help lists scroll the first lines out of view\n"
                          "help\nhelp\nhelp\n"
                          "set speed 25\n"
                          "alias fast get speed\n");
        s_png = s_folder->file("console.png");
        dmtest::ChildProcess tool(
            DM_CONSOLE_TOOL, {"--folder", s_folder->path(), "--script", script, "--png", s_png});
        s_exitCode = tool.wait();
        s_output = tool.output();
    }
    static void TearDownTestSuite() {
        delete s_folder;
        s_folder = nullptr;
    }

    ConsoleImage() : png(s_png) {}
    void SetUp() override {
        ASSERT_EQ(s_exitCode, 0) << s_output;
        ASSERT_NE(s_output.find(s_png), std::string::npos) << "where the image went: " << s_output;
        ASSERT_TRUE(png.ok());
        ASSERT_EQ(png.width(), kWidth);
        ASSERT_EQ(png.height(), kHeight);
        engine.setTextSize(0.02f);
        lineHeight = engine.getLineHeight();
        advance = engine.getTextExtent("m").x;
    }

    // The box of characters [first, end) of the line `row` from the bottom of the window.
    struct Box {
        int x0, y0, x1, y1;
    };
    Box characters(int row, int first, int end) const {
        const float top = window.getWindowPosition().y + window.getWindowSize().y -
                          lineHeight * static_cast<float>(row + 1);
        const float left = window.getWindowPosition().x;
        // A pixel in from either side, clear of the neighbours' anti-aliased edges.
        return {static_cast<int>(std::lround((left + advance * first) * kWidth)) + 1,
                static_cast<int>(std::lround(top * kHeight)),
                static_cast<int>(std::lround((left + advance * end) * kWidth)) - 1,
                static_cast<int>(std::lround((top + lineHeight) * kHeight))};
    }
    // Pixels of the characters that show the palette entry's colour.
    int inColor(const Box& box, ScrollingTextWindow::PaletteEntry entry) const {
        return png.count(box.x0, box.y0, box.x1, box.y1, window.getPaletteColor(entry), 4);
    }
    // The palette entry whose colour most pixels of the box show (anti-aliased edges blend
    // the text's colour into the backdrop), or -1 when fewer than a few pixels show any.
    int dominantEntry(const Box& box) const {
        int best = -1;
        int bestCount = 2;
        for (int entry = 0; entry < ScrollingTextWindow::kPaletteSize; ++entry) {
            const int count = inColor(box, static_cast<ScrollingTextWindow::PaletteEntry>(entry));
            if (count > bestCount) {
                best = entry;
                bestCount = count;
            }
        }
        return best;
    }

    static inline dmtest::TempDir* s_folder = nullptr;
    static inline std::string s_png;
    static inline int s_exitCode = -1;
    static inline std::string s_output;

    Png png;
    dmconsole::CairoShapeEngine engine{kWidth, kHeight};
    ScrollingTextWindow window{&engine, kMargin};
    float lineHeight = 0.0f;
    float advance = 0.0f;
};

TEST_F(ConsoleImage, TheBackdropDarkensTheSceneByHalf) {
    // Right of the text and left of the scroll bar: the sky above, the ground below.
    const Rgb sky = png.at(kWidth * 9 / 10, kHeight / 10);
    EXPECT_TRUE(near(sky, {20, 45, 75}, 2)) << sky.red << "," << sky.green << "," << sky.blue;
    const Rgb ground = png.at(kWidth * 9 / 10, kHeight * 9 / 10);
    EXPECT_TRUE(near(ground, {30, 55, 25}, 2))
        << ground.red << "," << ground.green << "," << ground.blue;
}

TEST_F(ConsoleImage, WordsStandInTheirPaletteColours) {
    // Bottom up: "alias fast = get speed", ">alias fast get speed;", "speed = 25".
    using W = ScrollingTextWindow;
    EXPECT_EQ(dominantEntry(characters(0, 0, 5)), W::kKnownWordColor) << "alias";
    EXPECT_EQ(dominantEntry(characters(0, 6, 10)), W::kAliasColor) << "fast";
    EXPECT_EQ(dominantEntry(characters(0, 11, 12)), W::kOtherColor) << "=";
    EXPECT_EQ(dominantEntry(characters(0, 17, 22)), W::kKnownWordColor) << "speed, a variable";
    EXPECT_EQ(dominantEntry(characters(1, 7, 11)), W::kAliasColor) << "fast, echoed";
    EXPECT_EQ(dominantEntry(characters(2, 8, 10)), W::kNumberColor) << "25";
    EXPECT_EQ(dominantEntry(characters(2, 5, 7)), W::kOtherColor) << "= in speed = 25";
    // The first line of the last help list: "commands (Tab completes, ...".
    EXPECT_EQ(dominantEntry(characters(15, 0, 8)), W::kPlainColor) << "commands, a plain word";
    EXPECT_EQ(dominantEntry(characters(0, 22, 60)), -1) << "nothing behind the line's end";
}

TEST_F(ConsoleImage, TheScrollBarShowsTheViewAtTheBottom) {
    const float barLeft = window.getWindowPosition().x + window.getWindowSize().x - 0.003125f;
    const int x = static_cast<int>(std::lround((barLeft + 0.0015625f) * kWidth));
    const int top = static_cast<int>(std::lround(window.getWindowPosition().y * kHeight));
    const int bottom = static_cast<int>(
        std::lround((window.getWindowPosition().y + window.getWindowSize().y) * kHeight));
    const Rgb track = png.at(x, top + 2);
    EXPECT_TRUE(near(track, {80, 80, 80}, 2)) << track.red << "," << track.green;
    const Rgb handle = png.at(x, bottom - 2);
    EXPECT_TRUE(near(handle, {215, 209, 209}, 2)) << handle.red << "," << handle.green;
    // The handle is as long as the share of the lines on screen.
    int handleLength = 0;
    for (int y = top; y < bottom; ++y) {
        handleLength += near(png.at(x, y), {215, 209, 209}, 2) ? 1 : 0;
    }
    // The greeting's two rows, three help lists of 13 and two lines each for set and alias.
    const double lines = 2 + 3 * 13 + 4;
    const double expected = window.getLinesOnScreen() / lines * (bottom - top);
    EXPECT_NEAR(handleLength, expected, 0.1 * expected);
}

}  // namespace
