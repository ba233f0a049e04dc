#include "pipeline/integration/LaueGroup.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <gemmi/symmetry.hpp>
#include <map>
#include <numbers>
#include <set>
#include <tuple>

#include "foundation/SharedLoop.h"
#include "pipeline/integration/BySpacing.h"
#include "pipeline/integration/SpaceGroupTable.h"
#include "pipeline/simulation/SimulatedCrystal.h"

namespace vrk {
namespace {

constexpr double kMetricTolerance = 1e-4;
/// So far the correlation of true equivalents may be from that of Friedel mates though nothing is wrong.
constexpr double kCorrelationWidth = 0.12;
/// Multiple scattering and absorption spoil true equivalents, which cross the sphere on other paths, more
/// than Friedel mates, which share theirs: the true rotations may be correlated down to this part of Friedel
/// mates, at a price of so much of the logarithm for all of that.
constexpr double kLeastOfFriedel = 0.3;
constexpr double kPriceOfSpoiling = 1.5;
/// What a group must have over one of half its order: a symmetry that is not there spoils every mean, one
/// that is missed costs only redundancy.
constexpr double kPriceOfDoubling = 0.7;
/// Decay of the correlations of rotations that are none.
constexpr double kFalseDecay = 3;
constexpr std::size_t kShellSize = 100;
/// Hardly a true intensity is so many times the mean; a single wrong one would decide the correlations.
constexpr double kMostNormalised = 6;

Eigen::Vector3d vectorOf(const Indices& hkl) {
    return {static_cast<double>(hkl[0]), static_cast<double>(hkl[1]), static_cast<double>(hkl[2])};
}

IndexRotation product(const IndexRotation& a, const IndexRotation& b) {
    IndexRotation c;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) {
            c.matrix[i][j] = 0;
            for (std::size_t k = 0; k < 3; ++k)
                c.matrix[i][j] += a.matrix[i][k] * b.matrix[k][j];
        }
    return c;
}

int determinant(const IndexRotation& r) {
    const auto& m = r.matrix;
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

/// Whether a rotation takes the allowed reflections of a centring to allowed ones.
bool keepsCentring(const IndexRotation& rotation, char centring) {
    for (int h = -2; h <= 2; ++h)
        for (int k = -2; k <= 2; ++k)
            for (int l = -2; l <= 2; ++l) {
                const Indices to = rotation({h, k, l});
                if (isExtinct(centring, h, k, l) != isExtinct(centring, to[0], to[1], to[2])) return false;
            }
    return true;
}

/// The smallest group with the given rotations, sorted; of what belongs to no lattice a part of it.
LaueRotations closure(LaueRotations rotations) {
    std::set<IndexRotation> group(rotations.begin(), rotations.end());
    group.insert(IndexRotation());
    constexpr std::size_t most = 24;
    for (bool grown = true; grown && group.size() <= most;) {
        grown = false;
        const LaueRotations now(group.begin(), group.end());
        for (const IndexRotation& a : now)
            for (const IndexRotation& b : now)
                grown = group.insert(product(a, b)).second || grown;
    }
    return {group.begin(), group.end()};
}

/// Intensities over their mean in shells of the same number of reflections and the fall-off within them.
struct Normalised {
    std::map<Indices, std::pair<double, double>> values;  ///< with their uncertainties
    double signal = 0;                                    ///< part of the variance that is not noise

    explicit Normalised(std::span<const Observation> observations);
};

/// The slope of ln of the mean intensity over 1 / d^2, by Fisher scoring for intensities that are distributed
/// exponentially about their mean. Within a shell, too, equivalents share the fall-off, which would make any
/// rotation look like one of the crystal's.
double slopeOf(const std::vector<const Observation*>& sorted) {
    constexpr int kSteps = 20;
    const auto count = static_cast<double>(sorted.size());
    double middle = 0, mean = 0;
    for (const Observation* one : sorted) {
        middle += 1 / (one->spacing * one->spacing) / count;
        mean += one->intensity / count;
    }
    double spread = 0;
    for (const Observation* one : sorted) {
        const double x = 1 / (one->spacing * one->spacing) - middle;
        spread += x * x;
    }
    if (!(mean > 0) || !(spread > 0)) return 0;
    const double farthest = 1 / std::sqrt(spread / count);
    double level = std::log(mean), slope = 0;
    for (int step = 0; step < kSteps; ++step) {
        double ofLevel = 0, ofSlope = 0;
        for (const Observation* one : sorted) {
            const double x = 1 / (one->spacing * one->spacing) - middle;
            const double ratio = one->intensity / std::exp(level + slope * x);
            const double residual = std::min(ratio, kMostNormalised) - 1;
            ofLevel += residual;
            ofSlope += residual * x;
        }
        // A start far from the end takes large steps that do not overshoot.
        level += std::clamp(ofLevel / count, -1.0, 1.0);
        slope += std::clamp(ofSlope / spread, -farthest, farthest);
    }
    return std::isfinite(slope) ? slope : 0;
}

Normalised::Normalised(std::span<const Observation> observations) {
    std::vector<const Observation*> sorted;
    for (const Observation& one : observations)
        if (!one.outlier) sorted.push_back(&one);
    sortBySpacing(sorted, [](const Observation* one) { return one->spacing; });
    const double slope = slopeOf(sorted);
    const std::size_t shells = std::max<std::size_t>(1, sorted.size() / kShellSize);
    double sum = 0, squares = 0, noise = 0;
    std::vector<double> fallOff;
    for (std::size_t shell = 0; shell < shells; ++shell) {
        const std::size_t first = sorted.size() * shell / shells;
        const std::size_t last = sorted.size() * (shell + 1) / shells;
        const auto inShell = static_cast<double>(last - first);
        fallOff.clear();
        double mean = 0, error = 0;
        for (std::size_t i = first; i < last; ++i) {
            const double s = 1 / sorted[i]->spacing, start = 1 / sorted[first]->spacing;
            fallOff.push_back(std::exp(slope * (s * s - start * start)));
            mean += sorted[i]->intensity / fallOff.back() / inShell;
            error += sorted[i]->sigma / fallOff.back() / inShell;
        }
        mean = std::max(mean, 0.3 * error);
        for (std::size_t i = first; i < last; ++i) {
            const double expected = mean * fallOff[i - first];
            const double value = std::min(sorted[i]->intensity / expected, kMostNormalised);
            const double sigma = sorted[i]->sigma / expected;
            values[sorted[i]->hkl] = {value, sigma};
            sum += value;
            squares += value * value;
            noise += sigma * sigma;
        }
    }
    const auto count = static_cast<double>(std::max<std::size_t>(sorted.size(), 1));
    const double variance = squares / count - sum * sum / (count * count);
    signal = variance > 0 ? std::clamp(1 - noise / count / variance, 0.05, 1.0) : 0.05;
}

/// The weighted correlation of intensities with those at \p partner. Where a rotation keeps indices or
/// inverts them, on its axis and in the plane perpendicular to it, equal intensities say nothing of it.
template <typename Partner>
std::pair<double, int> correlation(const Normalised& normalised, Partner partner, bool friedel) {
    double w = 0, x = 0, xx = 0, xy = 0;
    int pairs = 0;
    for (const auto& [hkl, value] : normalised.values) {
        const Indices other = partner(hkl);
        const Indices mate = {-other[0], -other[1], -other[2]};
        if (!friedel && (other == hkl || mate == hkl)) continue;
        for (const Indices& target : {other, mate}) {
            if (target == hkl || target < hkl) continue;
            const auto found = normalised.values.find(target);
            if (found == normalised.values.end()) continue;
            const double weight =
                1 / (0.2 + value.second * value.second + found->second.second * found->second.second);
            // The order within a pair is arbitrary: both count, and both sides have the same sums.
            const double a = value.first, b = found->second.first;
            w += 2 * weight;
            x += weight * (a + b);
            xx += weight * (a * a + b * b);
            xy += 2 * weight * a * b;
            ++pairs;
        }
    }
    const double squaredMean = x * x / std::max(w, 1e-9);
    const double variance = xx - squaredMean;
    return {pairs > 2 && variance > 0 ? (xy - squaredMean) / variance : 0, pairs};
}

/// Of the equivalents under a group; the second is the number of unique reflections.
std::pair<double, int> rMeasOf(std::span<const Observation> observations, const LaueRotations& rotations) {
    std::map<Indices, std::vector<double>> groups;
    for (const Observation& one : observations)
        if (!one.outlier) groups[representative(one.hkl, rotations)].push_back(one.intensity);
    double top = 0, bottom = 0;
    for (const auto& [hkl, values] : groups) {
        if (values.size() < 2) continue;
        double mean = 0;
        const auto count = static_cast<double>(values.size());
        for (const double value : values)
            mean += value / count;
        for (const double value : values) {
            top += std::sqrt(count / (count - 1)) * std::abs(value - mean);
            bottom += value;
        }
    }
    return {bottom > 0 ? top / bottom : 0, static_cast<int>(groups.size())};
}

double lnTrue(double value, double expected, int pairs) {
    const double width = std::sqrt(kCorrelationWidth * kCorrelationWidth + 1.0 / pairs);
    return -std::log(std::numbers::pi * width * (1 + std::pow((value - expected) / width, 2)));
}

double lnFalse(double value, int pairs) {
    const double blur = 1 / std::sqrt(static_cast<double>(pairs));
    return std::log(kFalseDecay) - kFalseDecay * std::max(std::abs(value) - blur, 0.0);
}

/// Mean correlation of the rotations of a group, and its evidence with that as what true ones have.
void judge(const LaueChoice& choice, LaueCandidate& candidate) {
    const auto inside = [&](const RotationEvidence& one) {
        return std::find(candidate.rotations.begin(), candidate.rotations.end(), one.rotation) !=
               candidate.rotations.end();
    };
    double sum = 0;
    int counted = 0;
    for (const RotationEvidence& one : choice.rotations)
        if (one.pairs >= 3 && inside(one)) {
            sum += one.correlation;
            ++counted;
        }
    candidate.correlation = counted > 0 ? sum / counted : 0;
    const double friedel = choice.friedelCorrelation;
    const double expected = std::clamp(candidate.correlation, kLeastOfFriedel * friedel, friedel);
    if (counted > 0) candidate.evidence -= kPriceOfSpoiling * (1 - expected / friedel);
    candidate.evidence -= kPriceOfDoubling * std::log2(static_cast<double>(candidate.rotations.size()));
    for (const RotationEvidence& one : choice.rotations)
        if (one.pairs >= 3)
            candidate.evidence += inside(one) ? lnTrue(one.correlation, expected, one.pairs)
                                              : lnFalse(one.correlation, one.pairs);
}

}  // namespace

Indices IndexRotation::operator()(const Indices& hkl) const {
    Indices result{};
    for (std::size_t i = 0; i < 3; ++i)
        result[i] = matrix[i][0] * hkl[0] + matrix[i][1] * hkl[1] + matrix[i][2] * hkl[2];
    return result;
}

Eigen::Matrix3d matrixOf(const IndexRotation& rotation) {
    Eigen::Matrix3d matrix;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            matrix(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j)) = rotation.matrix[i][j];
    return matrix;
}

LaueRotations latticeRotations(const Eigen::Matrix3d& reciprocal, char centring) {
    const Eigen::Matrix3d metric = reciprocal.transpose() * reciprocal;
    const Eigen::Vector3d inverseLengths = metric.diagonal().cwiseSqrt().cwiseInverse();
    std::array<std::vector<Indices>, 3> images;
    for (int h = -1; h <= 1; ++h)
        for (int k = -1; k <= 1; ++k)
            for (int l = -1; l <= 1; ++l) {
                const Eigen::Vector3d v = vectorOf({h, k, l});
                for (int axis = 0; axis < 3; ++axis)
                    if (std::abs(v.dot(metric * v) / metric(axis, axis) - 1) < kMetricTolerance)
                        images[static_cast<std::size_t>(axis)].push_back({h, k, l});
            }
    LaueRotations rotations;
    for (const Indices& a : images[0])
        for (const Indices& b : images[1])
            for (const Indices& c : images[2]) {
                IndexRotation rotation;
                for (std::size_t i = 0; i < 3; ++i)
                    rotation.matrix[i] = {a[i], b[i], c[i]};
                Eigen::Matrix3d m;
                m << vectorOf(a), vectorOf(b), vectorOf(c);
                // By the lengths that belong to each product: along a far longer axis a shear by a short one
                // hardly shows.
                const Eigen::Matrix3d off = m.transpose() * metric * m - metric;
                const double change =
                    (inverseLengths.asDiagonal() * off * inverseLengths.asDiagonal()).cwiseAbs().maxCoeff();
                if (change < kMetricTolerance && determinant(rotation) == 1 &&
                    keepsCentring(rotation, centring))
                    rotations.push_back(rotation);
            }
    const auto one = std::find(rotations.begin(), rotations.end(), IndexRotation());
    if (one != rotations.end()) std::rotate(rotations.begin(), one, one + 1);
    return rotations;
}

Indices representative(const Indices& hkl, const LaueRotations& rotations) {
    Indices largest = hkl;
    for (const IndexRotation& rotation : rotations) {
        const Indices one = rotation(hkl);
        largest = std::max({largest, one, Indices{-one[0], -one[1], -one[2]}});
    }
    return largest;
}

LaueChoice chooseLaueGroup(std::span<const Observation> observations, const Eigen::Matrix3d& reciprocal,
                           char centring) {
    LaueChoice choice;
    const LaueRotations lattice = latticeRotations(reciprocal, centring);
    const Normalised normalised(observations);
    const auto friedel = correlation(
        normalised, [](const Indices& hkl) { return hkl; }, true);
    choice.friedelCorrelation =
        friedel.second >= 50 ? std::clamp(friedel.first, 0.1, 1.0) : normalised.signal;
    for (const IndexRotation& rotation : lattice)
        if (rotation != IndexRotation()) choice.rotations.push_back({rotation});
    VRK::shareItems(choice.rotations.size(), [&](std::size_t i, std::size_t) {
        RotationEvidence& one = choice.rotations[i];
        std::tie(one.correlation, one.pairs) = correlation(normalised, one.rotation, false);
    });

    std::set<LaueRotations> groups;
    for (const IndexRotation& a : lattice)
        for (const IndexRotation& b : lattice)
            groups.insert(closure({a, b}));
    for (const LaueRotations& group : groups) {
        LaueCandidate candidate;
        const gemmi::SpaceGroup* named = symmorphicGroup(group, centring);
        // A lattice may be more symmetric than the crystal: no symmetry at all is possible in all axes.
        if (!named && group.size() > 1) continue;
        candidate.symbol = named ? named->xhm() : std::string(1, centring) + " -1";
        candidate.laueClass = named ? named->laue_str() : "-1";
        candidate.rotations = group;
        choice.candidates.push_back(std::move(candidate));
    }
    VRK::shareItems(choice.candidates.size(), [&](std::size_t i, std::size_t) {
        LaueCandidate& candidate = choice.candidates[i];
        judge(choice, candidate);
        std::tie(candidate.rMeas, candidate.unique) = rMeasOf(observations, candidate.rotations);
    });
    std::sort(choice.candidates.begin(), choice.candidates.end(),
              [](const LaueCandidate& a, const LaueCandidate& b) { return a.evidence > b.evidence; });
    const double best = choice.candidates.front().evidence;
    for (LaueCandidate& candidate : choice.candidates)
        candidate.evidence -= best;
    return choice;
}

}  // namespace vrk
