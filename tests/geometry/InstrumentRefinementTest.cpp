#include "pipeline/geometry/InstrumentRefinement.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>

#include <cmath>
#include <numbers>
#include <random>

#include "indexing/EwaldCurvature.h"
#include "support/SimulatedReflections.h"

namespace {

constexpr double kPixelSize = 5.0e7;
constexpr double kDegree = std::numbers::pi / 180.0;
constexpr double kHalfWidth = 256.0;

struct Distortion {
    double axisTurn = 0.0;  // degrees
    double ellipse = 0.0;
    double azimuth = 0.0;  // degrees
    double radial = 0.0;
    double tiltScale = 1.0;
    double axisTilt = 0.0;  // degrees
};

/// Places of the volume at which an instrument with distortions shows the reflections of a cell.
struct Recorded {
    Recorded(const std::array<double, 6>& cell, const Distortion& distortion, double noise, unsigned seed)
        : truth(reciprocalVectors(directCellOf(cell, seed, kPixelSize))) {
        std::mt19937 random(seed);
        std::normal_distribution<double> normal(0.0, noise);
        std::uniform_real_distribution<double> uniform(0.0, 1.0);
        const double wavelength = EwaldCurvature::wavelength(200.0) * kPixelSize * 1e-10;
        const Eigen::Vector3d axis(0.0, std::cos(distortion.axisTilt * kDegree),
                                   std::sin(distortion.axisTilt * kDegree));
        forEachNode(truth, 220.0, [&](int, int, int, const Vec3& node) {
            if (uniform(random) > 0.25) return;
            const Eigen::Vector3d g(node.data());
            // Where the node crosses the sphere, height = -|g|^2 lambda / 2 for the sense +1.
            const auto heightAt = [&](double tilt) {
                return (Eigen::AngleAxisd(tilt, axis) * g).z() + 0.5 * g.squaredNorm() * wavelength;
            };
            for (double tilt = -60.0; tilt < 60.0; tilt += 1.0) {
                double low = tilt * kDegree, high = (tilt + 1.0) * kDegree;
                if (heightAt(low) * heightAt(high) > 0.0) continue;
                for (int i = 0; i < 30; ++i) {
                    const double middle = 0.5 * (low + high);
                    (heightAt(low) * heightAt(middle) <= 0.0 ? high : low) = middle;
                }
                record(Eigen::AngleAxisd(low, axis) * g, low / distortion.tiltScale, distortion);
                for (double& coordinate : positions.back())
                    coordinate += normal(random);
                break;
            }
        });
    }

    void record(const Eigen::Vector3d& q, double tilt, const Distortion& d) {
        // From the true axis to the assumed one, then the lenses.
        const double turn = d.axisTurn * kDegree;
        Eigen::Vector2d p(q.x() * std::cos(turn) - q.y() * std::sin(turn),
                          q.x() * std::sin(turn) + q.y() * std::cos(turn));
        p *= 1.0 + d.radial * p.squaredNorm() / (kHalfWidth * kHalfWidth);
        Eigen::Matrix2d stretch;
        const double c = d.ellipse * std::cos(2.0 * d.azimuth * kDegree);
        const double s = d.ellipse * std::sin(2.0 * d.azimuth * kDegree);
        stretch << 1.0 + c, s, s, 1.0 - c;
        p = stretch * p;
        positions.push_back(centre + Eigen::Vector3d(p.x() * std::cos(tilt), p.y(), p.x() * std::sin(tilt)));
        tilts.push_back(tilt);
    }

    vrk::RefinedInstrument refined(const vrk::CellTies& ties) const {
        vrk::InstrumentSettings settings;
        settings.halfWidth = kHalfWidth;
        settings.wavelength = EwaldCurvature::wavelength(200.0);
        settings.sense = 1;
        settings.ties = ties;
        return vrk::refineInstrument(
            positions, tilts, vrk::Lattice::of(reciprocalCell(truth, kPixelSize), centre), centre, settings);
    }

    Mat3 truth;
    Eigen::Vector3d centre = {255.5, 255.5, 221.5};
    std::vector<Eigen::Vector3d> positions;
    std::vector<double> tilts;
};

const std::array<double, 6> kTriclinic = {6.3, 8.1, 9.9, 82.0, 97.0, 104.0};
const std::array<double, 6> kCubic = {8.2, 8.2, 8.2, 90.0, 90.0, 90.0};

TEST(InstrumentRefinement, RecoversWhatTheDataDetermine) {
    using enum vrk::InstrumentTerm;
    const struct {
        const char* name;
        LATTICE::BravaisTypes type;
        Distortion distortion;
        vrk::InstrumentTerm term;
        double value;
        double within;
    } cases[] = {
        {"axis, triclinic", LATTICE::aP, {.axisTurn = 2.5}, AxisTurn, 2.5 * kDegree, 0.02 * kDegree},
        {"axis, cubic", LATTICE::cP, {.axisTurn = -0.6}, AxisTurn, -0.6 * kDegree, 0.02 * kDegree},
        {"radial", LATTICE::aP, {.radial = 0.01}, Radial, 0.01, 1.5e-3},
        {"tilt scale", LATTICE::aP, {.tiltScale = 1.02}, TiltScale, 0.02, 5e-4},
        {"axis tilt", LATTICE::aP, {.axisTilt = 1.5}, AxisTilt, 1.5 * kDegree, 0.05 * kDegree},
        {"ellipse along", LATTICE::cP, {.ellipse = 0.01, .azimuth = 0.0}, EllipseCosine, 0.01, 3e-4},
        {"ellipse across", LATTICE::cP, {.ellipse = 0.01, .azimuth = 45.0}, EllipseSine, 0.01, 3e-4},
    };
    unsigned seed = 3;
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        const auto& cell = one.type == LATTICE::aP ? kTriclinic : kCubic;
        const Recorded data(cell, one.distortion, 0.35, seed++);
        const vrk::RefinedInstrument found =
            data.refined(vrk::CellTies::of(one.type, Eigen::Matrix3d::Identity()));
        ASSERT_TRUE(found.valid);
        ASSERT_TRUE(found.uses(one.term));
        const double off = std::abs(found.model[one.term] - one.value);
        EXPECT_LT(off, one.within) << found.model[one.term];
        EXPECT_LT(off, 4.0 * found.sigma[static_cast<std::size_t>(one.term)]);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(found.lattice.cell[i], cell[i], 1e-3 * cell[i]);
            EXPECT_NEAR(found.lattice.cell[i + 3], cell[i + 3], 0.03);
        }
        EXPECT_GT(found.lattice.fraction(), 0.99);
        EXPECT_LT(found.lattice.rms, 0.75);
    }
}

TEST(InstrumentRefinement, AllTermsAtOnce) {
    const Distortion distortion{
        .axisTurn = 0.8, .ellipse = 0.012, .azimuth = 30.0, .radial = 0.004, .tiltScale = 0.985};
    const Recorded data(kCubic, distortion, 0.35, 21);
    const vrk::RefinedInstrument found =
        data.refined(vrk::CellTies::of(LATTICE::cP, Eigen::Matrix3d::Identity()));
    ASSERT_TRUE(found.valid);
    EXPECT_NEAR(found.model[vrk::InstrumentTerm::AxisTurn], 0.8 * kDegree, 0.04 * kDegree);
    EXPECT_NEAR(found.ellipse(), 0.012, 5e-4);
    EXPECT_NEAR(found.ellipseAzimuth(), 30.0, 2.0);
    EXPECT_NEAR(found.model[vrk::InstrumentTerm::TiltScale], 1.0 / 1.0 * (0.985 - 1.0), 1e-3);
    EXPECT_NEAR(found.lattice.cell[0], 8.2, 0.004);
    EXPECT_GT(found.rmsBefore, 1.5 * found.lattice.rms);
}

TEST(InstrumentRefinement, InventsNothing) {
    const Recorded clean(kTriclinic, {}, 0.4, 7);
    for (const LATTICE::BravaisTypes type : {LATTICE::aP, LATTICE::NoBravaisType}) {
        const vrk::RefinedInstrument found =
            clean.refined(vrk::CellTies::of(type, Eigen::Matrix3d::Identity()));
        ASSERT_TRUE(found.valid);
        for (const bool used : found.used)
            EXPECT_FALSE(used);
    }
    // An ellipse is not to be told from a triclinic cell.
    const Recorded stretched(kTriclinic, {.ellipse = 0.014, .azimuth = 20.0}, 0.4, 8);
    const vrk::RefinedInstrument found = stretched.refined({});
    EXPECT_FALSE(found.uses(vrk::InstrumentTerm::EllipseCosine));
    EXPECT_FALSE(found.uses(vrk::InstrumentTerm::EllipseSine));
    const std::vector<double> tooFew(3, 0.0);
    EXPECT_FALSE(vrk::refineInstrument(clean.positions, tooFew, {}, clean.centre, {}).valid);
}

}  // namespace
