/// \file
/// The page itself: a program for a browser with the data that it shows.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vrk {

/// A part of the data of a result, by its name. The text is JSON.
struct ReportBlock {
    std::string name;
    std::string json;
};

/// One result: a list of blocks.
using ReportBlocks = std::vector<ReportBlock>;

/// The page that shows results, several beside each other. Whatever the data hold stays data: no text of them
/// can end the element that it stands in.
std::string reportPage(std::span<const ReportBlocks> results);

/// The block of the first result of a page; nothing when it has none of this name.
std::optional<std::string> blockOf(std::string_view page, std::string_view name);

/// The program without data, in the two parts between which the data stand (report/dist/report.html).
struct ReportTemplate {
    std::span<const std::string_view> before;
    std::span<const std::string_view> after;
};
ReportTemplate reportTemplate();

}  // namespace vrk
