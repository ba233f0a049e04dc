#include "pipeline/latticesearch/RecordedWedge.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <vector>

#include "pipeline/base/Angle.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

constexpr std::size_t kBins = 180;  // a degree each, opposite places in one
constexpr double kStrays = 0.005;
/// Nearer to the axis the angle of a place says nothing.
constexpr double kLeastLever = 0.1;
constexpr std::size_t kMostPlaces = 3000;
constexpr int kDirections = 1200;  // some four degrees apart
constexpr double kLeastGap = 20.0;
constexpr double kLeastMissing = 25.0;

/// The widest empty angle about an axis, in bins.
struct Gap {
    std::size_t first = 0;
    std::size_t width = 0;
    double places = 0.0;  ///< about the axis in all
};

/// Two directions across an axis.
struct Across {
    Vector3d x, z;
    explicit Across(const Vector3d& axis) : x(axis.unitOrthogonal()), z(x.cross(axis)) {}
};

Gap widestGap(const std::vector<Vector3d>& directions, const Vector3d& axis) {
    const Across across(axis);
    std::array<int, kBins> counts{};
    int all = 0;
    for (const Vector3d& direction : directions) {
        const double x = direction.dot(across.x);
        const double z = direction.dot(across.z);
        if (x * x + z * z < kLeastLever * kLeastLever) continue;
        const double turn = std::atan2(z, x) / std::numbers::pi;  // -1 to 1, opposite ones differ by 1
        const auto bin = static_cast<std::size_t>((turn < 0.0 ? turn + 1.0 : turn) * kBins);
        ++counts[bin % kBins];
        ++all;
    }
    Gap best;
    best.places = all;
    const double allowed = kStrays * all;
    int inside = 0;
    std::size_t end = 0;
    for (std::size_t first = 0; first < kBins; ++first) {
        while (end < first + kBins && inside + counts[end % kBins] <= allowed)
            inside += counts[end++ % kBins];
        if (end - first > best.width) {
            best.first = first;
            best.width = end - first;
        }
        if (end > first)
            inside -= counts[first];
        else
            end = first + 1;
    }
    return best;
}

/// Directions on half a sphere, evenly.
Vector3d directionOf(int number) {
    const double golden = std::numbers::pi * (3.0 - std::sqrt(5.0));
    const double height = (number + 0.5) / kDirections;
    const double radius = std::sqrt(1.0 - height * height);
    return {radius * std::cos(golden * number), radius * std::sin(golden * number), height};
}

}  // namespace

RecordedWedge wedgeOf(std::span<const Vector3d> places) {
    std::vector<Vector3d> directions;
    const std::size_t step = places.size() / kMostPlaces + 1;
    for (std::size_t i = 0; i < places.size(); i += step)
        if (places[i].squaredNorm() > 0.0) directions.push_back(places[i].normalized());

    Vector3d axis = Vector3d::UnitY();
    Gap gap = widestGap(directions, axis);
    const auto attempt = [&](const Vector3d& trial) {
        const Gap found = widestGap(directions, trial);
        if (found.width <= gap.width) return;
        gap = found;
        axis = trial;
    };
    for (int i = 0; i < kDirections; ++i)
        attempt(directionOf(i));
    for (double turn = 4.0 * kDegree; turn > 0.3 * kDegree; turn /= 2.0) {
        const Across across(axis);
        // attempt() changes the axis. NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
        const Vector3d middle = axis;
        for (int i = 0; i < 8; ++i) {
            const double angle = std::numbers::pi * i / 4.0;
            attempt((middle + turn * (std::cos(angle) * across.x + std::sin(angle) * across.z)).normalized());
        }
    }

    RecordedWedge wedge;
    wedge.halfAngle = std::numbers::pi / 2.0;
    const auto width = static_cast<double>(gap.width);
    if (width < kLeastGap || gap.places * width / kBins < kLeastMissing) return wedge;
    const Across across(axis);
    const double gapMiddle = (static_cast<double>(gap.first) + width / 2.0) * kDegree;
    const double middle = gapMiddle + std::numbers::pi / 2.0;
    const Vector3d x = std::cos(middle) * across.x + std::sin(middle) * across.z;
    wedge.toFrame << x.transpose(), axis.transpose(), x.cross(axis).transpose();
    wedge.halfAngle = (std::numbers::pi - width * kDegree) / 2.0;
    return wedge;
}

}  // namespace vrk
