/// \file
/// Whether the folder of a result is as the run or the merge left it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vrk {

struct ResultCheck {
    std::string version;               ///< of the program that wrote it
    std::size_t files = 0;             ///< in the folder that agree with their checksums
    std::vector<std::string> changed;  ///< names of files that do not
    std::vector<std::string> missing;
    std::vector<std::string> extra;  ///< files that are not of this result; they harm nobody
    std::vector<std::string>
        disagreements;                 ///< numbers of one file that are not those of another, in sentences
    std::optional<bool> inputMatches;  ///< whether an input is the one that the result was made of

    bool isWhole() const {
        return changed.empty() && missing.empty() && disagreements.empty() && inputMatches.value_or(true);
    }
};

/// Compares every file of a folder with its checksum (ChecksumList.h), the names in the summary with what is
/// there, and the numbers of the summary with those of peaks.txt, cell.txt, centres.txt, reflections.csv,
/// reflections.hkl, merged.mtz and report.html, as far as the folder has them; of merged crystals those of
/// merge.json with those of merged.hkl, reflections.hkl and merged.mtz.
/// \param input  the series that the result should be of, compared with the checksum of the summary; empty:
/// none Throws Failure where there is no result, while a run writes into the folder, and when an input or a
/// file cannot be read.
ResultCheck checkResult(const std::filesystem::path& folder, const std::filesystem::path& input = {});

}  // namespace vrk
