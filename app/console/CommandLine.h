/// \file
/// The command line of vrk as its commands see it. They describe themselves through these classes, so that
/// one source meets the parser, whose headers take longer to compile than any command.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vrk::app {

/// An option, flag or positional argument. A handle that is copied freely; the command line owns the option.
/// Every function returns the handle, so that properties are chained.
class CommandOption {
public:
    explicit CommandOption(CLI::Option* option) : m_option(option) {}

    CommandOption required();
    /// What the help shows for the value.
    CommandOption typeName(const std::string& name);
    /// The heading of the help under which the option stands.
    CommandOption group(const std::string& heading);
    /// Shows the present value of the target as the default.
    CommandOption showDefault();
    /// Takes exactly so many values.
    CommandOption values(int count);

    CommandOption positive();
    CommandOption range(double lowest, double highest);
    CommandOption range(int lowest, int highest);
    /// One of these words, which the help and the completion of the shell show.
    CommandOption oneOf(const std::vector<std::string>& words);
    /// Refuses a value when the function finds fault with it, that is, returns a text.
    CommandOption check(const std::function<std::string(const std::string&)>& complaint);
    CommandOption excludes(CommandOption other);

private:
    CLI::Option* m_option;
};

/// A subcommand: its options, its text and what it does. A handle like CommandOption.
class Command {
public:
    explicit Command(CLI::App* command) : m_command(command) {}

    /// \param names   "-o,--output", or a name without dashes for a positional argument
    /// \param target  set when the option is given: text, a path, a number, an optional number or a list of
    ///                text or numbers; must live until the command line has been read
    template <typename Value>
    CommandOption option(const std::string& names, Value& target, const std::string& description);
    /// An option whose text a function takes; it throws Failure when the text is no good.
    CommandOption parsedOption(const std::string& names, const std::function<void(const std::string&)>& take,
                               const std::string& description);
    /// Sets the target to true, or to false where "!" stands before the names.
    CommandOption flag(const std::string& names, bool& target, const std::string& description);

    /// What stands below the options in the help.
    void footer(const std::string& text);
    /// What the command does once the whole command line has been read.
    void action(const std::function<void()>& work);

    /// The options that the user gave, as they would stand on a command line.
    std::string givenOptions() const;

private:
    CLI::App* m_command;
};

/// An option as it is described to others.
struct OptionDescription {
    std::vector<std::string> names;  ///< with dashes; none for a positional argument
    std::string text;
    std::vector<std::string> choices;  ///< where only some words are allowed
    bool takesValue = false;
};

/// A command as it is described to others.
struct CommandDescription {
    std::string name;
    std::string text;
    std::vector<OptionDescription> options;
};

/// The program's command line.
class CommandLine {
public:
    /// \param columns  of the window in which help is read; 0: not known
    CommandLine(const std::string& program, const std::string& description, const std::string& version,
                int columns);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    Command command(const std::string& name, const std::string& description);

    /// Reads the arguments and runs the command that they name. What the command throws passes through.
    /// "help [COMMAND]" explains, with "--man" in the language of man(1).
    /// \returns false when the arguments are wrong; the error stream says why and what may have been meant
    bool run(int argc, char** argv, std::ostream& out, std::ostream& error);

    /// The whole command line of run(), as a shell would take it again.
    const std::string& text() const { return m_text; }

    /// The options of the program itself, without a name, and the commands in the order of the help text.
    std::vector<CommandDescription> describe() const;

private:
    bool help(std::vector<std::string> words, std::ostream& out, std::ostream& error) const;

    std::unique_ptr<CLI::App> m_parser;
    std::string m_name;  ///< with the version
    std::string m_text;
};

}  // namespace vrk::app
