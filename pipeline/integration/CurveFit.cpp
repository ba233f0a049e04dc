#include "pipeline/integration/CurveFit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>

#include "foundation/SharedLoop.h"
#include "pipeline/integration/MeanIntensity.h"
#include "pipeline/integration/WilsonPosterior.h"

namespace vrk {
namespace {

constexpr int kCurveRounds = 3;
/// A measurement farther than this from its equivalents differs from them by more than noise: standard
/// deviations of the difference.
constexpr double kAgreement = 3;

/// The weighted mean of measurements but one.
Estimate meanOf(std::span<const CurveFit> fits, std::span<const std::size_t> group, std::size_t without) {
    double top = 0, bottom = 0;
    for (const std::size_t r : group) {
        if (r == without) continue;
        const double weight = 1 / (fits[r].sigma * fits[r].sigma);
        top += weight * fits[r].intensity;
        bottom += weight;
    }
    return bottom > 0 ? Estimate{top / bottom, 1 / std::sqrt(bottom)} : Estimate{};
}

/// What the fits know of every intensity, each taken together with the equivalents that it agrees with.
std::vector<Estimate> withEquivalents(const SpotPrediction& prediction, std::span<const CurveFit> fits,
                                      const LaueRotations& rotations) {
    std::vector<Estimate> known(fits.size());
    std::map<Indices, std::vector<std::size_t>> groups;
    for (std::size_t r = 0; r < fits.size(); ++r) {
        known[r] = {fits[r].intensity, fits[r].sigma};
        const PredictedReflection& one = prediction.reflections[r];
        if (fits[r].sigma > 0) groups[representative({one.h, one.k, one.l}, rotations)].push_back(r);
    }
    constexpr std::size_t kNone = ~std::size_t{0};
    for (const auto& [hkl, group] : groups) {
        std::vector<std::size_t> agreeing;
        for (const std::size_t r : group) {
            const Estimate others = meanOf(fits, group, r);
            if (std::abs(fits[r].intensity - others.value) <=
                kAgreement * std::hypot(fits[r].sigma, others.sigma))
                agreeing.push_back(r);
        }
        const Estimate mean = meanOf(fits, agreeing, kNone);
        for (const std::size_t r : agreeing)
            known[r] = mean;
    }
    return known;
}

CurveFit fitCurve(const PredictedReflection& reflection, const SpotPrediction& prediction,
                  const SeriesGeometry& geometry, const RockingModel& rocking,
                  std::span<const FrameCounts> counts, double gain, const CurveErrors& errors) {
    CurveFit fit;
    // Variance of the share of each frame relative to the square of the intensity.
    std::vector<double> known(reflection.spotCount, 0);
    for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
        const PredictedSpot& spot = prediction.spots[reflection.firstSpot + n];
        known[n] = std::pow(errors.relative * spot.share, 2);
        if (errors.tilts.empty()) continue;
        const double slope =
            rocking.share(spot.excitation, spot.rate, reflection.length, geometry.frames[spot.frame].rotation)
                .byShift;
        known[n] += std::pow(slope * spot.rate * errors.tilts[spot.frame], 2);
    }
    for (int round = 0; round < kCurveRounds; ++round) {
        double top = 0, bottom = 0, square = 0, coverage = 0, best = 0;
        int frames = 0;
        for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
            const PredictedSpot& spot = prediction.spots[reflection.firstSpot + n];
            const FrameCounts& one = counts[reflection.firstSpot + n];
            if (!one.known) continue;
            const double expected = std::max(fit.intensity, 0.0) * spot.share;
            const double variance =
                one.ground + gain * expected + std::pow(std::max(fit.intensity, 0.0), 2) * known[n];
            top += spot.share * one.counts / variance;
            bottom += static_cast<double>(spot.share) * spot.share / variance;
            square += std::pow(one.counts - fit.intensity * spot.share, 2) / variance;
            coverage += rocking.coverage(spot.share, spot.rate, geometry.frames[spot.frame].rotation);
            best = std::max<double>(best, spot.share);
            ++frames;
        }
        if (!(bottom > 0)) break;
        fit = {top / bottom, std::sqrt(1 / bottom), square, frames, best, coverage};
    }
    return fit;
}

}  // namespace

std::vector<CurveFit> fitCurves(const SpotPrediction& prediction, const SeriesGeometry& geometry,
                                const RockingModel& rocking, std::span<const FrameCounts> counts, double gain,
                                const CurveErrors& errors) {
    std::vector<CurveFit> fits(prediction.reflections.size());
    // A reflection alone is too little to hand to a thread.
    constexpr std::size_t kBlock = 256;
    VRK::shareItems((fits.size() + kBlock - 1) / kBlock, [&](std::size_t block, std::size_t) {
        for (std::size_t r = block * kBlock; r < std::min((block + 1) * kBlock, fits.size()); ++r)
            fits[r] =
                fitCurve(prediction.reflections[r], prediction, geometry, rocking, counts, gain, errors);
    });
    return fits;
}

std::vector<FrameCounts> frameCounts(std::span<const MeasuredSpot> measured) {
    constexpr int kDisturbed =
        kSpotMasked | kSpotSaturated | kSpotOverlapped | kSpotNoBackground | kSpotAtEdge;
    std::vector<FrameCounts> counts(measured.size());
    std::transform(measured.begin(), measured.end(), counts.begin(), [](const MeasuredSpot& spot) {
        return FrameCounts{spot.sum, spot.ground, (spot.flags & kDisturbed) == 0};
    });
    return counts;
}

std::vector<FrameCounts> frameCounts(std::span<const FittedSpot> fitted) {
    std::vector<FrameCounts> counts(fitted.size());
    std::transform(fitted.begin(), fitted.end(), counts.begin(), [](const FittedSpot& spot) {
        return FrameCounts{spot.counts, spot.variance, spot.variance > 0};
    });
    return counts;
}

std::vector<float> expectedCounts(const SpotPrediction& prediction, std::span<const CurveFit> fits,
                                  const LaueRotations& rotations) {
    const std::vector<Estimate> known = withEquivalents(prediction, fits, rotations);
    std::vector<MeanIntensity::Sample> samples;
    for (std::size_t r = 0; r < known.size(); ++r)
        if (known[r].sigma > 0)
            samples.push_back({1 / prediction.reflections[r].length, known[r].value, known[r].sigma});
    const MeanIntensity means(std::move(samples));
    std::vector<double> intensities(known.size(), 0);
    for (std::size_t r = 0; r < known.size(); ++r)
        if (known[r].sigma > 0)
            intensities[r] = expectedIntensity(known[r].value, known[r].sigma,
                                               means.at(1 / prediction.reflections[r].length));
    std::vector<float> expected(prediction.spots.size());
    std::transform(prediction.spots.begin(), prediction.spots.end(), expected.begin(),
                   [&](const PredictedSpot& spot) {
                       return static_cast<float>(intensities[spot.reflection]) * spot.share;
                   });
    return expected;
}

}  // namespace vrk
