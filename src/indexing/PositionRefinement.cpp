#include "indexing/PositionRefinement.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "crystallography/UnitCell.h"
#include "foundation/VRKLogger.h"
#include "indexing/EwaldCurvature.h"
#include "indexing/ReflectionPositions.h"
#include "indexing/detail/FitPoints.h"
#include "indexing/detail/LatticeFit.h"
#include "reflections/ReflexVector.h"

namespace {

using VRK::detail::CellTies;
using VRK::detail::FitPoint;
using VRK::detail::Lattice;
using VRK::detail::LatticeFit;

constexpr double kDecisive = 4.0;

std::nullptr_t fail(const char* reason) {
    VRKLogger::getInstance()->log(std::string("The positions could not be refined: ") + reason, VRK::Error,
                                  VRK::Information);
    return nullptr;
}

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
        LatticeFit fit = VRK::detail::fitLattice(result.points, result.fit.lattice, tolerance, ties);
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
    return attempt.fit.valid && attempt.fit.indices[i][0] != VRK::detail::kNotIndexed;
}

/// Fills residuals and significance. \returns the index of the better attempt.
std::size_t compare(const std::array<Attempt, 2>& attempts, PositionRefinement::Result& result) {
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

void place(ReflexVector& list, const std::vector<FitPoint>& points) {
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (!list[i]) continue;
        const Eigen::Vector3d& p = points[i].position;
        Reflex moved(p.x(), p.y(), p.z());
        moved.setIntensity(list[i]->getIntensity());
        *list[i] = moved;
    }
}

}  // namespace

void PositionRefinement::setConstraint(LATTICE::BravaisTypes type, const double toConventional[3][3]) {
    m_type = type;
    VRK::detail::copyMatrix(toConventional, m_toConventional);
}

ReflexVector* PositionRefinement::refine(const ReflexVector* found, const SamplingGeometry& geometry,
                                         UnitCell* cell, double origin[3]) {
    std::vector<double> tilts;
    const ReflexVectorPtr positions(ReflectionPositions::fromSamples(found, geometry, &tilts));
    return positions ? refine(positions.get(), tilts, cell, origin) : nullptr;
}

ReflexVector* PositionRefinement::refine(const ReflexVector* positions, std::span<const double> tilts,
                                         UnitCell* cell, double origin[3]) {
    using namespace VRK::detail;
    if (!positions) return fail("there is no list of reflections.");
    if (tilts.size() != positions->size()) return fail("there has to be one tilt for each reflection.");
    const CellTies ties = tiesOf(m_type, m_toConventional);
    if (const char* reason = obstacle(cell, origin, m_tolerance, ties)) return fail(reason);

    const Lattice start = latticeFrom(*cell, origin);
    const double pixelSize = cell->getPixelsize();
    const bool curved = m_wavelength > 0.0 && pixelSize > 0.0;
    const EwaldCurvature curvature(curved ? m_wavelength : 0.0, curved ? pixelSize : 0.0);
    const std::vector<FitPoint> found = gatherPoints(*positions, 0);

    std::array<Attempt, 2> attempts;
    attempts[0] = attempt(found, tilts, start, curvature, +1, m_tolerance, ties);
    attempts[1] = curved ? attempt(found, tilts, start, curvature, -1, m_tolerance, ties) : attempts[0];
    if (!attempts[0].fit.valid && !attempts[1].fit.valid) return fail(kNoFit);
    Result result{};
    std::size_t best = compare(attempts, result);
    if (!attempts[best].fit.valid) best = 1 - best;

    ReflexVectorPtr list(ReflectionPositions::copies(positions, 0, origin, nullptr));
    place(*list, attempts[best].points);
    assignIndices(*list, attempts[best].fit.indices);
    result.sense = curved ? attempts[best].sense : 0;
    result.lattice = describe(attempts[best].fit, ties, pixelSize);
    m_result = result;
    storeLattice(result.lattice, *cell, origin);
    return list.release();
}
