#include "indexing/detail/FitPoints.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>

#include "crystallography/UnitCell.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"

namespace VRK::detail {

std::vector<FitPoint> gatherPoints(const ReflexVector& reflections, int centerType) {
    const bool typed = centerType >= 1 && centerType <= 3;
    std::vector<FitPoint> points(reflections.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        Reflex* reflex = reflections[i];
        if (!reflex) {
            points[i].position.setConstant(std::numeric_limits<double>::quiet_NaN());
            continue;
        }
        for (int axis = 0; axis < 3; ++axis)
            points[i].position(axis) = typed ? reflex->getCenter(axis, centerType) : reflex->getCenter(axis);
    }
    return points;
}

void assignIndices(ReflexVector& reflections, const std::vector<Indices>& indices) {
    for (std::size_t i = 0; i < indices.size(); ++i)
        if (Reflex* reflex = reflections[i]) reflex->setHKL(indices[i][0], indices[i][1], indices[i][2]);
}

CellTies tiesOf(LATTICE::BravaisTypes type, const double toConventional[3][3]) {
    using namespace LATTICE;
    CellTies ties;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            ties.toConventional(i, j) = toConventional[i][j];
    ties.any = true;
    switch (type) {
        case cP:
        case cI:
        case cF:
            ties.length = {0, 0, 0};
            ties.angle = {90.0, 90.0, 90.0};
            break;
        case tP:
        case tI:
            ties.length = {0, 0, 1};
            ties.angle = {90.0, 90.0, 90.0};
            break;
        case hP:
        case hR:
            ties.length = {0, 0, 1};
            ties.angle = {90.0, 90.0, 120.0};
            break;
        case oP:
        case oI:
        case oC:
        case oF:
            ties.angle = {90.0, 90.0, 90.0};
            break;
        case mP:
        case mC:
            ties.angle = {90.0, 0.0, 90.0};
            break;
        default:
            ties.any = false;
    }
    return ties;
}

CellRefinement::Result describe(const LatticeFit& fit, const CellTies& ties, double pixelSize) {
    CellRefinement::Result result{};
    const double perVoxel = pixelSize > 0.0 ? pixelSize * 1e-10 : 1.0;
    const Eigen::Matrix3d toConventional = ties.toConventional.inverse().transpose();
    const auto cell = directCell(fit.lattice.basis * toConventional);
    const auto cellSigma = directCellDeviations(fit.lattice.basis, toConventional, fit.covariance);
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j)
            result.basis[i][j] = fit.lattice.basis(j, i);
        result.origin[i] = fit.lattice.origin(i);
        result.originSigma[i] = std::sqrt(std::max(fit.covariance(9 + i, 9 + i), 0.0));
        result.cell[i] = cell(i) / perVoxel;
        result.cellSigma[i] = cellSigma(i) / perVoxel;
        result.cell[i + 3] = cell(i + 3);
        result.cellSigma[i + 3] = cellSigma(i + 3);
        const auto index = static_cast<std::size_t>(i);
        if (!ties.any || ties.angle[index] == 0.0) continue;
        // Free of the rounding of the way through the vectors.
        result.cell[i + 3] = ties.angle[index];
        result.cellSigma[i + 3] = 0.0;
    }
    const double cube = perVoxel * perVoxel * perVoxel;
    result.volume = cell(6) / cube;
    result.volumeSigma = cellSigma(6) / cube;
    result.sigma = fit.sigma;
    result.rms = fit.rms;
    result.reflections = static_cast<int>(fit.indices.size());
    result.indexed = fit.indexed;
    result.rounds = fit.rounds;
    result.stable = fit.stable;
    return result;
}

void copyMatrix(const double from[3][3], double to[3][3]) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            to[i][j] = from ? from[i][j] : (i == j ? 1.0 : 0.0);
}

const char* obstacle(const UnitCell* cell, const double* origin, double tolerance, const CellTies& ties) {
    if (!cell || !origin) return "there is no cell or no origin to start from.";
    if (cell->isRealCell()) return "the cell has to be given as a reciprocal cell.";
    if (cell->isDegenerate()) return "the cell's vectors lie in a plane or are not finite.";
    if (!(tolerance > 0.0 && tolerance <= 0.5)) return "the tolerance has to lie between 0 and 0.5.";
    if (!(std::abs(ties.toConventional.determinant()) > 1e-6))
        return "the matrix to the conventional cell is singular.";
    return nullptr;
}

Lattice latticeFrom(const UnitCell& cell, const double origin[3]) {
    double vectors[3][3];
    cell.getBase(vectors[0], vectors[1], vectors[2]);
    Lattice lattice;
    for (int i = 0; i < 3; ++i) {
        lattice.origin(i) = origin[i];
        for (int j = 0; j < 3; ++j)
            lattice.basis(j, i) = vectors[i][j];
    }
    return lattice;
}

void storeLattice(const CellRefinement::Result& result, UnitCell& cell, double origin[3]) {
    const bool primitiv = cell.isPrimitiv();
    const LATTICE::BravaisTypes type = cell.getBravaisType();
    cell.setNewBase(result.basis[0], result.basis[1], result.basis[2], false, primitiv);
    cell.setBravaisType(type);
    std::copy(result.origin, result.origin + 3, origin);
}

}  // namespace VRK::detail
