#include "pipeline/integration/SpotPrediction.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <numbers>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Failure.h"
#include "pipeline/simulation/SimulatedCrystal.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

constexpr double kMostReflections = 2e7;
constexpr double kLeastShare = 0.005;

/// s(t) = amplitude sin(phase - t) - offset.
struct Path {
    double amplitude;
    double phase;
    double offset;

    double nearest() const { return std::clamp(offset / amplitude, -1.0, 1.0); }
};

class Predictor {
public:
    Predictor(const SeriesGeometry& geometry, const RockingModel& rocking, const PredictionLimits& limits)
        : m_geometry(geometry), m_rocking(rocking), m_limits(limits) {
        for (const FramePose& frame : geometry.frames)
            m_views.emplace_back(geometry, frame);
    }

    SpotPrediction predict() const;

private:
    /// What one h gives, numbered by itself.
    struct Plane {
        std::vector<PredictedReflection> reflections;
        std::vector<PredictedSpot> spots;
    };

    Plane planeOf(int h, int mostK, int mostL) const;
    void add(int h, int k, int l, const Vector3d& g, Plane& plane) const;
    Path pathOf(const Vector3d& g) const;
    void addAround(double tilt, PredictedReflection& reflection, Plane& plane) const;
    bool addSpot(std::size_t frame, PredictedReflection& reflection, Plane& plane) const;
    bool onFrame(const FramePose& frame, const SpotPlace& place) const;
    void sortByFrame(SpotPrediction& prediction) const;

    const SeriesGeometry& m_geometry;
    const RockingModel& m_rocking;
    const PredictionLimits& m_limits;
    std::vector<FrameView> m_views;
};

Path Predictor::pathOf(const Vector3d& g) const {
    const double cosPitch = std::cos(m_geometry.axisPitch);
    const double curvature = m_geometry.handedness * m_geometry.wavelength / 2;
    // g . e_n = z cos t - x sin t = rho sin(phase - t) with phase = atan2(z, x).
    return {std::max(std::hypot(g.x(), g.z()) * cosPitch, 1e-12), std::atan2(g.z(), g.x()),
            curvature * g.squaredNorm() - g.y() * std::sin(m_geometry.axisPitch)};
}

bool Predictor::onFrame(const FramePose& frame, const SpotPlace& place) const {
    const double border = m_limits.border;
    return place.x >= border && place.x <= m_limits.width - 1 - border && place.y >= border &&
           place.y <= m_limits.height - 1 - border &&
           std::hypot(place.x - frame.centreX, place.y - frame.centreY) >= m_limits.beamRadius;
}

/// False when the reflection is out of reach of the frame.
bool Predictor::addSpot(std::size_t frame, PredictedReflection& reflection, Plane& plane) const {
    const FramePose& pose = m_geometry.frames[frame];
    const SpotPlace place = m_views[frame].place(reflection.g);
    if (std::abs(place.excitation) > m_rocking.reach(place.rate, reflection.length, pose.rotation))
        return false;
    if (!onFrame(pose, place)) return true;
    const double share =
        m_rocking.share(place.excitation, place.rate, reflection.length, pose.rotation).value;
    if (share < kLeastShare) return true;
    reflection.coverage += m_rocking.coverage(share, place.rate, pose.rotation);
    plane.spots.push_back({static_cast<std::uint32_t>(plane.reflections.size()),
                           static_cast<std::uint32_t>(frame), static_cast<float>(place.x),
                           static_cast<float>(place.y), static_cast<float>(place.excitation),
                           static_cast<float>(place.rate), static_cast<float>(share)});
    return true;
}

/// The frames next to a tilt, outwards on both sides as long as they reach the reflection.
void Predictor::addAround(double tilt, PredictedReflection& reflection, Plane& plane) const {
    const auto& frames = m_geometry.frames;
    const auto at = std::lower_bound(frames.begin(), frames.end(), tilt,
                                     [](const FramePose& frame, double t) { return frame.tilt < t; });
    const auto first = static_cast<std::size_t>(at - frames.begin());
    const auto seen = [&](std::size_t frame) {
        return std::any_of(plane.spots.begin() + reflection.firstSpot, plane.spots.end(),
                           [frame](const PredictedSpot& spot) { return spot.frame == frame; });
    };
    for (std::size_t frame = first; frame < frames.size() && !seen(frame); ++frame)
        if (!addSpot(frame, reflection, plane)) break;
    for (std::size_t frame = first; frame > 0 && !seen(frame - 1); --frame)
        if (!addSpot(frame - 1, reflection, plane)) break;
}

void Predictor::add(int h, int k, int l, const Vector3d& g, Plane& plane) const {
    PredictedReflection reflection;
    reflection.h = h;
    reflection.k = k;
    reflection.l = l;
    reflection.g = g;
    reflection.length = g.norm();
    reflection.firstSpot = static_cast<std::uint32_t>(plane.spots.size());

    const Path path = pathOf(g);
    const double angle = std::asin(path.nearest());
    const double middle = (m_geometry.frames.front().tilt + m_geometry.frames.back().tilt) / 2;
    const auto near = [middle](double tilt) {
        return middle + std::remainder(tilt - middle, 2 * std::numbers::pi);
    };
    const double one = near(path.phase - angle);
    const double other = near(path.phase - std::numbers::pi + angle);
    addAround(one, reflection, plane);
    addAround(other, reflection, plane);
    reflection.spotCount = static_cast<std::uint32_t>(plane.spots.size()) - reflection.firstSpot;
    if (reflection.spotCount == 0) return;

    const auto spots = plane.spots.begin() + reflection.firstSpot;
    std::sort(spots, plane.spots.end(),
              [](const PredictedSpot& a, const PredictedSpot& b) { return a.frame < b.frame; });
    const auto strongest =
        std::max_element(spots, plane.spots.end(),
                         [](const PredictedSpot& a, const PredictedSpot& b) { return a.share < b.share; });
    const double seenAt = m_geometry.frames[strongest->frame].tilt;
    reflection.tilt = std::abs(one - seenAt) <= std::abs(other - seenAt) ? one : other;
    const double rate = path.amplitude * std::cos(angle);
    reflection.lorentz = reflection.length / std::max(rate, 1e-9 * reflection.length);
    reflection.blind = std::abs(path.offset) >= path.amplitude || reflection.lorentz > kBlindLorentz;
    plane.reflections.push_back(reflection);
}

void Predictor::sortByFrame(SpotPrediction& prediction) const {
    prediction.frameStart.assign(m_geometry.frames.size() + 1, 0);
    for (const PredictedSpot& spot : prediction.spots)
        ++prediction.frameStart[spot.frame + 1];
    for (std::size_t f = 0; f < m_geometry.frames.size(); ++f)
        prediction.frameStart[f + 1] += prediction.frameStart[f];
    std::vector<std::uint32_t> next(prediction.frameStart.begin(), prediction.frameStart.end() - 1);
    prediction.byFrame.resize(prediction.spots.size());
    for (std::size_t i = 0; i < prediction.spots.size(); ++i)
        prediction.byFrame[next[prediction.spots[i].frame]++] = static_cast<std::uint32_t>(i);
}

Predictor::Plane Predictor::planeOf(int h, int mostK, int mostL) const {
    const double longest = 1 / m_limits.dMin;
    const double shortest = 1 / m_limits.dMax;
    Plane plane;
    for (int k = -mostK; k <= mostK; ++k)
        for (int l = -mostL; l <= mostL; ++l) {
            if (isExtinct(m_limits.centring, h, k, l) || (h == 0 && k == 0 && l == 0)) continue;
            const Vector3d g = m_geometry.reciprocal * Vector3d(h, k, l);
            const double square = g.squaredNorm();
            if (square <= longest * longest && square >= shortest * shortest) add(h, k, l, g, plane);
        }
    return plane;
}

SpotPrediction Predictor::predict() const {
    const double longest = 1 / m_limits.dMin;
    const double count =
        4.0 / 3 * std::numbers::pi * std::pow(longest, 3) / std::abs(m_geometry.reciprocal.determinant());
    if (!(count < kMostReflections))
        throw Failure("too many reflections to integrate (" +
                      std::to_string(static_cast<long long>(count / 1e6)) +
                      " million up to the resolution limit); choose a larger --d-min");
    const std::array<double, 6> cell = m_geometry.cell();
    std::array<int, 3> most{};
    for (std::size_t i = 0; i < 3; ++i)
        most[i] = static_cast<int>(cell[i] * longest);
    std::vector<Plane> planes(2 * static_cast<std::size_t>(most[0]) + 1);
    VRK::shareItems(planes.size(), [&](std::size_t i, std::size_t) {
        planes[i] = planeOf(static_cast<int>(i) - most[0], most[1], most[2]);
    });
    SpotPrediction result;
    for (Plane& plane : planes) {
        for (PredictedSpot& spot : plane.spots)
            spot.reflection += static_cast<std::uint32_t>(result.reflections.size());
        for (PredictedReflection& reflection : plane.reflections)
            reflection.firstSpot += static_cast<std::uint32_t>(result.spots.size());
        result.reflections.insert(result.reflections.end(), plane.reflections.begin(),
                                  plane.reflections.end());
        result.spots.insert(result.spots.end(), plane.spots.begin(), plane.spots.end());
        plane = {};
    }
    sortByFrame(result);
    return result;
}

}  // namespace

SpotPrediction predictSpots(const SeriesGeometry& geometry, const RockingModel& rocking,
                            const PredictionLimits& limits) {
    if (geometry.frames.empty()) {
        SpotPrediction nothing;
        nothing.frameStart = {0};
        return nothing;
    }
    return Predictor(geometry, rocking, limits).predict();
}

}  // namespace vrk
