#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "commands/Commands.h"

namespace vrk::app {
namespace {

/// Subcommands in the order of the help text.
std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

/// The values of an option that takes one of a list: the type reads "TEXT:{P,A,B}" then.
std::vector<std::string> choicesOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const std::size_t open = type.find('{');
    const std::size_t close = type.find('}', open);
    std::vector<std::string> choices;
    if (open == std::string::npos || close == std::string::npos) return choices;
    std::istringstream list(type.substr(open + 1, close - open - 1));
    for (std::string choice; std::getline(list, choice, ',');)
        choices.push_back(choice);
    return choices;
}

std::string joined(const std::vector<std::string>& words, const char* separator = " ") {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : separator) + word;
    return text;
}

std::string allOptions(const CLI::App& app) {
    std::vector<std::string> all;
    for (const CLI::Option* option : app.get_options())
        for (std::string& name : namesOf(*option))
            all.push_back(std::move(name));
    return joined(all);
}

void printBash(std::ostream& out, const CLI::App& app) {
    std::vector<std::string> commands;
    for (const CLI::App* command : commandsOf(app))
        commands.push_back(command->get_name());
    out << "# bash completion of vrk, made by 'vrk completion bash'\n"
           "_vrk() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} words=\n"
           "    if [[ $COMP_CWORD -eq 1 ]]; then\n"
        << "        words='" << joined(commands) << ' ' << allOptions(app)
        << "'\n"
           "    else\n"
           "        case \"${COMP_WORDS[1]} $previous\" in\n";
    for (const CLI::App* command : commandsOf(app)) {
        for (const CLI::Option* option : command->get_options()) {
            const std::vector<std::string> choices = choicesOf(*option);
            if (choices.empty()) continue;
            if (!option->nonpositional()) {
                out << "            '" << command->get_name() << ' ' << command->get_name() << "') words='"
                    << joined(choices) << "' ;;\n";
                continue;
            }
            for (const std::string& name : namesOf(*option))
                out << "            '" << command->get_name() << ' ' << name << "') words='"
                    << joined(choices) << "' ;;\n";
        }
    }
    out << "        esac\n"
           "        [[ $current == -* ]] && case ${COMP_WORDS[1]} in\n";
    for (const CLI::App* command : commandsOf(app))
        out << "            " << command->get_name() << ") words='" << allOptions(*command) << "' ;;\n";
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

std::string zshOption(const CLI::Option& option) {
    const std::vector<std::string> choices = choicesOf(option);
    const std::string values =
        choices.empty() ? std::string(":value:_files") : ":value:(" + joined(choices) + ")";
    if (!option.nonpositional()) return " '*" + values + "'";
    std::string text;
    for (const std::string& name : namesOf(option))
        text += " '" + name + "[" + zshText(option.get_description()) + "]" +
                (takesValue(option) ? values : "") + "'";
    return text;
}

void printZsh(std::ostream& out, const CLI::App& app) {
    out << "#compdef vrk\n"
           "# zsh completion of vrk, made by 'vrk completion zsh'\n"
           "_vrk() {\n"
           "    local -a commands=(\n";
    for (const CLI::App* command : commandsOf(app))
        out << "        '" << command->get_name() << ':' << zshText(command->get_description()) << "'\n";
    out << "    )\n"
           "    if (( CURRENT == 2 )); then\n"
           "        _describe command commands\n"
           "        return\n"
           "    fi\n"
           "    shift words\n"
           "    (( CURRENT-- ))\n"
           "    case $words[1] in\n";
    for (const CLI::App* command : commandsOf(app)) {
        out << "        " << command->get_name() << ") _arguments";
        for (const CLI::Option* option : command->get_options())
            out << " \\\n            " << zshOption(*option);
        out << " ;;\n";
    }
    out << "    esac\n"
           "}\n"
           "if [[ $funcstack[1] == _vrk ]]; then _vrk \"$@\"; else compdef _vrk vrk; fi\n";
}

}  // namespace

void addCompletionCommand(CLI::App& app, Host& host) {
    auto shell = std::make_shared<std::string>();
    CLI::App* command =
        app.add_subcommand("completion", "Print a script that completes commands and options in a shell");
    command->add_option("shell", *shell, "Shell that the script is for")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
    command->footer(
        "Examples:\n"
        "  vrk completion bash > ~/.local/share/bash-completion/completions/vrk\n"
        "  vrk completion zsh > DIRECTORY_IN_FPATH/_vrk\n"
        "A new shell knows the completion.");
    command->callback([shell, &app, &host] {
        if (*shell == "bash")
            printBash(host.out(), app);
        else
            printZsh(host.out(), app);
    });
}

}  // namespace vrk::app
