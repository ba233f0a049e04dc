#include "console/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>

#include "console/HelpFormatter.h"
#include "console/Suggestion.h"
#include "pipeline/base/NumberList.h"

namespace vrk::app {
namespace {

/// The words of an option that takes one of a list: its type reads "TEXT:{P,A,B}" then.
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

OptionDescription descriptionOf(const CLI::Option& option) {
    OptionDescription description;
    for (const std::string& name : option.get_snames())
        description.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        description.names.push_back("--" + name);
    description.text = option.get_description();
    description.choices = choicesOf(option);
    description.takesValue = option.get_items_expected_max() > 0;
    return description;
}

CommandDescription descriptionOf(const CLI::App& command) {
    CommandDescription description{command.get_name(), command.get_description(), {}};
    for (const CLI::Option* option : command.get_options())
        description.options.push_back(descriptionOf(*option));
    return description;
}

/// A check that a value lies between two numbers, both of which it may be.
template <typename Number>
CLI::Validator between(Number lowest, Number highest) {
    const auto complaint = [=](const std::string& text) {
        double value = 0.0;
        const bool fits = parseNumber(text, value) && value >= static_cast<double>(lowest) &&
                          value <= static_cast<double>(highest);
        if (fits) return std::string();
        std::ostringstream message;
        message << text << " is not a number from " << lowest << " to " << highest;
        return message.str();
    };
    return CLI::Validator(complaint, "");
}

/// Null where there is none.
const CLI::App* commandNamed(const std::string& name, const CLI::App& program) {
    for (const CLI::App* command : commandsOf(program))
        if (command->get_name() == name) return command;
    return nullptr;
}

std::vector<std::string> namesOf(const std::vector<const CLI::App*>& commands) {
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const CLI::App* command : commands)
        names.push_back(command->get_name());
    return names;
}

std::vector<std::string> optionsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : descriptionOf(*option).names)
            names.push_back(name);
    return names;
}

bool looksLikeOption(const std::string& word) {
    double number = 0.0;
    return word.size() > 1 && word[0] == '-' && word != "--" && !parseNumber(word, number);
}

/// "SERIES.mrc", "-o FOLDER"
std::string asTyped(const CLI::Option& option) {
    const std::string value = valueNameOf(option);
    if (option.get_positional()) return value.empty() || value[0] == '{' ? option.get_name(true) : value;
    return (option.get_snames().empty() ? "--" + option.get_lnames().front()
                                        : "-" + option.get_snames().front()) +
           ' ' + value;
}

std::string unknownCommand(const std::string& word, const CLI::App& program) {
    return "there is no command '" + word + "'" + didYouMean(word, namesOf(commandsOf(program)));
}

/// What is wrong with the first word that nobody takes; empty when all are taken.
std::string unexpectedWord(const CLI::App& program, const CLI::App& command) {
    const bool isProgram = &program == &command;
    for (const std::string& word : program.remaining())
        if (looksLikeOption(word))
            return "there is no option " + word + " before a command; those of a command follow it";
    if (isProgram) return {};
    const std::vector<std::string> words = command.remaining();
    for (const std::string& word : words) {
        if (!looksLikeOption(word)) continue;
        const std::string name = word.substr(0, word.find('='));
        return command.get_name() + " has no option " + name + didYouMean(name, optionsOf(command));
    }
    for (const std::string& word : words)
        if (word != "--") return "'" + word + "' is one argument more than " + command.get_name() + " takes";
    return {};
}

/// The arguments that must be there and are not, as they would be typed; empty when none lacks.
std::string missingArguments(const CLI::App& command) {
    std::vector<std::string> missing;
    for (const CLI::Option* option : command.get_options())
        if (option->get_required() && option->count() == 0) missing.push_back(asTyped(*option));
    std::string text;
    for (std::size_t i = 0; i < missing.size(); ++i)
        text += (i == 0 ? "" : i + 1 == missing.size() ? " and " : ", ") + missing[i];
    return text.empty() ? text : command.get_name() + " needs " + text;
}

/// One sentence for what the parser met, which blames one word.
std::string complaintOf(const CLI::ParseError& problem, const CLI::App& program, const CLI::App& command) {
    if (std::string text = unexpectedWord(program, command); !text.empty()) return text;
    std::string text = problem.what();
    const std::string name = text.substr(0, text.find(':'));
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&problem))
        for (const CLI::Option* option : command.get_options())
            if (option->get_name() == name) return name + " needs a value: " + valueNameOf(*option);
    if (dynamic_cast<const CLI::RequiredError*>(&problem))
        if (std::string missing = missingArguments(command); !missing.empty()) return missing;
    if (dynamic_cast<const CLI::ConversionError*>(&problem))
        if (const std::size_t equals = text.find(" = "); equals != std::string::npos)
            return text.substr(text.find(": ") + 2, equals - text.find(": ") - 2) + ": '" +
                   text.substr(equals + 3) + "' is not a number that it takes";
    return text;
}

/// A word as a shell takes it.
std::string quoted(const std::string& word) {
    const bool isPlain = !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
        return std::isalnum(c) || std::strchr("-_./,:=+@%", c);
    });
    if (isPlain) return word;
    std::string text = "'";
    for (const char c : word)
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return text + "'";
}

}  // namespace

CommandOption CommandOption::required() {
    m_option->required();
    return *this;
}

CommandOption CommandOption::typeName(const std::string& name) {
    m_option->type_name(name);
    return *this;
}

CommandOption CommandOption::group(const std::string& heading) {
    m_option->group(heading);
    return *this;
}

CommandOption CommandOption::showDefault() {
    m_option->capture_default_str();
    return *this;
}

CommandOption CommandOption::values(int count) {
    m_option->expected(count);
    return *this;
}

CommandOption CommandOption::positive() {
    return check([](const std::string& text) {
        double value = 0.0;
        return parseNumber(text, value) && value > 0.0 ? std::string() : text + " is not a number above 0";
    });
}

CommandOption CommandOption::range(double lowest, double highest) {
    m_option->check(between(lowest, highest));
    return *this;
}

CommandOption CommandOption::range(int lowest, int highest) {
    m_option->check(between(lowest, highest));
    return *this;
}

CommandOption CommandOption::oneOf(const std::vector<std::string>& words) {
    const auto complaint = [words](const std::string& text) {
        if (std::find(words.begin(), words.end(), text) != words.end()) return std::string();
        return "'" + text + "' is none of " + CLI::detail::join(words, ", ") + didYouMean(text, words);
    };
    m_option->check(CLI::Validator(complaint, "{" + CLI::detail::join(words) + "}"));
    return *this;
}

CommandOption CommandOption::check(const std::function<std::string(const std::string&)>& complaint) {
    m_option->check(complaint, "");
    return *this;
}

CommandOption CommandOption::excludes(CommandOption other) {
    m_option->excludes(other.m_option);
    return *this;
}

template <typename Value>
CommandOption Command::option(const std::string& names, Value& target, const std::string& description) {
    return CommandOption(m_command->add_option(names, target, description));
}

template CommandOption Command::option(const std::string&, std::string&, const std::string&);
template CommandOption Command::option(const std::string&, std::filesystem::path&, const std::string&);
template CommandOption Command::option(const std::string&, int&, const std::string&);
template CommandOption Command::option(const std::string&, unsigned&, const std::string&);
template CommandOption Command::option(const std::string&, std::uint64_t&, const std::string&);
template CommandOption Command::option(const std::string&, double&, const std::string&);
template CommandOption Command::option(const std::string&, std::optional<int>&, const std::string&);
template CommandOption Command::option(const std::string&, std::optional<double>&, const std::string&);
template CommandOption Command::option(const std::string&, std::vector<std::string>&, const std::string&);
template CommandOption Command::option(const std::string&, std::vector<double>&, const std::string&);

CommandOption Command::parsedOption(const std::string& names,
                                    const std::function<void(const std::string&)>& take,
                                    const std::string& description) {
    return CommandOption(m_command->add_option_function<std::string>(names, take, description));
}

CommandOption Command::flag(const std::string& names, bool& target, const std::string& description) {
    return CommandOption(m_command->add_flag(names, target, description));
}

void Command::footer(const std::string& text) {
    m_command->footer(text);
}

void Command::action(const std::function<void()>& work) {
    m_command->callback(work);
}

std::string Command::givenOptions() const {
    std::string text;
    for (const CLI::Option* option : m_command->get_options()) {
        if (option->count() == 0 || option->get_name().empty() || option->get_name()[0] != '-') continue;
        text += option->get_name() + ' ';
        for (const std::string& value : option->results())
            text += value + ' ';
    }
    return text;
}

CommandLine::CommandLine(const std::string& program, const std::string& description,
                         const std::string& version, int columns)
    : m_parser(std::make_unique<CLI::App>(description, program)), m_name(program + " " + version) {
    m_parser->set_version_flag("-v,-V,--version", m_name, "Print the version");
    m_parser->set_help_flag("-h,--help", "Print this text");
    m_parser->require_subcommand(1);
    m_parser->formatter(std::make_shared<HelpFormatter>(columns));
    m_parser->footer("'" + program + " help COMMAND' explains a command.");
}

CommandLine::~CommandLine() = default;

Command CommandLine::command(const std::string& name, const std::string& description) {
    return Command(m_parser->add_subcommand(name, description));
}

bool CommandLine::help(std::vector<std::string> words, std::ostream& out, std::ostream& error) const {
    const auto manual = std::find(words.begin(), words.end(), "--man");
    const bool isManual = manual != words.end();
    if (isManual) words.erase(manual);
    const CLI::App* subject = m_parser.get();
    if (!words.empty()) {
        subject = commandNamed(words.front(), *m_parser);
        if (!subject) {
            error << m_parser->get_name() << ": " << unknownCommand(words.front(), *m_parser) << '\n';
            return false;
        }
    }
    out << (isManual ? manualPage(*subject, m_name) : subject->help());
    return true;
}

bool CommandLine::run(int argc, char** argv, std::ostream& out, std::ostream& error) {
    const std::string& program = m_parser->get_name();
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    m_text = program;
    for (const std::string& word : words)
        m_text += ' ' + quoted(word);
    if (words.empty()) {
        error << m_parser->help();
        return false;
    }
    if (words[0] == "help") return help({words.begin() + 1, words.end()}, out, error);
    if (!words[0].starts_with('-') && !commandNamed(words[0], *m_parser)) {
        error << program << ": " << unknownCommand(words[0], *m_parser) << "\n'" << program
              << " help' lists all commands.\n";
        return false;
    }
    // What a script's variable leaves that was never set.
    if (std::find(words.begin(), words.end(), "") != words.end()) {
        error << program << ": one of the arguments is empty ('')\n";
        return false;
    }
    try {
        m_parser->parse(argc, argv);
    } catch (const CLI::Success& answer) {
        return m_parser->exit(answer, out, error) == 0;
    } catch (const CLI::ParseError& problem) {
        const std::vector<CLI::App*> chosen = m_parser->get_subcommands();
        const CLI::App& command = chosen.empty() ? *m_parser : *chosen.front();
        error << program << ": " << complaintOf(problem, *m_parser, command) << "\n'" << program << " help"
              << (chosen.empty() ? "" : ' ' + command.get_name()) << "' shows what there is.\n";
        return false;
    }
    return true;
}

std::vector<CommandDescription> CommandLine::describe() const {
    std::vector<CommandDescription> all = {descriptionOf(*m_parser)};
    all.front().name.clear();
    for (const CLI::App* command : commandsOf(*m_parser))
        all.push_back(descriptionOf(*command));
    return all;
}

}  // namespace vrk::app
