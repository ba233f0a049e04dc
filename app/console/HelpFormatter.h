/// \file
/// The layout of all help texts.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace vrk::app {

/// One column of names, one of descriptions that are wrapped to the width of a terminal. Behind a name stands
/// what the option takes, behind a description the default in brackets.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_subcommand(const CLI::App* command) const override;
};

}  // namespace vrk::app
