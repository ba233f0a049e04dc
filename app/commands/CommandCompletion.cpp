#include <memory>
#include <string>
#include <vector>

#include "commands/Commands.h"

namespace vrk::app {
namespace {

std::string joined(const std::vector<std::string>& words, const char* separator = " ") {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : separator) + word;
    return text;
}

std::string allOptions(const CommandDescription& command) {
    std::vector<std::string> all;
    for (const OptionDescription& option : command.options)
        all.insert(all.end(), option.names.begin(), option.names.end());
    return joined(all);
}

void printBash(std::ostream& out, const CommandDescription& program,
               const std::vector<CommandDescription>& commands) {
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const CommandDescription& command : commands)
        names.push_back(command.name);
    out << "# bash completion of vrk, made by 'vrk completion bash'\n"
           "_vrk() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} words=\n"
           "    if [[ $COMP_CWORD -eq 1 ]]; then\n"
        << "        words='" << joined(names) << ' ' << allOptions(program)
        << "'\n"
           "    else\n"
           "        case \"${COMP_WORDS[1]} $previous\" in\n";
    for (const CommandDescription& command : commands) {
        for (const OptionDescription& option : command.options) {
            if (option.choices.empty()) continue;
            // A positional argument follows the command itself.
            const std::vector<std::string> before =
                option.names.empty() ? std::vector<std::string>{command.name} : option.names;
            for (const std::string& word : before)
                out << "            '" << command.name << ' ' << word << "') words='"
                    << joined(option.choices) << "' ;;\n";
        }
    }
    out << "        esac\n"
           "        [[ $current == -* ]] && case ${COMP_WORDS[1]} in\n";
    for (const CommandDescription& command : commands)
        out << "            " << command.name << ") words='" << allOptions(command) << "' ;;\n";
    out << "        esac\n"
           "    fi\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
           "}\n"
           "complete -o default -F _vrk vrk\n";
}

/// For a description within single quotes and brackets.
std::string zshText(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\'')
            result += "'\\''";
        else if (c == '[' || c == ']' || c == ':' || c == '\\')
            result += std::string("\\") + c;
        else
            result += c;
    }
    return result;
}

std::string zshOption(const OptionDescription& option) {
    const std::string values =
        option.choices.empty() ? std::string(":value:_files") : ":value:(" + joined(option.choices) + ")";
    if (option.names.empty()) return " '*" + values + "'";
    std::string text;
    for (const std::string& name : option.names)
        text += " '" + name + "[" + zshText(option.text) + "]" + (option.takesValue ? values : "") + "'";
    return text;
}

void printZsh(std::ostream& out, const std::vector<CommandDescription>& commands) {
    out << "#compdef vrk\n"
           "# zsh completion of vrk, made by 'vrk completion zsh'\n"
           "_vrk() {\n"
           "    local -a commands=(\n";
    for (const CommandDescription& command : commands)
        out << "        '" << command.name << ':' << zshText(command.text) << "'\n";
    out << "    )\n"
           "    if (( CURRENT == 2 )); then\n"
           "        _describe command commands\n"
           "        return\n"
           "    fi\n"
           "    shift words\n"
           "    (( CURRENT-- ))\n"
           "    case $words[1] in\n";
    for (const CommandDescription& command : commands) {
        out << "        " << command.name << ") _arguments";
        for (const OptionDescription& option : command.options)
            out << " \\\n            " << zshOption(option);
        out << " ;;\n";
    }
    out << "    esac\n"
           "}\n"
           "if [[ $funcstack[1] == _vrk ]]; then _vrk \"$@\"; else compdef _vrk vrk; fi\n";
}

}  // namespace

void addCompletionCommand(CommandLine& line, Host& host) {
    auto shell = std::make_shared<std::string>();
    Command command =
        line.command("completion", "Print a script that completes commands and options in a shell");
    command.option("shell", *shell, "Shell that the script is for").required().oneOf({"bash", "zsh"});
    command.footer(
        "Examples:\n"
        "  vrk completion bash > ~/.local/share/bash-completion/completions/vrk\n"
        "  vrk completion zsh > DIRECTORY_IN_FPATH/_vrk\n"
        "A new shell knows the completion.");
    command.action([shell, &line, &host] {
        std::vector<CommandDescription> commands = line.describe();
        const CommandDescription program = commands.front();
        commands.erase(commands.begin());
        if (*shell == "bash")
            printBash(host.out(), program, commands);
        else
            printZsh(host.out(), commands);
    });
}

}  // namespace vrk::app
