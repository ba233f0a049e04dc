#include "pipeline/run/IntensityFiles.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <utility>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
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

void setMerged(const DataReduction& reduction, ReflectionSet& set) {
    set.reflections.clear();
    for (const MergedReflection& one : reduction.merged) {
        set.reflections.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma});
        set.amplitudes.push_back({one.amplitude.value, one.amplitude.sigma});
    }
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

/// How many frames make a virtual one.
int framesTogether(const ExperimentDescription& experiment) {
    const double rotation = std::max(experiment.rotation, 0.01);
    const int most = std::max(1, static_cast<int>(experiment.tilts.size()) / 2);
    return std::clamp(static_cast<int>(std::lround(kVirtualFrame / rotation)), 1, most);
}

/// What the files of the first crystal are made of.
class FirstCrystal {
public:
    FirstCrystal(const RunResult& result, const CrystalText& text)
        : m_result(result), m_set(solutionSet(result.indexed, result.intensities, result.facts(), text)) {
        if (!result.intensities) return;
        m_merged = m_set;
        setMerged(result.intensities->reduction, m_merged);
        m_experiment = experimentOf(result, m_set);
    }

    void write(ReflectionFile kind, const std::filesystem::path& path) const {
        const ReflectionSet& unique = m_result.intensities ? m_merged : m_set;
        switch (kind) {
            case ReflectionFile::Shelx:
                return writeShelx(m_set, path);
            case ReflectionFile::ShelxInstructions:
                return writeShelxInstructions(m_set, path);
            case ReflectionFile::Mtz:
                return writeMtz(unique, path);
            case ReflectionFile::Cif:
                return writeCif(unique, path);
            default:
                break;
        }
        if (!m_result.intensities)
            throw Failure("the run measured no intensities on the frames, which this file holds",
                          FailureKind::Usage);
        const Intensities& intensities = *m_result.intensities;
        if (kind == ReflectionFile::UnmergedMtz)
            writeUnmergedMtz(m_experiment, measured(intensities), path);
        else if (kind == ReflectionFile::XdsAscii)
            writeXdsAscii(m_experiment, measured(intensities), path);
        else if (kind == ReflectionFile::FrameTable)
            writeFrameTable(onFrames(intensities.integration), path);
        else
            writeDynamicalCif(m_experiment, onFrames(intensities.integration), framesTogether(m_experiment),
                              std::max(1, framesTogether(m_experiment) / 2), path);
    }

private:
    const RunResult& m_result;
    ReflectionSet m_set;
    ReflectionSet m_merged;
    ExperimentDescription m_experiment;
};

void writeFile(const std::filesystem::path& path,
               const std::function<void(const std::filesystem::path&)>& writer) {
    OutputFile file(path);
    writer(file.path());
    file.commit();
}

}  // namespace

void writeReflectionFile(const RunResult& result, ReflectionFile kind, const std::filesystem::path& path,
                         const CrystalText& text) {
    writeFile(path, [&](const auto& temporary) { FirstCrystal(result, text).write(kind, temporary); });
}

std::vector<std::filesystem::path> writeIntensityFiles(const RunResult& result, const CrystalText& text,
                                                       const std::string& format,
                                                       const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    std::vector<std::function<void(const std::filesystem::path&)>> writers;
    const auto write = [&](const char* kind, const std::string& name,
                           std::function<void(const std::filesystem::path&)> writer) {
        if (!format.empty() && format != kind) return;
        writers.push_back(std::move(writer));
        files.push_back(folder / name);
    };
    const auto writeAll = [&] {
        VRK::shareItems(files.size(), [&](std::size_t i, std::size_t) { writeFile(files[i], writers[i]); });
        return files;
    };
    const FirstCrystal first(result, text);
    const auto writeFirst = [&](const char* kind, const std::string& name, ReflectionFile file) {
        write(kind, name, [&first, file](const auto& path) { first.write(file, path); });
    };
    writeFirst("shelx", "reflections.hkl", ReflectionFile::Shelx);
    writeFirst("shelx", "crystal.ins", ReflectionFile::ShelxInstructions);
    for (std::size_t i = 0; i < result.crystals.others.size(); ++i) {
        const FurtherCrystal& other = result.crystals.others[i];
        const auto more = std::make_shared<const ReflectionSet>(
            solutionSet(other.indexed, other.intensities, result.facts(), text));
        write("shelx", nameOfCrystal(i + 2, ".hkl"), [more](const auto& path) { writeShelx(*more, path); });
        write("shelx", nameOfCrystal(i + 2, ".ins"),
              [more](const auto& path) { writeShelxInstructions(*more, path); });
    }
    if (!result.intensities) return writeAll();

    writeFirst("mtz", "merged.mtz", ReflectionFile::Mtz);
    writeFirst("cif", "merged.cif", ReflectionFile::Cif);
    writeFirst("mtz", "unmerged.mtz", ReflectionFile::UnmergedMtz);
    writeFirst("xds", "XDS_ASCII.HKL", ReflectionFile::XdsAscii);
    writeFirst("frames", "frames.csv", ReflectionFile::FrameTable);
    writeFirst("pets", "dynamical.cif_pets", ReflectionFile::DynamicalCif);
    return writeAll();
}

}  // namespace vrk
