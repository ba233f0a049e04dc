#include "console/HelpFormatter.h"

#include <sstream>

namespace vrk::app {
namespace {

constexpr std::size_t kTextColumn = 30;
constexpr std::size_t kWidth = 100;

std::string inTwoColumns(std::string head, const std::string& text) {
    std::string result;
    if (head.size() + 2 > kTextColumn) {
        result = head + '\n';
        head.clear();
    }
    std::string line = head + std::string(kTextColumn - head.size(), ' ');
    std::size_t used = 0;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (used > 0 && line.size() + 1 + word.size() > kWidth) {
            result += line + '\n';
            line = std::string(kTextColumn, ' ');
            used = 0;
        }
        if (used++ > 0) line += ' ';
        line += word;
    }
    return result + line + '\n';
}

/// "NUMBER", "{2d,3d}". What checks add to the name of a type, such as ranges, they say when they refuse.
std::string valueOf(const CLI::Option& option) {
    if (option.get_items_expected_max() == 0) return {};
    std::string type = option.get_type_name();
    const std::size_t choices = type.find('{');
    const std::size_t end = type.find('}', choices);
    if (choices != std::string::npos && end != std::string::npos)
        type = type.substr(choices, end - choices + 1);
    else if (const std::size_t colon = type.find(':'); colon != std::string::npos && type.find('|') > colon)
        type.resize(colon);
    return type.empty() ? type : ' ' + type;
}

}  // namespace

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const {
    std::string name = option->get_name(isPositional, true);
    // A flag that switches something off.
    if (const std::size_t off = name.find("{false}"); off != std::string::npos) name.erase(off);
    std::string text = option->get_description();
    if (!option->get_default_str().empty()) text += " [" + option->get_default_str() + "]";
    if (option->get_required() && !isPositional) text += " (required)";
    return inTwoColumns("  " + name + valueOf(*option), text);
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const {
    return inTwoColumns("  " + command->get_name(), command->get_description());
}

}  // namespace vrk::app
