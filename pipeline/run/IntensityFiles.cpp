#include "pipeline/run/IntensityFiles.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "pipeline/base/Angle.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/MeasuredIntensities.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/run/ResultFiles.h"

namespace vrk {
namespace {

/// A virtual frame covers this, degrees: more than the rocking curves of most reflections.
constexpr double kVirtualFrame = 4.0;

ReflectionSet describedSet(const Indexed& indexed, const SeriesFacts& facts, const CrystalText& text) {
    ReflectionSet set;
    set.cell = indexed.conventional.cell;
    set.cellSigma = indexed.conventional.cellSigma;
    set.centring = indexed.symmetry().centring;
    set.wavelength = facts.wavelength();
    set.formula = text.formula;
    set.title = text.title;
    return set;
}

/// The cell of the refinement on the spots, the group, and how the frames were recorded.
void describe(const Intensities& intensities, const SeriesFacts& facts, ReflectionSet& set) {
    const GeometryFit& fit = intensities.integration.fit;
    set.cell = fit.cell;
    set.cellSigma = fit.cellSigma;
    if (!intensities.reduction.spaceGroups.candidates.empty())
        set.spaceGroup = intensities.reduction.spaceGroups.candidates.front().symbol;
    set.experiment = {facts.kiloVolts,
                      facts.tiltFirst,
                      facts.tiltLast,
                      fit.rocking.mode == RotationMode::Continuous,
                      fit.rocking.precession / kDegree,
                      fit.rocking.mosaicity / kDegree};
}

std::vector<IndexedReflection> scaled(const DataReduction& reduction) {
    std::vector<IndexedReflection> list;
    for (const Observation& one : reduction.observations)
        if (!one.outlier) list.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma});
    return list;
}

std::vector<IndexedReflection> merged(const DataReduction& reduction) {
    std::vector<IndexedReflection> list;
    for (const MergedReflection& one : reduction.merged)
        list.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma});
    return list;
}

ExperimentDescription experimentOf(const RunResult& result, const ReflectionSet& set) {
    const IntegrationResult& integration = result.intensities->integration;
    const SeriesGeometry& geometry = integration.fit.geometry;
    ExperimentDescription e;
    e.title = set.title;
    e.cell = set.cell;
    if (!set.spaceGroup.empty()) e.spaceGroup = set.spaceGroup;
    e.reciprocal = geometry.reciprocal;
    e.wavelength = geometry.wavelength;
    e.handedness = geometry.handedness;
    e.pixelSize = geometry.pixelSize;
    // Frames that are not square were padded.
    const int edge = std::max(result.facts().size[0], result.facts().size[1]);
    e.size = {edge, edge};
    e.axisAngle = geometry.axisAngle / kDegree;
    e.axisPitch = geometry.axisPitch / kDegree;
    for (const FramePose& frame : geometry.frames) {
        e.tilts.push_back(frame.tilt / kDegree);
        e.centres.push_back({frame.centreX, frame.centreY});
        e.scales.push_back(
            result.intensities->reduction.scales.factor(static_cast<double>(e.scales.size()), 1e4));
    }
    e.rotation = geometry.frames.empty() ? 0.0 : geometry.frames.front().rotation / kDegree;
    e.continuous = integration.fit.rocking.mode == RotationMode::Continuous;
    e.precession = integration.fit.rocking.precession / kDegree;
    e.rockingWidth = integration.fit.rocking.width;
    e.mosaicity = integration.fit.rocking.mosaicity / kDegree;
    e.saturation = integration.saturation;
    e.dMin = integration.dMin;
    const ErrorModel& errors = result.intensities->reduction.errors;
    e.errorModel = {errors.a, errors.b};
    return e;
}

std::vector<MeasuredIntensity> measured(const Intensities& intensities) {
    std::vector<MeasuredIntensity> list;
    std::vector<bool> outlier(intensities.integration.reflections.size(), false);
    for (const Observation& one : intensities.reduction.observations)
        outlier[one.source] = one.outlier;
    for (std::size_t i = 0; i < outlier.size(); ++i) {
        const IntegratedReflection& r = intensities.integration.reflections[i];
        if (!r.good()) continue;
        list.push_back(
            {r.h, r.k, r.l, r.intensity, r.sigma, r.x, r.y, r.frame, r.tilt, r.coverage, outlier[i]});
    }
    return list;
}

std::vector<FrameIntensity> onFrames(const IntegrationResult& integration) {
    std::vector<FrameIntensity> list;
    const SpotPrediction& prediction = integration.prediction;
    for (const IntegratedReflection& r : integration.reflections) {
        const PredictedReflection& predicted = prediction.reflections[r.predicted];
        for (std::uint32_t i = predicted.firstSpot; i < predicted.firstSpot + predicted.spotCount; ++i) {
            const PredictedSpot& spot = prediction.spots[i];
            const FittedSpot& fitted = integration.fitted[i];
            if (!(fitted.variance > 0)) continue;
            list.push_back({r.h, r.k, r.l, static_cast<int>(spot.frame), fitted.counts,
                            std::sqrt(fitted.variance), spot.excitation, spot.rate, spot.x, spot.y});
        }
    }
    return list;
}

/// What a structure is solved with: intensities from the frames, otherwise sums over the volume.
ReflectionSet solutionSet(const Indexed& indexed, const std::optional<Intensities>& intensities,
                          const SeriesFacts& facts, const CrystalText& text) {
    ReflectionSet set = describedSet(indexed, facts, text);
    if (intensities) {
        describe(*intensities, facts, set);
        set.reflections = scaled(intensities->reduction);
    } else {
        set.reflections = conventionalReflections(indexed);
    }
    return set;
}

}  // namespace

std::vector<std::filesystem::path> writeIntensityFiles(const RunResult& result, const CrystalText& text,
                                                       const std::string& format,
                                                       const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    const auto write = [&](const char* kind, const std::string& name,
                           const std::function<void(const std::filesystem::path&)>& writer) {
        if (!format.empty() && format != kind) return;
        OutputFile file(folder / name);
        writer(file.path());
        file.commit();
        files.push_back(folder / name);
    };
    ReflectionSet set = solutionSet(result.indexed, result.intensities, result.facts(), text);
    write("shelx", "reflections.hkl", [&](const auto& path) { writeShelx(set, path); });
    write("shelx", "crystal.ins", [&](const auto& path) { writeShelxInstructions(set, path); });
    for (std::size_t i = 0; i < result.crystals.others.size(); ++i) {
        const FurtherCrystal& other = result.crystals.others[i];
        const ReflectionSet more = solutionSet(other.indexed, other.intensities, result.facts(), text);
        write("shelx", nameOfCrystal(i + 2, ".hkl"), [&](const auto& path) { writeShelx(more, path); });
        write("shelx", nameOfCrystal(i + 2, ".ins"),
              [&](const auto& path) { writeShelxInstructions(more, path); });
    }
    if (!result.intensities) return files;

    set.reflections = merged(result.intensities->reduction);
    write("mtz", "merged.mtz", [&](const auto& path) { writeMtz(set, path); });
    write("cif", "merged.cif", [&](const auto& path) { writeCif(set, path); });
    const ExperimentDescription experiment = experimentOf(result, set);
    const std::vector<MeasuredIntensity> all = measured(*result.intensities);
    write("mtz", "unmerged.mtz", [&](const auto& path) { writeUnmergedMtz(experiment, all, path); });
    write("xds", "XDS_ASCII.HKL", [&](const auto& path) { writeXdsAscii(experiment, all, path); });
    const std::vector<FrameIntensity> frames = onFrames(result.intensities->integration);
    write("frames", "frames.csv", [&](const auto& path) { writeFrameTable(frames, path); });
    const double rotation = std::max(experiment.rotation, 0.01);
    const int most = std::max(1, static_cast<int>(experiment.tilts.size()) / 2);
    const int together = std::clamp(static_cast<int>(std::lround(kVirtualFrame / rotation)), 1, most);
    const int step = std::max(1, together / 2);
    write("pets", "dynamical.cif_pets",
          [&](const auto& path) { writeDynamicalCif(experiment, frames, together, step, path); });
    return files;
}

}  // namespace vrk
