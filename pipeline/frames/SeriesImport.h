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
    std::vector<std::filesystem::path> files;  ///< files of frames, folders, lists that name frames
    std::string tilts;                         ///< list or START:STEP; empty: what the files say
    bool skipBad = false;                      ///< leave out frames that cannot be read
    bool allowOutside = false;                 ///< lists may name frames outside their folders
    int sum = 0;                      ///< neighbouring frames a slice; 0: as few as fit into 300 slices
    int bin = 1;                      ///< pixels along each edge that are summed into one
    std::optional<double> scale;      ///< factor on the counts before they are rounded; absent: chosen
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
    int bad = 0;         ///< dropped: they cannot be read
    int sum = 1;
    double scale = 1;
    long long clipped = 0;  ///< pixels of the series that did not fit into 16 bits
};

/// Frames are sorted by tilt; of several frames with one tilt the first is kept. Then \p sum neighbours at a
/// time are added up; frames on both sides of a gap in the tilts are not. A slice's tilt is the mean of its
/// frames'. Tilts beyond 90 degrees that cover less than a half turn are counted from their middle. The pixel
/// sums are multiplied by the scale, rounded and clipped to the 16-bit range; when no scale is given,
/// CountScale chooses it, and the frames are read a second time unless it is 1. Frames need not be square and
/// stay as they are; binning leaves out the same number of rows or columns, within one, on opposite edges
/// when the size does not divide.
///
/// Memory: the series, at most 300 slices, and one frame in work.
///
/// \param warn is told of everything that was chosen, dropped, clipped, summed without being asked for or is
///        missing
/// Throws Failure for files that cannot be read, mixed sizes, frames without tilts, frames that make a single
/// slice, and sums that would leave more than 300 slices.
ImportResult importSeries(const ImportSettings& settings, VoxProgressObserver* progress,
                          const std::function<void(const std::string&)>& warn);

}  // namespace vrk
