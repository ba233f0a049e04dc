#include "console/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <sstream>

#include "console/HelpFormatter.h"

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
    m_option->check(CLI::PositiveNumber);
    return *this;
}

CommandOption CommandOption::range(double lowest, double highest) {
    m_option->check(CLI::Range(lowest, highest));
    return *this;
}

CommandOption CommandOption::range(int lowest, int highest) {
    m_option->check(CLI::Range(lowest, highest));
    return *this;
}

CommandOption CommandOption::oneOf(const std::vector<std::string>& words) {
    m_option->check(CLI::IsMember(words));
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
                         const std::string& version)
    : m_parser(std::make_unique<CLI::App>(description, program)) {
    m_parser->set_version_flag("--version", program + " " + version);
    m_parser->require_subcommand(1);
    m_parser->formatter(std::make_shared<HelpFormatter>());
}

CommandLine::~CommandLine() = default;

Command CommandLine::command(const std::string& name, const std::string& description) {
    return Command(m_parser->add_subcommand(name, description));
}

bool CommandLine::run(int argc, char** argv, std::ostream& out, std::ostream& error) {
    try {
        m_parser->parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return m_parser->exit(problem, out, error) == 0;
    }
    return true;
}

std::vector<CommandDescription> CommandLine::describe() const {
    std::vector<CommandDescription> all = {descriptionOf(*m_parser)};
    all.front().name.clear();
    for (const CLI::App* command : m_parser->get_subcommands([](const CLI::App*) { return true; }))
        all.push_back(descriptionOf(*command));
    return all;
}

}  // namespace vrk::app
