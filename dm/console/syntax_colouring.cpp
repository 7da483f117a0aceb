// Syntax colouring: every line on screen is cut into the console's tokens, and each token takes
// the palette colour of its kind.
//
// The number tests come before the word tests on purpose: a word made only of digits, '.',
// 'e', 'E', 'f' and 'F' ("fee", "e2", a lone ".") is coloured as a number.
#include "console/scrolling_text_window_state.h"
#include "dm/console.h"

namespace dm {

ScrollingTextWindow::PaletteEntry ScrollingTextWindow::getSyntaxColorEntry(
    const zu::String& word) const {
    if (scanWhitespace(word, 0) >= 0) {
        return kPlainColor;
    }
    if (scanInteger(word, 0) >= 0 || scanFloat(word, 0) >= 0 || scanHex(word, 0) >= 0) {
        return kNumberColor;
    }
    if (scanQuoted(word, 0) >= 0) {
        return kQuotedColor;
    }
    if (scanIdentifier(word, 0) < 0) {
        return kOtherColor;
    }
    // Both maps compare without regard to case, as the lower-cased lookup requires.
    if (state->aliases.find(zu::InplaceString<256>(word)) != state->aliases.end()) {
        return kAliasColor;
    }
    if (state->knownWords.find(zu::InplaceString<256>(word)) != state->knownWords.end()) {
        return kKnownWordColor;
    }
    return kPlainColor;
}

void ScrollingTextWindow::syntaxColorLine(FormattedLine& out, const zu::String& line) const {
    // Reused by every call on this thread, so that colouring allocates nothing once it has
    // grown; drawing colours on one thread, windows drawn on other threads get their own.
    thread_local ConsoleWordList tokens;
    tokens.clear();
    tokenizeLine(tokens, line);
    out.runs.clear();
    for (const ConsoleWord& token : tokens) {
        FormattedRun& run = out.runs.emplace_back();
        run.color = state->colors[getSyntaxColorEntry(token)];
        run.text = token;
    }
}

}  // namespace dm
