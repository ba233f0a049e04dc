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

constexpr int kRounds = 3;
/// Friedel mates farther apart than this differ by more than noise: standard deviations of the difference.
constexpr double kAgreement = 3;

/// What the fits know of every intensity, each taken together with its Friedel mate where the two agree.
std::vector<Estimate> withMates(const SpotPrediction& prediction, std::span<const CurveFit> fits) {
    std::vector<Estimate> known(fits.size());
    std::map<std::array<int, 3>, std::size_t> earlier;
    for (std::size_t r = 0; r < fits.size(); ++r) {
        known[r] = {fits[r].intensity, fits[r].sigma};
        if (!(fits[r].sigma > 0)) continue;
        const PredictedReflection& one = prediction.reflections[r];
        earlier[{one.h, one.k, one.l}] = r;
        const auto mate = earlier.find({-one.h, -one.k, -one.l});
        if (mate == earlier.end()) continue;
        const CurveFit& other = fits[mate->second];
        if (std::abs(fits[r].intensity - other.intensity) >
            kAgreement * std::hypot(fits[r].sigma, other.sigma))
            continue;
        const double weight = 1 / (fits[r].sigma * fits[r].sigma);
        const double otherWeight = 1 / (other.sigma * other.sigma);
        const double sum = weight + otherWeight;
        known[r] = {(weight * fits[r].intensity + otherWeight * other.intensity) / sum, 1 / std::sqrt(sum)};
        known[mate->second] = known[r];
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
    for (int round = 0; round < kRounds; ++round) {
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

std::vector<float> expectedCounts(const SpotPrediction& prediction, std::span<const CurveFit> fits) {
    const std::vector<Estimate> known = withMates(prediction, fits);
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
