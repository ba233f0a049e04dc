#include "pipeline/integration/WilsonPosterior.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vrk {
namespace {

/// The normal distribution is cut off so many standard deviations from its middle.
constexpr double kPriorReach = 7;
/// Intensities so many standard deviations above 0 have normal amplitudes.
constexpr double kStrong = 40;
constexpr int kSteps = 200;

}  // namespace

double expectedIntensity(double intensity, double sigma, double mean) {
    if (!(sigma > 0) || !(mean > 0)) return std::max(intensity, 0.0);
    // An exponential times a normal distribution is a normal one about another middle, cut off at 0.
    const double middle = intensity / sigma - sigma / mean;
    if (middle > kPriorReach) return middle * sigma;
    if (middle < -kPriorReach) return sigma / (-middle + 2 / -middle);
    const double density = std::exp(-middle * middle / 2) / std::sqrt(2 * std::numbers::pi);
    return sigma * (middle + density / (0.5 * std::erfc(-middle / std::numbers::sqrt2)));
}

Estimate expectedAmplitude(double intensity, double sigma, double mean, bool centric) {
    if (!(sigma > 0) || !(mean > 0)) return {std::sqrt(std::max(intensity, 0.0)), 0};
    const double rate = (centric ? 0.5 : 1) / mean;
    const double middle = intensity - rate * sigma * sigma;
    const double relative = middle / sigma;
    if (relative > kStrong) return {std::sqrt(middle), sigma / (2 * std::sqrt(middle))};
    // Far below 0 the rest of the distribution falls off as an exponential.
    const double above = relative > 0 ? kPriorReach : kPriorReach / (1 - relative / kPriorReach);
    const double from = std::sqrt(std::max(middle - kPriorReach * sigma, 0.0));
    const double to = std::sqrt(std::max(middle, 0.0) + above * sigma);
    const double least = std::max(-middle, 0.0) / sigma;
    double sum = 0, first = 0, second = 0;
    for (int i = 0; i < kSteps; ++i) {
        const double amplitude = from + (to - from) * (i + 0.5) / kSteps;
        const double off = (amplitude * amplitude - middle) / sigma;
        const double weight = (centric ? 1 : amplitude) * std::exp(-(off * off - least * least) / 2);
        sum += weight;
        first += weight * amplitude;
        second += weight * amplitude * amplitude;
    }
    const double value = first / sum;
    return {value, std::sqrt(std::max(second / sum - value * value, 0.0))};
}

}  // namespace vrk
