#include "pictures/RunPictures.h"

#include "pictures/DifferenceVectorPicture.h"
#include "pictures/Pictures.h"

namespace vrk::app {

void drawRunPictures(const RunResult& result, const std::filesystem::path& folder) {
    writeDifferenceVectorPicture(result.points, result.lattice.lattice, result.trial.maxLength,
                                 folder / "difference_vectors.png");
    const UnitCell conventional =
        LatticeSymmetry::conventionalCell(result.reciprocal, result.characters.front());
    writeSections(*result.volume, conventional, SectionOptions(), folder);
    writeProjections(*result.volume, false, folder);
}

}  // namespace vrk::app
