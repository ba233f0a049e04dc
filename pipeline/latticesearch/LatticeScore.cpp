#include "pipeline/latticesearch/LatticeScore.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <optional>
#include <vector>

#include "pipeline/latticesearch/GhostNodes.h"
#include "pipeline/latticesearch/LatticeFit.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

constexpr std::array<double, 7> kRadii = {0.5, 0.75, 1.1, 1.6, 2.3, 3.2, 4.5};

double sphereVolume(double radius) {
    return 4.0 / 3.0 * std::numbers::pi * radius * radius * radius;
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
    Points keptPoints;
    Points explainedPoints;
    for (const Vector3d& point : points) {
        if (distanceToNode(point, coarse, coarseInverse) <= radius) {
            keptPoints.push_back(point);
            continue;
        }
        ++left;
        if (distanceToNode(point, fine, fineInverse) <= radius) explainedPoints.push_back(point);
    }
    const int kept = static_cast<int>(keptPoints.size());
    const int explained = static_cast<int>(explainedPoints.size());
    const double chance =
        std::min(0.5, sphereVolume(radius) * (1.0 / fine.cellVolume() - 1.0 / coarse.cellVolume()));
    return explained >= 8 && explained >= 0.04 * kept && explained >= 0.12 * left &&
           evidenceOf(explained, left, chance) > 20.0 && !areGhosts(explainedPoints, keptPoints, coarse);
}

}  // namespace

double evidenceOf(int successes, int trials, double chance) {
    if (trials <= 0 || chance <= 0.0 || chance >= 1.0) return 0.0;
    const double f = static_cast<double>(successes) / trials;
    if (f <= chance) return 0.0;
    const double rest = f < 1.0 ? (1.0 - f) * std::log((1.0 - f) / (1.0 - chance)) : 0.0;
    return trials * (f * std::log(f / chance) + rest);
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

Lattice settleMultiples(std::span<const Vector3d> points, Lattice lattice) {
    static const std::vector<Matrix3d> kForms = [] {
        std::vector<Matrix3d> forms = hermiteForms(2);
        const std::vector<Matrix3d> threefold = hermiteForms(3);
        forms.insert(forms.end(), threefold.begin(), threefold.end());
        return forms;
    }();
    const auto radiusFor = [](const Lattice& fine, const LatticeScore& score) {
        return std::clamp(0.2 * fine.shortestEdge(), 0.5, std::max(0.5, score.radius));
    };

    // Finer reciprocal lattices: nodes that the points left over ask for. They come first, since a lattice
    // that misses most of the points has nothing to tell which of its nodes are needed.
    for (int rounds = 0; rounds < 4; ++rounds) {
        const LatticeScore now = scoreLattice(points, lattice);
        std::optional<Lattice> better;
        double evidence = 0.0;
        for (const Matrix3d& form : kForms) {
            Lattice fine = lattice;
            fine.basis = reduced(lattice.basis * form.inverse());
            if (fine.shortestEdge() < 2.5 || !needsFineNodes(points, lattice, fine, radiusFor(fine, now)))
                continue;
            const double gained = scoreLattice(points, fine).evidence;
            if (gained <= evidence) continue;
            evidence = gained;
            better = fine;
        }
        if (!better) break;
        lattice = fitWithin(points, *better, scoreLattice(points, *better).radius);
    }
    // Coarser ones: the nodes in between must be earned. A lattice that loses most of the points is none.
    constexpr double kMostOfThem = 0.5;
    for (int rounds = 0; rounds < 6; ++rounds) {
        const LatticeScore now = scoreLattice(points, lattice);
        const double radius = radiusFor(lattice, now);
        std::optional<Lattice> better;
        double evidence = 0.0;
        for (const Matrix3d& form : kForms) {
            Lattice coarse = lattice;
            coarse.basis = reduced(lattice.basis * form.transpose());
            const LatticeScore score = scoreLattice(points, coarse);
            const bool isEnough = score.evidence > evidence && score.indexed >= kMostOfThem * now.indexed;
            if (!isEnough || needsFineNodes(points, coarse, lattice, radius)) continue;
            evidence = score.evidence;
            better = coarse;
        }
        if (!better) break;
        lattice = fitWithin(points, *better, scoreLattice(points, *better).radius);
    }
    return lattice;
}

}  // namespace vrk
