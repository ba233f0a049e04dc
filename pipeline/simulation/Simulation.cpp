#include "pipeline/simulation/Simulation.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>
#include <span>

#include "foundation/Version.h"
#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/frames/SeriesHeader.h"

namespace vrk {
namespace {

constexpr double kDegree = std::numbers::pi / 180;
/// Reflections farther than this many widths from the sphere are not recorded.
constexpr double kReach = 4.5;
/// Pixels between the resolution limit and the edge of the frame.
constexpr double kMargin = 4;
/// Expected counts over background that make a reflection count as recorded.
constexpr double kRecordedCounts = 3;

/// One seed per purpose, so that another option does not change the rest of the series.
enum class Purpose : std::uint64_t {
    Orientation = 1,
    Intensities,
    SecondOrientation,
    Drift,
    Frames,
    Detector,
    Noise
};

SimulationRandom randomFor(std::uint64_t seed, Purpose purpose) {
    SimulationRandom mix(seed * 0x2545f4914f6cdd1dULL + static_cast<std::uint64_t>(purpose));
    return SimulationRandom(mix.next());
}

Vector3 operator*(const Matrix3& matrix, const Vector3& vector) {
    Vector3 result{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            result[i] += matrix[i][j] * vector[j];
    return result;
}

/// Uniformly distributed rotation (K. Shoemake, Graphics Gems III, 1992, pp. 124-132).
Matrix3 randomRotation(SimulationRandom random) {
    const double u = random.uniform();
    const double angle1 = 2 * std::numbers::pi * random.uniform();
    const double angle2 = 2 * std::numbers::pi * random.uniform();
    const double x = std::sqrt(1 - u) * std::sin(angle1);
    const double y = std::sqrt(1 - u) * std::cos(angle1);
    const double z = std::sqrt(u) * std::sin(angle2);
    const double w = std::sqrt(u) * std::cos(angle2);
    return {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
             {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
             {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}}};
}

/// A pattern of the series: its tilt and where its centre lies.
struct Frame {
    double tilt = 0;  ///< radians
    double centreX = 0;
    double centreY = 0;
    bool blank = false;
};

/// How much of a reflection's intensity a frame records.
class Rocking {
public:
    Rocking(const SimulationSettings& settings, double frameRotation)
        : m_mode(settings.mode),
          m_width(settings.rockingWidth),
          m_halfRotation(settings.mode == RotationMode::Continuous ? frameRotation * kDegree / 2 : 0),
          m_precession(settings.mode == RotationMode::Precession ? settings.precessionAngle * kDegree : 0) {}

    /// Distance from the sphere at which a reflection leaves the frame.
    double reach(double u, double length) const {
        return kReach * m_width + std::abs(u) * m_halfRotation + length * m_precession;
    }
    /// \p distance: from the sphere at the frame's tilt; \p u: its change per radian; \p length: |g|.
    double recorded(double distance, double u, double length) const {
        if (m_mode == RotationMode::Continuous) return overRotation(distance, u * m_halfRotation);
        if (m_mode == RotationMode::Precession) return overPrecession(distance, length * m_precession);
        return profile(distance);
    }

private:
    double profile(double distance) const {
        const double relative = distance / m_width;
        return std::exp(-relative * relative / 2);
    }
    double overRotation(double distance, double halfSweep) const {
        const double half = std::abs(halfSweep) / (m_width * std::numbers::sqrt2);
        if (half < 1e-3) return profile(distance);
        const double middle = distance / (m_width * std::numbers::sqrt2);
        return std::sqrt(std::numbers::pi) * (std::erf(middle + half) - std::erf(middle - half)) / (4 * half);
    }
    double overPrecession(double distance, double amplitude) const {
        constexpr int steps = 64;
        double sum = 0;
        for (int i = 0; i < steps; ++i)
            sum += profile(distance + amplitude * std::cos((i + 0.5) * std::numbers::pi / steps));
        return sum / steps;
    }

    RotationMode m_mode;
    double m_width;
    double m_halfRotation;
    double m_precession;
};

/// The reflections of one crystal, a column per quantity for the scan over all of them in every frame.
struct ReflectionTable {
    std::vector<float> x, y, z;    ///< volume frame, 1/Angstrom
    std::vector<float> length;     ///< 1/Angstrom
    std::vector<float> curvature;  ///< distance of the sphere from the plane, 1/Angstrom, signed
    std::vector<float> peak;       ///< counts at the spot's maximum when on the sphere
    std::vector<float> highest;    ///< highest peak recorded in any frame
};

ReflectionTable tableOf(const std::vector<CrystalReflection>& reflections, const Matrix3& orientation,
                        double signedWavelength, double scale) {
    ReflectionTable table;
    for (const CrystalReflection& one : reflections) {
        const Vector3 g = orientation * one.g;
        const double square = g[0] * g[0] + g[1] * g[1] + g[2] * g[2];
        table.x.push_back(static_cast<float>(g[0]));
        table.y.push_back(static_cast<float>(g[1]));
        table.z.push_back(static_cast<float>(g[2]));
        table.length.push_back(static_cast<float>(std::sqrt(square)));
        table.curvature.push_back(static_cast<float>(signedWavelength * square / 2));
        table.peak.push_back(static_cast<float>(scale * one.intensity));
    }
    table.highest.assign(reflections.size(), 0);
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

class Simulator {
public:
    explicit Simulator(const SimulationSettings& settings)
        : m_settings(settings),
          m_size(settings.detector.size),
          m_pixelSize(1 / settings.dmin / (m_size * 0.5 - kMargin)),
          m_crystal(settings.cif.empty()
                        ? SimulatedCrystal::fromCell(settings.cell, settings.centring, settings.bFactor,
                                                     randomFor(settings.seed, Purpose::Intensities).next())
                        : SimulatedCrystal::fromCif(settings.cif, settings.bFactor)),
          m_rocking(settings, frameRotation(settings)),
          m_detector(settings.detector, randomFor(settings.seed, Purpose::Detector).next()) {}

    SimulatedSeries run(VoxProgressObserver* progress);

private:
    static double frameRotation(const SimulationSettings& settings);
    void placeFrames();
    void placeCrystals();
    void drawSpots(ReflectionTable& table, const Frame& frame, std::span<float> image) const;
    void drawSpot(std::span<float> image, double x, double y, double peak) const;
    std::unique_ptr<VoxMRCData> emptySeries() const;
    SimulationTruth truth() const;

    const SimulationSettings& m_settings;
    int m_size;
    double m_pixelSize;  ///< 1/Angstrom
    SimulatedCrystal m_crystal;
    Rocking m_rocking;
    SimulatedDetector m_detector;
    Matrix3 m_orientation{};
    std::vector<CrystalReflection> m_reflections;
    std::vector<ReflectionTable> m_tables;  ///< one per crystal
    std::vector<Frame> m_frames;
};

double Simulator::frameRotation(const SimulationSettings& settings) {
    if (settings.frameRotation > 0) return settings.frameRotation;
    if (settings.tilts.size() < 2) return 1;
    return std::abs(settings.tilts.back() - settings.tilts.front()) /
           static_cast<double>(settings.tilts.size() - 1);
}

/// Tilts, centres and the frames that are missing or blank.
void Simulator::placeFrames() {
    const auto count = static_cast<int>(m_settings.tilts.size());
    SimulationRandom drift = randomFor(m_settings.seed, Purpose::Drift);
    const double phaseX = drift.uniform(0, 2 * std::numbers::pi);
    const double phaseY = drift.uniform(0, 2 * std::numbers::pi);
    const double jumpAngle = drift.uniform(0, 2 * std::numbers::pi);
    const int jumpFrame = count / 4 + drift.index(std::max(count / 2, 1));
    for (int i = 0; i < count; ++i) {
        const double course = 1.4 * std::numbers::pi * i / std::max(count - 1, 1);
        const double jump = i >= jumpFrame ? m_settings.jump : 0;
        Frame frame;
        frame.tilt = m_settings.tilts[static_cast<std::size_t>(i)] * kDegree;
        frame.centreX = (m_size - 1) * 0.5 + jump * std::cos(jumpAngle) +
                        m_settings.drift * (std::sin(course + phaseX) + 0.05 * drift.normal());
        frame.centreY = (m_size - 1) * 0.5 + jump * std::sin(jumpAngle) +
                        m_settings.drift * (std::sin(course + phaseY) + 0.05 * drift.normal());
        m_frames.push_back(frame);
    }
    SimulationRandom random = randomFor(m_settings.seed, Purpose::Frames);
    for (int i = 0; i < m_settings.missing && m_frames.size() > 2; ++i) {
        // The first and the last frame stay, they carry the range of the tilts.
        const int which = 1 + random.index(static_cast<int>(m_frames.size()) - 2);
        m_frames.erase(m_frames.begin() + which);
    }
    for (int i = 0; i < m_settings.blank; ++i)
        m_frames[static_cast<std::size_t>(random.index(static_cast<int>(m_frames.size())))].blank = true;
}

void Simulator::placeCrystals() {
    m_orientation =
        m_settings.orientation.value_or(randomRotation(randomFor(m_settings.seed, Purpose::Orientation)));
    m_reflections = m_crystal.reflections(m_settings.dmin);
    const double scale = m_settings.peakCounts / strongIntensity(m_reflections);
    const double signedWavelength = m_settings.handedness * EwaldCurvature::wavelength(m_settings.kilovolts);
    m_tables.push_back(tableOf(m_reflections, m_orientation, signedWavelength, scale));
    if (m_settings.secondCrystal > 0)
        m_tables.push_back(tableOf(m_reflections,
                                   randomRotation(randomFor(m_settings.seed, Purpose::SecondOrientation)),
                                   signedWavelength, scale * m_settings.secondCrystal));
}

void Simulator::drawSpots(ReflectionTable& table, const Frame& frame, std::span<float> image) const {
    const auto cosTilt = static_cast<float>(std::cos(frame.tilt));
    const auto sinTilt = static_cast<float>(std::sin(frame.tilt));
    const double cosAxis = std::cos(m_settings.axis * kDegree);
    const double sinAxis = std::sin(m_settings.axis * kDegree);
    // Nothing is recorded farther away than this, whatever its position: a cheap first test for the scan.
    const auto farthest = static_cast<float>(m_rocking.reach(1 / m_settings.dmin, 1 / m_settings.dmin));
    for (std::size_t i = 0; i < table.x.size(); ++i) {
        const float distance = table.z[i] * cosTilt - table.x[i] * sinTilt - table.curvature[i];
        if (std::abs(distance) > farthest) continue;
        const double u = table.x[i] * cosTilt + table.z[i] * sinTilt;
        if (std::abs(distance) > m_rocking.reach(u, table.length[i])) continue;
        const double v = table.y[i];
        const double peak = table.peak[i] * m_rocking.recorded(distance, u, table.length[i]);
        if (peak < 0.02) continue;
        table.highest[i] = std::max(table.highest[i], static_cast<float>(peak));
        drawSpot(image, frame.centreX + (u * cosAxis - v * sinAxis) / m_pixelSize,
                 frame.centreY + (u * sinAxis + v * cosAxis) / m_pixelSize, peak);
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

std::unique_ptr<VoxMRCData> Simulator::emptySeries() const {
    const auto size = static_cast<unsigned>(m_size);
    std::unique_ptr<VoxMRCData> series(
        VoxMRCData::Create3D(size, size, static_cast<unsigned>(m_frames.size())));
    if (!series) throw std::bad_alloc();
    std::vector<double> tilts;
    for (const Frame& frame : m_frames)
        tilts.push_back(frame.tilt / kDegree);
    series->m_Header = tiltSeriesHeader(m_size, m_size, tilts, m_pixelSize * 1e10,
                                        std::string("vrk simulate ") + VRK::kVersion);
    for (int i = 0; i < static_cast<int>(m_frames.size()); ++i) {
        series->m_Header.setValue(SliceValue::HighTension, i, static_cast<float>(m_settings.kilovolts));
        if (m_settings.writeAxis)
            series->m_Header.setValue(SliceValue::TiltAxis, i, static_cast<float>(m_settings.axis));
    }
    return series;
}

SimulationTruth Simulator::truth() const {
    SimulationTruth result;
    result.conventionalCell = m_crystal.cell();
    result.centring = m_crystal.centring();
    result.primitiveCell = m_crystal.primitiveCell();
    result.orientation = m_orientation;
    const auto inVoxels = [this](const Vector3& g) {
        const Vector3 turned = m_orientation * g;
        return Vector3{turned[0] / m_pixelSize, turned[1] / m_pixelSize, turned[2] / m_pixelSize};
    };
    const Matrix3 conventional = m_crystal.reciprocal();
    const Matrix3 primitive = m_crystal.primitiveReciprocal();
    for (std::size_t i = 0; i < 3; ++i) {
        result.conventionalVectors[i] = inVoxels(conventional[i]);
        result.primitiveVectors[i] = inVoxels(primitive[i]);
    }
    result.axis = m_settings.axis;
    result.pixelSize = m_pixelSize * 1e10;
    result.wavelength = EwaldCurvature::wavelength(m_settings.kilovolts);
    result.handedness = m_settings.handedness;
    for (const Frame& frame : m_frames) {
        result.tilts.push_back(frame.tilt / kDegree);
        result.centres.emplace_back(frame.centreX, frame.centreY);
    }
    const ReflectionTable& table = m_tables.front();
    const double spotArea = 2 * std::numbers::pi * m_settings.spotWidth * m_settings.spotWidth;
    result.reflectionsInSphere = static_cast<int>(m_reflections.size());
    for (std::size_t i = 0; i < m_reflections.size(); ++i) {
        const CrystalReflection& one = m_reflections[i];
        if (table.highest[i] >= kRecordedCounts) ++result.reflectionsRecorded;
        if (m_settings.keepReflections)
            result.reflections.push_back(
                {one.h, one.k, one.l, inVoxels(one.g), table.peak[i] * spotArea, table.highest[i]});
    }
    return result;
}

SimulatedSeries Simulator::run(VoxProgressObserver* progress) {
    placeFrames();
    placeCrystals();
    SimulatedSeries result;
    result.series = emptySeries();
    if (progress) progress->setSteps(static_cast<int>(m_frames.size()), "simulate");
    SimulationRandom noise = randomFor(m_settings.seed, Purpose::Noise);
    const std::size_t pixels = static_cast<std::size_t>(m_size) * static_cast<std::size_t>(m_size);
    std::vector<float> image(pixels);
    for (std::size_t z = 0; z < m_frames.size(); ++z) {
        if (progress) progress->updateStep(static_cast<int>(z));
        if (progress && progress->canceled()) return {};
        const std::span<short> slice(result.series->GetChunkPointer(static_cast<unsigned>(z)), pixels);
        std::fill(image.begin(), image.end(), 0.0F);
        std::fill(slice.begin(), slice.end(), short{0});
        if (m_frames[z].blank) continue;
        for (ReflectionTable& table : m_tables)
            drawSpots(table, m_frames[z], image);
        m_detector.addBackground(image, m_frames[z].centreX, m_frames[z].centreY);
        m_detector.record(image, slice, noise);
    }
    setDensities(*result.series);
    result.truth = truth();
    return result;
}

void check(bool good, const std::string& text) {
    if (!good) throw Failure(text, FailureKind::Usage);
}

void checkSettings(const SimulationSettings& settings) {
    check(settings.detector.size >= 32 && settings.detector.size <= 4096,
          "the size of a frame must be 32 to 4096 pixels");
    check(!settings.tilts.empty() && settings.tilts.size() <= mrcH::kMaxSlices,
          "a series has 1 to " + std::to_string(mrcH::kMaxSlices) + " frames, not " +
              std::to_string(settings.tilts.size()) + "; choose a larger step of the tilts");
    check(
        std::all_of(settings.tilts.begin(), settings.tilts.end(), [](double t) { return std::abs(t) <= 90; }),
        "tilts must lie between -90 and 90 degrees");
    check(settings.dmin >= 0.1 && settings.dmin <= 100, "the resolution limit must be 0.1 to 100 Angstrom");
    check(settings.kilovolts >= 1 && settings.kilovolts <= 10000, "the voltage must be 1 to 10000 kV");
    check(settings.rockingWidth >= 1e-5 && settings.rockingWidth <= 1,
          "the rocking width must be 1e-5 to 1 1/Angstrom");
    check(settings.spotWidth >= 0.3 && settings.spotWidth <= 7,
          "the width of a spot must be 0.3 to 7 pixels");
    check(settings.handedness == 1 || settings.handedness == -1, "the handedness is 1 or -1");
    check(settings.missing >= 0 && settings.blank >= 0 && settings.detector.hotPixels >= 0 &&
              settings.detector.zingers >= 0 && settings.detector.noise >= 0 && settings.drift >= 0 &&
              settings.secondCrystal >= 0 && settings.peakCounts >= 0 && settings.bFactor >= 0,
          "numbers of defects, noise, drift, counts and displacements cannot be negative");
}

nlohmann::json cellJson(const std::array<double, 6>& cell) {
    return {{"a", cell[0]},     {"b", cell[1]},    {"c", cell[2]},
            {"alpha", cell[3]}, {"beta", cell[4]}, {"gamma", cell[5]}};
}

}  // namespace

nlohmann::json SimulationTruth::toJson() const {
    nlohmann::json conventional = cellJson(conventionalCell);
    conventional["centring"] = std::string(1, centring);
    nlohmann::json json = {
        {"cell", {{"conventional", conventional}, {"primitive", cellJson(primitiveCell)}}},
        {"orientation_matrix", orientation},
        {"reciprocal_vectors_px", {{"conventional", conventionalVectors}, {"primitive", primitiveVectors}}},
        {"tilt_axis_deg", axis},
        {"pixel_size", pixelSize},
        {"wavelength", wavelength},
        {"handedness", handedness},
        {"tilts", tilts},
        {"centres", centres},
        {"reflections_in_sphere", reflectionsInSphere},
        {"reflections_recorded", reflectionsRecorded}};
    for (const SimulatedReflection& one : reflections)
        json["reflections"].push_back({{"hkl", {one.h, one.k, one.l}},
                                       {"position", one.position},
                                       {"intensity", one.intensity},
                                       {"peak_counts", one.peakCounts}});
    return json;
}

SimulatedSeries simulateSeries(const SimulationSettings& settings, VoxProgressObserver* progress) {
    checkSettings(settings);
    return Simulator(settings).run(progress);
}

}  // namespace vrk
