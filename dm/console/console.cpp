// The console front end: key routing between the window's line editor and the key bindings,
// splitting parsed lines into commands at ";" for the game's IOInterface, and saving the
// console cache once a second.
#include <cstdarg>
#include <cstdio>

#include "dm/console.h"

namespace dm {

namespace {

constexpr size_t kFormatBufferSize = 4096;
constexpr double kSaveIntervalSeconds = 1.0;
constexpr const char* kNoIOInterfaceError =
    "ERROR: Unable to process command, no IO interface attached\n";

bool isWhitespaceWord(const ConsoleWord& word) {
    return scanWhitespace(word, 0) >= 0;
}

// Lines that define aliases or bindings carry ";" in their text and are never split.
bool isKeptWhole(const ConsoleWordList& words) {
    return words[0].equalsIgnoreCase("alias") || words[0].equalsIgnoreCase("bind");
}

}  // namespace

IOInterface::~IOInterface() = default;

Console* Console::sm_pInstance = nullptr;

Console::Console(ShapeEngineInterface* shapeEngine, float margin) {
    saveTimer.restart();
    bindings.clear();
    visible = false;
    ioInterface = nullptr;
    sm_pInstance = this;
    scrollingTextWindow = zu::makeUnique<ScrollingTextWindow>(shapeEngine, margin);
    scrollingTextWindow->setVisibility(visible);
}

Console::~Console() {
    scrollingTextWindow.reset();
    visible = false;
    ioInterface = nullptr;
    if (sm_pInstance == this) {
        sm_pInstance = nullptr;
    }
}

Console* Console::getInstance() {
    return sm_pInstance;
}

void Console::deliverKeystroke(int key, char character, bool alt, bool control, bool shift) {
    if (key == kToggleKey) {
        visible = !visible;
        scrollingTextWindow->setVisibility(visible);
        return;
    }
    if (key == kEnterKey) {
        if (!alt) {
            processCommand(true);
        }
        return;
    }
    if (visible) {
        scrollingTextWindow->appendInput(key, character, alt, control, shift);
        return;
    }
    const BindingMap::const_iterator binding = bindings.find(static_cast<unsigned char>(character));
    if (binding == bindings.end()) {
        return;
    }
    // The bound command replaces whatever was typed, and runs without echo or history.
    scrollingTextWindow->setText(binding->second);
    commandWords.clear();
    scrollingTextWindow->parseCommandLine(commandWords, false);
    terminateLastCommand(commandWords);
    processParsedCommandLine(commandWords, false);
}

void Console::processCommand(bool interactive) {
    commandWords.clear();
    scrollingTextWindow->parseCommandLine(commandWords, interactive);
    terminateLastCommand(commandWords);
    processParsedCommandLine(commandWords, interactive);
}

void Console::terminateLastCommand(ConsoleWordList& words) {
    if (words.empty()) {
        return;
    }
    ConsoleWord& last = words.back();
    if (!last.empty() && !last.endsWith(';')) {
        last.append(';');
    }
}

void Console::processParsedCommandLine(const ConsoleWordList& words, bool echo) {
    currentCommand.clear();
    const size_t count = words.size();
    for (size_t i = 0; i < count; ++i) {
        const ConsoleWord& word = words[i];
        if (currentCommand.empty() && isWhitespaceWord(word)) {
            continue;  // each command's leading blanks are dropped
        }
        currentCommand.append(word);
        const bool isLast = i + 1 == count;
        if (!isLast && (isKeptWhole(words) || !word.equalsIgnoreCase(";"))) {
            continue;
        }
        runCurrentCommand(echo);
    }
}

void Console::runCurrentCommand(bool echo) {
    if (echo) {
        echoCommand();
    }
    if (ioInterface != nullptr) {
        ioInterface->executeCommand(currentCommand);
    } else {
        scrollingTextWindow->print("%s", kNoIOInterfaceError);
    }
    currentCommand.clear();
}

// The echo goes through the window's format argument; every '%' of the command is doubled
// there, so that the line shows the command exactly as it was typed.
void Console::echoCommand() {
    echoFormat.clear();
    for (char c : currentCommand) {
        echoFormat.append(c);
        if (c == '%') {
            echoFormat.append('%');
        }
    }
    echoFormat.append('\n');
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-security"  // every '%' in it is doubled above
#endif
    scrollingTextWindow->printWithPrefix(true, echoFormat.c_str());
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
}

void Console::bind(unsigned char key, const zu::InplaceString<128>& command) {
    bindings[key] = command;
}

void Console::unbind(unsigned char key) {
    if (key == 0) {
        bindings.clear();
        return;
    }
    bindings.erase(key);
}

void Console::update() {
    if (saveTimer.getElapsedSeconds() > kSaveIntervalSeconds) {
        scrollingTextWindow->save();
        saveTimer.restart();
    }
}

void Console::render() {
    scrollingTextWindow->renderVisibleText();
}

void Console::print(const char* format, ...) {
    char buffer[kFormatBufferSize];
    buffer[0] = 0;  // what a null format prints
    va_list args;
    va_start(args, format);
    const int written = format ? std::vsnprintf(buffer, kFormatBufferSize, format, args) : 0;
    va_end(args);
    if (written < 0 || static_cast<size_t>(written) >= kFormatBufferSize) {
        buffer[0] = 0;  // as the bounds-checked vsnprintf does with a result that does not fit
    }
    if (scrollingTextWindow != nullptr) {
        scrollingTextWindow->printString(buffer);
    }
}

void Console::clear() {
    scrollingTextWindow->clear();
}

void Console::close() {
    visible = false;
    scrollingTextWindow->setVisibility(false);
}

void Console::setText(const zu::InplaceString<128>& text) {
    scrollingTextWindow->setText(text);
}

}  // namespace dm
