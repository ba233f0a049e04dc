#include "pipeline/geometry/CurvatureScale.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <vector>

#include "pipeline/base/Median.h"
#include "pipeline/base/NormalEquations.h"
#include "pipeline/base/SymmetricSystem.h"
#include "pipeline/latticesearch/LatticeFit.h"

namespace vrk {
namespace {

/// Of the twelve numbers of the lattice, and the factor.
constexpr Eigen::Index kNumbers = 13;
constexpr std::size_t kFewestCurved = 60;
/// What the rotation, rocking curves that are not even, and tilts that are off do to reflections alike.
constexpr double kCommonError = 0.012;

struct CurvedPoint {
    Eigen::Vector3d position;
    Eigen::Vector3d step;  ///< by which the curvature moved it
    double weight;
};

/// A lattice and the factor, one better than the other.
class CurvedFit {
public:
    CurvedFit(const Lattice& lattice, double tolerance)
        : m_basis(lattice.basis), m_origin(lattice.origin), m_tolerance(tolerance) {}

    void add(const CurvedPoint& point) { m_points.push_back(point); }

    /// One step. False where the points do not determine it.
    bool improve() {
        constexpr double kTukey = 6.3;
        constexpr double kMedianOfLength = 1.5382;  // of three coordinates of deviation 1
        collect();
        if (m_off.size() < kFewestCurved) return false;
        std::vector<double> lengths;
        for (const Eigen::Vector3d& off : m_off)
            lengths.push_back(off.norm());
        m_spread = std::max(medianOf(lengths) / kMedianOfLength, 1e-4);
        NormalEquations equations(kNumbers);
        NormalEquations::Derivatives derivatives = NormalEquations::Derivatives::Zero(kNumbers, 3);
        for (std::size_t i = 0; i < m_off.size(); ++i) {
            const double ratio = m_off[i].norm() / (kTukey * m_spread);
            if (ratio >= 1.0) continue;
            const double robust = (1.0 - ratio * ratio) * (1.0 - ratio * ratio);
            for (Eigen::Index part = 0; part < 4; ++part)
                derivatives.middleRows<3>(3 * part).diagonal().setConstant(m_nodes[i](part));
            derivatives.row(kNumbers - 1) = -m_indexed[i]->step.transpose();
            equations.add(derivatives, m_off[i], robust * m_indexed[i]->weight);
        }
        const Eigen::MatrixXd inverse = scaledInverse(equations.matrix());
        const Eigen::VectorXd change = inverse * equations.right();
        if (!change.allFinite()) return false;
        for (Eigen::Index part = 0; part < 3; ++part)
            m_basis.col(part) += change.segment<3>(3 * part);
        m_origin += change.segment<3>(9);
        m_excess += change(kNumbers - 1);
        m_sigma = m_spread * std::sqrt(std::max(inverse(kNumbers - 1, kNumbers - 1), 0.0));
        return true;
    }

    double factor() const { return 1.0 + m_excess; }
    double sigma() const { return m_sigma; }

private:
    void collect() {
        const Eigen::Matrix3d inverse = m_basis.inverse();
        m_off.clear();
        m_nodes.clear();
        m_indexed.clear();
        for (const CurvedPoint& point : m_points) {
            const Eigen::Vector3d place = point.position + m_excess * point.step;
            const Indices hkl = indexPosition(inverse * (place - m_origin), m_tolerance);
            if (hkl[0] == kNotIndexed || hkl == Indices{0, 0, 0}) continue;
            const Eigen::Vector4d node(hkl[0], hkl[1], hkl[2], 1.0);
            m_nodes.push_back(node);
            m_off.push_back(place - m_basis * node.head<3>() - m_origin);
            m_indexed.push_back(&point);
        }
    }

    Eigen::Matrix3d m_basis;
    Eigen::Vector3d m_origin;
    double m_tolerance;
    std::vector<CurvedPoint> m_points;
    double m_excess = 0.0, m_sigma = 0.0, m_spread = 0.0;
    std::vector<Eigen::Vector3d> m_off;
    std::vector<Eigen::Vector4d> m_nodes;
    std::vector<const CurvedPoint*> m_indexed;
};

}  // namespace

bool CurvatureScale::contradicts() const {
    constexpr double kSignificant = 5.0;
    return sigma > 0.0 && std::abs(factor - 1.0) > kSignificant * sigma;
}

CurvatureScale CurvatureScale::of(std::span<const Eigen::Vector3d> positions, std::span<const double> tilts,
                                  const Lattice& lattice, double curvature, double tolerance) {
    constexpr int kRounds = 10;
    CurvatureScale result;
    if (curvature == 0.0 || positions.size() != tilts.size()) return result;
    CurvedFit fit(lattice, tolerance);
    for (std::size_t i = 0; i < positions.size(); ++i) {
        const Eigen::Vector3d place = positions[i] - lattice.origin;
        if (!place.allFinite() || !std::isfinite(tilts[i])) continue;
        const Eigen::Vector3d normal(-std::sin(tilts[i]), 0.0, std::cos(tilts[i]));
        const double step = -curvature * place.squaredNorm();
        // The tilt of a place that the sphere hardly crosses is not well known.
        const double fromAxis2 = place.x() * place.x() + place.z() * place.z();
        const double sum = fromAxis2 + 4.0 * step * step;
        fit.add({positions[i], step * normal, sum > 0.0 ? fromAxis2 / sum : 0.0});
    }
    for (int round = 0; round < kRounds; ++round)
        if (!fit.improve()) return result;
    result.factor = fit.factor();
    result.sigma = std::hypot(fit.sigma(), kCommonError);
    return result;
}

}  // namespace vrk
