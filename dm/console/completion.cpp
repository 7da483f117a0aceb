// Known words and Tab completion of the command line against them.
//
// A known word matches the fragment being completed when it contains it anywhere, not only at
// its start. The first Tab of a row takes the fragment (the text after the last ' ' or '>' at
// or before the cursor) and proposes the word equal to it, or else the first matching word;
// further Tabs cycle through the matching words in alphabetical order, Shift+Tab backwards.
#include "console/input_line.h"
#include "console/scrolling_text_window_state.h"
#include "dm/console.h"

namespace dm {

namespace {

// Typed behind a function word: an empty argument list with the cursor between its spaces.
constexpr const char* kArgumentList = "(  );";
constexpr int32_t kCursorBackIntoArguments = 3;

}  // namespace

void ScrollingTextWindow::addKnownWord(const char* word, bool isFunction) {
    zu::InplaceString<256> key(word != nullptr ? word : "");
    key.toLower();
    // An existing entry keeps its flag: emplace does not replace.
    state->knownWords.emplace(key, isFunction);
}

void ScrollingTextWindow::removeKnownWord(const char* word) {
    const KnownWordMap::iterator found =
        state->knownWords.find(zu::InplaceString<256>(word != nullptr ? word : ""));
    if (found == state->knownWords.end()) {
        return;
    }
    state->knownWords.erase(found);
    // The cycle may have stood on it; the next Tab starts afresh.
    state->completionIterator = state->knownWords.end();
}

void ScrollingTextWindow::removeAllKnownWords() {
    state->knownWords.clear();
    state->completionIterator = state->knownWords.end();
}

void ScrollingTextWindow::completeCommand(bool forward, bool restart) {
    if (state->knownWords.empty()) {
        return;
    }
    if (restart) {
        startCompletion(forward);
    } else if (state->completionIterator != state->knownWords.end()) {
        continueCompletion(forward);
    }
    applyCompletion();
}

void ScrollingTextWindow::startCompletion(bool forward) {
    const zu::String& text = state->inputLine->getText();
    const int32_t length = static_cast<int32_t>(text.length());
    const int32_t cursor = state->inputLine->getCursor();
    int32_t split = -1;
    for (int32_t i = cursor < length ? cursor : length - 1; i >= 0; --i) {
        if (text[static_cast<size_t>(i)] == ' ' || text[static_cast<size_t>(i)] == '>') {
            split = i;
            break;
        }
    }
    // Everything after the split point is the fragment, also what lies behind the cursor.
    const size_t fragmentStart = static_cast<size_t>(split + 1);
    state->completionPrefix.assign(text.c_str() + fragmentStart, text.length() - fragmentStart);
    state->completionPrefix.toLower();
    state->completionHead.assign(text.c_str(), fragmentStart);

    state->completionIterator = state->knownWords.find(state->completionPrefix);
    if (state->completionIterator != state->knownWords.end()) {
        return;
    }
    if (forward) {
        state->completionIterator = state->knownWords.begin();
        while (state->completionIterator != state->knownWords.end() &&
               !completionMatches(state->completionIterator)) {
            ++state->completionIterator;
        }
        return;
    }
    for (KnownWordMap::iterator word = state->knownWords.end();
         word != state->knownWords.begin();) {
        --word;
        if (completionMatches(word)) {
            state->completionIterator = word;
            return;
        }
    }
    state->completionIterator = state->knownWords.end();
}

// Steps to the next (or previous) matching word, wrapping around; with a single match it comes
// back to where it started.
void ScrollingTextWindow::continueCompletion(bool forward) {
    const KnownWordMap::iterator start = state->completionIterator;
    do {
        if (forward) {
            ++state->completionIterator;
            if (state->completionIterator == state->knownWords.end()) {
                state->completionIterator = state->knownWords.begin();
            }
        } else {
            if (state->completionIterator == state->knownWords.begin()) {
                state->completionIterator = state->knownWords.end();
            }
            --state->completionIterator;
        }
    } while (!completionMatches(state->completionIterator) && state->completionIterator != start);
}

bool ScrollingTextWindow::completionMatches(KnownWordMap::const_iterator word) const {
    return state->completionPrefix.empty() ||
           word->first.find(state->completionPrefix.c_str()) >= 0;
}

// Replaces the fragment, and whatever followed it on the line, with the proposed word.
void ScrollingTextWindow::applyCompletion() {
    if (state->completionIterator == state->knownWords.end() ||
        !completionMatches(state->completionIterator)) {
        return;
    }
    zu::InplaceString<128> completed(state->completionHead);
    completed.append(state->completionIterator->first);
    if (!state->completionIterator->second) {
        state->inputLine->setText(completed.c_str(), true);
        return;
    }
    completed.append(kArgumentList);
    state->inputLine->setText(completed.c_str(), true);
    state->inputLine->setCursor(static_cast<int32_t>(completed.length()) -
                                kCursorBackIntoArguments);
}

}  // namespace dm
