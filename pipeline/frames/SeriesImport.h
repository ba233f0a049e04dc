/// \file
/// Makes a tilt series from frames.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/VoxProgressObserver.h"

namespace vrk {

struct ImportSettings {
    std::vector<std::filesystem::path> files;  ///< SMV, TIFF and MRC files and .ed3d lists
    std::string tilts;                         ///< file or START:STEP; empty: what the files say
    int sum = 0;                      ///< neighbouring frames a slice; 0: as few as fit into 300 slices
    int bin = 1;                      ///< pixels along each edge that are summed into one
    double scale = 1;                 ///< factor on the counts before they are rounded
    std::optional<double> pixelSize;  ///< of the frames as they are in the files, 1/metre
    std::optional<double> axis;       ///< degrees
    std::optional<double> kilovolts;
};

struct ImportResult {
    std::unique_ptr<VoxMRCData> series;  ///< null when cancelled
    int framesFound = 0;
    int framesUsed = 0;
    int duplicates = 0;  ///< dropped: the tilt had been seen before
    int empty = 0;       ///< dropped: all pixels zero
    int sum = 1;
    long long clipped = 0;  ///< pixels of the series that did not fit into 16 bits
};

/// Frames are sorted by tilt; of several frames with one tilt the first is kept. Then \p sum neighbours at a
/// time are added up; frames on both sides of a gap in the tilts are not. A slice's tilt is the mean of its
/// frames'. The pixel sums are multiplied by the scale, rounded and clipped to the 16-bit range. Frames need
/// not be square and stay as they are; binning leaves out the same number of rows or columns, within one, on
/// opposite edges when the size does not divide.
///
/// Memory: the series, at most 300 slices, and one frame in work.
///
/// \param warn is told of everything that was dropped, clipped, summed without being asked for or is missing
/// Throws Failure for files that cannot be read, mixed sizes, frames without tilts, and sums that would leave
/// more than 300 slices.
ImportResult importSeries(const ImportSettings& settings, VoxProgressObserver* progress,
                          const std::function<void(const std::string&)>& warn);

/// Names with numbers in the order of the numbers: frame_2 before frame_10.
bool naturallyBefore(const std::string& left, const std::string& right);

}  // namespace vrk
