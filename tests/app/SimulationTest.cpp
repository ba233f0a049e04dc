#include "pipeline/simulation/Simulation.h"

#include <Eigen/Dense>
#include <gemmi/c4322.hpp>
#include <span>

#include "app/RunVrk.h"
#include "pipeline/base/Angle.h"
#include "support/FailureOf.h"
#include "support/SoFar.h"

namespace {

using vrk::SimulatedReflection;
using vrk::SimulatedSeries;
using vrk::SimulationSettings;

using vrk::kDegree;

std::vector<double> tiltRange(double first, double last, double step) {
    std::vector<double> tilts;
    for (int i = 0; first + i * step <= last + 1e-9; ++i)
        tilts.push_back(first + i * step);
    return tilts;
}

/// A small triclinic crystal in frames that hold nothing but its reflections.
SimulationSettings reflectionsAlone() {
    SimulationSettings settings;
    settings.cell = {6, 7, 8, 85, 95, 100};
    settings.tilts = tiltRange(-40, 40, 1);
    settings.dmin = 0.9;
    settings.detector = {.size = 256, .noise = 0};
    settings.background = {.halo = 0, .directBeam = 0};
    settings.keepReflections = true;
    return settings;
}

short pixelAt(const SimulatedSeries& simulated, std::size_t slice, double x, double y) {
    const auto width = static_cast<double>(simulated.series->GetWidth());
    if (x < 0 || y < 0 || x > width - 1 || y > width - 1) return 0;
    const auto position = static_cast<std::size_t>(std::lround(y)) * simulated.series->GetWidth() +
                          static_cast<std::size_t>(std::lround(x));
    return simulated.series->GetChunkPointer(static_cast<unsigned>(slice))[position];
}

/// A position of the volume in the frame's coordinates u, v and height at a tilt. The tilt axis leans out of
/// the plane: it is turned into y, the tilt done about y, and all turned back.
vrk::Vector3 inFrame(const vrk::Vector3& position, const vrk::SimulationTruth& truth, double tilt) {
    const Eigen::AngleAxisd lean(truth.axisTilt * kDegree, Eigen::Vector3d::UnitX());
    const Eigen::AngleAxisd turn(tilt * kDegree, Eigen::Vector3d::UnitY());
    const Eigen::Vector3d turned = lean * turn * lean.inverse() * Eigen::Vector3d(position.data());
    return {turned.x(), turned.y(), turned.z()};
}

/// Distance of a position of the volume from the Ewald sphere at a tilt, in voxels, worked out from the
/// sphere itself: a scattered wave is as long as the incident one.
double fromSphere(const SimulatedReflection& one, const vrk::SimulationTruth& truth, double tilt) {
    const double k = 1e10 / (truth.wavelength * truth.pixelSize);
    const auto [u, v, height] = inFrame(one.position, truth, tilt);
    return std::hypot(u, v, height - truth.handedness * k) - k;
}

/// The tilt at which a position meets the sphere, to a thousandth of a voxel; false when it does not within
/// the series.
bool crossing(const SimulatedReflection& one, const vrk::SimulationTruth& truth, double& tilt) {
    for (tilt = truth.tilts.front(); tilt < truth.tilts.back(); tilt += 0.25) {
        const double before = fromSphere(one, truth, tilt), behind = fromSphere(one, truth, tilt + 0.25);
        if (before * behind > 0) continue;
        tilt += 0.25 * before / (before - behind);
        return true;
    }
    return false;
}

/// Pixels from the pattern's centre at which (u, v) is recorded.
std::pair<double, double> inPixels(double u, double v, const SimulationSettings& settings) {
    const vrk::DistortionSettings& distortion = settings.distortion;
    const double outwards = 1 + distortion.radial * (u * u + v * v) / (128 * 128);
    // From the tilt axis to the long axis of the ellipse, and from there to the frame.
    const double a = (settings.axis - distortion.ellipseAzimuth) * kDegree;
    const double along = outwards * (u * std::cos(a) - v * std::sin(a)) * (1 + distortion.ellipse);
    const double across = outwards * (u * std::sin(a) + v * std::cos(a)) * (1 - distortion.ellipse);
    const double e = distortion.ellipseAzimuth * kDegree;
    return {along * std::cos(e) - across * std::sin(e), along * std::sin(e) + across * std::cos(e)};
}

/// All positions of the axis, ways of turning and distortions.
std::vector<SimulationSettings> geometries() {
    using enum vrk::RotationMode;
    std::vector<SimulationSettings> all(5, reflectionsAlone());
    auto next = all.begin();
    using Distortion = vrk::DistortionSettings;
    for (const auto& [axis, handedness, mode, axisTilt, distortion] :
         {std::tuple(0, 1, Continuous, 0, Distortion{}),
          {35, -1, Continuous, 0, {0.03, 20, 0}},
          {-110, 1, Precession, -4, {}},
          {0, 1, Continuous, 9, {-0.02, 100, 0.04}},
          {10, -1, Stepwise, 0, {0, 0, -0.05}}}) {
        next->axis = axis;
        next->handedness = handedness;
        next->mode = mode;
        next->axisTilt = axisTilt;
        next++->distortion = distortion;
    }
    return all;
}

/// All that the truth tells and all counts.
void addTo(SoFar& soFar, const SimulatedSeries& simulated) {
    const std::size_t width = simulated.series->GetWidth();
    for (unsigned z = 0; z < simulated.series->GetDepth(); ++z)
        soFar.addAll(std::span(simulated.series->GetChunkPointer(z), width * width));
    for (const Json& value : Json::parse(simulated.truth.toJson()).flatten())
        if (value.is_number()) soFar.add(value.get<double>());
}

void expectReflectionsOnTheEwaldSphere(SimulationSettings settings, SoFar& soFar) {
    settings.centre = {{4, -6}, 3, 5, 3, 1};
    settings.tiltErrors = {0.7, 1.1, 0.2};
    if (settings.mode == vrk::RotationMode::Stepwise) settings.rockingWidth = 0.01;
    const SimulatedSeries simulated = vrk::simulateSeries(settings);
    const vrk::SimulationTruth& truth = simulated.truth;

    int seen = 0;
    for (const SimulatedReflection& one : truth.reflections) {
        double tilt = 0;
        const double distanceFromAxis = std::hypot(one.position[0], one.position[2]);
        if (one.peakCounts < 300 || distanceFromAxis < 40 || !crossing(one, truth, tilt)) continue;
        std::size_t nearest = 0;
        for (std::size_t i = 1; i < truth.tilts.size(); ++i)
            if (std::abs(truth.tilts[i] - tilt) < std::abs(truth.tilts[nearest] - tilt)) nearest = i;
        const auto [u, v, height] = inFrame(one.position, truth, tilt);
        const auto [x, y] = inPixels(u, v, settings);
        const auto [centreX, centreY] = truth.centres[nearest];
        if (std::hypot(x, y) > 110) continue;  // the centre may be that far off the middle
        EXPECT_GT(pixelAt(simulated, nearest, centreX + x, centreY + y), 0.3 * one.peakCounts)
            << one.h << ' ' << one.k << ' ' << one.l << " at tilt " << tilt;
        ++seen;
    }
    EXPECT_GT(seen, 30);
    addTo(soFar, simulated);
}

void expectNothingElseToBeBright(const SimulationSettings& settings) {
    const SimulatedSeries simulated = vrk::simulateSeries(settings);
    const vrk::SimulationTruth& truth = simulated.truth;
    const double centre = (settings.detector.size - 1) * 0.5;

    int bright = 0;
    for (std::size_t z = 0; z < truth.tilts.size(); z += 7)
        for (int y = 0; y < settings.detector.size; ++y)
            for (int x = 0; x < settings.detector.size; ++x) {
                if (pixelAt(simulated, z, x, y) < 1500) continue;
                const bool explained = std::any_of(
                    truth.reflections.begin(), truth.reflections.end(), [&](const SimulatedReflection& one) {
                        const auto [u, v, height] = inFrame(one.position, truth, truth.tilts[z]);
                        const auto [px, py] = inPixels(u, v, settings);
                        // The rocking width, the precession angle and half a step.
                        return std::abs(centre + px - x) < 4 && std::abs(centre + py - y) < 4 &&
                               std::abs(fromSphere(one, truth, truth.tilts[z])) <
                                   1.3 + 0.027 * std::hypot(u, v);
                    });
                EXPECT_TRUE(explained) << "slice " << z << " at " << x << ", " << y;
                ++bright;
            }
    EXPECT_GT(bright, 60);
}

TEST(Simulation, ReflectionsLieOnTheEwaldSphereAndNothingElseIsBright) {
    SoFar soFar;
    for (const SimulationSettings& settings : geometries()) {
        SCOPED_TRACE(settings.axis + 0.01 * settings.axisTilt);
        expectReflectionsOnTheEwaldSphere(settings, soFar);
        expectNothingElseToBeBright(settings);
    }
    EXPECT_NEAR(soFar.sum(), 1206880824.889, 1e-1);
}

/// Counts over a pass through the sphere, times the speed of the pass, are the intensity: with the reference
/// width of 0.0025 and one exposure a degree. Neither the step nor the rocking width has a part in it.
TEST(Simulation, CountsFollowTheTimeInTheDiffractingCondition) {
    using Case = std::tuple<double, double, double, vrk::CountModel, double>;
    for (const auto& [step, rocking, dose, model, expected] : {Case{1, 0.0025, 1, vrk::CountModel::Time, 1},
                                                               {0.5, 0.0025, 1, vrk::CountModel::Time, 1},
                                                               {0.5, 0.004, 3, vrk::CountModel::Time, 3},
                                                               {0.5, 0.0025, 1, vrk::CountModel::Sphere, 2},
                                                               {1, 0.005, 1, vrk::CountModel::Sphere, 2}}) {
        SimulationSettings settings = reflectionsAlone();
        settings.tilts = tiltRange(-40, 40, step);
        settings.rockingWidth = rocking;
        settings.dose = dose;
        settings.counts = model;
        const SimulatedSeries simulated = vrk::simulateSeries(settings);
        double drawn = 0;
        for (unsigned z = 0; z < simulated.series->GetDepth(); ++z)
            for (const short counts : std::span(simulated.series->GetChunkPointer(z), 256 * 256))
                drawn += counts;
        double told = 0;
        for (const SimulatedReflection& reflection : simulated.truth.reflections) {
            told += reflection.intensity * reflection.time;
            double tilt = 0;
            if (!crossing(reflection, simulated.truth, tilt) || std::abs(tilt) > 30) continue;
            const double u = std::abs(inFrame(reflection.position, simulated.truth, tilt)[0]) *
                             simulated.truth.pixelSize * 1e-10;
            if (u < 0.2) continue;
            EXPECT_NEAR(reflection.time * u * kDegree / (0.0025 * std::sqrt(2 * std::numbers::pi)), expected,
                        0.02 * expected);
        }
        EXPECT_NEAR(drawn / told, 1, 0.03) << "faint tails are rounded away";
    }
}

/// Vectors as rows.
Eigen::Matrix3d matrixOf(const vrk::Matrix3& vectors) {
    return Eigen::Matrix<double, 3, 3, Eigen::RowMajor>(vectors.front().data());
}

TEST(Simulation, CrystalsLieAlongGivenDirections) {
    SimulationSettings settings = reflectionsAlone();
    settings.tilts = {-1, 0, 1};
    settings.orientation.beamAlong = vrk::Vector3{1, 0, 0};
    const auto heightOf = [&](int h, int k, int l) -> Eigen::Vector3d {
        const vrk::SimulationTruth truth = vrk::simulateSeries(settings).truth;
        return (Eigen::RowVector3d(h, k, l) * matrixOf(truth.conventionalVectors)).normalized();
    };
    // The zone [100] holds all of b* and c*; without a second direction the turn about it is random.
    EXPECT_NEAR(heightOf(0, 2, -3)[2], 0, 1e-9);
    EXPECT_NEAR(heightOf(0, 1, 0)[2], 0, 1e-9);
    EXPECT_NEAR(heightOf(0, 1, 0)[0], 0.839841931, 1e-8);
    settings.orientation.axisAlong = vrk::Vector3{0, 1, 1};
    EXPECT_NEAR(heightOf(0, 1, 1)[1], 1, 1e-9);
    EXPECT_GT(heightOf(1, 0, 0)[2], 0.9);
    settings.orientation.offZone = 3;
    const Eigen::Vector3d b = heightOf(0, 1, 1);
    const Eigen::Vector3d zone = heightOf(0, 1, 0).cross(heightOf(0, 0, 1)).normalized();
    EXPECT_NEAR(std::acos(std::abs(zone[2])) / kDegree, 3, 1e-6);
    EXPECT_NEAR(std::acos(b[1]) / kDegree, 1.32588433, 1e-7);
    settings.orientation = {};
    settings.orientation.axisAlong = vrk::Vector3{2, 0, 1};
    EXPECT_NEAR(heightOf(2, 0, 1)[1], 1, 1e-9);
    EXPECT_NEAR(heightOf(1, 0, 0)[2], -0.308003300, 1e-8);
}

/// Frames without reflections and noise, of 200 pixels at 0.05 1/Angstrom the pixel at the edge.
class SimulatedBackgroundTest : public testing::Test {
protected:
    SimulatedBackgroundTest() {
        settings.tilts = {0};
        settings.peakCounts = 0;
        settings.dmin = 1;
        settings.detector = {.size = 200, .noise = 0};
        settings.background.directBeam = 0;
    }
    /// The count nearest to (dx, dy) from the middle of the frame.
    double at(double dx, double dy) {
        return pixelAt(vrk::simulateSeries(settings), 0, 99.5 + dx, 99.5 + dy);
    }

    SimulationSettings settings;
};

TEST_F(SimulatedBackgroundTest, RingsOfIceAreWhereIceHasThemAndDistortedLikeSpots) {
    settings.background = {.halo = 0, .directBeam = 0, .ice = 1000};
    // 96 pixels are 1 1/Angstrom: 3.895 Angstrom at 24.65 pixels, 2.248 at 42.7.
    EXPECT_NEAR(at(24.5, 0.5), 1000, 120);
    EXPECT_NEAR(at(0.5, -42.5), 440, 60);
    EXPECT_LT(at(35.9 - 4, 0.5), 30);
    settings.distortion = {0.1, 0, 0};
    EXPECT_NEAR(at(27.1, 0.5), 1000, 200);
    EXPECT_NEAR(at(0.5, 22.2), 1000, 200);
    EXPECT_LT(at(0.5, 18.5), 100);
}

TEST_F(SimulatedBackgroundTest, StopsDimWhatIsBehindThem) {
    settings.background = {.halo = 0, .directBeam = 20000, .ice = 1000};
    const double beam = at(0.5, 0.5);
    const double ring = at(24.5, 0.5);
    settings.beamStop = vrk::BeamStopSettings{};
    EXPECT_EQ(at(0.5, 0.5), 0);
    EXPECT_EQ(at(-24.5, 0.5), 0) << "the bar leaves to the left";
    EXPECT_EQ(at(24.5, 0.5), ring);
    EXPECT_NEAR(at(-24.5, 2.5), ring, 0.2 * ring) << "it is a fiftieth of the frame wide";
    settings.beamStop = vrk::BeamStopSettings{90, 10, 0, {24, 0}, 0.2, 50};
    EXPECT_EQ(at(0.5, 0.5), beam);
    EXPECT_NEAR(at(24.5, 0.5), 0.2 * ring + 50, 1);
    EXPECT_NEAR(at(28.5, 60.5), 50, 60);
    EXPECT_GT(at(28.5, 60.5), 40);
    EXPECT_EQ(at(24.5, -2.5), at(-24.5, -2.5)) << "nothing on the other side";
    settings.beamStop = vrk::BeamStopSettings{0, 0, 6, {24, 12}, 0, 0};
    EXPECT_EQ(at(20.5, 13.5), 0);
    EXPECT_GT(at(42.5, 0.5), 100) << "no bar";
}

TEST(Simulation, CentringExtinguishesAndThePrimitiveVectorsSpanTheRest) {
    const std::vector<std::pair<char, int>> centrings = {{'P', 1}, {'A', 2}, {'B', 2}, {'C', 2},
                                                         {'I', 2}, {'F', 4}, {'R', 3}};
    for (const auto& [centring, multiplicity] : centrings) {
        SimulationSettings settings = reflectionsAlone();
        settings.cell = centring == 'R' ? std::array<double, 6>{9, 9, 14, 90, 90, 120}
                                        : std::array<double, 6>{8, 9, 10, 88, 97, 93};
        settings.centring = centring;
        settings.tilts = {-5, 0, 5};
        const vrk::SimulationTruth truth = vrk::simulateSeries(settings).truth;
        SCOPED_TRACE(centring);
        const Eigen::Matrix3d primitive = matrixOf(truth.primitiveVectors);
        EXPECT_NEAR(primitive.determinant() / matrixOf(truth.conventionalVectors).determinant(), multiplicity,
                    1e-6);
        // The primitive lattice is what the allowed reflections make, no coarser and no finer.
        EXPECT_NEAR(truth.reflectionsInSphere,
                    4.0 / 3 * std::numbers::pi * std::pow(128 - 4, 3) / primitive.determinant(),
                    0.05 * truth.reflectionsInSphere);
        const Eigen::Matrix3d toIndices = primitive.transpose().inverse();
        for (const SimulatedReflection& one : truth.reflections) {
            const Eigen::Vector3d indices = toIndices * Eigen::Vector3d(one.position.data());
            for (const double index : indices)
                ASSERT_NEAR(index, std::round(index), 1e-6);
        }
    }
}

TEST(Simulation, IntensitiesOfAStructureFollowItsStructureFactors) {
    const TemporaryFolder folder;
    SimulationSettings settings = reflectionsAlone();
    std::string salt = kSaltCif;
    salt.replace(salt.rfind("0.02"), 4, "0");  // an atom without displacement takes that of the settings
    settings.bFactor = 8 * std::numbers::pi * std::numbers::pi * 0.02;
    settings.cif = folder.write("salt.cif", salt);
    const vrk::SimulationTruth truth = vrk::simulateSeries(settings).truth;
    EXPECT_EQ(truth.centring, 'F');
    EXPECT_NEAR(truth.primitiveCell[0], 5.64 / std::numbers::sqrt2, 1e-6);
    const auto intensity = [&](int h, int k, int l) {
        for (const SimulatedReflection& one : truth.reflections)
            if (one.h == h && one.k == k && one.l == l) return one.intensity;
        return -1.0;
    };
    // Atoms on special positions: sum and difference of the two scattering factors, damped alike.
    const auto factor = [](gemmi::El element, double edgeSquares) {
        const double stol2 = edgeSquares / (4 * 5.64 * 5.64);
        return gemmi::C4322<double>::get(element).calculate_sf(stol2) *
               std::exp(-8 * std::numbers::pi * std::numbers::pi * 0.02 * stol2);
    };
    const double strong = factor(gemmi::El::Cl, 8) + factor(gemmi::El::Na, 8);
    const double weak = factor(gemmi::El::Cl, 11) - factor(gemmi::El::Na, 11);
    EXPECT_NEAR(intensity(1, 1, 3) / intensity(2, 2, 0), weak * weak / (strong * strong), 1e-6);
    EXPECT_NEAR(intensity(-3, 1, 1) / intensity(1, 1, 3), 1, 1e-6);
    EXPECT_EQ(intensity(1, 1, 2), -1);
}

TEST(Simulation, SeedsDecideEverythingRandomOneByOne) {
    SimulationSettings settings = reflectionsAlone();
    const auto orientation = vrk::simulateSeries(settings).truth.orientation;
    settings.detector = {.size = 64, .hotPixels = 5, .zingers = 3, .cross = true};
    settings.background = {0.02, 3000, 0.3, 20, 300};
    settings.distortion = {0.01, 30, 0.02};
    settings.tiltErrors.jitter = 0.1;
    settings.centre = {{1, 1}, 2, 3, 2, 0.5};
    settings.missing = settings.blank = 2;
    settings.frameRotation = 0.7;
    settings.asymmetry = settings.secondCrystal = 0.5;
    settings.secondCell = {5, 6, 7, 80, 90, 100};
    const SimulatedSeries one = vrk::simulateSeries(settings);
    EXPECT_TRUE(*one.series == *vrk::simulateSeries(settings).series);
    EXPECT_EQ(one.truth.orientation, orientation);
    SoFar soFar;
    addTo(soFar, one);
    EXPECT_NEAR(soFar.sum(), 979197442.360, 1e-1);
}

TEST(Simulation, CountsArePoissonDistributed) {
    for (const double expected : {0.3, 4.0, 15.9, 16.1, 900.0}) {
        vrk::SimulationRandom random(7);
        constexpr int count = 200000;
        double sum = 0, squares = 0, cubes = 0;
        for (int i = 0; i < count; ++i) {
            const double deviation = random.poisson(expected) - expected;
            sum += deviation;
            squares += deviation * deviation;
            cubes += deviation * deviation * deviation;
        }
        const double sigma = std::sqrt(expected / count);
        EXPECT_NEAR(sum / count, 0, 5 * sigma) << expected;
        EXPECT_NEAR(squares / count / expected, 1, 0.03) << expected;
        // Mean, variance and third central moment of the distribution are the same.
        EXPECT_NEAR(cubes / count / std::pow(expected, 1.5), 1 / std::sqrt(expected), 0.06) << expected;
    }
}

TEST(Simulation, DefectsAreWhereTheyBelong) {
    SimulationSettings settings = reflectionsAlone();
    settings.background.directBeam = 5000;
    settings.detector = {.size = 256, .noise = 0, .saturation = 4000, .hotPixels = 3, .cross = true};
    settings.tilts = tiltRange(-10, 10, 1);
    settings.missing = 4;
    settings.blank = 1;
    settings.centre = {.drift = 4, .jump = 6};
    const SimulatedSeries simulated = vrk::simulateSeries(settings);
    EXPECT_EQ(simulated.truth.tilts.size(), 17U);
    EXPECT_EQ(simulated.truth.tilts.front(), -10);
    EXPECT_EQ(simulated.truth.tilts.back(), 10);
    int blank = 0;
    for (std::size_t z = 0; z < simulated.truth.tilts.size(); ++z) {
        const auto [x, y] = simulated.truth.centres[z];
        const std::span<const short> slice(simulated.series->GetChunkPointer(static_cast<unsigned>(z)),
                                           256 * 256);
        const short brightest = *std::max_element(slice.begin(), slice.end());
        blank += brightest == 0 ? 1 : 0;
        EXPECT_LE(brightest, 4000);
        EXPECT_EQ(pixelAt(simulated, z, 127, 5), 0);  // on the cross
        // The direct beam is where the truth says.
        if (brightest > 0 && std::abs(x - 127.5) > 4 && std::abs(y - 127.5) > 4) {
            EXPECT_EQ(pixelAt(simulated, z, x, y), 4000);
        }
    }
    EXPECT_EQ(blank, 1);
}

TEST(Simulation, ImpossibleSettingsAreRefused) {
    SimulationSettings s = reflectionsAlone();
    const auto refuse = [&](const auto&... wrong) {
        const auto one = [&](auto& place, const auto& value) {
            const auto before = std::exchange(place, value);
            EXPECT_THROW(vrk::simulateSeries(s), vrk::Failure) << testing::PrintToString(value);
            place = before;
        };
        (one(*wrong.first, wrong.second), ...);
    };
    using std::pair;
    using Cell = std::array<double, 6>;
    using vrk::Vector3;
    refuse(pair(&s.cell, Cell{10, 10, 10, 30, 30, 90}), pair(&s.cell[2], 0.9), pair(&s.cell[1], 1001),
           pair(&s.cell[3], 200), pair(&s.cell[4], 200), pair(&s.cell[5], 200),
           pair(&s.cell[0], std::nan("")), pair(&s.cell, Cell{900, 900, 900, 90, 90, 90}),
           pair(&s.centring, 'X'), pair(&s.tilts, std::vector<double>()),
           pair(&s.tilts, std::vector<double>(301)), pair(&s.background.ice, INFINITY),
           pair(&s.orientation.offZone, 2), pair(&s.orientation.beamAlong, Vector3{0, 0, 0}),
           pair(&s.stated.tiltStep, 0), pair(&s.cif, "/no/such/file.cif"));
    s.cell = {5, 6, 7, 90, 90, 90};
    s.orientation.beamAlong = Vector3{0, 0, 1};
    refuse(pair(&s.orientation.axisAlong, Vector3{0, 0, 1}));
}

TEST(Simulation, SettingsMayBeWhatTheirRefusalSays) {
    SimulationSettings s = reflectionsAlone();
    s.orientation.beamAlong = vrk::Vector3{0, 0, 1};
    s.secondCrystal = 1;
    s.secondTurn = 0;
    s.beamStop.emplace();
    const auto check = [&](auto& place) {
        const auto said = [&](auto value) {
            const auto before = std::exchange(place, value);
            const Refusal refusal = failureOf([&] { vrk::checkSettings(s); });
            place = before;
            return refusal.text;
        };
        double low = 0, high = 0, least = std::is_integral_v<decltype(place + 0)> ? 1 : 1e-9;
        ASSERT_EQ(std::sscanf(said(-1000).c_str(), "%*[^0-9-]%lf to %lf", &low, &high), 2);
        EXPECT_EQ(said(low) + said(high), "");
        EXPECT_FALSE(said(low - least).empty() || said(high + least * high).empty()) << low << ' ' << high;
    };
    const auto checkAll = [&](auto&... places) { (check(places), ...); };
    checkAll(s.detector.size, s.dmin, s.kilovolts, s.rockingWidth, s.spotWidth, s.centre.jumps,
             s.tiltErrors.scale, s.tiltErrors.offset, s.tiltErrors.jitter, s.axisTilt, s.orientation.offZone,
             *s.secondTurn, s.precessionAngle, s.distortion.ellipse, s.distortion.radial, s.frameRotation,
             s.missing, s.blank, s.detector.hotPixels, s.detector.zingers, s.asymmetry, s.dose,
             s.beamStop->transmission, s.beamStop->pedestal);
}

using SimulateCommand = VrkTest;

TEST_F(SimulateCommand, WritesTheTruthAndWhatHeadersAreToState) {
    const std::string line =
        "simulate -o s.mrc --size 64 --dmin 2 --tilts 10:-10:-2 --cell 10,11,12,90,95,90 --axis 20 ";
    Json truth = jsonOf(line + "--write-axis --kv 120 --centring C --list-reflections");
    EXPECT_EQ(jsonFile("s.truth.json"), truth);
    EXPECT_NEAR(truth["wavelength"], 0.03349, 1e-5);
    EXPECT_EQ(truth["reflections"].size(), truth["reflections_in_sphere"].get<std::size_t>());
    Json series = jsonOf("info s.mrc");
    EXPECT_EQ(series["type"], "tilt series");
    EXPECT_EQ(series["tilt"], Json::parse(R"({"first": 10, "last": -10, "step": -2, "smallest_step": -2,
        "largest_step": -2, "regular": true, "axis": 20, "high_tension_kv": 120})"));
    EXPECT_NEAR(series["pixel_size"], 1e10 / 2 / 28, 100);
    // Half written files never bear the final name.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 2);

    truth = jsonOf(line +
                   "--state-axis 25 --state-step -3 --state-pixel 1.5 --state-kv 300 --tilt-offset 2 "
                   "--tilt-scale 0.5");
    series = jsonOf("info s.mrc");
    const Json& stated = truth["stated"];
    const double pixelSize = series["pixel_size"];
    EXPECT_NEAR(pixelSize / truth["pixel_size"].get<double>(), 1.5, 1e-6);
    EXPECT_NEAR(stated["pixel_size"].get<double>() / pixelSize, 1, 1e-6);
    EXPECT_EQ(Json({truth["tilt_axis_deg"], truth["tilts"][0], truth["voltage_kv"]}), Json({20, 7, 200}));
    EXPECT_EQ(Json({series["tilt"]["axis"], series["tilt"]["last"], series["tilt"]["high_tension_kv"]}),
              Json({25, -20, 300}));
    EXPECT_EQ(series["tilt"]["last"], stated["tilts"][10]);
}

}  // namespace
