// A small command executor for trying the console out: echo, aliases, key bindings, variables,
// a function word and help. Its command and variable names are the console's known words.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "dm/console.h"

namespace dmconsole {

class DemoCommands : public dm::IOInterface {
public:
    // Attaches itself to `console` and registers its words there.
    explicit DemoCommands(dm::Console& console);
    ~DemoCommands() override;
    DemoCommands(const DemoCommands&) = delete;
    DemoCommands& operator=(const DemoCommands&) = delete;

    void executeCommand(const zu::InplaceString<128>& command) override;

    // "quit" or "exit" was run.
    bool quitRequested() const { return m_quit; }

private:
    // The command's words without white space and the final ";", and the text behind the
    // first word (and behind the second, for alias and bind) as typed.
    struct Parsed {
        std::vector<std::string> words;
        std::string afterFirst;
        std::string afterSecond;
    };
    static Parsed parse(const zu::String& command);

    void echo(const Parsed& parsed);
    void alias(const Parsed& parsed);
    void unalias(const Parsed& parsed);
    void bind(const Parsed& parsed);
    void unbind(const Parsed& parsed);
    void set(const Parsed& parsed);
    void get(const Parsed& parsed);
    void sum(const Parsed& parsed);
    void help();

    dm::Console& m_console;
    dm::ScrollingTextWindow& m_window;
    std::map<std::string, std::string> m_variables;
    bool m_quit = false;
};

}  // namespace dmconsole
