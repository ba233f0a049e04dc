#include "pipeline/latticesearch/Lattice.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <memory>

#include "crystallography/NiggliReduction.h"
#include "pipeline/base/NearestWhole.h"
#include "pipeline/base/NumberText.h"

namespace vrk {

using Eigen::Matrix3d;
using Eigen::Vector3d;

double Lattice::cellVolume() const {
    return std::abs(basis.determinant());
}

double Lattice::shortestEdge() const {
    return basis.colwise().norm().minCoeff();
}

Vector3d Lattice::node(const Indices& hkl) const {
    return origin + basis * Vector3d(hkl[0], hkl[1], hkl[2]);
}

UnitCell Lattice::toUnitCell() const {
    // Eigen stores columns one after the other.
    const double* vectors = basis.data();
    return {vectors, vectors + 3, vectors + 6, pixelSize > 0.0 ? pixelSize : 1.0, false, true, LATTICE::aP};
}

Lattice Lattice::of(const UnitCell& cell, const Vector3d& origin) {
    Lattice lattice;
    cell.getBase(lattice.basis.col(0).data(), lattice.basis.col(1).data(), lattice.basis.col(2).data());
    lattice.origin = origin;
    lattice.pixelSize = cell.getPixelsize();
    return lattice;
}

double distanceToNode(const Vector3d& point, const Lattice& lattice, const Matrix3d& inverse) {
    const Vector3d place = point - lattice.origin;
    const Vector3d node = (inverse * place).unaryExpr([](double q) { return nearestWhole(q); });
    return (place - lattice.basis * node).norm();
}

NodeBox nodeBox(const Matrix3d& inverse, double radius, double mostNodes) {
    constexpr double kSmaller = 0.9;
    const Vector3d perVoxel = inverse.rowwise().norm();
    if (!perVoxel.allFinite() || !std::isfinite(radius)) return {};
    const auto nodesIn = [&](double r) { return (2.0 * (r * perVoxel).array().floor() + 1.0).prod(); };
    while (nodesIn(radius) > mostNodes)
        radius *= kSmaller;
    NodeBox box{radius, {}};
    for (std::size_t i = 0; i < 3; ++i)
        box.most[i] = static_cast<int>(radius * perVoxel[static_cast<Eigen::Index>(i)]);
    return box;
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

Lattice niggliReduced(const Lattice& lattice) {
    // The tolerance of the reduction is an absolute one for edges in Angstrom: whatever the pixel size, the
    // shortest reciprocal vectors become edges of about 10.
    Lattice scaled = lattice;
    scaled.pixelSize = 1e9 / std::cbrt(lattice.cellVolume());
    const std::unique_ptr<UnitCell> direct(scaled.toUnitCell().getReciprocalCell());
    if (!direct->isRightHanded()) {
        const int inversion[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, -1}};
        direct->transform(inversion);
    }
    NiggliReduction::niggliReduction(direct.get(), 0);
    const std::unique_ptr<UnitCell> back(direct->getReciprocalCell());
    Lattice result = Lattice::of(*back, lattice.origin);
    result.pixelSize = lattice.pixelSize;
    return result;
}

std::string cellText(Lattice lattice, double pixelSize) {
    if (!(pixelSize > 0.0) || !(lattice.cellVolume() > 0.0)) return "";
    lattice.pixelSize = pixelSize;
    const std::unique_ptr<UnitCell> cell(niggliReduced(lattice).toUnitCell().getReciprocalCell());
    return formatted("%.2f %.2f %.2f  %.1f %.1f %.1f", cell->getLengthOfA(), cell->getLengthOfB(),
                     cell->getLengthOfC(), cell->getAlpha(), cell->getBeta(), cell->getGamma());
}

bool sameLattice(const Matrix3d& a, const Matrix3d& b, double tolerance) {
    if (std::abs(std::abs(a.determinant() / b.determinant()) - 1.0) > 3.0 * tolerance) return false;
    const Matrix3d map = b.inverse() * a;
    return (map - Matrix3d(map.array().round())).cwiseAbs().maxCoeff() < tolerance;
}

}  // namespace vrk
