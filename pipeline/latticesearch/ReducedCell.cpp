#include "pipeline/latticesearch/ReducedCell.h"

#include <cmath>
#include <memory>

#include "crystallography/NiggliReduction.h"

namespace vrk {

UnitCell niggliReduced(const UnitCell& reciprocal) {
    // The tolerance of the reduction is an absolute one for edges in Angstrom: whatever the pixel size, the
    // shortest reciprocal vectors become edges of about 10.
    UnitCell scaled(reciprocal);
    const double pixelSize = reciprocal.getPixelsize();
    scaled.setPixelsize(1e9 / std::cbrt(reciprocal.getExactVolume()));
    const std::unique_ptr<UnitCell> direct(scaled.getReciprocalCell());
    if (!direct->isRightHanded()) {
        const int inversion[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, -1}};
        direct->transform(inversion);
    }
    NiggliReduction::niggliReduction(direct.get(), 0);
    const std::unique_ptr<UnitCell> back(direct->getReciprocalCell());
    UnitCell reduced(*back);
    reduced.setPixelsize(pixelSize);
    return reduced;
}

}  // namespace vrk
