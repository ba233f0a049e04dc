#include "pipeline/run/CellOptions.h"

#include <numbers>
#include <sstream>

#include "cellfinding/Parameter.h"
#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

void refuseDegrees(const char* option, const std::optional<double>& angle) {
    constexpr double largest = 3.0;  // radians
    if (!angle || *angle <= largest) return;
    std::ostringstream text;
    text << option << " is in radians, up to " << largest << "; " << *angle
         << " looks like degrees, which are " << *angle * std::numbers::pi / 180.0;
    throw Failure(text.str(), FailureKind::Usage);
}

}  // namespace

bool CellOptions::isGiven() const {
    return minLength || maxLength || eps || minPoints || refineClusters || angleA || angleB || detLimit ||
           gridSize || fullSpace;
}

void CellOptions::applyTo(Parameter& parameter) const {
    if (clustering == ClusteringMethod::FSC && (eps || minPoints))
        throw Failure(
            "--eps and --min-points have no meaning for --clustering fsc, which finds its radius "
            "itself; leave them out",
            FailureKind::Usage);
    refuseDegrees("--angle-a", angleA);
    refuseDegrees("--angle-b", angleB);
    if (minLength) parameter.setMinLength(*minLength);
    if (maxLength) parameter.setMaxLength(*maxLength);
    if (eps) parameter.setDBSCANEps(*eps);
    if (minPoints) parameter.setDBSCANMinPts(*minPoints);
    if (refineClusters) {
        parameter.setRefineCluster(*refineClusters > 0.0);
        parameter.setClusterRefinementPercent(*refineClusters);
    }
    if (angleA) parameter.setAngleA(*angleA);
    if (angleB) parameter.setAngleB(*angleB);
    if (detLimit) parameter.setDetLimit(*detLimit);
    if (gridSize) parameter.setGridSizeNiggliCell(*gridSize);
    if (fullSpace) parameter.setUseHaldDiffVectorSpace(false);
    refuseUnlessAscending("length", parameter.getMinLength(), parameter.getMaxLength());
}

CellSearchOptions searchOptions(const CellOptions& options, Session& session) {
    CellSearchOptions search;
    search.minLength = options.minLength;
    search.maxLength = options.maxLength;
    search.eps = options.eps;
    search.minPts = options.minPoints;
    search.clustering = options.clustering;
    search.adjust = [options](Parameter& parameter) { options.applyTo(parameter); };
    search.canceled = [&session] {
        session.checkCanceled();
        return false;
    };
    return search;
}

}  // namespace vrk
