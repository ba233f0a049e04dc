#include "pipeline/geometry/CentreRefinement.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Median.h"

namespace vrk {
namespace {

/// A reflection lies on a node within this part of a base vector.
constexpr double kOnNode = 0.2;
constexpr std::size_t kFewest = 6;

/// A reflection in the frame of its pattern.
struct Spot {
    Eigen::Vector3d place;   ///< from the centre, voxels
    Eigen::Vector3d across;  ///< direction
};

class PatternSpots {
public:
    PatternSpots(const Lattice& lattice) : m_basis(lattice.basis), m_inverse(lattice.basis.inverse()) {}

    void add(const Spot& spot) { m_spots.push_back(spot); }
    std::size_t size() const { return m_spots.size(); }

    /// Share that lies on nodes once the pattern is moved.
    double shareOnNodes(const Eigen::Vector2d& shift) const {
        if (m_spots.empty()) return 0.0;
        const auto on = std::count_if(m_spots.begin(), m_spots.end(), [&](const Spot& spot) {
            const Eigen::Vector3d h = m_inverse * moved(spot, shift);
            return (h - h.array().round().matrix()).cwiseAbs().maxCoeff() < kOnNode;
        });
        return static_cast<double>(on) / static_cast<double>(m_spots.size());
    }

    /// The shortest fraction of a base vector that puts most spots on nodes; zero when there is none.
    Eigen::Vector2d fraction() const {
        constexpr double kMost = 0.8;
        constexpr std::array<double, 5> kParts = {0.0, 0.5, -0.5, 1.0 / 3, -1.0 / 3};
        Eigen::Vector2d best = Eigen::Vector2d::Zero();
        double bestShare = kMost;
        const Eigen::Vector3d& direction = m_spots.front().across;
        for (const double a : kParts)
            for (const double b : kParts)
                for (const double c : kParts) {
                    const Eigen::Vector3d vector = m_basis * Eigen::Vector3d(a, b, c);
                    const Eigen::Vector2d shift(vector.dot(direction), vector.y());
                    const double share = shareOnNodes(shift);
                    const bool shorter = share >= bestShare && shift.norm() < best.norm();
                    if (share <= bestShare + 1e-9 && !shorter) continue;
                    bestShare = share;
                    best = shift;
                }
        return best;
    }

    CentreShift refine(const Eigen::Vector2d& start) const {
        std::vector<double> across, along;
        for (const Spot& spot : m_spots) {
            const Eigen::Vector3d place = moved(spot, start);
            const Eigen::Vector3d h = m_inverse * place;
            const Eigen::Vector3d node = h.array().round();
            if ((h - node).cwiseAbs().maxCoeff() >= kOnNode) continue;
            const Eigen::Vector3d off = place - m_basis * node;
            across.push_back(off.dot(spot.across));
            along.push_back(off.y());
        }
        CentreShift shift;
        shift.reflections = static_cast<int>(across.size());
        if (across.size() < kFewest) return shift;
        const auto [u, uSigma] = medianAndSigma(across);
        const auto [v, vSigma] = medianAndSigma(along);
        shift.across = start.x() + u;
        shift.along = start.y() + v;
        shift.sigma = std::max(uSigma, vSigma);
        return shift;
    }

private:
    static Eigen::Vector3d moved(const Spot& spot, const Eigen::Vector2d& shift) {
        return spot.place - shift.x() * spot.across - Eigen::Vector3d(0.0, shift.y(), 0.0);
    }

    static std::pair<double, double> medianAndSigma(std::vector<double>& values) {
        constexpr double kSigmaOfMedian = 1.25;  // over that of the mean
        const double median = medianOf(values);
        for (double& value : values)
            value = std::abs(value - median);
        const double spread = 1.4826 * medianOf(values);
        return {median, kSigmaOfMedian * spread / std::sqrt(static_cast<double>(values.size()))};
    }

    Eigen::Matrix3d m_basis, m_inverse;
    std::vector<Spot> m_spots;
};

std::size_t nearestPattern(std::span<const double> patterns, double degrees) {
    const auto above = std::lower_bound(patterns.begin(), patterns.end(), degrees);
    if (above == patterns.begin()) return 0;
    if (above == patterns.end()) return patterns.size() - 1;
    const auto index = static_cast<std::size_t>(above - patterns.begin());
    return *above - degrees < degrees - *(above - 1) ? index : index - 1;
}

}  // namespace

std::vector<CentreShift> refineCentres(std::span<const Eigen::Vector3d> positions,
                                       std::span<const double> tilts, const Lattice& lattice,
                                       const Eigen::Vector3d& centre, std::span<const double> patterns) {
    std::vector<CentreShift> shifts(patterns.size());
    const double volume = std::abs(lattice.basis.determinant());
    if (patterns.empty() || positions.size() != tilts.size() || !(volume > 0.0)) return shifts;
    std::vector<PatternSpots> spots(patterns.size(), PatternSpots(lattice));
    for (std::size_t i = 0; i < positions.size(); ++i) {
        if (!positions[i].allFinite() || !std::isfinite(tilts[i])) continue;
        const Eigen::Vector3d across(std::cos(tilts[i]), 0.0, std::sin(tilts[i]));
        spots[nearestPattern(patterns, tilts[i] / kDegree)].add({positions[i] - centre, across});
    }
    constexpr double kOffNodes = 0.5;     // share on nodes below which fractions are tried
    constexpr double kSignificant = 4.0;  // standard uncertainties
    constexpr double kWorthwhile = 0.25;  // pixels
    for (std::size_t i = 0; i < patterns.size(); ++i) {
        if (spots[i].size() < kFewest) continue;
        Eigen::Vector2d start = Eigen::Vector2d::Zero();
        if (spots[i].shareOnNodes(start) < kOffNodes) start = spots[i].fraction();
        shifts[i] = spots[i].refine(start);
        shifts[i].isFraction = !start.isZero();
        const double size = std::hypot(shifts[i].across, shifts[i].along);
        shifts[i].applies = static_cast<std::size_t>(shifts[i].reflections) >= kFewest &&
                            size > kWorthwhile && size > kSignificant * shifts[i].sigma;
    }
    return shifts;
}

}  // namespace vrk
