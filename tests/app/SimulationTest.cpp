#include "pipeline/simulation/Simulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <gemmi/c4322.hpp>
#include <nlohmann/json.hpp>
#include <numbers>
#include <span>

#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "pipeline/base/Failure.h"
#include "support/TemporaryFolder.h"

namespace {

using vrk::SimulatedReflection;
using vrk::SimulatedSeries;
using vrk::SimulationSettings;

constexpr double kDegree = std::numbers::pi / 180;

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
    settings.detector.size = 256;
    settings.detector.noise = 0;
    settings.detector.background = 0;
    settings.detector.directBeam = 0;
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

/// Distance of a position of the volume from the Ewald sphere at a tilt, in voxels, worked out from the
/// sphere itself: a scattered wave is as long as the incident one.
double fromSphere(const SimulatedReflection& one, const vrk::SimulationTruth& truth, double tilt) {
    const double k = 1e10 / (truth.wavelength * truth.pixelSize);
    const double t = tilt * kDegree;
    const double beam[3] = {std::sin(t) * truth.handedness * k, 0, -std::cos(t) * truth.handedness * k};
    return std::hypot(beam[0] + one.position[0], one.position[1], beam[2] + one.position[2]) - k;
}

/// The tilt at which a position meets the sphere; false when it does not within the series.
bool crossing(const SimulatedReflection& one, const vrk::SimulationTruth& truth, double& tilt) {
    for (double degrees = truth.tilts.front(); degrees < truth.tilts.back(); degrees += 0.25) {
        double low = degrees;
        double high = degrees + 0.25;
        if (fromSphere(one, truth, low) * fromSphere(one, truth, high) > 0) continue;
        for (int i = 0; i < 40; ++i) {
            const double middle = (low + high) / 2;
            (fromSphere(one, truth, low) * fromSphere(one, truth, middle) <= 0 ? high : low) = middle;
        }
        tilt = (low + high) / 2;
        return true;
    }
    return false;
}

struct Geometry {
    double axis;
    int handedness;
    vrk::RotationMode mode;
};

class SimulationGeometry : public testing::TestWithParam<Geometry> {};

TEST_P(SimulationGeometry, ReflectionsLieOnTheEwaldSphere) {
    SimulationSettings settings = reflectionsAlone();
    settings.axis = GetParam().axis;
    settings.handedness = GetParam().handedness;
    settings.mode = GetParam().mode;
    settings.drift = 3;
    if (settings.mode == vrk::RotationMode::Stepwise) settings.rockingWidth = 0.01;
    const SimulatedSeries simulated = vrk::simulateSeries(settings);
    const vrk::SimulationTruth& truth = simulated.truth;

    int seen = 0;
    for (const SimulatedReflection& one : truth.reflections) {
        double tilt = 0;
        const double distanceFromAxis = std::hypot(one.position[0], one.position[2]);
        if (one.peakCounts < 300 || distanceFromAxis < 40 || !crossing(one, truth, tilt)) continue;
        const auto nearest = static_cast<std::size_t>(std::lround(tilt - truth.tilts.front()));
        const double t = tilt * kDegree;
        const double u = one.position[0] * std::cos(t) + one.position[2] * std::sin(t);
        const double v = one.position[1];
        const double a = settings.axis * kDegree;
        const double x = u * std::cos(a) - v * std::sin(a);
        const double y = u * std::sin(a) + v * std::cos(a);
        const auto [centreX, centreY] = truth.centres[nearest];
        EXPECT_GT(pixelAt(simulated, nearest, centreX + x, centreY + y), 0.3 * one.peakCounts)
            << one.h << ' ' << one.k << ' ' << one.l << " at tilt " << tilt;
        ++seen;
    }
    EXPECT_GT(seen, 40);
}

TEST_P(SimulationGeometry, NothingElseIsBright) {
    SimulationSettings settings = reflectionsAlone();
    settings.axis = GetParam().axis;
    settings.handedness = GetParam().handedness;
    settings.mode = GetParam().mode;
    const SimulatedSeries simulated = vrk::simulateSeries(settings);
    const vrk::SimulationTruth& truth = simulated.truth;
    const double centre = (settings.detector.size - 1) * 0.5;
    const double a = settings.axis * kDegree;

    int bright = 0;
    for (std::size_t z = 0; z < truth.tilts.size(); z += 7)
        for (int y = 0; y < settings.detector.size; ++y)
            for (int x = 0; x < settings.detector.size; ++x) {
                if (pixelAt(simulated, z, x, y) < 1500) continue;
                const double u = (x - centre) * std::cos(a) + (y - centre) * std::sin(a);
                const double v = -(x - centre) * std::sin(a) + (y - centre) * std::cos(a);
                const double t = truth.tilts[z] * kDegree;
                const bool explained = std::any_of(
                    truth.reflections.begin(), truth.reflections.end(), [&](const SimulatedReflection& one) {
                        const double along = one.position[0] * std::cos(t) + one.position[2] * std::sin(t);
                        // The rocking width, the precession angle and half a step.
                        return std::abs(one.position[1] - v) < 4 && std::abs(along - u) < 4 &&
                               std::abs(fromSphere(one, truth, truth.tilts[z])) <
                                   1.3 + 0.027 * std::hypot(u, v);
                    });
                EXPECT_TRUE(explained) << "slice " << z << " at " << x << ", " << y;
                ++bright;
            }
    EXPECT_GT(bright, 60);
}

INSTANTIATE_TEST_SUITE_P(Modes, SimulationGeometry,
                         testing::Values(Geometry{0, 1, vrk::RotationMode::Continuous},
                                         Geometry{35, -1, vrk::RotationMode::Continuous},
                                         Geometry{-110, 1, vrk::RotationMode::Precession},
                                         Geometry{10, -1, vrk::RotationMode::Stepwise}));

TEST(Simulation, HandednessMovesReflectionsToAnotherTilt) {
    SimulationSettings settings = reflectionsAlone();
    settings.tilts = tiltRange(-30, 30, 0.25);
    const vrk::SimulationTruth truth = vrk::simulateSeries(settings).truth;
    vrk::SimulationTruth mirrored = truth;
    mirrored.handedness = -1;
    int compared = 0;
    for (const SimulatedReflection& one : truth.reflections) {
        double right = 0;
        double wrong = 0;
        const double length = std::hypot(one.position[0], one.position[1], one.position[2]);
        if (length < 100 || std::hypot(one.position[0], one.position[2]) < 90) continue;
        if (!crossing(one, truth, right) || !crossing(one, mirrored, wrong)) continue;
        // |g| lambda / 2 on both sides of the plane: more than a degree in all at this resolution.
        EXPECT_GT(std::abs(right - wrong), 1.0);
        ++compared;
    }
    EXPECT_GT(compared, 50);
}

double determinant(const vrk::Matrix3& m) {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

/// Coordinates of a position in a basis given as rows.
vrk::Vector3 indicesIn(const vrk::Matrix3& basis, const vrk::Vector3& position) {
    vrk::Vector3 indices{};
    for (std::size_t i = 0; i < 3; ++i) {
        vrk::Matrix3 replaced = basis;
        replaced[i] = position;
        indices[i] = determinant(replaced) / determinant(basis);
    }
    return indices;
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
        EXPECT_NEAR(determinant(truth.primitiveVectors) / determinant(truth.conventionalVectors),
                    multiplicity, 1e-6);
        // The primitive lattice is what the allowed reflections make, no coarser and no finer.
        EXPECT_NEAR(truth.reflectionsInSphere,
                    4.0 / 3 * std::numbers::pi * std::pow(128 - 4, 3) / determinant(truth.primitiveVectors),
                    0.05 * truth.reflectionsInSphere);
        for (const SimulatedReflection& one : truth.reflections)
            for (const double index : indicesIn(truth.primitiveVectors, one.position))
                ASSERT_NEAR(index, std::round(index), 1e-6);
    }
}

TEST(Simulation, IntensitiesOfAStructureFollowItsStructureFactors) {
    const TemporaryFolder folder;
    SimulationSettings settings = reflectionsAlone();
    settings.cif = folder.write("salt.cif",
                                "data_salt\n_cell_length_a 5.64\n_cell_length_b 5.64\n_cell_length_c 5.64\n"
                                "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n"
                                "_symmetry_space_group_name_H-M 'F m -3 m'\n"
                                "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n"
                                "_atom_site_fract_y\n_atom_site_fract_z\n_atom_site_U_iso_or_equiv\n"
                                "Na1 Na 0 0 0 0.02\nCl1 Cl 0.5 0.5 0.5 0.02\n");
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
    settings.detector = {};
    settings.detector.size = 64;
    settings.tilts = {-1, 0, 1};
    const SimulatedSeries first = vrk::simulateSeries(settings);
    EXPECT_TRUE(*first.series == *vrk::simulateSeries(settings).series);
    settings.drift = 2;
    EXPECT_EQ(vrk::simulateSeries(settings).truth.orientation, first.truth.orientation);
    settings.seed = 2;
    EXPECT_NE(vrk::simulateSeries(settings).truth.orientation, first.truth.orientation);
}

TEST(Simulation, CountsArePoissonDistributed) {
    for (const double expected : {0.3, 4.0, 15.9, 16.1, 900.0}) {
        vrk::SimulationRandom random(7);
        constexpr int count = 200000;
        double sum = 0;
        double squares = 0;
        double cubes = 0;
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
    settings.detector.directBeam = 5000;
    settings.detector.saturation = 4000;
    settings.detector.hotPixels = 3;
    settings.detector.cross = true;
    settings.tilts = tiltRange(-10, 10, 1);
    settings.missing = 4;
    settings.blank = 1;
    settings.drift = 4;
    settings.jump = 6;
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
    const std::vector<std::function<void(SimulationSettings&)>> spoilers = {
        [](SimulationSettings& s) { s.cell = {10, 10, 10, 30, 30, 90}; },
        [](SimulationSettings& s) { s.cell[2] = 0; },
        [](SimulationSettings& s) { s.cell[0] = std::nan(""); },
        [](SimulationSettings& s) { s.centring = 'X'; },
        [](SimulationSettings& s) { s.tilts.clear(); },
        [](SimulationSettings& s) { s.tilts.assign(301, 0.0); },
        [](SimulationSettings& s) { s.detector.size = 1 << 20; },
        [](SimulationSettings& s) { s.cell = {900, 900, 900, 90, 90, 90}; },
        [](SimulationSettings& s) { s.dmin = 0; },
        [](SimulationSettings& s) { s.cif = "/no/such/file.cif"; }};
    for (std::size_t i = 0; i < spoilers.size(); ++i) {
        SimulationSettings settings = reflectionsAlone();
        spoilers[i](settings);
        EXPECT_THROW(vrk::simulateSeries(settings), vrk::Failure) << "case " << i;
    }
}

TEST(SimulateCommand, WritesSeriesAndTruth) {
    const TemporaryFolder folder;
    const VrkResult result = runVrk({"simulate", "-o", folder / "s.mrc", "--cell", "10,11,12,90,95,90",
                                     "--centring", "C", "--tilts", "10:-10:-2", "--size", "64", "--axis",
                                     "20", "--write-axis", "--kv", "120", "--dmin", "2"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    VoxMRCFileHandler handler;
    const std::unique_ptr<VoxMRCData> series(handler.readMRCFile(folder / "s.mrc"));
    ASSERT_NE(series, nullptr);
    const nlohmann::json truth = nlohmann::json::parse(folder.read("s.truth.json"));
    EXPECT_EQ(series->m_Header.type, MRCType::TILT_SERIES);
    EXPECT_EQ(series->GetDepth(), 11U);
    EXPECT_EQ(series->m_Header.tilt(0), 10);
    EXPECT_EQ(series->m_Header.value(SliceValue::TiltAxis, 3), 20);
    EXPECT_EQ(series->m_Header.value(SliceValue::HighTension, 10), 120);
    EXPECT_NEAR(series->m_Header.m_pixelsize, 1e10 / 2 / 28, 100);
    EXPECT_NEAR(truth["pixel_size"].get<double>(), 1e10 / 2 / 28, 1e-3);
    EXPECT_EQ(truth["cell"]["conventional"]["centring"], "C");
    EXPECT_NEAR(truth["wavelength"].get<double>(), 0.03349, 1e-5);
    // Half written files never bear the final name.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 2);
}

TEST(SimulateCommand, WrongUsageIsExitCodeTwo) {
    const TemporaryFolder folder;
    const std::string output = folder / "s.mrc";
    for (const std::vector<std::string>& extra : std::vector<std::vector<std::string>>{
             {},
             {"--cell", "1,2,3"},
             {"--cell", "10,10,10,90,90,90", "--cif", "a.cif"},
             {"--cell", "10,10,10,90,90,90", "--tilts", "-60:60:0"},
             {"--cell", "10,10,10,90,90,90", "--tilts", "-60:60:0.1"},
             {"--cell", "10,10,10,90,90,90", "--tilts", "0:nan:1"},
             {"--cell", "10,10,10,90,90,90", "--orientation", "1,2"},
             {"--cell", "10,10,10,90,90,90", "--orientation", "1,0,0,0,1,0,1,0,0"},
             {"--cell", "10,10,10,90,90,90", "--mode", "sideways"}}) {
        std::vector<std::string> arguments = {"simulate", "-o", output};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const VrkResult result = runVrk(arguments);
        EXPECT_EQ(result.exitCode, 2) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(std::filesystem::exists(output));
    }
}

}  // namespace
