#include "pipeline/base/UnitCellParameters.h"

namespace vrk {

CellParameters parametersOf(const UnitCell& cell) {
    return {cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC(),
            cell.getAlpha(),     cell.getBeta(),      cell.getGamma()};
}

}  // namespace vrk
