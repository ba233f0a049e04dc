#include "pipeline/formats/MeasuredIntensities.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <gemmi/cif.hpp>
#include <gemmi/mtz.hpp>
#include <gemmi/xds_ascii.hpp>

#include "pipeline/base/Angle.h"
#include "pipeline/batch/CsvTable.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "support/Testing.h"

namespace {

using namespace vrk;

/// A monoclinic crystal on 31 frames; the intensity of h k l is 100 h + 10 k + l + 1000.
class MeasuredIntensitiesTest : public testing::Test {
protected:
    MeasuredIntensitiesTest() {
        Eigen::Matrix3d direct;
        direct << 7, 0, 11 * std::cos(103 * vrk::kDegree), 0, 9, 0, 0, 0, 11 * std::sin(103 * vrk::kDegree);
        const Eigen::Matrix3d turn =
            (Eigen::AngleAxisd(0.7, Eigen::Vector3d(1, 2, -1).normalized())).toRotationMatrix();
        m_geometry.reciprocal = turn * direct.inverse().transpose();
        m_geometry.axisAngle = 40 * vrk::kDegree;
        m_geometry.handedness = -1;
        experiment.cell = {7, 9, 11, 90, 103, 90};
        experiment.spaceGroup = "P 1 21/c 1";
        experiment.reciprocal = m_geometry.reciprocal;
        experiment.wavelength = m_geometry.wavelength;
        experiment.handedness = m_geometry.handedness;
        experiment.pixelSize = m_geometry.pixelSize;
        experiment.size = {256, 250};
        experiment.mosaicity = 0.2;
        experiment.saturation = 30000;
        experiment.errorModel = {1.5, 0.02};
        experiment.axisAngle = 40;
        experiment.rotation = 2;
        experiment.dMin = 1.8;
        for (int f = 0; f < 31; ++f) {
            experiment.tilts.push_back(-30 + 2 * f);
            experiment.centres.push_back({127.5, 124.5});
            experiment.scales.push_back(1 + 0.01 * f);
            measureFrame(f);
        }
    }

    void measureFrame(int frame) {
        const FramePose pose{experiment.tilts.back() * vrk::kDegree, 2 * vrk::kDegree, 127.5, 124.5};
        const FrameView view(m_geometry, pose);
        forEachIndex(3, 4, 5, [&](int h, int k, int l) {
            const SpotPlace place = view.place(m_geometry.reciprocal * Eigen::Vector3d(h, k, l));
            if ((h == 0 && k == 0 && l == 0) || std::abs(place.excitation) > 0.01) return;
            const double value = 1000 + 100 * h + 10 * k + l;
            frames.push_back({h, k, l, frame, value, 5, place.excitation, place.rate, place.x, place.y});
            if (std::abs(place.excitation) < std::abs(place.rate) * vrk::kDegree)
                whole.push_back({h, k, l, value, 7, place.x, place.y,
                                 frame - place.excitation / place.rate / (2 * vrk::kDegree),
                                 experiment.tilts.back(), 0.9, whole.size() % 10 == 3});
        });
    }

    SeriesGeometry m_geometry;
    ExperimentDescription experiment;
    std::vector<MeasuredIntensity> whole;
    std::vector<FrameIntensity> frames;
    TemporaryFolder folder;
};

TEST_F(MeasuredIntensitiesTest, GemmiReadsUnmergedMtzBack) {
    writeUnmergedMtz(experiment, whole, folder / "x.mtz");
    gemmi::Mtz mtz = gemmi::read_mtz_file(folder / "x.mtz");
    EXPECT_EQ(mtz.spacegroup->xhm(), "P 1 21/c 1");
    ASSERT_EQ(mtz.batches.size(), 31U);
    EXPECT_EQ(mtz.batches[3].title, "TITLE frame 4");
    EXPECT_FLOAT_EQ(mtz.batches[3].floats[36], -25);
    EXPECT_FLOAT_EQ(mtz.batches[3].floats[37], -23);
    EXPECT_NEAR(mtz.batches[3].get_cell().beta, 103, 1e-4);
    EXPECT_NEAR(mtz.datasets[0].wavelength, experiment.wavelength, 1e-6);
    ASSERT_TRUE(mtz.switch_to_original_hkl());
    const auto rejected =
        std::count_if(whole.begin(), whole.end(), [](const auto& one) { return one.rejected; });
    EXPECT_EQ(static_cast<std::size_t>(mtz.nreflections), whole.size() - static_cast<std::size_t>(rejected));
    const auto column = [&](const char* name) { return mtz.column_with_label(name)->idx; };
    const std::size_t value = column("I"), batch = column("BATCH"), x = column("XDET"), y = column("YDET");
    for (std::size_t i = 0; i < mtz.data.size(); i += mtz.columns.size()) {
        const auto hkl = mtz.get_hkl(i);
        EXPECT_EQ(mtz.data[i + value], 1000 + 100 * hkl[0] + 10 * hkl[1] + hkl[2]);
        const bool known = std::any_of(whole.begin(), whole.end(), [&](const MeasuredIntensity& one) {
            return one.h == hkl[0] && one.k == hkl[1] && one.l == hkl[2] &&
                   std::abs(one.frame + 1 - mtz.data[i + batch]) <= 0.51 &&
                   std::abs(one.x - mtz.data[i + x]) < 1e-4 && std::abs(one.y - mtz.data[i + y]) < 1e-4 &&
                   one.tilt == mtz.data[i + column("ROT")];
        });
        EXPECT_TRUE(known);
        EXPECT_EQ(mtz.data[i + column("SIGI")], 7);
        EXPECT_FLOAT_EQ(mtz.data[i + column("FRACTIONCALC")], 0.9F);
    }
}

TEST_F(MeasuredIntensitiesTest, GemmiReadsXdsAsciiBack) {
    writeXdsAscii(experiment, whole, folder / "x.hkl");
    gemmi::XdsAscii xds;
    const std::string text = folder.read("x.hkl");
    xds.read_stream(gemmi::MemoryStream(text.data(), text.size()), "x.hkl");
    EXPECT_EQ(xds.spacegroup_number, 14);
    EXPECT_NEAR(xds.unit_cell.beta, 103, 1e-9);
    EXPECT_NEAR(xds.wavelength, experiment.wavelength, 1e-6);
    EXPECT_NEAR(xds.oscillation_range, 2, 1e-6);
    EXPECT_NEAR(xds.starting_angle, -31, 1e-6);
    ASSERT_EQ(xds.data.size(), whole.size());
    for (std::size_t i = 0; i < whole.size(); ++i) {
        EXPECT_EQ(xds.data[i].hkl, (gemmi::Miller{whole[i].h, whole[i].k, whole[i].l}));
        EXPECT_NEAR(xds.data[i].iobs, whole[i].intensity, 1e-3 * whole[i].intensity);
        EXPECT_NEAR(xds.data[i].sigma, whole[i].rejected ? -7 : 7, 1e-3);
        EXPECT_NEAR(xds.data[i].xd, whole[i].x + 1, 0.051);
        EXPECT_NEAR(xds.data[i].zd, whole[i].frame + 0.5, 0.051);
    }
    EXPECT_TRUE(
        says(text, {"!NX=   256 NY=   250 QX= 0.050000 QY= 0.050000\n", "   1.00000   90  100     0.00\n",
                    "!DIRECTION_OF_DETECTOR_X-AXIS= 1.00000 0.00000 0.00000\n"
                    "!DIRECTION_OF_DETECTOR_Y-AXIS= 0.00000 1.00000 0.00000\n"}));
    // The numbers of the header say where a reflection meets the sphere, and that it does.
    const auto header = [&](const char* key, std::array<double, 3> v = {}) {
        const std::size_t at = text.find(key);
        std::sscanf(text.c_str() + at + std::strlen(key), "%lf %lf %lf", &v[0], &v[1], &v[2]);
        return Eigen::Vector3d(v.data());
    };
    EXPECT_EQ(header("!OVERLOAD= ")[0], 30000);
    EXPECT_EQ(header("!DATA_RANGE= ")[1], 31);
    EXPECT_EQ(header("!INCLUDE_RESOLUTION_RANGE= ")[1], 1.8);
    EXPECT_EQ(header("!REFLECTING_RANGE_E.S.D.= ")[0], 0.2);
    EXPECT_NEAR(header("!VARIANCE_MODEL= ")[0], 1.5, 1e-6);
    EXPECT_NEAR(header("!VARIANCE_MODEL= ")[1], 0.0004, 1e-6);
    Eigen::Matrix3d direct;
    direct << header("!UNIT_CELL_A-AXIS= "), header("!UNIT_CELL_B-AXIS= "), header("!UNIT_CELL_C-AXIS= ");
    const Eigen::Vector3d beam = header("!INCIDENT_BEAM_DIRECTION= ");
    const double perUnit = header("!DETECTOR_DISTANCE= ")[0] / header(" QX= ")[0];
    for (const gemmi::XdsAscii::Refl& one : xds.data) {
        const double angle = (xds.starting_angle + one.zd * xds.oscillation_range) * vrk::kDegree;
        const Eigen::Vector3d hkl(one.hkl[0], one.hkl[1], one.hkl[2]);
        const Eigen::Vector3d wave = beam + Eigen::AngleAxisd(angle, header("!ROTATION_AXIS= ")) *
                                                (direct.transpose().inverse() * hkl);
        EXPECT_NEAR(wave.norm(), beam.norm(), 2e-3);
        EXPECT_NEAR(header("!ORGX= ")[0] + perUnit * wave.x() / wave.z(), one.xd, 0.5);
        EXPECT_NEAR(header(" ORGY= ")[0] + perUnit * wave.y() / wave.z(), one.yd, 0.5);
    }
}

TEST_F(MeasuredIntensitiesTest, TheTableOfFramesHasALineASpot) {
    writeFrameTable(frames, folder / "f.csv");
    const CsvTable table = readCsv(folder / "f.csv");
    EXPECT_EQ(testing::PrintToString(table.columns),
              R"({ "h", "k", "l", "frame", "intensity", "sigma", "excitation_error", "x", "y" })");
    ASSERT_EQ(table.rows.size(), frames.size());
    for (std::size_t n = 0; n < frames.size(); ++n) {
        const auto field = [&](std::size_t i) { return std::stod(table.rows[n].fields[i]); };
        EXPECT_EQ(field(3), frames[n].frame + 1);
        EXPECT_EQ(field(4), 1000 + 100 * field(0) + 10 * field(1) + field(2));
        EXPECT_EQ(field(5), 5);
        EXPECT_NEAR(field(6), frames[n].excitation, 1e-6);
        EXPECT_NEAR(std::hypot(field(7) - frames[n].x, field(8) - frames[n].y), 0, 0.01);
    }
}

/// The angles of the virtual frames and their zone axes are two ways to the same direction of the beam, and
/// the reflections that are listed cross the sphere within the frame.
TEST_F(MeasuredIntensitiesTest, VirtualFramesAgreeWithThemselves) {
    writeDynamicalCif(experiment, frames, 3, 2, folder / "d.cif_pets");
    const std::string text = folder.read("d.cif_pets");
    EXPECT_TRUE(says(text, {"data_pets\n", "_cell_angle_beta 103.00000\n", "_diffrn_pets_omega 0.00000\n",
                            "geometry: continuous rotation\ndstarmax: 0.556\n",
                            "mosaicity: 0.200\nrotation axis position: -130.000\n",
                            "merged frames: 3\n                        step between frames: 2\n"}));
    gemmi::cif::Document document = gemmi::cif::read_file(folder / "d.cif_pets");
    gemmi::cif::Block& block = document.blocks.at(0);
    Eigen::Matrix3d ub;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            ub(i, j) = std::stod(*block.find_value("_diffrn_orient_matrix_UB_" + std::to_string(i + 1) +
                                                   std::to_string(j + 1)));
    struct Zone {
        Eigen::Vector3d axis;
        Eigen::Matrix3d turn;
    };
    std::vector<Zone> zones;
    for (const auto row : block.find(
             "_diffrn_zone_axis_", {"u", "v", "w", "precession_angle", "alpha", "beta", "omega", "scale"})) {
        std::array<double, 8> value{};
        for (std::size_t i = 0; i < 8; ++i)
            value[i] = std::stod(row[i]);
        EXPECT_EQ(value[3], 3) << "half of three frames";
        EXPECT_EQ(std::max({std::abs(value[0]), std::abs(value[1]), std::abs(value[2])}), 1);
        EXPECT_NEAR(value[7], 1.01 + 0.02 * static_cast<double>(zones.size()), 1e-4);
        const Eigen::Matrix3d turn = (Eigen::AngleAxisd(value[6] * vrk::kDegree, Eigen::Vector3d::UnitZ()) *
                                      Eigen::AngleAxisd(value[4] * vrk::kDegree, Eigen::Vector3d::UnitX()) *
                                      Eigen::AngleAxisd(value[5] * vrk::kDegree, Eigen::Vector3d::UnitY()))
                                         .toRotationMatrix();
        zones.push_back({{value[0], value[1], value[2]}, turn});
    }
    EXPECT_EQ(zones.size(), 15U);
    const double position = -130 * vrk::kDegree;
    for (std::size_t i = 1; i < zones.size(); ++i) {
        const Eigen::AngleAxisd turned(Eigen::Matrix3d(zones[i].turn * zones[i - 1].turn.transpose()));
        EXPECT_NEAR((turned.axis() * turned.angle() / vrk::kDegree -
                     4 * Eigen::Vector3d(std::cos(position), std::sin(position), 0))
                        .norm(),
                    0, 1e-3);
    }
    const Eigen::Matrix3d direct = ub.inverse().transpose();
    int listed = 0;
    for (const auto row : block.find("_refln_", {"index_h", "index_k", "index_l", "zone_axis_id",
                                                 "intensity_meas", "intensity_sigma"})) {
        const double summed =
            std::stod(row[4]) / (1000 + 100 * std::stod(row[0]) + 10 * std::stod(row[1]) + std::stod(row[2]));
        EXPECT_NEAR(summed, std::round(summed), 1e-9) << "frames";
        EXPECT_NEAR(std::stod(row[5]), 5 * std::sqrt(summed), 0.006);
        const Zone& zone = zones.at(std::stoul(row[3]) - 1);
        const Eigen::Vector3d hkl(std::stod(row[0]), std::stod(row[1]), std::stod(row[2]));
        const double along = hkl.dot(zone.axis) / (direct * zone.axis).norm();
        const Eigen::Vector3d g = zone.turn * ub * hkl;
        EXPECT_NEAR(g.z(), along, 1e-4);
        // Its rate is its distance from the axis, x.
        const double excitation = g.z() - experiment.wavelength * g.squaredNorm() / 2;
        EXPECT_LT(std::abs(excitation), g.norm() * 3 * vrk::kDegree + 1e-3);
        ++listed;
    }
    EXPECT_GT(listed, 100);
}

}  // namespace
