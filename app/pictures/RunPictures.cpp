#include "pictures/RunPictures.h"

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "foundation/SharedLoop.h"
#include "indexing/IndicateWithHKL.h"
#include "pictures/CentrePicture.h"
#include "pictures/DifferenceVectorPicture.h"
#include "pictures/IntensityPlots.h"
#include "pictures/Pictures.h"
#include "pictures/SpotPictures.h"
#include "pipeline/base/OutputFile.h"
#include "reflections/ReflexVector.h"

namespace vrk::app {
namespace {

/// The reflections at their corrected places, with the indices of the conventional cell.
ReflexVectorPtr conventionallyIndexed(const Indexed& indexed) {
    ReflexVectorPtr list(new ReflexVector);
    const auto& m = indexed.symmetry().toConventional;
    for (std::size_t i = 0; i < indexed.level.reflections.size(); ++i) {
        const Eigen::Vector3d& p = indexed.refined.positions[i];
        list->push_back(new Reflex(p.x(), p.y(), p.z()));
        list->back()->setIntensity(indexed.level.reflections[i].intensity);
        const Indices& old = indexed.refined.indices[i];
        if (old[0] == Reflex::kNotIndexed) continue;
        std::array<int, 3> hkl{};
        for (std::size_t j = 0; j < 3; ++j)
            hkl[j] = old[0] * m[0][j] + old[1] * m[1][j] + old[2] * m[2][j];
        list->back()->setHKL(hkl[0], hkl[1], hkl[2]);
    }
    return list;
}

}  // namespace

PictureNotes notesOf(const RunResult& result, const std::string& source) {
    return {
        source,
        cellText(LATTICE::shortName(result.indexed.symmetry().bravaisType), result.indexed.conventional.cell),
        result.facts().pixelSize};
}

void drawRunPictures(const RunResult& result, const std::string& source,
                     const std::filesystem::path& folder) {
    const PictureNotes notes = notesOf(result, source);
    const std::filesystem::path plots = folder / "plots";
    makeFolder(plots);
    // Those that take longest first.
    std::vector<std::function<void()>> pictures = {
        [&] {
            IndicateWithHKL::generateEvaluationPlot(conventionallyIndexed(result.indexed).get(),
                                                    plots.string());
        },
        [&] {
            IndicateWithHKL::generateHKLplot(conventionallyIndexed(result.indexed).get(), plots.string());
        }};
    if (result.intensities) {
        pictures.emplace_back([&] { writeIntensityPlots(*result.intensities, plots); });
        for (const std::size_t frame : framesToDraw(result))
            pictures.emplace_back([&, frame] { writeSpotPicture(result, notes, frame, folder); });
    }
    const VoxMRCData& volume = *result.volume.voxels;
    for (const std::string& plane : SectionOptions().planes)
        pictures.emplace_back([&, plane] {
            writeSections(volume, result.indexed.conventionalCell(), {.planes = {plane}}, notes, folder);
        });
    for (const int axis : {0, 1, 2})
        pictures.emplace_back([&, axis] { writeProjection(volume, axis, SectionOptions(), notes, folder); });
    pictures.emplace_back([&] {
        writeDifferenceVectorPicture(flatPoints(result.indexed.level, result.volume, nullptr),
                                     result.lattice.best.lattice, result.lattice.best.trial.maxLength, notes,
                                     folder / "difference_vectors.png");
    });
    pictures.emplace_back([&] {
        writeCentrePicture(result.volume.tilts, result.volume.centres, source, folder / "centres.png");
    });
    VRK::shareItems(pictures.size(), [&](std::size_t i, std::size_t) { pictures[i](); });
}

}  // namespace vrk::app
