#include "pipeline/formats/MeasuredIntensities.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <gemmi/mtz.hpp>
#include <gemmi/symmetry.hpp>
#include <map>

#include "foundation/Version.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/detail/NamedSpaceGroup.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

/// Pixels of the detector that XDS_ASCII describes, millimetres.
constexpr double kPixel = 0.05;

template <typename... Values>
void append(std::string& text, const char* pattern, Values... values) {
    text += formatted(pattern, values...);
}

double firstTilt(const ExperimentDescription& experiment) {
    return experiment.tilts.empty() ? 0 : experiment.tilts.front();
}

gemmi::Mtz::Batch batchOf(const ExperimentDescription& experiment, std::size_t frame) {
    const auto& c = experiment.cell;
    gemmi::Mtz::Batch batch;
    batch.number = static_cast<int>(frame) + 1;
    batch.title = "frame " + std::to_string(frame + 1);
    batch.set_cell(gemmi::UnitCell(c[0], c[1], c[2], c[3], c[4], c[5]));
    batch.set_dataset_id(1);
    batch.set_wavelength(static_cast<float>(experiment.wavelength));
    batch.floats[36] = static_cast<float>(experiment.tilts[frame] - experiment.rotation / 2);
    batch.floats[37] = static_cast<float>(experiment.tilts[frame] + experiment.rotation / 2);
    batch.axes = {"PHI"};
    return batch;
}

/// The three angles, degrees, of a rotation Rz(omega) Rx(alpha) Ry(beta).
struct GoniometerAngles {
    double alpha, beta, omega;
};

GoniometerAngles anglesOf(const Matrix3d& r) {
    return {std::asin(std::clamp(r(2, 1), -1.0, 1.0)) / kDegree, std::atan2(-r(2, 0), r(2, 2)) / kDegree,
            std::atan2(-r(0, 1), r(1, 1)) / kDegree};
}

/// From the volume frame to the laboratory at a tilt: about the axis, which may leave the image plane.
Matrix3d turnAt(const ExperimentDescription& experiment, double tilt) {
    const Matrix3d toLaboratory = experiment.laboratory().transpose();
    const Matrix3d pitched =
        Eigen::AngleAxisd(-experiment.handedness * experiment.axisPitch * kDegree, Vector3d::UnitY())
            .toRotationMatrix();
    return pitched * Eigen::AngleAxisd(tilt * kDegree, Vector3d::UnitX()).toRotationMatrix() * toLaboratory;
}

/// Of the tilt axis in the frames, from their horizontal with rows upwards, degrees.
double axisPosition(const ExperimentDescription& experiment) {
    return std::remainder(-90 - experiment.axisAngle, 360);
}

/// What stands before the list of virtual frames: cell, orientation and how the frames were taken.
std::string dynamicalHead(const ExperimentDescription& e, int merged, int step) {
    const auto& c = e.cell;
    const Matrix3d start = e.laboratory().transpose() * e.reciprocal;
    std::string text = "data_pets\n";
    append(text, "_audit_creation_method 'vrk %s'\n", VRK::kVersion);
    const std::array<const char*, 6> names = {"length_a",    "length_b",   "length_c",
                                              "angle_alpha", "angle_beta", "angle_gamma"};
    for (std::size_t i = 0; i < 6; ++i)
        append(text, "_cell_%s %.5f\n", names[i], c[i]);
    append(text, "_cell_volume %.4f\n", gemmi::UnitCell(c[0], c[1], c[2], c[3], c[4], c[5]).volume);
    append(text, "_diffrn_radiation_wavelength %.6f\n", e.wavelength);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            append(text, "_diffrn_orient_matrix_UB_%d%d %.7f\n", i + 1, j + 1, start(i, j));
    // The angles of the virtual frames contain it.
    text += "_diffrn_pets_omega 0.00000\n";
    append(text,
           "_diffrn_measurement_details\n;\ndata collection geometry: %s\ndstarmax: %.3f\nRC width: %.5f\n"
           "mosaicity: %.3f\nrotation axis position: %.3f\n",
           e.precession > 0 ? "precession" : (e.continuous ? "continuous rotation" : "static"),
           e.dMin > 0 ? 1 / e.dMin : 0.0, e.rockingWidth, e.mosaicity, axisPosition(e));
    append(text,
           "Virtual frame settings: number of merged frames: %d\n"
           "                        step between frames: %d\n"
           "                        sum all intensities: 1\n;\n",
           merged, step);
    return text +
           "loop_\n_diffrn_zone_axis_id\n_diffrn_zone_axis_u\n_diffrn_zone_axis_v\n_diffrn_zone_axis_w\n"
           "_diffrn_zone_axis_precession_angle\n_diffrn_zone_axis_alpha\n_diffrn_zone_axis_beta\n"
           "_diffrn_zone_axis_omega\n_diffrn_zone_axis_scale\n";
}

/// Neighbouring frames that are added up: [first, end), their middle and half of what they turn, in degrees.
struct VirtualFrame {
    int first, end;
    double tilt, half;

    VirtualFrame(const ExperimentDescription& e, int from, int to)
        : first(from),
          end(to),
          tilt((e.tilts[static_cast<std::size_t>(from)] + e.tilts[static_cast<std::size_t>(to - 1)]) / 2),
          half(e.precession > 0 ? e.precession : (to - from) * e.rotation / 2) {}
};

void appendZoneAxis(std::string& text, const ExperimentDescription& e, const VirtualFrame& frame, int id) {
    const Matrix3d toLaboratory = turnAt(e, frame.tilt);
    const GoniometerAngles angles = anglesOf(toLaboratory * e.laboratory());
    // Components along a, b, c of a direction are its products with a*, b*, c*.
    Vector3d beam = e.reciprocal.transpose() * (toLaboratory.transpose() * Vector3d::UnitZ());
    beam /= beam.cwiseAbs().maxCoeff();
    const int frames = frame.end - frame.first;
    double scale = 0;
    for (int f = frame.first; f < frame.end; ++f)
        scale += e.scales.empty() ? 1.0 / frames : e.scales[static_cast<std::size_t>(f)] / frames;
    append(text, "%d %.5f %.5f %.5f %.4f %.4f %.4f %.4f %.4f\n", id, beam.x(), beam.y(), beam.z(), frame.half,
           angles.alpha, angles.beta, std::remainder(axisPosition(e) + angles.omega, 360), scale);
}

struct VirtualIntensity {
    double intensity = 0, variance = 0;
    bool passes = false;  ///< is on the sphere within the frames
};

std::map<std::array<int, 3>, VirtualIntensity> virtualIntensities(
    const ExperimentDescription& e, const VirtualFrame& frame,
    std::span<const std::vector<std::uint32_t>> byFrame, std::span<const FrameIntensity> intensities) {
    std::map<std::array<int, 3>, VirtualIntensity> sums;
    for (int f = frame.first; f < frame.end; ++f)
        for (const std::uint32_t i : byFrame[static_cast<std::size_t>(f)]) {
            const FrameIntensity& one = intensities[i];
            VirtualIntensity& sum = sums[{one.h, one.k, one.l}];
            sum.intensity += one.intensity;
            sum.variance += one.sigma * one.sigma;
            const double offset =
                (frame.tilt - e.tilts[static_cast<std::size_t>(one.frame)]) * kDegree * one.rate;
            sum.passes =
                sum.passes || std::abs(one.excitation + offset) < std::abs(one.rate) * frame.half * kDegree;
        }
    return sums;
}

}  // namespace

Matrix3d ExperimentDescription::laboratory() const {
    // z against the beam, which is the side of the sphere's centre.
    Matrix3d axes;
    axes.col(0) = Vector3d::UnitY();
    axes.col(2) = handedness * Vector3d::UnitZ();
    axes.col(1) = axes.col(2).cross(axes.col(0));
    return axes;
}

void writeUnmergedMtz(const ExperimentDescription& experiment, std::span<const MeasuredIntensity> intensities,
                      const std::filesystem::path& path) {
    if (intensities.empty()) throw Failure("there are no intensities to write", FailureKind::NothingFound);
    const auto& c = experiment.cell;
    gemmi::Mtz mtz(/*with_base=*/false);
    mtz.title = experiment.title.substr(0, 70);
    mtz.spacegroup = &detail::spaceGroupNamed(experiment.spaceGroup);
    mtz.add_dataset("electrons").wavelength = experiment.wavelength;
    mtz.datasets.back().id = 1;
    mtz.set_cell_for_all(gemmi::UnitCell(c[0], c[1], c[2], c[3], c[4], c[5]));
    const std::array<std::pair<const char*, char>, 11> columns = {{{"H", 'H'},
                                                                   {"K", 'H'},
                                                                   {"L", 'H'},
                                                                   {"M/ISYM", 'Y'},
                                                                   {"BATCH", 'B'},
                                                                   {"I", 'J'},
                                                                   {"SIGI", 'Q'},
                                                                   {"FRACTIONCALC", 'R'},
                                                                   {"XDET", 'R'},
                                                                   {"YDET", 'R'},
                                                                   {"ROT", 'R'}}};
    for (const auto& [label, type] : columns)
        mtz.add_column(label, type, -1, -1, false);
    std::vector<float> rows;
    const auto last = static_cast<double>(experiment.tilts.size()) - 1;
    for (const MeasuredIntensity& one : intensities) {
        if (one.rejected) continue;
        const double frame = std::clamp(std::round(one.frame), 0.0, last);
        for (const double value :
             {static_cast<double>(one.h), static_cast<double>(one.k), static_cast<double>(one.l), 0.0,
              frame + 1, one.intensity, one.sigma, one.recorded, one.x, one.y, one.tilt})
            rows.push_back(static_cast<float>(value));
    }
    mtz.set_data(rows.data(), rows.size());
    for (std::size_t frame = 0; frame < experiment.tilts.size(); ++frame)
        mtz.batches.push_back(batchOf(experiment, frame));
    mtz.indices_switched_to_original = true;
    mtz.switch_to_asu_hkl();
    mtz.sort();
    std::string bytes;
    mtz.write_to_string(bytes);
    writeText(bytes, path);
}

void writeXdsAscii(const ExperimentDescription& e, std::span<const MeasuredIntensity> intensities,
                   const std::filesystem::path& path) {
    const gemmi::SpaceGroup& group = detail::spaceGroupNamed(e.spaceGroup);
    // The format knows numbers of groups alone, in their reference settings.
    const int number = group.is_reference_setting() ? group.number : 1;
    // x and y along the rows and columns of the frames; the beam may come from either side.
    const double beam = -e.handedness;
    const double cosAxis = std::cos(e.axisAngle * kDegree);
    const double sinAxis = std::sin(e.axisAngle * kDegree);
    Matrix3d toFrame;  // from the volume frame
    toFrame << cosAxis, -sinAxis, 0, sinAxis, cosAxis, 0, 0, 0, 1;
    const Vector3d axis =
        toFrame * Vector3d(0, std::cos(e.axisPitch * kDegree), std::sin(e.axisPitch * kDegree));
    const Matrix3d direct = toFrame * e.reciprocal.inverse().transpose();
    const double distance = beam * kPixel / (e.wavelength * e.pixelSize);
    std::array<double, 2> centre{};
    for (const std::array<double, 2>& one : e.centres)
        for (std::size_t i = 0; i < 2; ++i)
            centre[i] += one[i] / static_cast<double>(e.centres.size());

    std::string text = "!FORMAT=XDS_ASCII    MERGE=FALSE    FRIEDEL'S_LAW=TRUE\n";
    append(text, "!Generated by vrk %s\n", VRK::kVersion);
    append(text, "!DATA_RANGE= %6d %6d\n", 1, static_cast<int>(e.tilts.size()));
    append(text, "!ROTATION_AXIS= %9.6f %9.6f %9.6f\n", axis.x(), axis.y(), axis.z());
    append(text, "!OSCILLATION_RANGE= %9.6f\n", e.rotation);
    append(text, "!STARTING_ANGLE= %9.4f\n!STARTING_FRAME= 1\n", firstTilt(e) - e.rotation / 2);
    append(text, "!INCLUDE_RESOLUTION_RANGE= %9.3f %9.3f\n", 200.0, e.dMin);
    append(text, "!SPACE_GROUP_NUMBER= %4d\n", number);
    append(text, "!UNIT_CELL_CONSTANTS= %9.4f %9.4f %9.4f %8.3f %8.3f %8.3f\n", e.cell[0], e.cell[1],
           e.cell[2], e.cell[3], e.cell[4], e.cell[5]);
    for (int i = 0; i < 3; ++i)
        append(text, "!UNIT_CELL_%c-AXIS= %10.4f %10.4f %10.4f\n", 'A' + i, direct(0, i), direct(1, i),
               direct(2, i));
    append(text, "!REFLECTING_RANGE_E.S.D.= %9.4f\n", std::max(e.mosaicity, e.rockingWidth / kDegree));
    append(text, "!X-RAY_WAVELENGTH= %9.6f\n", e.wavelength);
    append(text, "!INCIDENT_BEAM_DIRECTION= %9.6f %9.6f %12.6f\n", 0.0, 0.0, beam / e.wavelength);
    if (e.saturation > 0) append(text, "!OVERLOAD= %d\n", e.saturation);
    append(text, "!NX= %5d NY= %5d QX= %8.6f QY= %8.6f\n", e.size[0], e.size[1], kPixel, kPixel);
    append(text, "!ORGX= %9.2f ORGY= %9.2f\n", centre[0] + 1, centre[1] + 1);
    append(text, "!DETECTOR_DISTANCE= %10.3f\n", distance);
    text += "!DIRECTION_OF_DETECTOR_X-AXIS= 1.00000 0.00000 0.00000\n";
    text += "!DIRECTION_OF_DETECTOR_Y-AXIS= 0.00000 1.00000 0.00000\n";
    append(text, "!VARIANCE_MODEL= %11.3E %11.3E\n", e.errorModel[0], e.errorModel[1] * e.errorModel[1]);
    text += "!NUMBER_OF_ITEMS_IN_EACH_DATA_RECORD=12\n";
    const std::array<const char*, 12> items = {"H",  "K",  "L",   "IOBS", "SIGMA(IOBS)", "XD",
                                               "YD", "ZD", "RLP", "PEAK", "CORR",        "PSI"};
    for (std::size_t i = 0; i < items.size(); ++i)
        append(text, "!ITEM_%s=%d\n", items[i], static_cast<int>(i) + 1);
    text += "!END_OF_HEADER\n";
    for (const MeasuredIntensity& one : intensities)
        append(text, "%6d%6d%6d %11.3E %11.3E %8.1f %8.1f %8.1f %9.5f %4.0f %4d %8.2f\n", one.h, one.k, one.l,
               one.intensity, one.rejected ? -one.sigma : one.sigma, one.x + 1, one.y + 1, one.frame + 0.5,
               1.0, 100 * one.recorded, 100, 0.0);
    text += "!END_OF_DATA\n";
    writeText(text, path);
}

void writeFrameTable(std::span<const FrameIntensity> intensities, const std::filesystem::path& path) {
    std::string text = "h,k,l,frame,intensity,sigma,excitation_error,x,y\n";
    text.reserve(70 * intensities.size() + 100);
    for (const FrameIntensity& one : intensities)
        append(text, "%d,%d,%d,%d,%.2f,%.2f,%.6f,%.2f,%.2f\n", one.h, one.k, one.l, one.frame + 1,
               one.intensity, one.sigma, one.excitation, one.x, one.y);
    writeText(text, path);
}

void writeDynamicalCif(const ExperimentDescription& e, std::span<const FrameIntensity> intensities,
                       int merged, int step, const std::filesystem::path& path) {
    std::vector<std::vector<std::uint32_t>> byFrame(e.tilts.size());
    for (std::uint32_t i = 0; i < intensities.size(); ++i)
        byFrame[static_cast<std::size_t>(intensities[i].frame)].push_back(i);
    std::string text = dynamicalHead(e, merged, step);
    std::string reflections =
        "loop_\n_refln_index_h\n_refln_index_k\n_refln_index_l\n_refln_intensity_meas\n"
        "_refln_intensity_sigma\n_refln_zone_axis_id\n";
    const int frames = static_cast<int>(e.tilts.size());
    int id = 0;
    for (int first = 0; first < frames && (first == 0 || first + merged <= frames); first += step) {
        const VirtualFrame frame(e, first, std::min(first + merged, frames));
        appendZoneAxis(text, e, frame, ++id);
        for (const auto& [hkl, sum] : virtualIntensities(e, frame, byFrame, intensities))
            if (sum.passes)
                append(reflections, "%d %d %d %.2f %.2f %d\n", hkl[0], hkl[1], hkl[2], sum.intensity,
                       std::sqrt(sum.variance), id);
    }
    writeText(text + reflections, path);
}

}  // namespace vrk
