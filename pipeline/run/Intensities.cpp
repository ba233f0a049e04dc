#include "pipeline/run/Intensities.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Median.h"

namespace vrk {
namespace {

/// The median difference of neighbouring tilts: gaps do not count.
double typicalStep(const std::vector<double>& tilts) {
    std::vector<double> steps;
    for (std::size_t i = 1; i < tilts.size(); ++i)
        steps.push_back(tilts[i] - tilts[i - 1]);
    return medianOf(std::move(steps));
}

FrameStack stackOf(const VoxMRCData& counts) {
    FrameStack stack;
    stack.width = static_cast<int>(counts.GetWidth());
    stack.height = static_cast<int>(counts.GetHeight());
    for (unsigned z = 0; z < counts.GetDepth(); ++z)
        stack.frames.emplace_back(counts.GetChunkPointer(z), stack.pixels());
    return stack;
}

/// Of the frames as they were recorded, which the reflections of the volume do not show any more.
void addDistortion(const FrameDistortion& known, SeriesGeometry& geometry) {
    const double c = std::cos(2.0 * geometry.axisAngle);
    const double s = std::sin(2.0 * geometry.axisAngle);
    geometry.distortion.stretch += c * known.ellipseCosine + s * known.ellipseSine;
    geometry.distortion.shear += c * known.ellipseSine - s * known.ellipseCosine;
    geometry.distortion.radial += known.radial / (geometry.pixelSize * geometry.pixelSize);
}

/// Names that the refinement on the frames has for some terms.
template <typename Condition>
std::vector<std::string> namesOfTerms(Condition condition) {
    static constexpr std::array<std::pair<InstrumentTerm, const char*>, 5> kNames = {
        {{InstrumentTerm::EllipseCosine, "stretch"},
         {InstrumentTerm::EllipseSine, "shear"},
         {InstrumentTerm::Radial, "radial"},
         {InstrumentTerm::TiltScale, "tilt scale"},
         {InstrumentTerm::AxisTilt, "axis pitch"}}};
    std::vector<std::string> names;
    for (const auto& [term, name] : kNames)
        if (condition(term)) names.emplace_back(name);
    return names;
}

/// The mode of the frames as the series states it, on the scale of the refined tilts.
std::optional<StatedMode> statedModeOf(const SeriesFacts& facts, double tiltScale) {
    if (!facts.motion) return std::nullopt;
    StatedMode stated;
    stated.precession = facts.motion->precession * kDegree;
    stated.rotation = facts.motion->rotation * kDegree * (1.0 + tiltScale);
    stated.mode = stated.precession > 0.0 ? RotationMode::Precession
                  : stated.rotation > 0.0 ? RotationMode::Continuous
                                          : RotationMode::Stepwise;
    return stated;
}

}  // namespace

SeriesGeometry geometryOf(const Indexed& indexed, const ReciprocalVolume& volume, const TiltAxis& axis,
                          const VoxMRCData& counts) {
    const SeriesFacts& facts = volume.facts;
    const InstrumentModel& model = indexed.instrument.model;
    const auto term = [&](InstrumentTerm one) { return model[one]; };
    SeriesGeometry geometry;
    geometry.pixelSize = facts.pixelSize * 1e-10;
    geometry.wavelength = facts.wavelength();
    geometry.handedness = indexed.refined.sense == 0 ? 1 : -indexed.refined.sense;
    geometry.ties = indexed.symmetry().bravaisType;

    // The instrument has its axis within the plane of y and z; here it is y.
    const double pitch = term(InstrumentTerm::AxisTilt);
    const Eigen::Matrix3d toAxis = Eigen::AngleAxisd(-pitch, Eigen::Vector3d::UnitX()).toRotationMatrix();
    const Eigen::Matrix3d reduced = indexed.conventional.lattice.basis * geometry.pixelSize;
    geometry.reciprocal = toAxis * reduced * indexed.toConventional().inverse().transpose();
    geometry.axisPitch = pitch;
    geometry.axisAngle = axis.angle * kDegree + term(InstrumentTerm::AxisTurn);
    const double halfWidth = 0.5 * volume.voxels->GetWidth() * geometry.pixelSize;
    geometry.distortion = {term(InstrumentTerm::EllipseCosine), term(InstrumentTerm::EllipseSine),
                           term(InstrumentTerm::Radial) / (halfWidth * halfWidth)};
    addDistortion(facts.distortion, geometry);

    const mrcH& header = counts.m_Header;
    std::vector<double> tilts;
    for (int i = 0; i < header.nz; ++i)
        tilts.push_back(header.tilt(i) * kDegree * (1.0 + term(InstrumentTerm::TiltScale)));
    const double step = typicalStep(tilts);
    // Centres count in the frames as they came, before they were padded.
    const double left = 0.5 * (static_cast<double>(counts.GetWidth()) - facts.size[0]);
    const double top = 0.5 * (static_cast<double>(counts.GetHeight()) - facts.size[1]);
    const double middleX = 0.5 * (counts.GetWidth() - 1.0);
    const double middleY = 0.5 * (counts.GetHeight() - 1.0);
    for (std::size_t i = 0; i < tilts.size(); ++i) {
        const PatternCentre& centre = volume.centres[i];
        const bool moved = centre.source != PatternCentre::Source::None;
        geometry.frames.push_back(
            {tilts[i], step, moved ? centre.x + left : middleX, moved ? centre.y + top : middleY});
    }
    return geometry;
}

Intensities measureIntensities(const Indexed& indexed, const ReciprocalVolume& volume, const TiltAxis& axis,
                               const RecordedCounts& counts, const IntensityChoice& choice,
                               Session& session) {
    const Stage stage(session, "intensities");
    IntegrationInput input;
    input.frames = stackOf(*counts.frames);
    if (const unsigned char* shadows = counts.shadows.pixels())
        input.frames.dead.assign(shadows, shadows + input.frames.pixels());
    input.geometry = geometryOf(indexed, volume, axis, *counts.frames);
    input.centring = indexed.symmetry().centring;
    input.resolution = indexed.resolution;
    input.stated = statedModeOf(volume.facts, indexed.instrument.model[InstrumentTerm::TiltScale]);
    IntegrationOptions options;
    options.dMin = choice.dMin;
    options.gain = choice.gain;
    options.mode = choice.mode;
    const KnownTerms known = knownTerms(volume.facts);
    const auto isKnown = [&](InstrumentTerm term) {
        return known[static_cast<std::size_t>(term)].has_value();
    };
    options.keptTerms = namesOfTerms(isKnown);
    options.terms =
        namesOfTerms([&](InstrumentTerm term) { return indexed.instrument.uses(term) && !isKnown(term); });
    options.checkpoint = [&] { session.checkCanceled(); };

    Intensities result;
    result.integration = integrate(std::move(input), options);
    result.reduction = reduceData(result.integration.reflections, counts.frames->GetDepth(),
                                  result.integration.fit.geometry.reciprocal, indexed.symmetry().centring,
                                  result.integration.dMin);
    for (const std::string& remark : result.integration.remarks)
        session.warn(remark);
    return result;
}

}  // namespace vrk
