#include "pipeline/run/CellOptions.h"

#include "cellfinding/Parameter.h"
#include "pipeline/base/Failure.h"

namespace vrk {

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

}  // namespace vrk
