// Known words and Tab completion of the command line against them.
//
// A known word matches the fragment being completed when it contains it anywhere, not only at
// its start. The first Tab of a row takes the fragment (the text after the last ' ' or '>' at
// or before the cursor) and proposes the word equal to it, or else the first matching word;
// further Tabs cycle through the matching words in alphabetical order, Shift+Tab backwards.
#include "console/input_line.h"
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
    knownWords.emplace(key, isFunction);
}

void ScrollingTextWindow::removeKnownWord(const char* word) {
    const KnownWordMap::iterator found =
        knownWords.find(zu::InplaceString<256>(word != nullptr ? word : ""));
    if (found == knownWords.end()) {
        return;
    }
    knownWords.erase(found);
    // The cycle may have stood on it; the next Tab starts afresh.
    completionIterator = knownWords.end();
}

void ScrollingTextWindow::removeAllKnownWords() {
    knownWords.clear();
    completionIterator = knownWords.end();
}

void ScrollingTextWindow::completeCommand(bool forward, bool restart) {
    if (knownWords.empty()) {
        return;
    }
    if (restart) {
        startCompletion(forward);
    } else if (completionIterator != knownWords.end()) {
        continueCompletion(forward);
    }
    applyCompletion();
}

void ScrollingTextWindow::startCompletion(bool forward) {
    const zu::String& text = inputLine->getText();
    const int32_t length = static_cast<int32_t>(text.length());
    const int32_t cursor = inputLine->getCursor();
    int32_t split = -1;
    for (int32_t i = cursor < length ? cursor : length - 1; i >= 0; --i) {
        if (text[static_cast<size_t>(i)] == ' ' || text[static_cast<size_t>(i)] == '>') {
            split = i;
            break;
        }
    }
    // Everything after the split point is the fragment, also what lies behind the cursor.
    const size_t fragmentStart = static_cast<size_t>(split + 1);
    completionPrefix.assign(text.c_str() + fragmentStart, text.length() - fragmentStart);
    completionPrefix.toLower();
    completionHead.assign(text.c_str(), fragmentStart);

    completionIterator = knownWords.find(completionPrefix);
    if (completionIterator != knownWords.end()) {
        return;
    }
    if (forward) {
        completionIterator = knownWords.begin();
        while (completionIterator != knownWords.end() && !completionMatches(completionIterator)) {
            ++completionIterator;
        }
        return;
    }
    for (KnownWordMap::iterator word = knownWords.end(); word != knownWords.begin();) {
        --word;
        if (completionMatches(word)) {
            completionIterator = word;
            return;
        }
    }
    completionIterator = knownWords.end();
}

// Steps to the next (or previous) matching word, wrapping around; with a single match it comes
// back to where it started.
void ScrollingTextWindow::continueCompletion(bool forward) {
    const KnownWordMap::iterator start = completionIterator;
    do {
        if (forward) {
            ++completionIterator;
            if (completionIterator == knownWords.end()) {
                completionIterator = knownWords.begin();
            }
        } else {
            if (completionIterator == knownWords.begin()) {
                completionIterator = knownWords.end();
            }
            --completionIterator;
        }
    } while (!completionMatches(completionIterator) && completionIterator != start);
}

bool ScrollingTextWindow::completionMatches(KnownWordMap::const_iterator word) const {
    return completionPrefix.empty() || word->first.find(completionPrefix.c_str()) >= 0;
}

// Replaces the fragment, and whatever followed it on the line, with the proposed word.
void ScrollingTextWindow::applyCompletion() {
    if (completionIterator == knownWords.end() || !completionMatches(completionIterator)) {
        return;
    }
    zu::InplaceString<128> completed(completionHead);
    completed.append(completionIterator->first);
    if (!completionIterator->second) {
        inputLine->setText(completed.c_str(), true);
        return;
    }
    completed.append(kArgumentList);
    inputLine->setText(completed.c_str(), true);
    inputLine->setCursor(static_cast<int32_t>(completed.length()) - kCursorBackIntoArguments);
}

}  // namespace dm
