/// \file
/// Lattice symmetry: every character that fits has a conventional cell of its lattice and centring, the
/// rotations of that cell form a finite group.
#include <Eigen/LU>

#include "FuzzInput.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/SpaceMath.h"
#include "crystallography/UnitCell.h"
#include "pipeline/integration/LaueGroup.h"
#include "pipeline/latticesearch/Lattice.h"

static int latticePoints(char centring) {
    return centring == 'F' ? 4 : centring == 'R' ? 3 : centring == 'P' ? 1 : 2;
}

static void expectGroup(const vrk::LaueRotations& rotations) {
    constexpr std::array<std::size_t, 7> kOrders = {1, 2, 4, 6, 8, 12, 24};
    fuzz::expect(std::ranges::find(kOrders, rotations.size()) != kOrders.end(),
                 "a lattice has a known order");
    for (const vrk::IndexRotation& a : rotations)
        for (const vrk::IndexRotation& b : rotations) {
            const Eigen::Matrix3d product = matrixOf(a) * matrixOf(b);
            const auto isIt = [&](const vrk::IndexRotation& one) { return matrixOf(one) == product; };
            fuzz::expect(std::ranges::any_of(rotations, isIt),
                         "two rotations after each other are one of them");
        }
}

FUZZ_TARGET(bytes) {
    fuzz::Numbers numbers(bytes);
    Eigen::Matrix3d base;
    for (double& entry : base.reshaped())
        entry = numbers.any();
    const UnitCell cell(base.col(0).data(), base.col(1).data(), base.col(2).data(), 1.0, true, true,
                        LATTICE::aP);
    const LatticeTolerances tolerances{numbers.within(0.01, 5.0), numbers.within(0.001, 0.1)};
    const std::vector<LatticeCharacter> fits = LatticeSymmetry::analyse(cell, tolerances);
    if (cell.isDegenerate()) return fuzz::expect(fits.empty(), "what spans no lattice has no symmetry");
    const Eigen::RowVector3d edges = vrk::reduced(base).colwise().norm();
    // Neither the base as it is given nor the reduced one is too uneven.
    const auto [shortest, longest] = std::minmax(
        {cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC(), edges.minCoeff(), edges.maxCoeff()});
    if (longest > 1e4 * shortest) return;
    fuzz::expect(!fits.empty(), "every lattice is triclinic at least");
    bool isTriclinic = false;
    for (const LatticeCharacter& fit : fits) {
        const Eigen::Map<const Eigen::Matrix3i> map(&fit.toConventional[0][0]);
        fuzz::expect(std::lround(map.cast<double>().determinant()) == latticePoints(fit.centring),
                     "a conventional cell has the points of its centring");
        fuzz::expect(fit.number >= 1 && fit.number <= 44, "there are 44 characters");
        fuzz::expect(fit.qualityIndex >= 0.0 && fit.qualityIndex <= tolerances.angle * 1.000001 &&
                         fit.lengthMisfit <= tolerances.length * 1.000001,
                     "what fits is within the tolerances");
        isTriclinic = isTriclinic || fit.bravaisType == LATTICE::aP;
    }
    fuzz::expect(isTriclinic, "the triclinic character always fits");
    // The rotations of the cell as its type has it.
    const CellParameters& p = fits.front().symmetrised;
    double vectors[3][3];
    if (!SpaceMath::BaseVectors({p.a, p.b, p.c, p.alpha, p.beta, p.gamma}, vectors)) return;
    const Eigen::Matrix3d direct = Eigen::Map<const Eigen::Matrix3d>(&vectors[0][0]);
    if (longest < 1e3 * shortest && std::abs(direct.determinant()) > 1e-3 * p.a * p.b * p.c)
        expectGroup(vrk::latticeRotations(direct.inverse().transpose(), fits.front().centring));
}
