// Parsing the command line into words, and aliases: their expansion and the check that an
// alias definition does not loop.
//
// The word lists are local to each call and each level of nesting: parsing allocates a little
// per command line, and in return it may run for several windows and threads at once.
#include "console/input_line.h"
#include "console/scrolling_text_window_state.h"
#include "dm/console.h"

namespace dm {

ZU_DEFINE_EXCEPTION(ScrollingTextWindowException_IllegalAliasDefinition);

namespace {

void throwIllegalAlias(const char* format, const zu::String& name) {
    zu::InplaceString<256> message;
    message.format(format, name.c_str());
    throw ScrollingTextWindowException_IllegalAliasDefinition("ScrollingTextWindow: %s",
                                                              message.c_str());
}

}  // namespace

void ScrollingTextWindow::parseCommandLine(ConsoleWordList& words, bool addToStack) {
    if (state->inputLine->getText().empty()) {
        return;
    }
    if (addToStack) {
        addToCommandStack(zu::InplaceString<128>(state->inputLine->getText()));
    }
    ConsoleWordList typed;
    tokenizeLine(typed, state->inputLine->getText());
    state->inputLine->setText("", false);
    resolveAliases(words, typed);
}

// Looks `word` up among the aliases in lower case (the map ignores case anyway); null when it
// names none.
const zu::InplaceString<256>* ScrollingTextWindow::findAlias(const zu::String& word) const {
    zu::InplaceString<256> name(word);
    name.toLower();
    const AliasMap::const_iterator found = state->aliases.find(name);
    return found != state->aliases.end() ? &found->second : nullptr;
}

// Depth first: each alias's words are expanded completely, in place of its name, before the
// next word. The nesting and the number of words are bounded so that a map filled without the
// validity check cannot recurse or grow without end.
void ScrollingTextWindow::resolveAliases(ConsoleWordList& out, const ConsoleWordList& in,
                                         int depth) const {
    for (const ConsoleWord& word : in) {
        const zu::InplaceString<256>* text = findAlias(word);
        if (text == nullptr) {
            if (out.size() >= kMaxExpandedWords) {
                throwIllegalAlias("Resolving alias \"%s\" gives too many words", word);
            }
            out.push_back(word);
            continue;
        }
        if (depth >= kMaxAliasNesting) {
            throwIllegalAlias("Resolving alias \"%s\" nests aliases too deep", word);
        }
        ConsoleWordList expansion;
        tokenizeLine(expansion, *text);
        resolveAliases(out, expansion, depth + 1);
    }
}

void ScrollingTextWindow::checkAliasValidity(const zu::InplaceString<256>& name,
                                             const zu::String& text) const {
    ConsoleWordList words;
    tokenizeLine(words, text);
    AliasNameSet visited;
    visited.insert(name);
    checkAliasValidity(visited, words);
}

// An alias met a second time is a loop, even when the first meeting was on another branch that
// has ended: `visited` only grows. That also keeps every accepted alias's expansion within the
// total length of the alias texts.
void ScrollingTextWindow::checkAliasValidity(AliasNameSet& visited, const ConsoleWordList& words,
                                             int depth) const {
    for (const ConsoleWord& word : words) {
        const zu::InplaceString<256>* text = findAlias(word);
        if (text == nullptr) {
            continue;
        }
        zu::InplaceString<256> name(word);
        name.toLower();
        if (visited.count(name) != 0) {
            throwIllegalAlias("Resolving alias \"%s\" causes a loop - alias used inside alias",
                              name);
        }
        if (depth >= kMaxAliasNesting) {
            throwIllegalAlias("Resolving alias \"%s\" nests aliases too deep", name);
        }
        visited.insert(name);
        ConsoleWordList expansion;
        tokenizeLine(expansion, *text);
        checkAliasValidity(visited, expansion, depth + 1);
    }
}

}  // namespace dm
