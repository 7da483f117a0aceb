// dm console interface: the drawing interface the console draws through, the console
// tokenizer and the console's text window.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "dm/export.h"
#include "zu/exception.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/string.h"
#include "zu/timer.h"
#include "zu/vector.h"

namespace g {

// An RGBA colour, one byte per channel.
struct Color {
    // Opaque black.
    constexpr Color() = default;
    // The given channels; alpha 255 is opaque.
    constexpr Color(uint8_t r, uint8_t g, uint8_t b, uint8_t a = 255)
        : red(r), green(g), blue(b), alpha(a) {}

    // Opaque white and opaque black.
    static const Color White;
    static const Color Black;

    uint8_t red = 0;
    uint8_t green = 0;
    uint8_t blue = 0;
    uint8_t alpha = 255;
};

inline constexpr Color Color::White{255, 255, 255, 255};
inline constexpr Color Color::Black{0, 0, 0, 255};

// Channel-wise equality.
constexpr bool operator==(const Color& a, const Color& b) {
    return a.red == b.red && a.green == b.green && a.blue == b.blue && a.alpha == b.alpha;
}
constexpr bool operator!=(const Color& a, const Color& b) {
    return !(a == b);
}

static_assert(sizeof(Color) == 4, "a colour is four bytes");

}  // namespace g

namespace m {

// A pair of coordinates. Console geometry uses Vector2Template<float> in normalised screen
// units: the whole screen is 1.0 wide and 1.0 high, (0, 0) is its top-left corner.
template <typename T>
struct Vector2Template {
    // (0, 0).
    constexpr Vector2Template() = default;
    constexpr Vector2Template(T xValue, T yValue) : x(xValue), y(yValue) {}

    T x = T();
    T y = T();
};

// Component-wise equality (exact, also for floats).
template <typename T>
constexpr bool operator==(const Vector2Template<T>& a, const Vector2Template<T>& b) {
    return a.x == b.x && a.y == b.y;
}
template <typename T>
constexpr bool operator!=(const Vector2Template<T>& a, const Vector2Template<T>& b) {
    return !(a == b);
}

}  // namespace m

namespace dm {

// The game's 2D drawing interface, implemented by the engine. The console relies only on these
// first seven operations, in this order, with these arguments and results; positions and sizes
// are in normalised screen units.
class DM_API ShapeEngineInterface {
public:
    // Called once at the start of each console frame.
    virtual void begin() = 0;
    // Text size for what is measured and drawn next; the console always uses 0.02.
    virtual void setTextSize(float size) = 0;
    // Height of one line of text at the current text size.
    virtual float getLineHeight() = 0;
    // Width (x) and height (y) of `text` at the current text size.
    virtual m::Vector2Template<float> getTextExtent(const char* text) = 0;
    // Colour of what is drawn next.
    virtual void setColor(const g::Color& color) = 0;
    // A filled rectangle whose top-left corner is at `position`.
    virtual void drawRectangle(const m::Vector2Template<float>& position,
                               const m::Vector2Template<float>& size) = 0;
    // `text` with its top-left corner at `position`.
    virtual void drawText(const m::Vector2Template<float>& position, const char* text) = 0;

    // Declared after the seven operations so that their slots come first.
    virtual ~ShapeEngineInterface();
};

// A console word: the exact characters of one token of a text.
using ConsoleWord = zu::InplaceString<256>;
// A list of console words, in the order of the text.
using ConsoleWordList = zu::Vector<ConsoleWord, zu::HeapAllocator>;

// Appends the words of `text` to `words` (which is not emptied first): runs of white space,
// quoted strings, numbers that stand before white space or the end, runs of identifier
// characters, and single other bytes. Every byte lands in exactly one word, so joining the
// words gives `text` back. Bytes are Latin-1: white space is 0, 9, 10, 11, 13 and 32 (form feed
// is not), letters are A-Z, a-z, '_' and the bytes 0xC4, 0xC5, 0xD6, 0xE4, 0xE5 and 0xF6.
DM_API void tokenizeLine(ConsoleWordList& words, const zu::String& text);

// The scanners below return the length of their match at `position` in `text`, or -1 when
// nothing matches there (also for a position outside the text).

// A run of white-space bytes.
DM_API int scanWhitespace(const zu::String& text, int position);
// A run of letters and digits '0'-'9'.
DM_API int scanIdentifier(const zu::String& text, int position);
// An optional '+' or '-' and decimal digits (a sign needs a digit behind it), followed by white
// space or the end of the text; "12;" is not an integer.
DM_API int scanInteger(const zu::String& text, int position);
// An optional sign and a run of '0'-'9', '.', 'e', 'E', 'f', 'F' in any order, with the same
// sign and terminator rules as scanInteger; a lone "." is a float.
DM_API int scanFloat(const zu::String& text, int position);
// "0x" or "0X" and a run of '0'-'9', 'a'-'f', 'x', 'X' (upper-case A-F are not hex digits
// here), followed by white space or the end. Texts shorter than three bytes in total never
// match; "0x" right at the end of a longer text matches with length 2.
DM_API int scanHex(const zu::String& text, int position);
// A double quote and everything up to and including the next double quote; -1 when the quote
// is not closed.
DM_API int scanQuoted(const zu::String& text, int position);

// Errors of the console's text window; the text reads "ScrollingTextWindow: <what>".
ZU_DECLARE_EXCEPTION(DM_API, ScrollingTextWindowException, zu::Exception);
// An alias definition that would make an alias expand into itself, or aliases nested too deep
// to expand.
ZU_DECLARE_EXCEPTION(DM_API, ScrollingTextWindowException_IllegalAliasDefinition,
                     ScrollingTextWindowException);

struct ScrollingTextWindowState;

// The Windows virtual-key codes of the keys the console's command line and window handle
// (ScrollingTextWindow::appendInput); letters and digits are their upper-case ASCII codes.
namespace console_key {
constexpr int Backspace = 8;
constexpr int Tab = 9;
constexpr int Enter = 13;
constexpr int Escape = 27;
constexpr int Space = 32;
constexpr int PageUp = 33;
constexpr int PageDown = 34;
constexpr int End = 35;
constexpr int Home = 36;
constexpr int Left = 37;
constexpr int Up = 38;
constexpr int Right = 39;
constexpr int Down = 40;
constexpr int Insert = 45;
constexpr int Delete = 46;
}  // namespace console_key

// The console's text pane: a bounded history of printed lines (1000), a scroll position, the
// command line under it and the geometry and colours it is drawn with. Printing may come from
// any thread; scroll, scrollBottom, clear, setWindowSize, dumpToFile, save and load take the
// same lock and may run meanwhile. Everything else (the command line, history, aliases, known
// words) belongs to the thread that updates and draws the console.
// Geometry is in normalised screen units; text counts as monospaced, 0.01 wide per character.
class DM_API ScrollingTextWindow {
public:
    // One token of a line with the colour it is drawn in.
    struct FormattedRun {
        g::Color color;
        zu::InplaceString<256> text;
    };
    // The coloured form of one line: its runs in text order.
    struct FormattedLine {
        zu::Vector<FormattedRun, zu::HeapAllocator> runs;
    };
    // One FormattedLine per line on screen, used as a ring from `position`.
    struct FormattedLineRing {
        zu::Vector<FormattedLine, zu::HeapAllocator> lines;
        int32_t position = 0;
    };
    using ConsoleLine = zu::InplaceString<384>;
    using KnownWordMap = std::map<zu::InplaceString<256>, bool, std::less<zu::InplaceString<256>>,
                                  zu::Allocator<std::pair<const zu::InplaceString<256>, bool>>>;
    using AliasMap =
        std::map<zu::InplaceString<256>, zu::InplaceString<256>, std::less<zu::InplaceString<256>>,
                 zu::Allocator<std::pair<const zu::InplaceString<256>, zu::InplaceString<256>>>>;
    // Alias names met while checking a definition; case-insensitive like the alias map.
    using AliasNameSet = std::set<zu::InplaceString<256>, std::less<zu::InplaceString<256>>,
                                  zu::Allocator<zu::InplaceString<256>>>;

    // Name of the console cache in the writable folder (zu::File::getFileSysPathForWrite()).
    static constexpr const char* kCacheFileName = "consolecache.bin";
    // Largest line limit, and so line count, that load() takes from a cache file for either
    // store; the defaults are 1000 console lines and 30 commands.
    static constexpr uint32_t kMaxCachedLineLimit = 65536;
    // How deep aliases may nest inside one another, when checked and when expanded.
    static constexpr int kMaxAliasNesting = 64;
    // Most words that one command line may expand into through its aliases.
    static constexpr size_t kMaxExpandedWords = 65536;

    // Builds a hidden window that fills the screen but for `margin` on every side and one text
    // line for the command line at the bottom. `shapeEngine` is not owned and must outlive the
    // window; a null engine throws ScrollingTextWindowException.
    ScrollingTextWindow(ShapeEngineInterface* shapeEngine, float margin);
    virtual ~ScrollingTextWindow();
    ScrollingTextWindow(const ScrollingTextWindow&) = delete;
    ScrollingTextWindow& operator=(const ScrollingTextWindow&) = delete;

    // Formats with printf rules into 4096 bytes and prints the result without prefix. A result
    // that does not fit is dropped whole (nothing is printed), not cut.
    virtual void print(const char* format, ...) DM_PRINTF(2, 3);
    // printStringWithPrefix(false, text).
    virtual void printString(const char* text);
    // As print, with the prompt as prefix when `withPrefix`.
    virtual void printWithPrefix(bool withPrefix, const char* format, ...) DM_PRINTF(3, 4);
    // Adds every line of `text` that a line feed ends, behind the prompt (`withPrefix`) or the
    // line prefix, wrapped into rows that fit the text area; continuation rows carry the same
    // prefix. Text after the last line feed waits and is printed in front of what the next call
    // brings. Thread-safe. A scrolled-up view stays on the text it shows.
    virtual void printStringWithPrefix(bool withPrefix, const char* text);
    // Writes nothing: the stored text is assembled and dropped, `fileName` is ignored and no
    // file is created.
    virtual void dumpToFile(const char* fileName);

    // Window size; rebuilds the colouring cache for the new number of lines on screen and sets
    // the text area to the size less the scroll bar's width.
    void setWindowSize(const m::Vector2Template<float>& size);
    // The setters below only store their argument.
    void setWindowPosition(const m::Vector2Template<float>& position);
    void setCommandLinePosition(const m::Vector2Template<float>& position);
    void setCommandLineWidth(float width);
    void setVisibility(bool isVisible);

    const m::Vector2Template<float>& getWindowSize() const;
    const m::Vector2Template<float>& getWindowPosition() const;
    const m::Vector2Template<float>& getCommandLinePosition() const;
    const m::Vector2Template<float>& getTextAreaSize() const;
    float getCommandLineWidth() const;

    // Moves the view by `lines` (positive is up, towards older lines), kept between the newest
    // line (0) and getUpmostShownConsoleLine(); returns how far it really moved.
    int scroll(int lines);
    // Moves the view back to the newest line.
    void scrollBottom();

    // Forgets every stored line and any waiting unterminated text; the scroll position stays.
    void clear();

    // Line access, for the thread that draws while other threads may print. Each call takes
    // the window's lock and returns a copy, so a line never changes under its reader.

    // Number of stored lines (at most 1000).
    uint64_t getConsoleLineCount() const;
    // Line k counted from the newest (0), with its line feed; "" beyond the stored lines.
    ConsoleLine getConsoleLine(uint64_t k) const;
    // Line k counted from the bottom of the view.
    ConsoleLine getVisibleLine(uint64_t k) const;
    // Whole text lines that fit the window's height at text size 0.02 (which it sets).
    uint32_t getLinesOnScreen() const;
    // The largest useful scroll position: stored lines less lines on screen, at least 0.
    uint32_t getUpmostShownConsoleLine() const;
    // 0.01 per character.
    float getStringWidth(const zu::String& text) const;
    // How many leading characters of `text` fit in `width`: the count stops before the
    // character at which the running width reaches `width`.
    int32_t getCharacterFitCount(const zu::String& text, float width) const;

    // The command line. Keys are Windows virtual-key codes (see console_key); `character` is
    // what the key typed (0 for none).

    // Handles one key: Tab completes (Shift+Tab backwards, Alt+Tab nothing), Page Up/Down
    // scroll the text by a page, Control+Home/End to the oldest/newest line, Up/Down browse the
    // history (with Control they scroll the text a line); every other key edits the command
    // line. A plain Tab starts a new completion cycle unless the last key pressed without Shift
    // was a Tab as well; Shift+Tab always goes on with the current cycle.
    void appendInput(int key, char character, bool alt, bool control, bool shift);
    const zu::String& getText() const;
    // Replaces the command line's text and puts the cursor at its end.
    void setText(const zu::String& text);
    // Types `text` at the cursor: CR and LF become spaces, tabs are dropped.
    void appendText(const zu::String& text);

    // History: stores `command` as the newest of the last 30 (or the cache file's limit), also
    // when it repeats the one before, and ends browsing.
    void addToCommandStack(const zu::InplaceString<128>& command);

    // The console cache: the stored lines and the history, with their counters, in the file
    // kCacheFileName of the writable folder.

    // Writes the cache when something it holds has changed since the last save; unless the file
    // system is read-only. The file is replaced whole: a save that fails (it is then dropped,
    // silently, until the next change) leaves the previous file as it was.
    void save();
    // Replaces the stored lines and the history with the cache file's, if there is one. A file
    // that cannot be read, is cut short, or holds counts or limits that it cannot hold or that
    // are beyond kMaxCachedLineLimit throws a zu::Exception saying what is wrong, and changes
    // nothing. The constructor loads the cache this way and, when that throws, starts empty.
    void load();

    // Parsing and aliases.

    // Appends the words of the command line to `words`, with aliases replaced by the words of
    // their texts, and empties the command line. With `addToStack` the line goes into the
    // history first. An empty command line does nothing. Aliases that expand deeper than
    // kMaxAliasNesting or into more than kMaxExpandedWords words (possible only when the alias
    // map was filled without checkAliasValidity) throw
    // ScrollingTextWindowException_IllegalAliasDefinition.
    void parseCommandLine(ConsoleWordList& words, bool addToStack);
    // Throws ScrollingTextWindowException_IllegalAliasDefinition when defining alias `name` as
    // `text` would loop, judged against the aliases now in the map: an alias met twice while
    // expanding `text` counts as a loop, even on separate branches ("b;b" where b is an alias);
    // so do aliases nested deeper than kMaxAliasNesting. Enter the new definition first, check, and
    // take it out again when this throws, so that a name referring to itself is caught too.
    void checkAliasValidity(const zu::InplaceString<256>& name, const zu::String& text) const;
    // Alias name (case-insensitive) to alias text.
    const AliasMap& getAliasesMap() const;
    AliasMap& accessAliasesMap();

    // Known words, for completion and colouring; compared without regard to case and stored in
    // lower case. A function word completes with an argument list "(  );".

    // Adds `word` unless it is already known; a known word keeps its function flag.
    void addKnownWord(const char* word, bool isFunction);
    void removeKnownWord(const char* word);
    void removeAllKnownWords();

private:
    void initializeMembers();
    // The helpers marked ZU_REQUIRES(stateLock()) run with the state's lock held: printing
    // threads reach the line stores, the view and the print buffers through them.
    void addConsoleLine(const zu::String& line) ZU_REQUIRES(stateLock());
    // Adds `line` (without its line feed) as wrapped rows; returns the number of rows added.
    uint32_t addWrappedLine(const zu::String& prefix, const zu::String& line, bool withPrefix)
        ZU_REQUIRES(stateLock());
    void breakWideTokens(float room) ZU_REQUIRES(stateLock());
    uint32_t layOutRows(const zu::String& prefix, bool withPrefix) ZU_REQUIRES(stateLock());
    void addRow(const zu::String& prefix, size_t firstToken, size_t endToken, bool withPrefix)
        ZU_REQUIRES(stateLock());
    void keepViewAfterPrinting(uint32_t addedLines) ZU_REQUIRES(stateLock());
    void moveViewLine(int64_t lines) ZU_REQUIRES(stateLock());
    void emptyFormattedLines() ZU_REQUIRES(stateLock());

    // scroll with the lock held.
    int scrollLocked(int lines) ZU_REQUIRES(stateLock());
    // getUpmostShownConsoleLine with the lock held.
    uint32_t upmostShownLineLocked() const ZU_REQUIRES(stateLock());
    // Scrolls the text and moves viewLine along, so that drawing colours what comes into view;
    // the Locked form with the lock held.
    void scrollView(int64_t lines);
    void scrollViewLocked(int64_t lines) ZU_REQUIRES(stateLock());
    void scrollCommands(int delta);
    void loadCacheOrKeepDefaults();
    // `depth` counts how many aliases the words lie inside.
    void resolveAliases(ConsoleWordList& out, const ConsoleWordList& in, int depth = 0) const;
    void checkAliasValidity(AliasNameSet& visited, const ConsoleWordList& words,
                            int depth = 1) const;
    const zu::InplaceString<256>* findAlias(const zu::String& word) const;
    void completeCommand(bool forward, bool restart);
    void startCompletion(bool forward);
    void continueCompletion(bool forward);
    bool completionMatches(KnownWordMap::const_iterator word) const;
    void applyCompletion();

    // Everything the window holds (scrolling_text_window_state.h); owned, never null.
    zu::UniquePtr<ScrollingTextWindowState> state;
    // The lock of `state` (defined beside it, where the analysis learns that it is state->mutex).
    zu::Mutex& stateLock() const;

    // Colouring and drawing (syntax_colouring.cpp, console_rendering.cpp).
public:
    // The palette's entries by what they colour.
    enum PaletteEntry : int {
        kPlainColor = 0,      // white space, and words neither known nor aliases
        kQuotedColor = 1,     // quoted strings
        kNumberColor = 2,     // numbers
        kKnownWordColor = 3,  // known words
        kOtherColor = 4,      // punctuation and other single characters
        kAliasColor = 5,      // aliases
    };
    static constexpr int kPaletteSize = 6;

    const g::Color& getPaletteColor(PaletteEntry entry) const;
    // The palette entry of one word of a line: white space, then numbers (integers, floats made
    // of digits, '.', 'e', 'E', 'f', 'F', hexadecimal), then quoted strings, then other
    // characters that start no identifier; of the remaining words aliases come before known
    // words. So "fee" and a lone "." are numbers, and a word that is both an alias and a known
    // word is an alias.
    PaletteEntry getSyntaxColorEntry(const zu::String& word) const;

    // Draws the window for one frame through the shape engine: a backdrop that darkens the
    // screen, the command line behind its prompt (scrolled sideways so that the cursor stays in
    // view) with its cursor, the lines on screen in their syntax colours and the scroll bar.
    // A hidden window makes no call on the engine at all. Lines are coloured once, when they
    // come into view; a frame in which the view stood still colours nothing and, once its
    // buffers have grown, allocates nothing.
    void renderVisibleText();

private:
    // Cuts `line` into tokens and colours each by getSyntaxColorEntry.
    void syntaxColorLine(FormattedLine& out, const zu::String& line) const;
    void renderScrollBar() ZU_REQUIRES(stateLock());
    void drawCommandLine();
    // Chooses the part of the command line that is shown, [first, end), moving
    // commandLineScroll so that the cursor stays in view.
    void chooseShownCommandText(float promptWidth, float cursorWidth, int32_t& first, int32_t& end);
    float characterWidth(char character) const;
    float textWidth(const char* text) const;
    // Brings the colouring cache up to the view.
    void updateFormattedLines() ZU_REQUIRES(stateLock());
    void colorNewLinesAtBottom(uint32_t shift) ZU_REQUIRES(stateLock());
    void colorOldLinesAtTop(uint32_t shift) ZU_REQUIRES(stateLock());
    FormattedLine& formattedLineOfRow(uint32_t row) ZU_REQUIRES(stateLock());
    void drawFormattedLines(float lineHeight) ZU_REQUIRES(stateLock());
};

}  // namespace dm

namespace dm {

// The game's command executor: the console hands it every command it runs.
class DM_API IOInterface {
public:
    // Runs one command. It always ends with ";": a line "a;b" arrives as "a;" and then "b;",
    // each with the aliases in it already replaced. Runs on the thread that delivers the
    // console's keystrokes; it must not call Console::processCommand or deliverKeystroke.
    virtual void executeCommand(const zu::InplaceString<128>& command) = 0;

    virtual ~IOInterface();
};

// The in-game developer console: a ScrollingTextWindow that a key opens and closes, key
// bindings that run commands while it is closed, and the commands typed or bound handed one
// by one to the game's IOInterface. The game creates one, delivers every keystroke, and calls
// update() and render() once a frame, all on its main thread; print() may come from any thread.
class DM_API Console {
public:
    // Key codes (Windows virtual-key codes) that the console itself handles.
    static constexpr int kToggleKey = 220;
    static constexpr int kEnterKey = 13;

    // Creates the console's window (hidden; it loads the console cache) and makes this the
    // console getInstance() returns, replacing any earlier one. Neither `shapeEngine` nor the
    // IOInterface is owned.
    Console(ShapeEngineInterface* shapeEngine, float margin);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // The live console, or null.
    static Console* getInstance();

    // One keystroke: the toggle key (220) opens or closes the console; Enter (13) without Alt
    // runs the command line, open or closed; other keys edit the command line while the console
    // is open, and run the command bound to `character` while it is closed.
    void deliverKeystroke(int key, char character, bool alt, bool control, bool shift);

    // Binds the typed character `key` to `command`, replacing an earlier binding.
    void bind(unsigned char key, const zu::InplaceString<128>& command);
    // Removes the binding of `key`; unbind(0) removes every binding.
    void unbind(unsigned char key);
    using BindingMap =
        std::map<unsigned char, zu::InplaceString<128>, std::less<unsigned char>,
                 zu::Allocator<std::pair<const unsigned char, zu::InplaceString<128>>>>;
    const BindingMap& getBindingsMap() const { return bindings; }

    // Runs the command line: parses it (aliases replaced; with `interactive` it goes into the
    // history and each command is echoed behind the prompt) and runs its commands one by one,
    // split at ";" unless the line starts with "alias" or "bind", which stay whole.
    void processCommand(bool interactive);

    // Attaches the command executor; null detaches it (commands then print an error line).
    void setIOInterface(IOInterface* io) { ioInterface = io; }
    // Once a frame: saves the console cache, at most once a second, when it has changed.
    void update();
    // Once a frame: draws the console while it is open.
    void render();
    // Prints into the console with printf rules (4096 bytes at most; a longer result is
    // dropped). Thread-safe.
    void print(const char* format, ...) DM_PRINTF(2, 3);
    // Forgets the printed lines.
    void clear();
    // Closes the console.
    void close();
    bool isVisible() const { return visible; }
    // Replaces the command line's text, cursor at its end.
    void setText(const zu::InplaceString<128>& text);
    ScrollingTextWindow* getScrollingTextWindow() { return scrollingTextWindow.get(); }

private:
    // Makes the last word of a non-empty list end with ";", so that the last command ends too.
    void terminateLastCommand(ConsoleWordList& words);
    void processParsedCommandLine(const ConsoleWordList& words, bool echo);
    void runCurrentCommand(bool echo);
    void echoCommand();

    zu::UniquePtr<ScrollingTextWindow> scrollingTextWindow;
    bool visible = false;
    IOInterface* ioInterface = nullptr;
    zu::Timer saveTimer;
    BindingMap bindings;
    // Reused by every command line, so that running one allocates nothing once they have grown.
    ConsoleWordList commandWords;
    zu::InplaceString<128> currentCommand;
    zu::InplaceString<256> echoFormat;

    static Console* sm_pInstance;
};

}  // namespace dm
