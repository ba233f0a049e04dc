#include "pipeline/latticesearch/PositionRefinement.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "foundation/SharedLoop.h"
#include "indexing/EwaldCurvature.h"

namespace vrk {
namespace {

constexpr double kDecisive = 4.0;

/// The reflections corrected with one sense, and the lattice that fits them.
struct Attempt {
    int sense = 0;
    std::vector<FitPoint> points;
    LatticeFit fit;
};

/// Corrects all positions about an origin and weighs them by how well their tilt is defined.
std::vector<FitPoint> corrected(std::span<const FitPoint> found, std::span<const double> tilts,
                                const Eigen::Vector3d& origin, const EwaldCurvature& curvature, int sense) {
    std::vector<FitPoint> points(found.begin(), found.end());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Eigen::Vector3d relative = found[i].position - origin;
        const double fromAxis2 = relative.x() * relative.x() + relative.z() * relative.z();
        const double step = curvature.step(relative.data());
        const double sum = fromAxis2 + 4.0 * step * step;
        points[i].weight = sum > 0.0 ? fromAxis2 / sum : 0.0;
        curvature.correct(found[i].position.data(), origin.data(), tilts[i], sense,
                          points[i].position.data());
    }
    return points;
}

Attempt attempt(std::span<const FitPoint> found, std::span<const double> tilts, const Lattice& start,
                const EwaldCurvature& curvature, int sense, double tolerance, const CellTies& ties) {
    Attempt result;
    result.sense = sense;
    result.fit.lattice = start;
    // The step depends on the origin, though weakly: a second round with the refined one is exact enough.
    for (int round = 0; round < 2; ++round) {
        result.points = corrected(found, tilts, result.fit.lattice.origin, curvature, sense);
        LatticeFit fit = fitLattice(result.points, result.fit.lattice, tolerance, ties);
        if (!fit.valid) break;
        result.fit = std::move(fit);
    }
    return result;
}

std::vector<double> squaredDistances(const Attempt& attempt) {
    const Eigen::Matrix3d inverse = attempt.fit.lattice.basis.inverse();
    std::vector<double> result;
    result.reserve(attempt.points.size());
    for (const FitPoint& point : attempt.points) {
        const Eigen::Vector3d q = inverse * (point.position - attempt.fit.lattice.origin);
        const Eigen::Vector3d off = q - q.array().round().matrix();
        result.push_back((attempt.fit.lattice.basis * off).squaredNorm());
    }
    return result;
}

bool isIndexed(const Attempt& attempt, std::size_t i) {
    return attempt.fit.valid && attempt.fit.indices[i][0] != kNotIndexed;
}

/// Fills residuals and significance. \returns the index of the better attempt.
std::size_t compare(const std::array<Attempt, 2>& attempts, RefinedPositions& result) {
    double sigma = std::numeric_limits<double>::infinity();
    for (const Attempt& one : attempts)
        if (one.fit.valid) sigma = std::min(sigma, one.fit.sigma);
    const double limit = 36.0 * sigma * sigma;
    const std::array<std::vector<double>, 2> distances = {squaredDistances(attempts[0]),
                                                          squaredDistances(attempts[1])};
    double count = 0.0, difference = 0.0, difference2 = 0.0;
    std::array<double, 2> sum = {0.0, 0.0};
    for (std::size_t i = 0; i < distances[0].size(); ++i) {
        if (!isIndexed(attempts[0], i) && !isIndexed(attempts[1], i)) continue;
        const double weight = attempts[0].points[i].weight;
        const double plus = weight * std::min(distances[0][i], limit);
        const double minus = weight * std::min(distances[1][i], limit);
        sum[0] += plus;
        sum[1] += minus;
        difference += minus - plus;
        difference2 += (minus - plus) * (minus - plus);
        count += weight;
    }
    for (std::size_t s = 0; s < 2; ++s)
        result.residual[s] = count > 0.0 ? std::sqrt(sum[s] / count) : 0.0;
    const double spread =
        std::sqrt(std::max(difference2 - difference * difference / std::max(count, 1.0), 0.0));
    result.significance = spread > 0.0 ? std::abs(difference) / spread : 0.0;
    result.decided = result.significance >= kDecisive;
    return sum[1] < sum[0] ? 1 : 0;
}

bool canStart(std::span<const Eigen::Vector3d> positions, std::span<const double> tilts, const Lattice& start,
              const RefinementSettings& settings) {
    return positions.size() == tilts.size() && start.basis.allFinite() && start.origin.allFinite() &&
           !start.toUnitCell().isDegenerate() && settings.tolerance > 0.0 && settings.tolerance <= 0.5 &&
           std::abs(settings.ties.toConventional.determinant()) > 1e-6;
}

}  // namespace

std::optional<RefinedPositions> refinePositions(std::span<const Eigen::Vector3d> positions,
                                                std::span<const double> tilts, const Lattice& start,
                                                const RefinementSettings& settings) {
    if (!canStart(positions, tilts, start, settings)) return std::nullopt;
    const bool curved = settings.wavelength > 0.0 && start.pixelSize > 0.0;
    const EwaldCurvature curvature(curved ? settings.wavelength : 0.0, curved ? start.pixelSize : 0.0);
    const std::vector<FitPoint> found = fitPointsAt(positions);

    std::array<Attempt, 2> attempts;
    VRK::shareItems(curved ? 2 : 1, [&](std::size_t i, std::size_t) {
        attempts[i] =
            attempt(found, tilts, start, curvature, i == 0 ? +1 : -1, settings.tolerance, settings.ties);
    });
    if (!curved) attempts[1] = attempts[0];
    if (!attempts[0].fit.valid && !attempts[1].fit.valid) return std::nullopt;
    RefinedPositions result;
    std::size_t best = compare(attempts, result);
    if (curved && settings.sense != 0) best = settings.sense > 0 ? 0 : 1;
    if (!attempts[best].fit.valid) best = 1 - best;

    for (const FitPoint& point : attempts[best].points)
        result.positions.push_back(point.position);
    result.indices = attempts[best].fit.indices;
    result.sense = curved ? attempts[best].sense : 0;
    result.lattice = describe(attempts[best].fit, settings.ties);
    return result;
}

}  // namespace vrk
