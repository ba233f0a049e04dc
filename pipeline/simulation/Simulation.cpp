#include "pipeline/simulation/Simulation.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>
#include <span>

#include "foundation/Version.h"
#include "indexing/EwaldCurvature.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/simulation/FrameProjection.h"
#include "pipeline/simulation/RockingCurve.h"
#include "pipeline/simulation/SimulatedBackground.h"
#include "pipeline/simulation/SimulatedBeamStop.h"
#include "pipeline/simulation/SimulatedCrystal.h"
#include "pipeline/simulation/SimulatedDetector.h"
#include "pipeline/simulation/SimulatedFrame.h"
#include "pipeline/simulation/SimulatedOrientation.h"

namespace vrk {
namespace {

/// Pixels between the resolution limit and the edge of the frame.
constexpr double kMargin = 4;
/// Expected counts over background that make a reflection count as recorded.
constexpr double kRecordedCounts = 3;
/// Fainter spots are not drawn.
constexpr double kFaintest = 0.002;

/// The reflections of one crystal, a column per quantity for the scan over all of them in every frame.
struct ReflectionTable {
    std::vector<float> x, y, z;    ///< volume frame, 1/Angstrom
    std::vector<float> length;     ///< 1/Angstrom
    std::vector<float> curvature;  ///< distance of the sphere from the plane, 1/Angstrom, signed
    std::vector<float> peak;       ///< counts at the spot's maximum per exposure on the sphere
    std::vector<float> highest;    ///< highest peak recorded in any frame
    std::vector<double> time;      ///< exposures in the diffracting condition
};

ReflectionTable tableOf(const std::vector<CrystalReflection>& reflections, const Matrix3& orientation,
                        double signedWavelength, double scale) {
    ReflectionTable table;
    for (const CrystalReflection& one : reflections) {
        const Vector3 g = orientation * one.g;
        const double square = dot(g, g);
        table.x.push_back(static_cast<float>(g[0]));
        table.y.push_back(static_cast<float>(g[1]));
        table.z.push_back(static_cast<float>(g[2]));
        table.length.push_back(static_cast<float>(std::sqrt(square)));
        table.curvature.push_back(static_cast<float>(signedWavelength * square / 2));
        table.peak.push_back(static_cast<float>(scale * one.intensity));
    }
    table.highest.assign(reflections.size(), 0);
    table.time.assign(reflections.size(), 0);
    return table;
}

/// The 99.5th percentile of the intensities.
double strongIntensity(const std::vector<CrystalReflection>& reflections) {
    if (reflections.empty()) return 1;
    std::vector<double> intensities;
    intensities.reserve(reflections.size());
    for (const CrystalReflection& one : reflections)
        intensities.push_back(one.intensity);
    const auto rank = static_cast<std::ptrdiff_t>(0.995 * static_cast<double>(intensities.size() - 1));
    std::nth_element(intensities.begin(), intensities.begin() + rank, intensities.end());
    const double strong = intensities[static_cast<std::size_t>(rank)];
    return strong > 0 ? strong : 1;
}

SimulatedCrystal crystalOf(const SimulationSettings& settings) {
    SimulatedCrystal crystal =
        settings.cif.empty()
            ? SimulatedCrystal::fromCell(settings.cell, settings.centring, settings.bFactor,
                                         randomFor(settings.seed, RandomPurpose::Intensities).next())
            : SimulatedCrystal::fromCif(settings.cif, settings.bFactor);
    crystal.setEven(settings.evenIntensities);
    crystal.setAsymmetry(settings.asymmetry, randomFor(settings.seed, RandomPurpose::Asymmetry).next());
    return crystal;
}

class Simulator {
public:
    explicit Simulator(const SimulationSettings& settings)
        : m_settings(settings),
          m_size(settings.detector.size),
          m_pixelSize(1 / settings.dmin / (m_size * 0.5 - kMargin)),
          m_crystal(crystalOf(settings)),
          m_rocking(settings),
          m_background(settings, m_pixelSize),
          m_detector(settings.detector, randomFor(settings.seed, RandomPurpose::Detector).next()),
          m_frames(placeFrames(settings)) {
        if (settings.beamStop) m_stop.emplace(*settings.beamStop, m_size);
    }

    SimulatedSeries run(VoxProgressObserver* progress);

private:
    void placeCrystals();
    Matrix3 secondOrientation() const;
    std::vector<CrystalReflection> secondReflections() const;
    void draw(const SimulatedFrame& frame, std::span<float> image);
    void drawSpots(ReflectionTable& table, const SimulatedFrame& frame, std::span<float> image) const;
    void drawSpot(std::span<float> image, double x, double y, double peak) const;
    double statedPixelSize() const { return m_settings.stated.pixelFactor * m_pixelSize * 1e10; }
    double statedKilovolts() const { return m_settings.stated.kilovolts.value_or(m_settings.kilovolts); }
    std::optional<double> statedAxis() const;
    std::unique_ptr<VoxMRCData> emptySeries() const;
    SimulationTruth truth() const;
    void addReflections(SimulationTruth& result) const;
    Vector3 inVoxels(const Vector3& g) const;

    const SimulationSettings& m_settings;
    int m_size;
    double m_pixelSize;  ///< 1/Angstrom
    SimulatedCrystal m_crystal;
    RockingCurve m_rocking;
    SimulatedBackground m_background;
    std::optional<SimulatedBeamStop> m_stop;
    SimulatedDetector m_detector;
    std::vector<SimulatedFrame> m_frames;
    Matrix3 m_orientation{};
    std::optional<Matrix3> m_secondOrientation;
    std::vector<CrystalReflection> m_reflections;
    std::vector<ReflectionTable> m_tables;  ///< one per crystal
};

void Simulator::placeCrystals() {
    m_orientation = orientationOf(m_crystal, m_settings.orientation, m_settings.seed);
    m_reflections = m_crystal.reflections(m_settings.dmin);
    const double scale = m_settings.peakCounts / strongIntensity(m_reflections);
    const double signedWavelength = m_settings.handedness * EwaldCurvature::wavelength(m_settings.kilovolts);
    m_tables.push_back(tableOf(m_reflections, m_orientation, signedWavelength, scale));
    if (m_settings.secondCrystal > 0) {
        m_secondOrientation = secondOrientation();
        const std::vector<CrystalReflection> others = secondReflections();
        const double secondScale = m_settings.secondCrystal * m_settings.peakCounts / strongIntensity(others);
        m_tables.push_back(tableOf(others, *m_secondOrientation, signedWavelength, secondScale));
    }
}

Matrix3 Simulator::secondOrientation() const {
    SimulationRandom random = randomFor(m_settings.seed, RandomPurpose::SecondOrientation);
    if (!m_settings.secondTurn) return randomRotation(random);
    const Vector3 axis = randomRotation(random)[0];
    return rotationAbout(axis, *m_settings.secondTurn) * m_orientation;
}

std::vector<CrystalReflection> Simulator::secondReflections() const {
    if (!m_settings.secondCell) return m_reflections;
    const std::uint64_t intensities = randomFor(m_settings.seed, RandomPurpose::SecondIntensities).next();
    return SimulatedCrystal::fromCell(*m_settings.secondCell, 'P', m_settings.bFactor, intensities)
        .reflections(m_settings.dmin);
}

/// Expected counts of a frame.
void Simulator::draw(const SimulatedFrame& frame, std::span<float> image) {
    std::fill(image.begin(), image.end(), 0.0F);
    for (ReflectionTable& table : m_tables)
        drawSpots(table, frame, image);
    m_background.addTo(image, frame.centreX, frame.centreY);
    if (m_stop) m_stop->cover(image);
}

void Simulator::drawSpots(ReflectionTable& table, const SimulatedFrame& frame, std::span<float> image) const {
    const FrameProjection projection(m_settings, frame, m_pixelSize);
    const auto& [toU, toV, toHeight] = projection.rotation();
    const auto heightX = static_cast<float>(toHeight[0]);
    const auto heightY = static_cast<float>(toHeight[1]);
    const auto heightZ = static_cast<float>(toHeight[2]);
    // Nothing is recorded farther away than this, whatever its position: a cheap first test for the scan.
    const auto farthest = static_cast<float>(m_rocking.reach(1 / m_settings.dmin, 1 / m_settings.dmin));
    for (std::size_t i = 0; i < table.x.size(); ++i) {
        const float distance =
            table.x[i] * heightX + table.y[i] * heightY + table.z[i] * heightZ - table.curvature[i];
        if (std::abs(distance) > farthest) continue;
        const Vector3 g = {table.x[i], table.y[i], table.z[i]};
        const double u = dot(toU, g);
        const double speed = projection.speed(u);
        if (std::abs(distance) > m_rocking.reach(speed, table.length[i])) continue;
        const double time = m_rocking.time(distance, speed, table.length[i]);
        const double peak = table.peak[i] * time;
        table.time[i] += time;
        table.highest[i] = std::max(table.highest[i], static_cast<float>(peak));
        if (peak < kFaintest) continue;
        const auto [x, y] = projection.pixel(u, dot(toV, g));
        drawSpot(image, x, y, peak);
    }
}

void Simulator::drawSpot(std::span<float> image, double x, double y, double peak) const {
    const double width = m_settings.spotWidth;
    const double radius = 4 * width;
    const int left = std::max(static_cast<int>(std::ceil(x - radius)), 0);
    const int right = std::min(static_cast<int>(std::floor(x + radius)), m_size - 1);
    const int top = std::max(static_cast<int>(std::ceil(y - radius)), 0);
    const int bottom = std::min(static_cast<int>(std::floor(y + radius)), m_size - 1);
    const auto along = [width](double offset) { return std::exp(-offset * offset / (2 * width * width)); };
    std::array<float, 64> row{};
    for (int i = left; i <= right; ++i)
        row[static_cast<std::size_t>(i - left)] = static_cast<float>(along(i - x));
    for (int j = top; j <= bottom; ++j) {
        const auto height = static_cast<float>(peak * along(j - y));
        float* line = image.data() + static_cast<std::ptrdiff_t>(j) * m_size;
        for (int i = left; i <= right; ++i)
            line[i] += height * row[static_cast<std::size_t>(i - left)];
    }
}

std::optional<double> Simulator::statedAxis() const {
    if (m_settings.stated.axisAngle) return m_settings.stated.axisAngle;
    return m_settings.stated.axis ? std::optional<double>(m_settings.axis) : std::nullopt;
}

std::unique_ptr<VoxMRCData> Simulator::emptySeries() const {
    std::unique_ptr<VoxMRCData> series = vrk::emptySeries(m_size, m_size, m_frames.size());
    std::vector<double> tilts;
    for (const SimulatedFrame& frame : m_frames)
        tilts.push_back(frame.statedTilt);
    series->m_Header = tiltSeriesHeader(m_size, m_size, tilts, statedPixelSize(),
                                        std::string("vrk simulate ") + VRK::kVersion);
    const std::optional<double> axis = statedAxis();
    for (int i = 0; i < static_cast<int>(m_frames.size()); ++i) {
        series->m_Header.setValue(SliceValue::HighTension, i, static_cast<float>(statedKilovolts()));
        if (axis) series->m_Header.setValue(SliceValue::TiltAxis, i, static_cast<float>(*axis));
    }
    const bool precessed = m_settings.mode == RotationMode::Precession;
    if (const std::optional<double>& rotation = m_settings.stated.rotation)
        stateMotion(series->m_Header, {*rotation, precessed ? m_settings.precessionAngle : 0.0});
    return series;
}

Vector3 Simulator::inVoxels(const Vector3& g) const {
    const Vector3 turned = m_orientation * g;
    return {turned[0] / m_pixelSize, turned[1] / m_pixelSize, turned[2] / m_pixelSize};
}

SimulationTruth Simulator::truth() const {
    SimulationTruth result;
    result.settings = m_settings;
    result.conventionalCell = m_crystal.cell();
    result.centring = m_crystal.centring();
    result.primitiveCell = m_crystal.primitiveCell();
    result.orientation = m_orientation;
    result.secondOrientation = m_secondOrientation;
    const Matrix3 conventional = m_crystal.reciprocal();
    const Matrix3 primitive = m_crystal.primitiveReciprocal();
    for (std::size_t i = 0; i < 3; ++i) {
        result.conventionalVectors[i] = inVoxels(conventional[i]);
        result.primitiveVectors[i] = inVoxels(primitive[i]);
    }
    result.axis = m_settings.axis;
    result.axisTilt = m_settings.axisTilt;
    result.pixelSize = m_pixelSize * 1e10;
    result.kilovolts = m_settings.kilovolts;
    result.wavelength = EwaldCurvature::wavelength(m_settings.kilovolts);
    result.handedness = m_settings.handedness;
    for (const SimulatedFrame& frame : m_frames) {
        if (frame.blank) result.blankFrames.push_back(static_cast<int>(result.tilts.size()));
        result.tilts.push_back(frame.tilt);
        result.statedTilts.push_back(frame.statedTilt);
        result.centres.emplace_back(frame.centreX, frame.centreY);
    }
    result.statedAxis = statedAxis();
    result.statedPixelSize = statedPixelSize();
    result.statedKilovolts = statedKilovolts();
    addReflections(result);
    return result;
}

void Simulator::addReflections(SimulationTruth& result) const {
    const ReflectionTable& table = m_tables.front();
    const double spotArea = 2 * std::numbers::pi * m_settings.spotWidth * m_settings.spotWidth;
    result.reflectionsInSphere = static_cast<int>(m_reflections.size());
    for (std::size_t i = 0; i < m_reflections.size(); ++i) {
        const CrystalReflection& one = m_reflections[i];
        if (table.highest[i] >= kRecordedCounts) ++result.reflectionsRecorded;
        if (m_settings.keepReflections)
            result.reflections.push_back({one.h, one.k, one.l, inVoxels(one.g), table.peak[i] * spotArea,
                                          table.time[i], table.highest[i]});
    }
}

SimulatedSeries Simulator::run(VoxProgressObserver* progress) {
    placeCrystals();
    SimulatedSeries result;
    result.series = emptySeries();
    if (progress) progress->setSteps(static_cast<int>(m_frames.size()), "simulate");
    SimulationRandom noise = randomFor(m_settings.seed, RandomPurpose::Noise);
    const std::size_t pixels = static_cast<std::size_t>(m_size) * static_cast<std::size_t>(m_size);
    std::vector<float> image(pixels);
    for (std::size_t z = 0; z < m_frames.size(); ++z) {
        if (progress) progress->updateStep(static_cast<int>(z));
        if (progress && progress->canceled()) return {};
        const std::span<short> slice(result.series->GetChunkPointer(static_cast<unsigned>(z)), pixels);
        std::fill(slice.begin(), slice.end(), short{0});
        if (m_frames[z].blank) continue;
        draw(m_frames[z], image);
        m_detector.record(image, slice, noise);
    }
    setDensities(*result.series);
    result.truth = truth();
    return result;
}

}  // namespace

SimulatedSeries simulateSeries(const SimulationSettings& settings, VoxProgressObserver* progress) {
    checkSettings(settings);
    return Simulator(settings).run(progress);
}

}  // namespace vrk
