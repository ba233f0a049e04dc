#include "processing/detail/PowderRings.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <utility>

#include "processing/detail/InversionSums.h"

namespace VRK::detail {
namespace {

/// Rings that are fainter do not look like the edge of a shadow.
constexpr float kBrightRing = 1.25F;
/// What rises above its surroundings by less may be noise, in deviations of a pixel of the mean.
constexpr double kSignificantRise = 8.0;
/// Width of the widest group of rings that overlap, as a share of the frame's.
constexpr int kWidestGroup = 12;
/// Pixels beside a ring that an error of its shape makes as bright in part.
constexpr std::ptrdiff_t kFlank = 2;

/// Roots of the counts, reduced to as many pixels, and how many pixels became one.
struct ReducedRoots {
    ReducedRoots(const SeriesMean& mean, int size)
        : step(std::max(1, std::min(mean.width, mean.height) / size)) {
        const cv::Mat_<float> values(mean.height, mean.width, const_cast<float*>(mean.values.data()));
        cv::resize(values, roots, {mean.width / step, mean.height / step}, 0, 0, cv::INTER_AREA);
        cv::sqrt(roots, roots);
    }
    /// A place in the pattern.
    cv::Point2d place(double x, double y) const { return {(x + 0.5) * step - 0.5, (y + 0.5) * step - 0.5}; }

    int step;
    cv::Mat_<float> roots;
};

/// The place about which all is most symmetric.
cv::Point2d symmetryCentre(const SeriesMean& mean) {
    const ReducedRoots reduced(mean, 128);
    const cv::Mat_<float> contrast(reduced.roots - cv::mean(reduced.roots)[0]);
    const cv::Mat_<float> sums = inversionSums(contrast);
    cv::Point best;
    cv::minMaxLoc(sums, nullptr, nullptr, nullptr, &best);
    const cv::Point2d place = inversionCentre(best, sums.size());
    return reduced.place(place.x, place.y);
}

/// Number of the ring that a pixel lies in; the innermost is never empty.
std::size_t ringOf(int x, int y, const RingShape& shape) {
    return static_cast<std::size_t>(shape.radiusOf(x, y));
}

std::size_t mostRings(const SeriesMean& mean) {
    return static_cast<std::size_t>(1.1 * std::hypot(mean.width, mean.height)) + 2;
}

/// How much neighbouring rings differ: the more, the better the shape is that of the rings.
double sharpness(const ReducedRoots& image, const RingShape& shape, std::vector<cv::Point2d>& rings) {
    std::fill(rings.begin(), rings.end(), cv::Point2d());
    for (int y = 0; y < image.roots.rows; ++y)
        for (int x = 0; x < image.roots.cols; ++x) {
            const cv::Point2d place = image.place(x, y);
            const auto ring = static_cast<std::size_t>(shape.radiusOf(place.x, place.y) / image.step);
            rings[ring] += cv::Point2d(static_cast<double>(image.roots(y, x)), 1.0);
        }
    double result = 0.0;
    for (std::size_t i = 1; i < rings.size() && rings[i].y > 0.0; ++i)
        if (rings[i - 1].y > 0.0)
            result += rings[i].y * std::pow(rings[i].x / rings[i].y - rings[i - 1].x / rings[i - 1].y, 2);
    return result;
}

/// From a circle to the shape about which the rings are sharpest, in ever smaller steps.
RingShape sharpestShape(const SeriesMean& mean, cv::Point2d centre) {
    constexpr int kRounds = 4;
    constexpr int kMostSteps = 3;
    constexpr double kFirstShift = 1.0;  // pixels of the reduced image
    constexpr double kFirstEllipse = 0.008;
    const ReducedRoots image(mean, 256);
    std::vector<cv::Point2d> rings(mostRings(mean));
    RingShape best{centre};
    double highest = sharpness(image, best, rings);
    const auto tryNext = [&](const RingShape& next) {
        const double here = sharpness(image, next, rings);
        if (here <= highest) return false;
        best = next;
        highest = here;
        return true;
    };
    const auto climb = [&](auto number, double step) {
        for (const double signedStep : {step, -step})
            for (int i = 0; i < kMostSteps; ++i) {
                RingShape next = best;
                number(next) += signedStep;
                if (!tryNext(next)) break;
            }
    };
    double part = 1.0;
    for (int round = 0; round < kRounds; ++round, part *= 0.5) {
        climb([](RingShape& shape) -> double& { return shape.cosine; }, part* kFirstEllipse);
        climb([](RingShape& shape) -> double& { return shape.sine; }, part* kFirstEllipse);
        climb([](RingShape& shape) -> double& { return shape.centre.x; }, part* kFirstShift* image.step);
        climb([](RingShape& shape) -> double& { return shape.centre.y; }, part* kFirstShift* image.step);
    }
    return best;
}

/// What most of a ring's pixels are above and below of. A shadow takes only part of a ring.
struct RingLevels {
    std::vector<float> low, high;
};

RingLevels levelsOf(const SeriesMean& mean, const RingShape& shape) {
    std::vector<std::vector<float>> rings(mostRings(mean));
    for (int y = 0; y < mean.height; ++y)
        for (int x = 0; x < mean.width; ++x)
            rings[ringOf(x, y, shape)].push_back(
                mean.values[static_cast<std::size_t>(y) * static_cast<std::size_t>(mean.width) +
                            static_cast<std::size_t>(x)]);
    while (rings.back().empty())
        rings.pop_back();
    RingLevels levels;
    for (std::vector<float>& ring : rings) {
        const auto fifth = static_cast<std::ptrdiff_t>(ring.size() / 5);
        std::nth_element(ring.begin(), ring.begin() + fifth, ring.end());
        levels.low.push_back(ring[static_cast<std::size_t>(fifth)]);
        std::nth_element(ring.begin(), ring.end() - 1 - fifth, ring.end());
        levels.high.push_back(*(ring.end() - 1 - fifth));
    }
    return levels;
}

/// What each ring is cut down to, infinite where it is as dark as what lies inside or outside of it; empty
/// where no ring is brighter.
std::vector<float> ringLevels(const SeriesMean& mean, const RingShape& shape, bool canBeSmeared) {
    const RingLevels rings = levelsOf(mean, shape);
    const auto count = static_cast<std::ptrdiff_t>(rings.high.size());
    const std::ptrdiff_t reach = std::min(mean.width, mean.height) / kWidestGroup;
    std::vector<float> levels(rings.high.size(), std::numeric_limits<float>::infinity());
    bool any = false;
    const auto around = [&](std::ptrdiff_t ring) {
        const auto here = rings.high.begin() + ring;
        return std::pair(*std::min_element(here - std::min(reach, ring), here + 1),
                         *std::min_element(here, here + std::min(reach + 1, count - ring)));
    };
    for (std::ptrdiff_t ring = 0; ring < count; ++ring) {
        const auto [inside, outside] = around(ring);
        const float level = (canBeSmeared ? rings.high : rings.low)[static_cast<std::size_t>(ring)];
        // Beyond the edge of a stop it stays brighter than within.
        if (outside > inside || level <= kBrightRing * inside) continue;
        const double rise = 2 * (std::sqrt(level * mean.counts) - std::sqrt(inside * mean.counts));
        if (rise < kSignificantRise) continue;
        // On the flanks part of a ring may be bright.
        for (std::ptrdiff_t near = std::max(ring - kFlank, std::ptrdiff_t{0});
             near <= std::min(ring + kFlank, count - 1); ++near)
            levels[static_cast<std::size_t>(near)] = around(near).first;
        any = true;
    }
    return any ? levels : std::vector<float>();
}

}  // namespace

double RingShape::radiusOf(double x, double y) const {
    const double dx = x - centre.x, dy = y - centre.y;
    const double square = dx * dx + dy * dy;
    const double stretch = cosine * (dx * dx - dy * dy) + 2 * sine * dx * dy;
    const double radius = std::sqrt(square);
    return square > 0 ? std::max(radius - stretch / radius, 0.0) : 0.0;
}

PowderRings::PowderRings(const SeriesMean& mean) : m_shape{symmetryCentre(mean)} {
    // An ellipse smears rings over many circles.
    if (ringLevels(mean, m_shape, true).empty()) return;
    m_shape = sharpestShape(mean, m_shape.centre);
    m_levels = ringLevels(mean, m_shape, false);
}

void PowderRings::removeFrom(SeriesMean& mean) const {
    if (empty()) return;
    std::size_t i = 0;
    for (int y = 0; y < mean.height; ++y)
        for (int x = 0; x < mean.width; ++x, ++i)
            mean.values[i] = std::min(mean.values[i], m_levels[ringOf(x, y, m_shape)]);
}

}  // namespace VRK::detail
