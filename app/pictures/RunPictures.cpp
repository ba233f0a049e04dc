#include "pictures/RunPictures.h"

#include "pictures/CentrePicture.h"
#include "pictures/DifferenceVectorPicture.h"
#include "pictures/IntensityPlots.h"
#include "pictures/Pictures.h"
#include "pictures/SpotPictures.h"

namespace vrk::app {

void drawRunPictures(const RunResult& result, const std::filesystem::path& folder) {
    writeDifferenceVectorPicture(flatPoints(result.indexed.level, result.volume, nullptr),
                                 result.lattice.best.lattice, result.lattice.best.trial.maxLength,
                                 folder / "difference_vectors.png");
    writeCentrePicture(result.volume.tilts, result.volume.centres, folder / "centres.png");
    writeSections(*result.volume.voxels, result.indexed.conventionalCell(), SectionOptions(), folder);
    writeProjections(*result.volume.voxels, false, folder);
    if (!result.intensities || !result.counts.frames) return;
    writeSpotPictures(result, folder);
    const std::filesystem::path plots = folder / "plots";
    std::filesystem::create_directories(plots);
    writeIntensityPlots(*result.intensities, plots);
}

}  // namespace vrk::app
