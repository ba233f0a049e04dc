/// \file
/// Niggli and other reductions: the answer spans the lattice of the question, and reducing it again changes
/// nothing.
#include <Eigen/LU>

#include "FuzzInput.h"
#include "crystallography/NiggliReduction.h"
#include "pipeline/latticesearch/Lattice.h"

using Eigen::Matrix3d;

static Matrix3d baseOf(const UnitCell& cell) {
    Matrix3d base;
    cell.getBase(base.col(0).data(), base.col(1).data(), base.col(2).data());
    return base;
}

/// Whether the columns of one matrix are whole combinations of those of the other, and the reverse. Bases so
/// skew that rounding hides it count as equal.
static bool spanTheSame(const Matrix3d& before, const Matrix3d& after) {
    const Matrix3d map = before.inverse() * after;
    const double largest = before.norm() * before.inverse().norm() * (1.0 + map.cwiseAbs().maxCoeff());
    if (!(largest < 1e9)) return true;
    const Matrix3d whole = map.array().round();
    return (map - whole).cwiseAbs().maxCoeff() < 1e-4 && std::abs(std::abs(whole.determinant()) - 1.0) < 1e-4;
}

FUZZ_TARGET(bytes) {
    fuzz::Numbers numbers(bytes);
    Matrix3d base;
    for (double& entry : base.reshaped())
        entry = numbers.any();
    // Long vectors of lattices with short ones.
    for (int i = numbers.whole(0, 6); i > 0; --i) {
        const int to = numbers.whole(0, 2);
        base.col(to) += numbers.whole(-9, 9) * base.col((to + numbers.whole(1, 2)) % 3);
    }
    UnitCell cell(base.col(0).data(), base.col(1).data(), base.col(2).data(), 1.0, true, true, LATTICE::aP);
    if (cell.isDegenerate() || base.colwise().norm().maxCoeff() > 1e6) return;
    NiggliReduction::setNarration(nullptr);
    const double volume = cell.getExactVolume();
    fuzz::expect(NiggliReduction::niggliReduction(&cell, 0), "a cell can be reduced");
    const Matrix3d reducedBase = baseOf(cell);
    fuzz::expect(reducedBase.allFinite(), "reduced vectors are finite");
    fuzz::expect(spanTheSame(base, reducedBase), "the Niggli cell is one of the lattice");
    fuzz::expect(std::abs(cell.getExactVolume() - volume) <= 1e-3 * volume, "reduction keeps the volume");

    // Metric values are compared to 1e-5, and multiples of a short vector have no more digits than a number.
    const Eigen::RowVector3d edges = reducedBase.colwise().norm();
    if (edges.minCoeff() < 0.1 || edges.maxCoeff() > 1e7 * edges.minCoeff()) return;
    UnitCell again = cell;
    NiggliReduction::niggliReduction(&again, 0);
    const Eigen::RowVector3d off = baseOf(again).colwise().norm() - edges;
    fuzz::expect((off.array().abs() <= 1e-4 * (1.0 + edges.array())).all(), "reducing twice changes no edge");

    const Matrix3d shortest = vrk::reduced(base);
    fuzz::expect(spanTheSame(base, shortest), "the shortest vectors are those of the lattice");
    fuzz::expect(shortest.determinant() > 0.0, "reduced bases are right-handed");
}
