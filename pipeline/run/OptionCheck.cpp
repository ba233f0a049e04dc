#include "pipeline/run/OptionCheck.h"

#include <cmath>
#include <limits>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"

namespace vrk {
namespace {

constexpr double kLargest = 1e9;
constexpr double kAboveZero = std::numeric_limits<double>::min();

template <typename Number>
void check(const char* name, const std::optional<Number>& value, double lowest, double highest) {
    if (!value || (static_cast<double>(*value) >= lowest && static_cast<double>(*value) <= highest)) return;
    throw Failure(
        formatted("%s = %g is not from %g to %g", name, static_cast<double>(*value), lowest, highest),
        FailureKind::Usage);
}

}  // namespace

void checkOptions(const CellOptions& options) {
    check("the shortest difference vector", options.minLength, 0.0, kLargest);
    check("the longest difference vector", options.maxLength, kAboveZero, kLargest);
    check("the radius of the clustering (eps)", options.eps, kAboveZero, kLargest);
    check("the density of the clustering", options.minPoints, 1, kLargest);
    check("the percentage of clusters", options.refineClusters, 0.0, 100.0);
    check("the angle a", options.angleA, 0.0, 180.0);
    check("the angle b", options.angleB, 0.0, 180.0);
    check("the limit of the determinant", options.detLimit, -kLargest, kLargest);
    check("the size of the grid", options.gridSize, 1, 50);
}

void checkOptions(const RunOptions& options) {
    constexpr double kAnyPixelSize = 1e15;
    check("the pixel size", options.pixelSize, kAboveZero, kAnyPixelSize);
    check("the voltage", options.kiloVolts, kAboveZero, kLargest);
    check("the angle of the tilt axis", std::optional(options.axis.angle), -360.0, 360.0);
    check("the step of the axis search", std::optional(options.axis.accuracy), 1e-3, 5.0);
    check("the centre", std::optional(options.centre.x), -kLargest, kLargest);
    check("the centre", std::optional(options.centre.y), -kLargest, kLargest);
    check("the threshold", options.search.threshold, -kLargest, kLargest);
    check("the smallest reflection", options.search.minVoxels, 0, kLargest);
    check("the largest reflection", options.search.maxVoxels, 1, kLargest);
    check("the radius of the zero beam", options.search.zeroBeam, 0.0, kLargest);
    check("the radius of the resolution", options.search.resolution, 0.0, kLargest);
    check("the kind of centre", options.search.centre, 1, 3);
    checkOptions(options.cell);
    check("the finest spacing", options.intensities.dMin, kAboveZero, kLargest);
    check("the gain", options.intensities.gain, kAboveZero, kLargest);
    check("the number of crystals", std::optional(options.crystals), 1, 9);
}

}  // namespace vrk
