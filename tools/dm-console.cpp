// dm-console: the developer console in a terminal, with a small command set to try it out.
//
// Interactive (the default): the console is drawn onto the terminal's character grid in 24-bit
// colour, and keys reach it as a game would deliver them. ` (or §) closes and opens it; while it
// is closed, characters run their key bindings. Control+C or "quit" ends the program. The
// history and the printed lines are kept in consolecache.bin in --folder.
//
// With --script FILE --png OUT the keystrokes come from FILE (docs/console-script.md) and the
// console's last frame is drawn with Cairo into the PNG image OUT.
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "console_backends/cairo_shape_engine.h"
#include "console_backends/demo_commands.h"
#include "console_backends/keystrokes.h"
#include "console_backends/terminal_shape_engine.h"
#include "dm/console.h"
#include "zu/file.h"

namespace {

using dmconsole::Keystroke;

constexpr int kExitUsage = 2;
constexpr int kExitFailed = 1;
// A game's scene under the console: sky and ground.
constexpr g::Color kSkyColor{40, 90, 150, 255};
constexpr g::Color kGroundColor{60, 110, 50, 255};
constexpr g::Color kTerminalSceneColor{20, 36, 64, 255};
constexpr float kGroundTop = 0.75f;
constexpr float kImageMargin = 0.03f;
constexpr int kFrameMs = 50;
// How long the terminal may pause inside an escape sequence.
constexpr int kEscapeWaitMs = 40;

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_resized = 0;

void greet(dm::Console& console) {
    console.print(
        "dm-console: type help and Enter for the commands; Tab completes, Up browses "
        "the history, ` closes the console.\n");
}

void deliver(dm::Console& console, const Keystroke& stroke) {
    console.deliverKeystroke(stroke.key, stroke.character, stroke.alt, stroke.control,
                             stroke.shift);
}

// --script: replays the keystrokes and draws the last frame into a PNG.
int runScript(const std::string& scriptPath, const std::string& pngPath, int width, int height) {
    std::ifstream file(scriptPath, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "dm-console: cannot read %s\n", scriptPath.c_str());
        return kExitFailed;
    }
    std::stringstream text;
    text << file.rdbuf();
    std::vector<Keystroke> keys;
    std::string error;
    if (!dmconsole::parseKeystrokeScript(text.str(), keys, error)) {
        std::fprintf(stderr, "dm-console: %s: %s\n", scriptPath.c_str(), error.c_str());
        return kExitUsage;
    }
    dmconsole::CairoShapeEngine engine(width, height);
    dm::Console console(&engine, kImageMargin);
    dmconsole::DemoCommands commands(console);
    greet(console);
    console.deliverKeystroke(dm::Console::kToggleKey, 0, false, false, false);
    for (const Keystroke& stroke : keys) {
        deliver(console, stroke);
        console.update();
        if (commands.quitRequested()) {
            break;
        }
    }
    engine.fill(kSkyColor);
    engine.setColor(kGroundColor);
    engine.drawRectangle({0.0f, kGroundTop}, {1.0f, 1.0f - kGroundTop});
    console.render();
    console.getScrollingTextWindow()->save();
    if (!engine.writePng(pngPath)) {
        std::fprintf(stderr, "dm-console: cannot write %s\n", pngPath.c_str());
        return kExitFailed;
    }
    std::printf("dm-console: replayed %zu keystrokes, wrote %s (%dx%d)\n", keys.size(),
                pngPath.c_str(), width, height);
    return 0;
}

// The terminal in raw mode on the alternate screen for as long as it lives.
class RawTerminal {
public:
    RawTerminal() {
        tcgetattr(STDIN_FILENO, &m_saved);
        termios raw = m_saved;
        cfmakeraw(&raw);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        write("\x1b[?1049h\x1b[?25l");
    }
    ~RawTerminal() {
        write("\x1b[0m\x1b[?25h\x1b[?1049l");
        tcsetattr(STDIN_FILENO, TCSANOW, &m_saved);
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

    static void write(const std::string& text) {
        size_t written = 0;
        while (written < text.size()) {
            const ssize_t n = ::write(STDOUT_FILENO, text.data() + written, text.size() - written);
            if (n <= 0) {
                return;
            }
            written += static_cast<size_t>(n);
        }
    }
    static void size(int& columns, int& rows) {
        winsize window{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0 &&
            window.ws_row > 1) {
            columns = window.ws_col;
            rows = window.ws_row;
        } else {
            columns = 80;
            rows = 24;
        }
    }

private:
    termios m_saved{};
};

// Sizes the console to the grid: one console character per column, the command line on the
// last row and the lines above it, wrapped at the grid's right edge.
void fitConsoleToGrid(dm::ScrollingTextWindow& window, int columns, int rows) {
    const float lineHeight = 1.0f / static_cast<float>(rows);
    const float width = static_cast<float>(columns) * dmconsole::kConsoleCharacterWidth;
    window.setWindowPosition({0.0f, 0.0f});
    // A quarter line more than the rows above the command line, so that rounding never costs
    // a line.
    window.setWindowSize({width, (static_cast<float>(rows) - 0.75f) * lineHeight});
    window.setCommandLinePosition({0.0f, static_cast<float>(rows - 1) * lineHeight});
    window.setCommandLineWidth(width);
}

void drawTerminalFrame(dmconsole::TerminalShapeEngine& engine, dm::Console& console, int frame) {
    engine.clear(kTerminalSceneColor);
    if (!console.isVisible()) {
        engine.setColor(g::Color::White);
        engine.drawText({0.0f, 0.0f},
                        "dm-console: the console is closed. ` opens it, Ctrl+C quits;");
        engine.drawText({0.0f, engine.getLineHeight()},
                        "characters typed now run their key bindings (see bind).");
        char status[64];
        std::snprintf(status, sizeof status, "frame %d", frame);
        engine.drawText({0.0f, 3.0f * engine.getLineHeight()}, status);
        const std::string last = console.getScrollingTextWindow()->getConsoleLine(0).c_str();
        engine.drawText({0.0f, 4.0f * engine.getLineHeight()}, ("last line: " + last).c_str());
    }
    console.render();
    RawTerminal::write(engine.toAnsi());
}

int runInteractive() {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        std::fprintf(stderr, "dm-console: needs a terminal (or use --script FILE --png OUT)\n");
        return kExitUsage;
    }
    signal(SIGTERM, [](int) { g_stop = 1; });
    signal(SIGHUP, [](int) { g_stop = 1; });
    signal(SIGWINCH, [](int) { g_resized = 1; });
    int columns = 0;
    int rows = 0;
    RawTerminal::size(columns, rows);
    dmconsole::TerminalShapeEngine engine(columns, rows, dmconsole::kConsoleCharacterWidth);
    dm::Console console(&engine, 0.0f);
    fitConsoleToGrid(*console.getScrollingTextWindow(), columns, rows);
    dmconsole::DemoCommands commands(console);
    greet(console);
    console.deliverKeystroke(dm::Console::kToggleKey, 0, false, false, false);

    RawTerminal terminal;
    dmconsole::TerminalKeyDecoder decoder;
    int frame = 0;
    bool dirty = true;
    while (!g_stop && !commands.quitRequested()) {
        if (g_resized) {
            g_resized = 0;
            RawTerminal::size(columns, rows);
            engine.resize(columns, rows, dmconsole::kConsoleCharacterWidth);
            fitConsoleToGrid(*console.getScrollingTextWindow(), columns, rows);
            dirty = true;
        }
        if (dirty) {
            drawTerminalFrame(engine, console, ++frame);
            dirty = false;
        }
        pollfd input{STDIN_FILENO, POLLIN, 0};
        const int ready = poll(&input, 1, decoder.holdsBytes() ? kEscapeWaitMs : kFrameMs);
        std::vector<Keystroke> keys;
        if (ready > 0) {
            char bytes[256];
            const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
            if (count <= 0) {
                break;  // the terminal went away
            }
            decoder.feed(std::string(bytes, static_cast<size_t>(count)), keys);
        } else if (ready == 0) {
            decoder.flush(keys);
        }
        for (const Keystroke& stroke : keys) {
            if (stroke.key == dmconsole::vk::Quit) {
                g_stop = 1;
                break;
            }
            deliver(console, stroke);
            dirty = true;
        }
        console.update();
    }
    console.getScrollingTextWindow()->save();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"dm-console: the developer console in a terminal, or replayed into an image"};
    std::string folder = ".";
    std::string script;
    std::string png;
    std::string size = "1280x720";
    app.add_option("--folder", folder, "where consolecache.bin (history and lines) is kept")
        ->capture_default_str();
    auto* scriptOption =
        app.add_option("--script", script, "replay the keystrokes of this file (needs --png)");
    auto* pngOption = app.add_option("--png", png, "write the last frame of --script here");
    scriptOption->needs(pngOption);
    pngOption->needs(scriptOption);
    app.add_option("--size", size, "the image's size, WIDTHxHEIGHT")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    int width = 0;
    int height = 0;
    if (std::sscanf(size.c_str(), "%dx%d", &width, &height) != 2 || width < 64 || height < 64 ||
        width > 8192 || height > 8192) {
        std::fprintf(stderr, "dm-console: --size wants WIDTHxHEIGHT between 64 and 8192\n");
        return kExitUsage;
    }
    zu::File::setFileSysPathForWrite((folder + "/").c_str());
    try {
        return script.empty() ? runInteractive() : runScript(script, png, width, height);
    } catch (const zu::Exception& error) {
        std::fprintf(stderr, "dm-console: %s\n", error.getError());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dm-console: %s\n", error.what());
    }
    return kExitFailed;
}
