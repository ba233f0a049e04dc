#include "pipeline/integration/DataReduction.h"

#include <algorithm>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"

namespace vrk {
namespace {

constexpr int kCycles = 2;
/// Knots of the scale over a series, and frames between them at least.
constexpr double kKnots = 16;
constexpr double kFewestFrames = 5;

std::vector<Observation> goodObservations(std::span<const IntegratedReflection> reflections) {
    std::vector<Observation> observations;
    for (std::size_t i = 0; i < reflections.size(); ++i) {
        const IntegratedReflection& r = reflections[i];
        if (!r.good()) continue;
        Observation one;
        one.hkl = {r.h, r.k, r.l};
        one.intensity = r.intensity;
        one.sigma = r.sigma;
        one.spacing = r.spacing;
        one.frame = r.frame;
        one.source = static_cast<std::uint32_t>(i);
        observations.push_back(one);
    }
    return observations;
}

/// Why reflections are no good, each counted with the first reason that it has.
std::string reasons(std::span<const IntegratedReflection> reflections) {
    std::size_t blind = 0, saturated = 0, shared = 0, unfitted = 0;
    for (const IntegratedReflection& r : reflections) {
        if ((r.flags & kReflectionBlind) != 0)
            ++blind;
        else if ((r.flags & kReflectionSaturated) != 0)
            ++saturated;
        else if ((r.flags & kReflectionShared) != 0)
            ++shared;
        else
            ++unfitted;
    }
    return formatted(
        "of %zu, %zu lie along the tilt axis, %zu are saturated, %zu are covered by another crystal and "
        "%zu have too little of their curve or no background",
        reflections.size(), blind, saturated, shared, unfitted);
}

void scaleAndReject(DataReduction& data, const std::vector<Observation>& start, std::size_t frameCount) {
    const LaueRotations& rotations = data.laue.best().rotations;
    const auto last = static_cast<double>(frameCount) - 1;
    data.observations = start;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        // Outliers of the last cycle do not take part, but are judged again.
        data.scales =
            fitScales(data.observations, rotations, 0, last, std::max(last / kKnots, kFewestFrames));
        std::vector<Observation> scaled = start;
        for (std::size_t i = 0; i < scaled.size(); ++i)
            scaled[i].outlier = data.observations[i].outlier;
        applyScales(scaled, data.scales);
        data.errors = fitErrors(scaled, rotations);
        for (Observation& one : scaled)
            one.outlier = false;
        applyErrors(scaled, rotations, data.errors);
        data.outliers = markOutliers(scaled, rotations);
        if (cycle + 1 == kCycles || data.outliers == 0) {
            data.observations = std::move(scaled);
            return;
        }
        for (std::size_t i = 0; i < scaled.size(); ++i)
            data.observations[i].outlier = scaled[i].outlier;
    }
}

}  // namespace

DataReduction reduceData(std::span<const IntegratedReflection> reflections, std::size_t frameCount,
                         const Eigen::Matrix3d& reciprocal, char centring, double dMin) {
    DataReduction data;
    const std::vector<Observation> start = goodObservations(reflections);
    if (start.empty())
        throw Failure("no reflection has an intensity that can be used: " + reasons(reflections),
                      FailureKind::NothingFound);
    data.laue = chooseLaueGroup(start, reciprocal, centring);
    scaleAndReject(data, start, frameCount);
    const LaueRotations before = data.laue.best().rotations;
    data.laue = chooseLaueGroup(data.observations, reciprocal, centring);
    if (data.laue.best().rotations != before) scaleAndReject(data, start, frameCount);

    const LaueRotations& rotations = data.laue.best().rotations;
    data.merged = merge(data.observations, rotations);
    data.statistics = mergingStatistics(data.observations, rotations, reciprocal, centring, dMin);
    data.friedelStatistics =
        mergingStatistics(data.observations, {IndexRotation()}, reciprocal, centring, dMin);
    data.wilson = wilsonPlot(data.merged);
    data.spaceGroups = analyseSpaceGroups(data.merged, rotations, centring);
    estimateAmplitudes(data.merged, data.spaceGroups);
    return data;
}

}  // namespace vrk
