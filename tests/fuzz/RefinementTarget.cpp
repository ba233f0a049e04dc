/// \file
/// The fit of a lattice: finite, whole indices, and no worse than the lattice that the points were made with.
#include "FuzzInput.h"
#include "pipeline/latticesearch/LatticeFit.h"

using Eigen::Matrix3d;
using Eigen::Vector3d;

FUZZ_TARGET(bytes) {
    fuzz::Numbers numbers(bytes);
    const bool isWild = numbers.flag();
    vrk::Lattice truth;
    for (double& entry : truth.basis.reshaped())
        entry = isWild ? numbers.any() : numbers.within(-3.0, 3.0);
    if (!isWild) truth.basis += 12.0 * Matrix3d::Identity();
    const double noise = isWild ? std::abs(numbers.any()) : numbers.within(0.0, 0.2);
    const int type = numbers.whole(0, 14);
    const double tolerance = numbers.within(0.05, 0.3);
    std::vector<vrk::FitPoint> points;
    std::vector<Vector3d> places;
    double squares = 0.0;
    while (numbers.more() && points.size() < 60) {
        const Vector3d node(numbers.whole(-4, 4), numbers.whole(-4, 4), numbers.whole(-4, 4));
        const Vector3d off(noise * numbers.within(-1, 1), noise * numbers.within(-1, 1),
                           noise * numbers.within(-1, 1));
        points.push_back({truth.basis * node + off, numbers.whole(0, 9) == 0 ? 0.0 : 1.0});
        places.push_back(points.back().position);
        squares += off.squaredNorm();
    }
    const vrk::CellTies ties =
        vrk::CellTies::of(static_cast<LATTICE::BravaisTypes>(type), Matrix3d::Identity());
    const vrk::LatticeFit fit = vrk::fitLattice(points, truth, tolerance, ties);
    fuzz::expect(fit.indices.size() == points.size(), "every point has indices");
    if (!fit.valid) return;
    fuzz::expect(fit.lattice.basis.allFinite() && fit.lattice.origin.allFinite(),
                 "a fitted lattice is finite");
    fuzz::expect(fit.indexed <= static_cast<int>(points.size()) && fit.rms >= 0.0,
                 "no more is indexed than there is");
    vrk::describe(fit, ties);
    if (isWild) return;
    const vrk::Lattice plain = vrk::fitWithin(places, truth, 2.0);
    fuzz::expect(plain.basis.allFinite(), "a lattice of the search is finite");
    if (!ties.any && fit.stable && fit.indexed == static_cast<int>(points.size()))
        fuzz::expect(fit.rms <= 3.0 * std::sqrt(squares / static_cast<double>(points.size())) + 1e-6,
                     "the fit is no worse than the truth");
}
