#include "pipeline/batch/JobNeeds.h"

#include <algorithm>
#include <cmath>

namespace vrk {
namespace {

constexpr double kMiB = 1048576.0;
constexpr double kCounts = 2.0;  ///< bytes of a pixel and of a voxel
constexpr int kMostSlices = 300;
constexpr int kMostDoublings = 6;

/// Up to 1, 1.25, 1.5 or 1.75 times a power of two.
int roundedUp(double value) {
    const double step = std::exp2(std::floor(std::log2(value)) - 2.0);
    return static_cast<int>(std::ceil(value / step) * step);
}

}  // namespace

JobNeeds needsOf(const FoundSeries& series, int cores, int doublings) {
    const bool isKnown = series.columns > 0 && series.rows > 0 && series.frames > 0;
    const double columns = isKnown ? series.columns : 1024.0;
    const double rows = isKnown ? series.rows : 1024.0;
    const double slices = isKnown ? std::min(series.frames, kMostSlices) : kMostSlices;
    const double width = std::max(columns, rows);
    const double frames = kCounts * columns * rows * slices / kMiB;
    const double volume = kCounts * width * width * width / kMiB;
    const double factor = std::exp2(std::min(doublings, kMostDoublings));
    JobNeeds needs;
    needs.memory = roundedUp(factor * (100.0 + 1.5 * (100.0 + 2.0 * frames + volume)));
    const double read = series.needsImport ? static_cast<double>(series.bytes) / kMiB : 0.0;
    needs.minutes = roundedUp(factor * (10.0 + 0.05 * frames + 0.02 * read));
    needs.cores = std::max(cores, 1);
    return needs;
}

}  // namespace vrk
