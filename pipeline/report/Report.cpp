#include "pipeline/report/Report.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "pipeline/base/ChecksumList.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/FolderLock.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/formats/ReflectionTable.h"
#include "pipeline/report/PackedArray.h"
#include "pipeline/report/PatternViews.h"
#include "pipeline/report/SectionViews.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

constexpr const char* kViews[] = {"sections", "curves", "patterns"};

/// The text of a file that the page takes as it is.
std::string jsonOf(const fs::path& path) {
    std::string text = textOfFile(path);
    if (parsedJson<nlohmann::ordered_json>(text).is_discarded())
        throw Failure(path.string() + " is damaged: it is no JSON; 'vrk run' writes it anew");
    return text;
}

template <typename Value>
class Column {
public:
    explicit Column(std::size_t count) { m_values.reserve(count); }
    void add(double value) { m_values.push_back(static_cast<Value>(value)); }
    std::string text() const { return packedColumn(m_values); }

private:
    std::vector<Value> m_values;
};

std::string reflectionColumns(std::span<const ListedReflection> list) {
    std::string text = "{\"count\":" + std::to_string(list.size());
    const auto add = [&]<typename Value>(const char* name, Value, auto value) {
        Column<Value> column(list.size());
        for (const ListedReflection& one : list)
            column.add(static_cast<double>(value(one)));
        text += std::string(",\"") + name + "\":" + column.text();
    };
    using Short = std::int16_t;
    add("h", Short(), [](const auto& one) { return one.hkl[0]; });
    add("k", Short(), [](const auto& one) { return one.hkl[1]; });
    add("l", Short(), [](const auto& one) { return one.hkl[2]; });
    add("crystal", std::uint8_t(), [](const auto& one) { return one.crystal; });
    add("x", float(), [](const auto& one) { return one.place.x(); });
    add("y", float(), [](const auto& one) { return one.place.y(); });
    add("z", float(), [](const auto& one) { return one.place.z(); });
    add("d", float(), [](const auto& one) { return one.spacing; });
    add("tilt", float(), [](const auto& one) { return one.tilt; });
    add("frame", std::uint16_t(), [](const auto& one) { return one.frame; });
    add("column", float(), [](const auto& one) { return one.column; });
    add("row", float(), [](const auto& one) { return one.row; });
    add("counts", float(), [](const auto& one) { return one.counts; });
    add("intensity", float(), [](const auto& one) { return one.intensity; });
    add("sigma", float(), [](const auto& one) { return one.sigma; });
    add("cut", std::uint8_t(), [](const auto& one) { return one.cut ? 1 : 0; });
    return text + "}";
}

}  // namespace

ReportBlocks reportViews(const RunResult& result) {
    return {{"sections", sectionViews(result)},
            {"curves", rockingCurves(result)},
            {"patterns", patternViews(result)}};
}

ReportBlocks reportBlocks(const fs::path& folder, const std::string& summary, ReportBlocks views) {
    ReportBlocks blocks;
    blocks.push_back({"summary", summary});
    if (fs::exists(folder / kReflectionFile))
        blocks.push_back({"reflections", reflectionColumns(readReflectionTable(folder / kReflectionFile))});
    if (fs::exists(folder / "cell-report.json"))
        blocks.push_back({"evaluation", jsonOf(folder / "cell-report.json")});
    for (ReportBlock& view : views)
        blocks.push_back(std::move(view));
    return blocks;
}

std::string writeSummaryAndReport(const RunRecord& record, const RunResult& result,
                                  const std::vector<std::string>& warnings, std::vector<std::string> files,
                                  bool withViews, const fs::path& folder) {
    for (const char* later : {kReportFile, kChecksumFile})
        files.insert(std::upper_bound(files.begin(), files.end(), later), later);
    std::string summary = summaryJson(record, result, warnings, files);
    const std::vector<ReportBlocks> page = {
        reportBlocks(folder, summary, withViews ? reportViews(result) : ReportBlocks())};
    writeReport(page, folder / kReportFile);
    writeSummary(folder / ResultFolder::kSummary, summary);
    return summary;
}

ReportBlocks readReport(const fs::path& folder) {
    const fs::path summary = folder / ResultFolder::kSummary;
    if (!fs::exists(summary))
        throw Failure(folder.string() + " holds no result: there is no " + ResultFolder::kSummary +
                      "; give the folder that 'vrk run -o' wrote");
    ReportBlocks views;
    if (fs::exists(folder / kReportFile)) {
        const std::string page = textOfFile(folder / kReportFile);
        for (const char* name : kViews)
            if (std::optional<std::string> json = blockOf(page, name))
                if (!parsedJson<nlohmann::ordered_json>(*json).is_discarded())
                    views.push_back({name, std::move(*json)});
    }
    ReportBlocks blocks = reportBlocks(folder, jsonOf(summary), std::move(views));
    const fs::path name = fs::absolute(folder).lexically_normal();
    blocks.push_back({"folder", jsonText(nlohmann::ordered_json(
                                    (name.has_filename() ? name : name.parent_path()).filename().string()))});
    return blocks;
}

void writeReport(std::span<const ReportBlocks> results, const fs::path& path) {
    std::vector<ReportBlocks> shown(results.begin(), results.end());
    if (shown.size() > 1)
        for (ReportBlocks& blocks : shown)
            std::erase_if(blocks, [](const ReportBlock& block) { return block.name == "patterns"; });
    const std::string page = reportPage(shown);
    const fs::path folder = path.has_parent_path() ? path.parent_path() : ".";
    std::optional<FolderLock> lock;
    if (fs::exists(folder / ResultFolder::kSummary)) lock.emplace(folder);
    OutputFile file(path);
    writeText(page, file.path());
    file.commit();
    // A page that is made again belongs to the result like the first one.
    updateChecksum(folder, path.filename().string());
}

}  // namespace vrk
