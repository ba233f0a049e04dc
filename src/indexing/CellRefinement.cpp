#include "indexing/CellRefinement.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>

#include "crystallography/UnitCell.h"
#include "foundation/VRKLogger.h"
#include "indexing/FitPointsInternal.h"
#include "indexing/LatticeFitInternal.h"
#include "reflections/ReflexVector.h"

namespace {

bool fail(const char* reason) {
    VRKLogger::getInstance()->log(std::string("The cell could not be refined: ") + reason, VRK::Error,
                                  VRK::Information);
    return false;
}

}  // namespace

void CellRefinement::setConstraint(LATTICE::BravaisTypes type, const double toConventional[3][3]) {
    m_type = type;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            m_toConventional[i][j] = toConventional ? toConventional[i][j] : (i == j ? 1.0 : 0.0);
}

bool CellRefinement::refine(ReflexVector* reflections, UnitCell* cell, double origin[3]) {
    using namespace VRK::detail;
    if (!reflections) return fail("there is no list of reflections.");
    if (!cell || !origin) return fail("there is no cell or no origin to start from.");
    if (cell->isRealCell()) return fail("it has to be given as a reciprocal cell.");
    if (cell->isDegenerate()) return fail("its vectors lie in a plane or are not finite.");
    if (!(m_tolerance > 0.0 && m_tolerance <= 0.5))
        return fail("the tolerance has to lie between 0 and 0.5.");
    const Eigen::Matrix3d toConventional =
        Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(&m_toConventional[0][0]);
    if (!(std::abs(toConventional.determinant()) > 1e-6))
        return fail("the matrix to the conventional cell is singular.");

    double vectors[3][3];
    cell->getBase(vectors[0], vectors[1], vectors[2]);
    const std::vector<FitPoint> points = gatherPoints(*reflections, m_centerType);
    const CellTies ties = tiesOf(m_type, toConventional);
    const LatticeFit fit = fitLattice(points, latticeFrom(vectors, origin), m_tolerance, ties);
    if (!fit.valid)
        return fail(
            "fewer than six reflections, or only ones in a plane, lie near the nodes of its lattice. "
            "Check the cell and the origin, or allow a larger tolerance.");

    assignIndices(*reflections, fit.indices);
    m_result = describe(fit, ties, cell->getPixelsize());
    const bool primitiv = cell->isPrimitiv();
    const LATTICE::BravaisTypes type = cell->getBravaisType();
    cell->setNewBase(m_result.basis[0], m_result.basis[1], m_result.basis[2], false, primitiv);
    cell->setBravaisType(type);
    std::copy(m_result.origin, m_result.origin + 3, origin);
    return true;
}
