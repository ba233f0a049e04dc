#include "pipeline/report/ReportPage.h"

namespace vrk {
namespace {

constexpr std::string_view kElement = "<script type=\"application/json\" data-result=\"";
constexpr std::string_view kName = "\" data-block=\"";
constexpr std::string_view kEnd = "</script>";

/// Adds JSON without tags: in it their first sign stands in strings alone, where it may be written otherwise.
void appendWithoutTags(std::string& text, std::string_view json) {
    for (std::size_t end = json.find('<'); end != std::string_view::npos; end = json.find('<')) {
        text.append(json.substr(0, end)).append("\\u003c");
        json.remove_prefix(end + 1);
    }
    text.append(json);
}

}  // namespace

std::string reportPage(std::span<const ReportBlocks> results) {
    const ReportTemplate page = reportTemplate();
    std::string text;
    for (const std::string_view part : page.before)
        text += part;
    for (std::size_t i = 0; i < results.size(); ++i)
        for (const ReportBlock& block : results[i]) {
            text.append(kElement).append(std::to_string(i)).append(kName).append(block.name).append("\">");
            appendWithoutTags(text, block.json);
            text.append(kEnd).append("\n");
        }
    for (const std::string_view part : page.after)
        text += part;
    return text;
}

std::optional<std::string> blockOf(std::string_view page, std::string_view name) {
    const std::string start = std::string(kElement).append("0").append(kName).append(name).append("\">");
    const std::size_t at = page.find(start);
    if (at == std::string_view::npos) return std::nullopt;
    const std::size_t end = page.find(kEnd, at);
    if (end == std::string_view::npos) return std::nullopt;
    return std::string(page.substr(at + start.size(), end - at - start.size()));
}

}  // namespace vrk
