#include "pipeline/run/ResultFiles.h"

#include <functional>
#include <memory>
#include <string>

#include "crystallography/CellFileImportExport.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/CellEvaluationFiles.h"
#include "pipeline/formats/CentreFile.h"
#include "pipeline/formats/ReflectionTable.h"
#include "pipeline/run/SeenReflections.h"
#include "reflections/PeakFileImportExport.h"
#include "reflections/ReflexVector.h"

namespace vrk {
namespace {

ReflexVectorPtr voxelCentres(const Level& level) {
    ReflexVectorPtr list(new ReflexVector);
    for (const FoundReflection& reflection : level.reflections) {
        const Eigen::Vector3d& p = reflection.voxelCentre;
        list->push_back(new Reflex(p.x(), p.y(), p.z()));
        list->back()->setIntensity(reflection.intensity);
    }
    return list;
}

bool writePeaks(const ReciprocalVolume& volume, const Level& level, const std::string& path) {
    const VoxMRCData& voxels = *volume.voxels;
    const SeriesFacts& facts = volume.facts;
    const ReflexVectorPtr list = voxelCentres(level);
    return PeakFileImportExport::writePeakFileWithIntensities(
        path, list.get(), 3, static_cast<int>(voxels.GetWidth()), static_cast<int>(voxels.GetHeight()),
        static_cast<int>(voxels.GetDepth()), facts.tiltFirst, facts.tiltLast, facts.pixelSize, 0.0, 0.0,
        false);
}

}  // namespace

std::vector<IndexedReflection> conventionalReflections(const Indexed& indexed) {
    ReflexVectorPtr list(new ReflexVector);
    for (std::size_t i = 0; i < indexed.level.reflections.size(); ++i) {
        const Indices& hkl = indexed.refined.indices[i];
        list->push_back(new Reflex(0.0, 0.0, 0.0));
        list->back()->setHKL(hkl[0], hkl[1], hkl[2]);
        list->back()->setIntensity(indexed.level.reflections[i].intensity);
    }
    return indexedReflections(*list, indexed.symmetry().toConventional);
}

std::string nameOfCrystal(std::size_t number, const std::string& end) {
    return "crystal" + std::to_string(number) + end;
}

std::filesystem::path nameOfCrystal(const std::filesystem::path& first, std::size_t number) {
    return first.parent_path() /
           (first.stem().string() + '.' + nameOfCrystal(number, first.extension().string()));
}

std::vector<std::filesystem::path> writeResultFiles(const RunResult& result,
                                                    const std::filesystem::path& folder, Session& session) {
    std::vector<std::filesystem::path> files;
    const auto write = [&](const std::string& name, const std::function<bool(const std::string&)>& writer) {
        OutputFile file(folder / name);
        if (!writer(file.path().string()))
            throw Failure("cannot write " + (folder / name).string() + ": " + session.lastError());
        file.commit();
        files.push_back(folder / name);
    };
    write("peaks.txt",
          [&](const std::string& path) { return writePeaks(result.volume, result.indexed.level, path); });
    const auto writeCell = [&](const std::string& name, const Lattice& lattice) {
        write(name, [&](const std::string& path) {
            UnitCell cell = lattice.toUnitCell();
            return CellFileImportExport::writeCellFile_version_2(path, &cell);
        });
    };
    writeCell("cell.txt", result.indexed.lattice());
    for (std::size_t i = 0; i < result.crystals.others.size(); ++i)
        writeCell(nameOfCrystal(i + 2, ".cell.txt"), result.crystals.others[i].indexed.lattice());
    writeCentreFile(folder / "centres.txt", result.volume.tilts, result.volume.centres);
    files.push_back(folder / "centres.txt");
    write("reflections.csv", [&](const std::string& path) {
        writeReflectionTable(listedReflections(result), path);
        return true;
    });
    for (const std::filesystem::path& path :
         writeEvaluation(result.lattice.evidence, folder / "cell-report.txt"))
        files.push_back(path);
    return files;
}

void writeRemains(const RunRemains& remains, const std::filesystem::path& folder) {
    if (!remains.volume) return;
    if (!remains.volume->centres.empty())
        writeCentreFile(folder / "centres.txt", remains.volume->tilts, remains.volume->centres);
    if (!remains.level) return;
    OutputFile file(folder / "peaks.txt");
    if (writePeaks(*remains.volume, *remains.level, file.path().string())) file.commit();
}

}  // namespace vrk
