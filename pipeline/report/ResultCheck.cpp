#include "pipeline/report/ResultCheck.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <gemmi/mtz.hpp>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "pipeline/base/CellJson.h"
#include "pipeline/base/ChecksumList.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileChecksum.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/FolderLock.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/formats/PeakList.h"
#include "pipeline/formats/ReflectionTable.h"
#include "pipeline/report/Report.h"
#include "pipeline/report/ReportPage.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

/// Lines that are neither empty nor comments.
std::size_t rowsOf(const fs::path& path) {
    std::ifstream file(path);
    std::size_t rows = 0;
    for (std::string line; std::getline(file, line);)
        rows += !line.empty() && line[0] != '#';
    return rows;
}

/// Reflections of a file for structure solution, whose last row ends the list.
double listed(const fs::path& path) {
    return static_cast<double>(rowsOf(path)) - 1;
}

double inMtz(const fs::path& path) {
    gemmi::Mtz mtz;
    mtz.read_file(path.string());
    return mtz.nreflections;
}

/// Observations that were merged.
double usedIn(const Json& numbers) {
    return numbers.at("observations").get<double>() - numbers.at("outliers").get<double>();
}

/// Compares numbers of the files with those of the summary.
class Comparison {
public:
    Comparison(const fs::path& folder, const Json& summary, ResultCheck& check)
        : m_folder(folder), m_summary(summary), m_check(check) {}

    void all() {
        if (m_summary.contains("merge")) return mergedCrystals();
        count("/reflections/found", "peaks.txt",
              [](const fs::path& path) { return readPeaks(path).reflections->size(); });
        count("/reflections/found", kReflectionFile, [](const fs::path& path) {
            const std::vector<ListedReflection> rows = readReflectionTable(path);
            return std::count_if(rows.begin(), rows.end(), [](const auto& row) { return row.seen(); });
        });
        count("", "centres.txt", rowsOf);
        reflections();
        cell();
        page();
    }

private:
    /// What cannot be read disagrees.
    void with(const char* name, const std::function<void(const fs::path&)>& compare) {
        const fs::path path = m_folder / name;
        if (!fs::exists(path)) return;
        try {
            compare(path);
        } catch (const std::exception& error) {
            m_check.disagreements.push_back(std::string(name) + " cannot be compared: " + error.what());
        }
    }

    template <typename Count>
    void count(const char* place, const char* name, Count countOf) {
        with(name, [&](const fs::path& path) {
            const std::string key = *place ? place : "/centres";
            const Json& stated = m_summary.at(Json::json_pointer(key));
            expect(name, static_cast<double>(countOf(path)),
                   stated.is_array() ? static_cast<double>(stated.size()) : stated.get<double>(), key);
        });
    }

    void expect(const std::string& name, double found, double stated, const std::string& key) {
        if (found != stated)
            m_check.disagreements.push_back(
                formatted("%s has %.0f reflections or patterns, the summary says %.0f (%s)", name.c_str(),
                          found, stated, key.c_str()));
    }

    /// Lines of the files for structure solution.
    void reflections() {
        const Json& intensities = m_summary.at("intensities");
        with("reflections.hkl", [&](const fs::path& path) {
            if (intensities.is_null())
                return expect("reflections.hkl", listed(path),
                              m_summary.at("reflections").at("different_indices").get<double>(),
                              "reflections.different_indices");
            expect("reflections.hkl", listed(path), usedIn(intensities.at("reflections")),
                   "intensities.reflections.observations less outliers");
        });
        with("merged.mtz", [&](const fs::path& path) {
            expect("merged.mtz", inMtz(path), intensities.at("reflections").at("unique").get<double>(),
                   "intensities.reflections.unique");
        });
    }

    /// The files of merged crystals with the numbers of their summary.
    void mergedCrystals() {
        const auto name = m_summary.at("merge").get<std::string>();
        const auto merge = parsedJson<Json>(wholeFile(m_folder / name).value_or(""));
        const Json& numbers = merge.at("intensities");
        const double unique = numbers.at("unique").get<double>();
        with("merged.hkl",
             [&](const fs::path& path) { expect("merged.hkl", listed(path), unique, "intensities.unique"); });
        with("reflections.hkl", [&](const fs::path& path) {
            expect("reflections.hkl", listed(path), usedIn(numbers),
                   "intensities.observations less outliers");
        });
        with("merged.mtz",
             [&](const fs::path& path) { expect("merged.mtz", inMtz(path), unique, "intensities.unique"); });
    }

    /// The reduced cell; cell files have six digits.
    void cell() {
        with("cell.txt", [&](const fs::path& path) {
            UnitCell cell = cellFromFile(path, 0.0).cell;
            const double found[] = {cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC(),
                                    cell.getAlpha(),     cell.getBeta(),      cell.getGamma()};
            for (std::size_t i = 0; i < std::size(found); ++i) {
                const double stated = m_summary.at("cell").at("reduced").at(kCellNames[i]).get<double>();
                if (!(std::abs(found[i] - stated) <= 1e-4 * std::abs(stated)))
                    m_check.disagreements.push_back(formatted("cell.txt has %s = %g, the summary says %g",
                                                              kCellNames[i], found[i], stated));
            }
        });
    }

    void page() {
        with(kReportFile, [&](const fs::path& path) {
            const std::optional<std::string> shown = blockOf(wholeFile(path).value_or(""), "summary");
            if (!shown || parsedJson<Json>(*shown) != m_summary)
                m_check.disagreements.push_back(std::string(kReportFile) + " shows another summary");
        });
    }

    const fs::path& m_folder;
    const Json& m_summary;
    ResultCheck& m_check;
};

std::string topOf(const std::string& name) {
    return name.substr(0, name.find('/'));
}

/// Files of the folder, those of an earlier run and of an unfinished one left out.
std::map<std::string, std::string> presentIn(const fs::path& folder) {
    std::map<std::string, std::string> files;
    for (const ChecksumLine& line : checksumsIn(folder)) {
        const std::string top = topOf(line.name);
        if (top != ResultFolder::kEarlier && top != ResultFolder::kUnfinished && top != FolderLock::kFile)
            files[line.name] = line.sha256;
    }
    return files;
}

/// What a summary says that there is.
std::set<std::string> namedIn(const Json& summary) {
    std::set<std::string> names = {ResultFolder::kSummary};
    for (const Json& name : summary.at("files"))
        names.insert(name.get<std::string>());
    return names;
}

void compareFiles(const fs::path& folder, const Json& summary, ResultCheck& check) {
    std::map<std::string, std::string> present = presentIn(folder);
    const std::set<std::string> named = namedIn(summary);
    if (!fs::exists(folder / kChecksumFile)) {
        check.missing.push_back(kChecksumFile);
        std::erase_if(present, [&](const auto& file) { return named.contains(topOf(file.first)); });
    } else {
        std::set<std::string> listed = {kChecksumFile};
        for (const auto& [name, sha256, bytes] : readChecksums(folder)) {
            listed.insert(topOf(name));
            const auto file = present.find(name);
            if (file == present.end())
                check.missing.push_back(name);
            else if (file->second != sha256)
                check.changed.push_back(name);
            else
                ++check.files;
            if (file != present.end()) present.erase(file);
        }
        if (named != listed)
            check.disagreements.push_back(std::string(kChecksumFile) +
                                          " lists other files than the summary (files)");
    }
    for (const auto& [name, sum] : present)
        check.extra.push_back(name);
}

}  // namespace

ResultCheck checkResult(const fs::path& folder, const fs::path& input) {
    const fs::path path = folder / ResultFolder::kSummary;
    if (!fs::is_directory(folder))
        throw Failure(folder.string() + " is no folder; give one that 'vrk run -o' wrote");
    FolderLock::refuseHeld(folder);
    if (!fs::exists(path))
        throw Failure(folder.string() + " holds no result: there is no " + ResultFolder::kSummary +
                      (fs::exists(folder / ResultFolder::kUnfinished)
                           ? "; a run into it did not end, run it again"
                           : "; give the folder that 'vrk run -o' wrote"));
    const auto summary = parsedJson<Json>(wholeFile(path).value_or(""));
    ResultCheck check;
    try {
        check.version = summary.at("program").at("version").get<std::string>();
        compareFiles(folder, summary, check);
        Comparison(folder, summary, check).all();
        if (!input.empty()) {
            const Json& inputs = summary.at("inputs");
            check.inputMatches =
                !inputs.empty() && inputs.at(0).at("sha256").get<std::string>() == checksumOf(input).sha256;
        }
    } catch (const Json::exception&) {
        check.disagreements.push_back(path.string() + " is damaged, or of an early version");
    }
    return check;
}

}  // namespace vrk
