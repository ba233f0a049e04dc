#include "pipeline/base/ResultFolder.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "pipeline/base/ChecksumList.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

/// The summary of the run that is being replaced, while it is.
constexpr const char* kReplaced = "replaced.json";

/// Results of runs whose summary does not name its files.
constexpr std::array kUsualResults = {"axis",
                                      "cell-report.json",
                                      "cell-report.txt",
                                      "cell.txt",
                                      "centres.png",
                                      "centres.txt",
                                      "crystal.ins",
                                      "difference_vectors.png",
                                      "hk0.png",
                                      "h0l.png",
                                      "0kl.png",
                                      "peaks.txt",
                                      "projection_x.png",
                                      "projection_y.png",
                                      "projection_z.png",
                                      "reflections.hkl",
                                      "vrk.log"};

/// A name from a file must not lead out of the folder.
bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

std::filesystem::path made(std::filesystem::path folder) {
    makeFolder(folder);
    return folder;
}

void replace(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::error_code error;
    // A folder is not renamed onto one that holds something.
    if (std::filesystem::is_directory(to, error)) std::filesystem::remove_all(to, error);
    std::filesystem::rename(from, to, error);
    if (error) throw Failure("cannot write " + to.string() + ": " + error.message());
}

}  // namespace

ResultFolder::ResultFolder(std::filesystem::path folder)
    : m_folder(made(std::move(folder))), m_unfinished(m_folder / kUnfinished), m_lock(m_folder) {
    std::error_code ignored;
    // A run that was killed while its results took their places left some of them, and some of the earlier.
    if (!std::filesystem::exists(m_folder / kSummary, ignored))
        for (const char* summary : {kSummary, kReplaced})
            for (const std::string& name : resultsOf(m_unfinished / summary))
                std::filesystem::remove_all(m_folder / name, ignored);
    std::filesystem::remove_all(m_unfinished, ignored);
    makeFolder(m_unfinished);
}

ResultFolder::~ResultFolder() {
    std::error_code ignored;
    if (std::filesystem::is_empty(m_unfinished, ignored)) std::filesystem::remove(m_unfinished, ignored);
}

std::vector<std::string> ResultFolder::written() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_unfinished))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

/// The names of the results, but the summary itself, that a summary speaks of and that are in the folder.
std::vector<std::string> ResultFolder::resultsOf(const std::filesystem::path& summaryFile) const {
    std::error_code error;
    if (!std::filesystem::exists(summaryFile, error)) return {};
    std::vector<std::string> names;
    const auto summary = parsedJson<nlohmann::ordered_json>(wholeFile(summaryFile).value_or(""));
    if (summary.is_object() && summary.contains("files") && summary["files"].is_array()) {
        for (const nlohmann::ordered_json& name : summary["files"])
            if (name.is_string()) names.push_back(name.get<std::string>());
    } else {
        names.assign(kUsualResults.begin(), kUsualResults.end());
    }
    std::erase_if(names, [&](const std::string& name) {
        return !isPlainName(name) || name == kSummary || name == kUnfinished || name == kEarlier ||
               !std::filesystem::exists(m_folder / name, error);
    });
    return names;
}

void ResultFolder::commit() {
    writeChecksums(m_unfinished);
    const std::filesystem::path summary = m_folder / kSummary;
    const std::filesystem::path replaced = m_unfinished / kReplaced;
    const std::vector<std::string> names = written();
    std::error_code error;
    // The summary goes first, so that no mixture of both runs has one at any moment.
    if (std::filesystem::exists(summary, error)) replace(summary, replaced);
    for (const std::string& name : resultsOf(replaced)) {
        std::filesystem::remove_all(m_folder / name, error);
        if (error) throw Failure("cannot replace " + (m_folder / name).string() + ": " + error.message());
    }
    for (const std::string& name : names)
        if (name != kSummary) replace(m_unfinished / name, m_folder / name);
    if (std::filesystem::exists(m_unfinished / kSummary, error)) replace(m_unfinished / kSummary, summary);
    std::filesystem::remove(replaced, error);
}

bool ResultFolder::setEarlierAside() {
    const std::filesystem::path summary = m_folder / kSummary;
    std::error_code error;
    if (!std::filesystem::exists(summary, error)) return false;
    const std::filesystem::path aside = m_folder / kEarlier;
    const std::vector<std::string> names = resultsOf(summary);
    std::filesystem::remove_all(aside, error);
    makeFolder(aside);
    replace(summary, aside / kSummary);
    for (const std::string& name : names)
        replace(m_folder / name, aside / name);
    return true;
}

}  // namespace vrk
