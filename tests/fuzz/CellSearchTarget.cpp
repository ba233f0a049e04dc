/// \file
/// The way from positions to a cell, on a lattice with strays, or on anything. It ends in time, and what it
/// answers is a lattice.
#include <Eigen/LU>

#include "FuzzInput.h"
#include "pipeline/Pipeline.h"

using Eigen::Vector3d;

FUZZ_TARGET(bytes) {
    fuzz::Numbers numbers(bytes);
    vrk::PeakCellOptions options;
    options.cell.clustering = static_cast<ClusteringMethod>(numbers.whole(0, 2));
    options.pixelSize = numbers.flag() ? 2e7 : 0.0;
    Eigen::Matrix3d basis = Eigen::Matrix3d::Identity() * numbers.within(4.0, 30.0);
    basis(0, 1) = numbers.within(-4.0, 4.0);
    basis(1, 1) *= numbers.within(0.5, 2.0);
    const int strays = numbers.whole(0, 8);
    std::vector<Vector3d> places;
    std::vector<double> intensities;
    while (numbers.more() && places.size() < 100) {
        if (numbers.whole(0, 7) < strays)
            places.emplace_back(numbers.any(), numbers.any(), numbers.any());
        else
            places.emplace_back(basis *
                                Vector3d(numbers.whole(-4, 4), numbers.whole(-4, 4), numbers.whole(-4, 4)));
        intensities.push_back(numbers.whole(0, 1000));
    }
    const vrk::Result<vrk::PeakCell> cell = vrk::findCell(places, intensities, options);
    if (!cell) return fuzz::expect(!cell.error().text.empty(), "a refusal says why");
    fuzz::expect(!cell->reciprocal.isDegenerate(), "a cell spans a lattice");
    fuzz::expect(cell->answer.lattice.basis.allFinite(), "a lattice is finite");
}
