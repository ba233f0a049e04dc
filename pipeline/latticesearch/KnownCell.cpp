#include "pipeline/latticesearch/KnownCell.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <cmath>
#include <vector>

#include "pipeline/base/Angle.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

constexpr double kMostScale = 0.15;
constexpr double kMostStrain = 0.04;
constexpr double kMostAngle = 4.0 * kDegree;
constexpr double kMostKnownNodes = 4.5;  // of a centred cell

/// A vector of the lattice that may be an edge.
struct Edge {
    Vector3d indices;
    Vector3d vector;
    double stretch;  ///< logarithm of its length over the known one
};

std::vector<Edge> edgesOf(const Matrix3d& primitive, double length) {
    constexpr int kReach = 4;
    std::vector<Edge> edges;
    for (int i = -kReach; i <= kReach; ++i)
        for (int j = -kReach; j <= kReach; ++j)
            for (int k = -kReach; k <= kReach; ++k) {
                const Vector3d indices(i, j, k);
                const Vector3d vector = primitive * indices;
                const double stretch = std::log(vector.norm() / length);
                if (std::abs(stretch) < kMostScale) edges.push_back({indices, vector, stretch});
            }
    return edges;
}

/// By how much an angle is off, radians.
double turnOf(const Edge& one, const Edge& other, double degrees) {
    const Vector3d cross = one.vector.cross(other.vector);
    return std::atan2(cross.norm(), one.vector.dot(other.vector)) - degrees * kDegree;
}

}  // namespace

std::optional<Matrix3d> toKnownCell(const Matrix3d& primitive, const std::array<double, 6>& cell) {
    if (!(std::abs(primitive.determinant()) > 0.0)) return std::nullopt;
    const std::vector<Edge> as = edgesOf(primitive, cell[0]);
    const std::vector<Edge> bs = edgesOf(primitive, cell[1]);
    const std::vector<Edge> cs = edgesOf(primitive, cell[2]);
    const double hand = primitive.determinant() > 0.0 ? 1.0 : -1.0;
    std::optional<Matrix3d> best;
    double least = 0.0;
    for (const Edge& a : as)
        for (const Edge& b : bs) {
            const double gamma = turnOf(a, b, cell[5]);
            if (std::abs(gamma) > kMostAngle || std::abs(a.stretch - b.stretch) > kMostStrain) continue;
            for (const Edge& c : cs) {
                if (std::abs(a.stretch - c.stretch) > kMostStrain ||
                    std::abs(b.stretch - c.stretch) > kMostStrain)
                    continue;
                const double alpha = turnOf(b, c, cell[3]);
                const double beta = turnOf(a, c, cell[4]);
                if (std::abs(alpha) > kMostAngle || std::abs(beta) > kMostAngle) continue;
                Matrix3d matrix;
                matrix << a.indices, b.indices, c.indices;
                const double nodes = hand * matrix.determinant();
                if (!(nodes > 0.5 && nodes < kMostKnownNodes)) continue;
                const Vector3d stretches(a.stretch, b.stretch, c.stretch);
                const double misfit = Vector3d(alpha, beta, gamma).squaredNorm() +
                                      (stretches.array() - stretches.mean()).matrix().squaredNorm();
                if (best && misfit >= least) continue;
                best = matrix;
                least = misfit;
            }
        }
    return best;
}

}  // namespace vrk
