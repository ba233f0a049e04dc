#include "Calls.h"
#include "SettingTable.h"
#include "pipeline/simulation/SimulationSettings.h"

namespace vrk::python {
namespace {

void addCrystal(SettingTable& table, SimulationSettings& s) {
    table.add("cell", s.cell)
        .add("centring", s.centring)
        .add("cif", s.cif)
        .add("b_factor", s.bFactor)
        .add("dmin", s.dmin)
        .add("orientation", s.orientation.matrix)
        .add("beam_along", s.orientation.beamAlong)
        .add("axis_along", s.orientation.axisAlong)
        .add("off_zone", s.orientation.offZone)
        .add("even", s.evenIntensities)
        .add("asymmetry", s.asymmetry)
        .add("second_crystal", s.secondCrystal)
        .add("second_turn", s.secondTurn)
        .add("second_cell", s.secondCell)
        .add("rocking", s.rockingWidth)
        .add("handedness", s.handedness);
}

void addPatterns(SettingTable& table, SimulationSettings& s) {
    table.add("tilts", s.tilts)
        .add("tilt_offset", s.tiltErrors.offset)
        .add("tilt_scale", s.tiltErrors.scale)
        .add("tilt_jitter", s.tiltErrors.jitter)
        .add("frame_rotation", s.frameRotation)
        .add("precession_angle", s.precessionAngle)
        .add("axis", s.axis)
        .add("axis_tilt", s.axisTilt)
        .add("voltage", s.kilovolts)
        .add("centre_offset", s.centre.offset)
        .add("drift", s.centre.drift)
        .add("jump", s.centre.jump)
        .add("jumps", s.centre.jumps)
        .add("centre_jitter", s.centre.jitter)
        .add("missing", s.missing)
        .add("blank", s.blank)
        .add("write_axis", s.stated.axis)
        .add("state_axis", s.stated.axisAngle)
        .add("state_step", s.stated.tiltStep)
        .add("state_voltage", s.stated.kilovolts)
        .add("state_pixel", s.stated.pixelFactor)
        .add("state_rotation", s.stated.rotation)
        .add("mode", [&s](const py::object& value) {
            const auto name = value.cast<std::string>();
            for (const RotationMode mode :
                 {RotationMode::Continuous, RotationMode::Stepwise, RotationMode::Precession})
                if (name == nameOf(mode)) {
                    s.mode = mode;
                    return;
                }
            raise({FailureKind::Usage, "the mode is continuous, stepwise or precession, not '" + name + "'"});
        });
}

void addRecording(SettingTable& table, SimulationSettings& s) {
    table.add("dose", s.dose)
        .add("peak", s.peakCounts)
        .add("spot", s.spotWidth)
        .add("ellipse", s.distortion.ellipse)
        .add("ellipse_azimuth", s.distortion.ellipseAzimuth)
        .add("radial", s.distortion.radial)
        .add("background", s.background.halo)
        .add("direct_beam", s.background.directBeam)
        .add("halo_gradient", s.background.gradient)
        .add("halo_azimuth", s.background.gradientAzimuth)
        .add("ice", s.background.ice)
        .add("size", s.detector.size)
        .add("noise", s.detector.noise)
        .add("saturation", s.detector.saturation)
        .add("hot_pixels", s.detector.hotPixels)
        .add("zingers", s.detector.zingers)
        .add("cross", s.detector.cross)
        .add("seed", s.seed)
        .add("beam_stop", [&s](const py::object& value) {
            if (value.cast<bool>()) s.beamStop.emplace();
        });
}

}  // namespace

void addSimulation(py::module_& module) {
    module.def("simulate", [](const py::dict& values, py::object progress, py::object log) {
        SimulationSettings settings;
        SettingTable table;
        addCrystal(table, settings);
        addPatterns(table, settings);
        addRecording(table, settings);
        table.apply(values);
        SimulatedTiltSeries made = call(std::move(progress), std::move(log),
                                        [&](Observer& observer) { return simulate(settings, observer); });
        const py::str truth = textOf(made.truth.toJson());
        return py::make_tuple(std::move(made.series), truth);
    });
}

}  // namespace vrk::python
