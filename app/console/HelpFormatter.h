/// \file
/// The layout of all help texts.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace vrk::app {

/// One column of names, one of descriptions, which stand below the names where the window is narrow; behind a
/// name what the option takes, behind a description the default in brackets. No line is longer than the
/// window of the standard output, 100 columns where there is none.
class HelpFormatter : public CLI::Formatter {
public:
    /// \param columns  of the window; 0: not known
    explicit HelpFormatter(int columns);

    std::string make_help(const CLI::App* command, std::string name, CLI::AppFormatMode mode) const override;

private:
    std::size_t m_width;
};

/// The subcommands, in the order in which they were added.
std::vector<const CLI::App*> commandsOf(const CLI::App& program);

/// What an option takes: "NUMBER", "{2d,3d}"; empty for a flag.
std::string valueNameOf(const CLI::Option& option);

/// The manual page of a command, or of the program, in the language of man(1).
/// \param program  version and name, for the page's foot
std::string manualPage(const CLI::App& command, const std::string& program);

}  // namespace vrk::app
