#include "indexing/CellRefinement.h"

#include <string>
#include <vector>

#include "crystallography/UnitCell.h"
#include "foundation/detail/Log.h"
#include "indexing/detail/FitPoints.h"
#include "indexing/detail/LatticeFit.h"
#include "reflections/ReflexVector.h"

namespace {

/// Of Reflex::getCenter(): the intensity-weighted mean.
constexpr int kCenterType = 3;

bool fail(const char* reason) {
    VRK::detail::log(std::string("The cell could not be refined: ") + reason, VRK::Error);
    return false;
}

}  // namespace

void CellRefinement::setConstraint(LATTICE::BravaisTypes type, const double toConventional[3][3]) {
    m_type = type;
    VRK::detail::copyMatrix(toConventional, m_toConventional);
}

bool CellRefinement::refine(ReflexVector* reflections, UnitCell* cell, double origin[3]) {
    using namespace VRK::detail;
    if (!reflections) return fail("there is no list of reflections.");
    const CellTies ties = tiesOf(m_type, m_toConventional);
    if (const char* reason = obstacle(cell, origin, m_tolerance, ties)) return fail(reason);

    const std::vector<FitPoint> points = gatherPoints(*reflections, kCenterType);
    const LatticeFit fit = fitLattice(points, latticeFrom(*cell, origin), m_tolerance, ties);
    if (!fit.valid) return fail(kNoFit);

    assignIndices(*reflections, fit.indices);
    m_result = describe(fit, ties, cell->getPixelsize());
    storeLattice(m_result, *cell, origin);
    return true;
}
