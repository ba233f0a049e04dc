#include "console/HelpFormatter.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <vector>

namespace vrk::app {
namespace {

constexpr std::size_t kTextColumn = 30;
constexpr std::size_t kWidest = 100;
constexpr std::size_t kNarrowest = 20;
/// Below this the texts stand under the names.
constexpr std::size_t kTwoColumns = 66;

/// The words of a text in lines of at most so many columns.
std::vector<std::string> wrapped(const std::string& text, std::size_t width) {
    std::vector<std::string> lines(1);
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        std::string& line = lines.back();
        if (!line.empty() && line.size() + 1 + word.size() > width)
            lines.push_back(word);
        else
            line += (line.empty() ? "" : " ") + word;
    }
    return lines;
}

std::string indented(const std::vector<std::string>& lines, std::size_t indent) {
    std::string text;
    for (const std::string& line : lines)
        text += std::string(line.empty() ? 0 : indent, ' ') + line + '\n';
    return text;
}

std::string entry(const std::string& head, const std::string& text, std::size_t width) {
    if (width < kTwoColumns) {
        constexpr std::size_t indent = 6;
        std::vector<std::string> names = wrapped(head, width - 4);
        return indented({"  " + names.front()}, 0) + indented({names.begin() + 1, names.end()}, 4) +
               indented(wrapped(text, width - indent), indent);
    }
    const std::string body = indented(wrapped(text, width - kTextColumn), kTextColumn);
    if (head.size() + 4 > kTextColumn) return "  " + head + '\n' + body;
    return "  " + head + body.substr(std::min(body.size() - 1, head.size() + 2));
}

/// An example with its remark: beside each other where both fit, and with the line continued where the
/// command alone does not.
std::string example(const std::string& line, std::size_t width) {
    if (line.size() <= width) return line + '\n';
    const std::size_t end = line.find("   ", line.find_first_not_of(' '));
    const std::string remark = end == std::string::npos ? "" : line.substr(end);
    std::vector<std::string> parts = wrapped(line.substr(0, end), width - 6);
    for (std::size_t i = 0; i + 1 < parts.size(); ++i)
        parts[i] += " \\";
    std::string text = "  " + parts.front() + '\n' + indented({parts.begin() + 1, parts.end()}, 4);
    return remark.empty() ? text : text + indented(wrapped("# " + remark, width - 6), 6);
}

/// Paragraphs are wrapped, lines that begin with a blank are examples.
std::string footerText(const std::string& footer, std::size_t width) {
    std::string text, paragraph;
    const auto flush = [&] {
        if (!paragraph.empty()) text += indented(wrapped(paragraph, width), 0);
        paragraph.clear();
    };
    std::istringstream lines(footer);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != ' ') {
            paragraph += line + ' ';
            continue;
        }
        flush();
        text += line.empty() ? "\n" : example(line, width);
    }
    flush();
    return text;
}

std::string headOf(const CLI::Option& option, bool isPositional) {
    std::string name = option.get_name(isPositional, true);
    // A flag that switches something off.
    for (std::size_t off = name.find("{false}"); off != std::string::npos; off = name.find("{false}"))
        name.erase(off, 7);
    const std::string value = valueNameOf(option);
    return value.empty() ? name : name + ' ' + value;
}

std::string textOf(const CLI::Option& option, bool isPositional) {
    std::string text = option.get_description();
    if (!option.get_default_str().empty()) text += " [" + option.get_default_str() + "]";
    if (option.get_required() && !isPositional) text += " (required)";
    return text;
}

/// "vrk run SERIES.mrc -o FOLDER [OPTIONS]"
std::string usageOf(const CLI::App& command) {
    if (!command.get_parent()) return command.get_name() + " COMMAND [OPTIONS]";
    std::string usage = command.get_parent()->get_name() + ' ' + command.get_name();
    for (const CLI::Option* option : command.get_options()) {
        if (!option->get_required()) continue;
        const std::string value = valueNameOf(*option);
        std::string name = option->get_positional() ? option->get_name(true) : "";
        if (option->get_positional())
            usage += ' ' + (value.empty() || value[0] == '{' ? name : value);
        else
            usage += ' ' +
                     (option->get_snames().empty() ? "--" + option->get_lnames().front()
                                                   : "-" + option->get_snames().front()) +
                     (value.empty() ? "" : ' ' + value);
        if (option->get_expected_max() >= CLI::detail::expected_max_vector_size) usage += "...";
    }
    return usage + " [OPTIONS]";
}

/// An option with the heading under which it stands.
struct Section {
    std::string heading;
    std::vector<const CLI::Option*> options;
    bool positional = false;
};

std::vector<Section> sectionsOf(const CLI::App& command) {
    std::vector<Section> sections;
    const auto add = [&](const std::string& heading, bool positional) {
        Section section{heading, {}, positional};
        for (const CLI::Option* option : command.get_options())
            if (positional ? option->get_positional() && !option->get_group().empty()
                           : option->nonpositional() && option->get_group() == heading)
                section.options.push_back(option);
        if (!section.options.empty()) sections.push_back(std::move(section));
    };
    add("Arguments", true);
    for (const std::string& group : command.get_groups())
        if (!group.empty()) add(group, false);
    return sections;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

/// Text for man(1): backslashes and dashes as themselves, no line that looks like a request.
std::string roff(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else if ((c == '.' || c == '\'') && (result.empty() || result.back() == '\n'))
            result += std::string("\\&") + c;
        else
            result += c;
    }
    return result;
}

}  // namespace

std::vector<const CLI::App*> commandsOf(const CLI::App& program) {
    return program.get_subcommands([](const CLI::App*) { return true; });
}

std::string valueNameOf(const CLI::Option& option) {
    if (option.get_items_expected_max() == 0) return {};
    // What checks add to the name of a type, such as ranges, they say when they refuse.
    std::string type = option.get_type_name();
    const std::size_t choices = type.find('{');
    const std::size_t end = type.find('}', choices);
    if (choices != std::string::npos && end != std::string::npos)
        type = type.substr(choices, end - choices + 1);
    else if (const std::size_t colon = type.find(':'); colon != std::string::npos && type.find('|') > colon)
        type.resize(colon);
    return type;
}

HelpFormatter::HelpFormatter(int columns)
    : m_width(columns > 0 ? std::clamp(static_cast<std::size_t>(columns), kNarrowest, kWidest) : kWidest) {}

std::string HelpFormatter::make_help(const CLI::App* command, std::string, CLI::AppFormatMode) const {
    std::string text = indented(wrapped(command->get_description(), m_width), 0);
    text += indented(wrapped("Usage: " + usageOf(*command), m_width), 0);
    if (!command->get_parent()) {
        text += "\nCommands:\n";
        for (const CLI::App* one : commandsOf(*command))
            text += entry(one->get_name(), one->get_description(), m_width);
    }
    for (const Section& section : sectionsOf(*command)) {
        text += '\n' + section.heading + ":\n";
        for (const CLI::Option* option : section.options)
            text += entry(headOf(*option, section.positional), textOf(*option, section.positional), m_width);
    }
    if (!command->get_footer().empty()) text += '\n' + footerText(command->get_footer(), m_width);
    return text;
}

std::string manualPage(const CLI::App& command, const std::string& program) {
    const CLI::App* parent = command.get_parent();
    const std::string name = parent ? parent->get_name() + '-' + command.get_name() : command.get_name();
    std::ostringstream page;
    page << ".TH " << upper(roff(name)) << " 1 \"\" \"" << program << "\"\n.SH NAME\n"
         << roff(name) << " \\- " << roff(command.get_description()) << "\n.SH SYNOPSIS\n.B "
         << roff(usageOf(command)) << '\n';
    if (!parent) {
        page << ".SH COMMANDS\n";
        for (const CLI::App* one : commandsOf(command))
            page << ".TP\n.BR " << roff(name + '-' + one->get_name()) << " (1)\n"
                 << roff(one->get_description()) << '\n';
    }
    for (const Section& section : sectionsOf(command)) {
        page << ".SH " << upper(section.heading) << '\n';
        for (const CLI::Option* option : section.options)
            page << ".TP\n.B " << roff(headOf(*option, section.positional)) << '\n'
                 << roff(textOf(*option, section.positional)) << '\n';
    }
    if (!command.get_footer().empty()) page << ".SH NOTES\n.nf\n" << roff(command.get_footer()) << "\n.fi\n";
    page << ".SH EXIT STATUS\n0 done, 1 failed, 2 wrong usage, 3 nothing usable found, 130 stopped by "
            "Ctrl\\-C, 143 by SIGTERM.\n";
    if (parent) page << ".SH SEE ALSO\n.BR " << roff(parent->get_name()) << " (1)\n";
    return page.str();
}

}  // namespace vrk::app
