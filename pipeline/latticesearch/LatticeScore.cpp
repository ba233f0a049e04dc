#include "pipeline/latticesearch/LatticeScore.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <optional>

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

constexpr std::array<double, 7> kRadii = {0.5, 0.75, 1.1, 1.6, 2.3, 3.2, 4.5};

double sphereVolume(double radius) {
    return 4.0 / 3.0 * std::numbers::pi * radius * radius * radius;
}

Vector3d nearestIndices(const Vector3d& point, const Lattice& lattice, const Matrix3d& inverse) {
    return (inverse * (point - lattice.origin)).array().round();
}

/// Least squares of basis and origin on points with given indices; nothing when they lie in a plane.
std::optional<Lattice> solve(const std::vector<std::pair<Vector3d, Vector3d>>& indexed) {
    using Matrix4 = Eigen::Matrix4d;
    Matrix4 normal = Matrix4::Zero();
    Eigen::Matrix<double, 4, 3> side = Eigen::Matrix<double, 4, 3>::Zero();
    for (const auto& [indices, place] : indexed) {
        const Eigen::Vector4d row(indices[0], indices[1], indices[2], 1.0);
        normal.noalias() += row * row.transpose();
        side.noalias() += row * place.transpose();
    }
    const Eigen::LDLT<Matrix4> factors(normal);
    if (factors.info() != Eigen::Success || factors.vectorD().minCoeff() < 1e-6) return std::nullopt;
    const Eigen::Matrix<double, 4, 3> solution = factors.solve(side);
    Lattice lattice;
    lattice.basis = solution.topRows<3>().transpose();
    lattice.origin = solution.row(3).transpose();
    return lattice;
}

/// Integer matrices F of a determinant, one for each class under multiplication from the left: the lattices
/// B F^-1 are the superlattices of B of that index, each once, and the lattices B F^T the sublattices.
std::vector<Matrix3d> hermiteForms(int index) {
    std::vector<Matrix3d> forms;
    for (int a = 1; a <= index; ++a)
        for (int b = 1; a * b <= index; ++b) {
            if (index % (a * b) != 0) continue;
            const int c = index / (a * b);
            for (int d = 0; d < b; ++d)
                for (int e = 0; e < c; ++e)
                    for (int f = 0; f < c; ++f) {
                        Matrix3d form;
                        form << a, d, e, 0, b, f, 0, 0, c;
                        forms.push_back(form);
                    }
        }
    return forms;
}

/// Whether the nodes that `fine` has and `coarse` has not are there for a reason: judged on the points that
/// the coarse lattice leaves over.
bool needsFineNodes(std::span<const Vector3d> points, const Lattice& coarse, const Lattice& fine,
                    double radius) {
    const Matrix3d coarseInverse = coarse.basis.inverse();
    const Matrix3d fineInverse = fine.basis.inverse();
    int left = 0;
    int explained = 0;
    int kept = 0;
    for (const Vector3d& point : points) {
        if (distanceToNode(point, coarse, coarseInverse) <= radius) {
            ++kept;
            continue;
        }
        ++left;
        if (distanceToNode(point, fine, fineInverse) <= radius) ++explained;
    }
    const double chance =
        std::min(0.5, sphereVolume(radius) * (1.0 / fine.cellVolume() - 1.0 / coarse.cellVolume()));
    return explained >= 8 && explained >= 0.04 * kept && explained >= 0.12 * left &&
           evidenceOf(explained, left, chance) > 20.0;
}

}  // namespace

double evidenceOf(int successes, int trials, double chance) {
    if (trials <= 0 || chance <= 0.0 || chance >= 1.0) return 0.0;
    const double f = static_cast<double>(successes) / trials;
    if (f <= chance) return 0.0;
    const double rest = f < 1.0 ? (1.0 - f) * std::log((1.0 - f) / (1.0 - chance)) : 0.0;
    return trials * (f * std::log(f / chance) + rest);
}

double distanceToNode(const Vector3d& point, const Lattice& lattice, const Matrix3d& inverse) {
    return (point - lattice.origin - lattice.basis * nearestIndices(point, lattice, inverse)).norm();
}

LatticeScore scoreLattice(std::span<const Vector3d> points, const Lattice& lattice) {
    LatticeScore best;
    best.points = static_cast<int>(points.size());
    const double volume = lattice.cellVolume();
    if (!(volume > 0.0)) return best;
    const Matrix3d inverse = lattice.basis.inverse();
    std::array<int, kRadii.size()> within{};
    for (const Vector3d& point : points) {
        const double distance = distanceToNode(point, lattice, inverse);
        for (std::size_t i = 0; i < kRadii.size(); ++i)
            within[i] += distance <= kRadii[i] ? 1 : 0;
    }
    for (std::size_t i = 0; i < kRadii.size(); ++i) {
        const double chance = sphereVolume(kRadii[i]) / volume;
        // Spheres of neighbouring nodes that touch would let a row of nodes index every point along it.
        if (i > 0 && (chance > 0.5 || kRadii[i] > 0.35 * lattice.shortestEdge())) break;
        const double evidence = evidenceOf(within[i], best.points, chance);
        if (evidence <= best.evidence && i > 0) continue;
        best.evidence = evidence;
        best.indexed = within[i];
        best.radius = kRadii[i];
        best.chance = chance;
    }
    return best;
}

Lattice fitLattice(std::span<const Vector3d> points, const Lattice& start, double radius) {
    std::vector<std::pair<double, Vector3d>> sorted;
    sorted.reserve(points.size());
    for (const Vector3d& point : points)
        sorted.emplace_back((point - start.origin).norm(), point);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    if (sorted.empty()) return start;

    Lattice lattice = start;
    const double reach = std::min(radius, 0.4 * start.shortestEdge());
    double limit = 2.5 * start.basis.colwise().norm().maxCoeff();
    for (int rounds = 0; rounds < 60; ++rounds) {
        const Matrix3d inverse = lattice.basis.inverse();
        std::vector<std::pair<Vector3d, Vector3d>> indexed;
        for (const auto& [distance, point] : sorted) {
            if (distance > limit) break;
            const Vector3d indices = nearestIndices(point, lattice, inverse);
            if ((point - lattice.origin - lattice.basis * indices).norm() <= reach)
                indexed.emplace_back(indices, point);
        }
        if (indexed.size() >= 8) {
            const std::optional<Lattice> fitted = solve(indexed);
            // A fit that runs away has lost the lattice.
            if (fitted && (fitted->origin - start.origin).norm() < 0.3 * start.shortestEdge())
                lattice = *fitted;
        }
        if (limit > sorted.back().first && rounds >= 3) break;
        limit = std::max(limit * 1.25, limit + 2.0);
    }
    const double change = lattice.cellVolume() / start.cellVolume();
    return change > 0.8 && change < 1.25 ? lattice : start;
}

Matrix3d reduced(Matrix3d basis) {
    // Pairwise reduction, then the sums of all three: short enough for every use here.
    for (int rounds = 0; rounds < 200; ++rounds) {
        bool changed = false;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                if (i == j) continue;
                const double steps = std::round(basis.col(i).dot(basis.col(j)) / basis.col(j).squaredNorm());
                if (steps == 0.0 || !std::isfinite(steps)) continue;
                const Vector3d shorter = basis.col(i) - steps * basis.col(j);
                if (shorter.squaredNorm() < basis.col(i).squaredNorm() * (1.0 - 1e-9)) {
                    basis.col(i) = shorter;
                    changed = true;
                }
            }
        for (int signs = 0; signs < 4 && !changed; ++signs) {
            const Vector3d sum = basis.col(0) + (signs & 1 ? -1.0 : 1.0) * basis.col(1) +
                                 (signs & 2 ? -1.0 : 1.0) * basis.col(2);
            Eigen::Index longest = 0;
            basis.colwise().squaredNorm().maxCoeff(&longest);
            if (sum.squaredNorm() < basis.col(longest).squaredNorm() * (1.0 - 1e-9)) {
                basis.col(longest) = sum;
                changed = true;
            }
        }
        if (!changed) break;
    }
    std::array<Vector3d, 3> vectors = {basis.col(0), basis.col(1), basis.col(2)};
    std::sort(vectors.begin(), vectors.end(),
              [](const Vector3d& a, const Vector3d& b) { return a.squaredNorm() < b.squaredNorm(); });
    for (int i = 0; i < 3; ++i)
        basis.col(i) = vectors[static_cast<std::size_t>(i)];
    if (basis.determinant() < 0.0) basis = -basis;
    return basis;
}

bool sameLattice(const Matrix3d& a, const Matrix3d& b, double tolerance) {
    if (std::abs(std::abs(a.determinant() / b.determinant()) - 1.0) > 3.0 * tolerance) return false;
    const Matrix3d map = b.inverse() * a;
    return (map - Matrix3d(map.array().round())).cwiseAbs().maxCoeff() < tolerance;
}

Lattice settleMultiples(std::span<const Vector3d> points, Lattice lattice) {
    static const std::vector<Matrix3d> kForms = [] {
        std::vector<Matrix3d> forms = hermiteForms(2);
        const std::vector<Matrix3d> threefold = hermiteForms(3);
        forms.insert(forms.end(), threefold.begin(), threefold.end());
        return forms;
    }();
    const auto radiusFor = [&](const Lattice& fine) {
        return std::clamp(0.2 * fine.shortestEdge(), 0.5,
                          std::max(0.5, scoreLattice(points, lattice).radius));
    };

    // Finer reciprocal lattices: nodes that the points left over ask for. They come first, since a lattice
    // that misses most of the points has nothing to tell which of its nodes are needed.
    for (int rounds = 0; rounds < 4; ++rounds) {
        std::optional<Lattice> better;
        double evidence = 0.0;
        for (const Matrix3d& form : kForms) {
            Lattice fine = lattice;
            fine.basis = reduced(lattice.basis * form.inverse());
            if (fine.shortestEdge() < 2.5 || !needsFineNodes(points, lattice, fine, radiusFor(fine)))
                continue;
            const double gained = scoreLattice(points, fine).evidence;
            if (gained <= evidence) continue;
            evidence = gained;
            better = fine;
        }
        if (!better) break;
        lattice = fitLattice(points, *better, scoreLattice(points, *better).radius);
    }
    // Coarser ones: the nodes in between must be earned.
    for (int rounds = 0; rounds < 6; ++rounds) {
        std::optional<Lattice> better;
        double evidence = 0.0;
        for (const Matrix3d& form : kForms) {
            Lattice coarse = lattice;
            coarse.basis = reduced(lattice.basis * form.transpose());
            if (needsFineNodes(points, coarse, lattice, radiusFor(lattice))) continue;
            const double gained = scoreLattice(points, coarse).evidence;
            if (gained <= evidence) continue;
            evidence = gained;
            better = coarse;
        }
        if (!better) break;
        lattice = fitLattice(points, *better, scoreLattice(points, *better).radius);
    }
    return lattice;
}

}  // namespace vrk
