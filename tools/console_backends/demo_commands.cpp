#include "console_backends/demo_commands.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace dmconsole {

namespace {

struct CommandHelp {
    const char* name;
    bool isFunction;
    const char* usage;
};

const CommandHelp kCommands[] = {
    {"echo", false, "echo TEXT          prints TEXT"},
    {"alias", false, "alias [NAME [TEXT]] defines NAME as TEXT (\";\" allowed), or shows aliases"},
    {"unalias", false, "unalias NAME       forgets an alias"},
    {"bind", false, "bind [KEY COMMAND]  runs COMMAND when KEY is typed with the console closed"},
    {"unbind", false, "unbind [KEY]        forgets KEY's binding, or all of them"},
    {"set", false, "set [NAME VALUE]    sets a variable (its name becomes a known word)"},
    {"get", false, "get NAME            shows a variable"},
    {"sum", true, "sum( A B ... );     adds numbers"},
    {"clear", false, "clear               empties the console"},
    {"help", false, "help                this list"},
    {"quit", false, "quit                ends dm-console"},
};

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The text behind the first `skip` words and the blanks after them.
std::string textAfterWords(const std::string& line, int skip) {
    size_t position = 0;
    for (int word = 0; word < skip; ++word) {
        while (position < line.size() && std::isspace(static_cast<unsigned char>(line[position]))) {
            ++position;
        }
        while (position < line.size() &&
               !std::isspace(static_cast<unsigned char>(line[position]))) {
            ++position;
        }
    }
    while (position < line.size() && std::isspace(static_cast<unsigned char>(line[position]))) {
        ++position;
    }
    return line.substr(position);
}

}  // namespace

DemoCommands::DemoCommands(dm::Console& console)
    : m_console(console), m_window(*console.getScrollingTextWindow()) {
    for (const CommandHelp& command : kCommands) {
        m_window.addKnownWord(command.name, command.isFunction);
    }
    m_console.setIOInterface(this);
}

DemoCommands::~DemoCommands() {
    m_console.setIOInterface(nullptr);
}

DemoCommands::Parsed DemoCommands::parse(const zu::String& command) {
    std::string line = command.c_str();
    if (!line.empty() && line.back() == ';') {
        line.pop_back();
    }
    Parsed parsed;
    dm::ConsoleWordList words;
    dm::tokenizeLine(words, line.c_str());
    for (const dm::ConsoleWord& word : words) {
        if (dm::scanWhitespace(word, 0) < 0 && !word.equalsIgnoreCase(";") &&
            !word.equalsIgnoreCase("(") && !word.equalsIgnoreCase(")")) {
            parsed.words.push_back(word.c_str());
        }
    }
    parsed.afterFirst = textAfterWords(line, 1);
    parsed.afterSecond = textAfterWords(line, 2);
    return parsed;
}

void DemoCommands::executeCommand(const zu::InplaceString<128>& command) {
    const Parsed parsed = parse(command);
    if (parsed.words.empty()) {
        return;
    }
    const std::string name = lowerCase(parsed.words[0]);
    if (name == "echo") {
        echo(parsed);
    } else if (name == "alias") {
        alias(parsed);
    } else if (name == "unalias") {
        unalias(parsed);
    } else if (name == "bind") {
        bind(parsed);
    } else if (name == "unbind") {
        unbind(parsed);
    } else if (name == "set") {
        set(parsed);
    } else if (name == "get") {
        get(parsed);
    } else if (name == "sum") {
        sum(parsed);
    } else if (name == "clear") {
        m_console.clear();
    } else if (name == "help") {
        help();
    } else if (name == "quit" || name == "exit") {
        m_quit = true;
    } else {
        m_console.print("unknown command \"%s\" - help lists the commands\n",
                        parsed.words[0].c_str());
    }
}

void DemoCommands::echo(const Parsed& parsed) {
    m_console.print("%s\n", parsed.afterFirst.c_str());
}

void DemoCommands::alias(const Parsed& parsed) {
    dm::ScrollingTextWindow::AliasMap& aliases = m_window.accessAliasesMap();
    if (parsed.words.size() < 2) {
        for (const auto& entry : aliases) {
            m_console.print("alias %s = %s\n", entry.first.c_str(), entry.second.c_str());
        }
        return;
    }
    zu::InplaceString<256> name(lowerCase(parsed.words[1]).c_str());
    if (parsed.words.size() < 3) {
        const auto found = aliases.find(name);
        m_console.print(found != aliases.end() ? "alias %s = %s\n" : "no alias %s\n", name.c_str(),
                        found != aliases.end() ? found->second.c_str() : "");
        return;
    }
    // Entered first so that the check sees a name that refers to itself; taken back out when
    // the definition loops.
    const auto previous = aliases.find(name);
    const bool hadPrevious = previous != aliases.end();
    const zu::InplaceString<256> previousText = hadPrevious ? previous->second : "";
    const zu::InplaceString<256> text(parsed.afterSecond.c_str());
    aliases[name] = text;
    try {
        m_window.checkAliasValidity(name, text);
    } catch (const dm::ScrollingTextWindowException& error) {
        if (hadPrevious) {
            aliases[name] = previousText;
        } else {
            aliases.erase(name);
        }
        m_console.print("%s\n", error.getError());
        return;
    }
    m_console.print("alias %s = %s\n", name.c_str(), text.c_str());
}

void DemoCommands::unalias(const Parsed& parsed) {
    if (parsed.words.size() < 2) {
        m_console.print("unalias NAME\n");
        return;
    }
    m_window.accessAliasesMap().erase(zu::InplaceString<256>(parsed.words[1].c_str()));
}

void DemoCommands::bind(const Parsed& parsed) {
    if (parsed.words.size() < 2) {
        for (const auto& entry : m_console.getBindingsMap()) {
            m_console.print("bind %c %s\n", entry.first, entry.second.c_str());
        }
        return;
    }
    if (parsed.words[1].size() != 1 || parsed.words.size() < 3) {
        m_console.print("bind KEY COMMAND, with KEY a single character\n");
        return;
    }
    const unsigned char key = static_cast<unsigned char>(parsed.words[1][0]);
    m_console.bind(key, parsed.afterSecond.c_str());
    m_console.print("bind %c %s\n", key, parsed.afterSecond.c_str());
}

void DemoCommands::unbind(const Parsed& parsed) {
    m_console.unbind(parsed.words.size() < 2 ? 0 : static_cast<unsigned char>(parsed.words[1][0]));
}

void DemoCommands::set(const Parsed& parsed) {
    if (parsed.words.size() < 2) {
        for (const auto& entry : m_variables) {
            m_console.print("%s = %s\n", entry.first.c_str(), entry.second.c_str());
        }
        return;
    }
    const std::string name = lowerCase(parsed.words[1]);
    m_variables[name] = parsed.afterSecond;
    m_window.addKnownWord(name.c_str(), false);
    m_console.print("%s = %s\n", name.c_str(), parsed.afterSecond.c_str());
}

void DemoCommands::get(const Parsed& parsed) {
    if (parsed.words.size() < 2) {
        m_console.print("get NAME\n");
        return;
    }
    const auto found = m_variables.find(lowerCase(parsed.words[1]));
    if (found == m_variables.end()) {
        m_console.print("%s is not set\n", parsed.words[1].c_str());
        return;
    }
    m_console.print("%s = %s\n", found->first.c_str(), found->second.c_str());
}

void DemoCommands::sum(const Parsed& parsed) {
    double total = 0.0;
    for (size_t i = 1; i < parsed.words.size(); ++i) {
        total += std::strtod(parsed.words[i].c_str(), nullptr);
    }
    m_console.print("%g\n", total);
}

void DemoCommands::help() {
    m_console.print("commands (Tab completes, Up and Down browse the history, ` closes):\n");
    for (const CommandHelp& command : kCommands) {
        m_console.print("  %s\n", command.usage);
    }
}

}  // namespace dmconsole
