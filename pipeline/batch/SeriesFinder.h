/// \file
/// Which series there are.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace vrk {

/// A tilt series as it lies on the disk.
struct FoundSeries {
    std::filesystem::path input;  ///< absolute: a file, or a folder of frames
    bool needsImport = false;     ///< `vrk run` does not read it as it is
    std::filesystem::path tilts;  ///< list beside a stack that states no tilts itself; empty: none
    std::uint64_t bytes = 0;
    int columns = 0, rows = 0, frames = 0;  ///< as the first frame says; 0: not known
};

/// The series that a path is: an MRC tilt series, another file of several frames, a list that names frames or
/// a folder of frames. Throws Failure when it is none.
FoundSeries seriesAt(const std::filesystem::path& path);

/// All series of a folder and of those in it, in the order of the numbers in their paths. A folder whose
/// files hold a frame each is one series, and so is one with a list that names frames; folders of results and
/// hidden ones are left out.
/// \param warn  is told of what looks like a series and is none
/// Throws Failure when the folder cannot be read.
std::vector<FoundSeries> findSeries(const std::filesystem::path& folder,
                                    const std::function<void(const std::string&)>& warn);

}  // namespace vrk
