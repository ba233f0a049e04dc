#include "pipeline/simulation/SimulationSettings.h"

#include <algorithm>
#include <cmath>

#include "VoxCore/DataModel/mrcH.h"
#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

void check(bool good, const std::string& text) {
    if (!good) throw Failure(text, FailureKind::Usage);
}

/// What lies between two limits, both allowed.
struct Limited {
    const char* what;
    double value;
    double low;
    double high;
    const char* range;
};

void checkRanges(const SimulationSettings& s) {
    const BeamStopSettings stop = s.beamStop.value_or(BeamStopSettings{});
    const double size = s.detector.size;
    const double none = 0;
    for (const Limited& one : {
             Limited{"the size of a frame", size, 32, 4096, "32 to 4096 pixels"},
             {"the resolution limit", s.dmin, 0.1, 100, "0.1 to 100 Angstrom"},
             {"the voltage", s.kilovolts, 1, 10000, "1 to 10000 kV"},
             {"the rocking width", s.rockingWidth, 1e-5, 1, "1e-5 to 1 1/Angstrom"},
             {"the width of a spot", s.spotWidth, 0.3, 7, "0.3 to 7 pixels"},
             {"the number of steps of the centre", double(s.centre.jumps), 0, 300, "0 to 300"},
             {"the tilt scale", s.tiltErrors.scale, 0.1, 10, "0.1 to 10"},
             {"the tilt offset", s.tiltErrors.offset, -90, 90, "-90 to 90 degrees"},
             {"the tilt jitter", s.tiltErrors.jitter, 0, 10, "0 to 10 degrees"},
             {"the tilt of the axis", s.axisTilt, -45, 45, "-45 to 45 degrees"},
             {"the angle from the zone axis", s.orientation.offZone, 0, 90, "0 to 90 degrees"},
             {"the turn of the second crystal", s.secondTurn.value_or(none), -180, 180,
              "-180 to 180 degrees"},
             {"the precession angle", s.precessionAngle, 0, 10, "0 to 10 degrees"},
             {"the ellipse", s.distortion.ellipse, -0.2, 0.2, "-0.2 to 0.2"},
             {"the radial term", s.distortion.radial, -0.2, 0.2, "-0.2 to 0.2"},
             {"the rotation of a frame", s.frameRotation, 0, 180, "0 to 180 degrees"},
             {"the number of missing frames", double(s.missing), 0, 300, "0 to 300"},
             {"the number of blank frames", double(s.blank), 0, 300, "0 to 300"},
             {"the number of hot pixels", double(s.detector.hotPixels), 0, 1e6, "0 to 1000000"},
             {"the number of zingers", double(s.detector.zingers), 0, 1e6, "0 to 1000000"},
             {"the asymmetry", s.asymmetry, 0, 3, "0 to 3"},
             {"the dose", s.dose, 0, 1e6, "0 to 1000000"},
             {"the transmission of the stop", stop.transmission, 0, 1, "0 to 1"},
             {"the pedestal of the stop", stop.pedestal, 0, 32767, "0 to 32767 counts"},
             {"the width of the stop", stop.width.value_or(none), 0, size, "0 to the size of the frame"},
             {"the disc of the stop", stop.disc.value_or(none), 0, size, "0 to the size of the frame"},
         })
        check(one.value >= one.low && one.value <= one.high,
              std::string(one.what) + " must be " + one.range + ", not " + std::to_string(one.value));
}

/// Settings that are sizes: finite and small enough for what is made of them.
void checkSizes(const SimulationSettings& s) {
    constexpr double most = 1e9;
    for (const double value : {s.detector.noise, s.secondCrystal, s.peakCounts, s.bFactor, s.background.halo,
                               s.background.directBeam, s.background.ice, s.detector.saturation,
                               s.stated.kilovolts.value_or(0), s.stated.pixelFactor})
        check(value >= 0 && value <= most,
              "noise, counts, displacements and stated values cannot be negative or above 1e9");
    constexpr double far = 1e4;
    for (const double value : {s.centre.offset[0], s.centre.offset[1], s.centre.drift, s.centre.jump,
                               s.centre.jitter, s.background.gradient})
        check(std::abs(value) <= far, "the centre and the gradient of the halo must be within 10000");
    const BeamStopSettings stop = s.beamStop.value_or(BeamStopSettings{});
    for (const double value :
         {s.axis, s.background.gradientAzimuth, s.distortion.ellipseAzimuth, stop.direction, stop.offset[0],
          stop.offset[1], s.stated.axisAngle.value_or(0), s.stated.tiltStep.value_or(1)})
        check(std::isfinite(value), "the settings of a simulation must be finite numbers");
}

}  // namespace

void checkSettings(const SimulationSettings& settings) {
    check(!settings.tilts.empty() && settings.tilts.size() <= mrcH::kMaxSlices,
          "a series has 1 to " + std::to_string(mrcH::kMaxSlices) + " frames, not " +
              std::to_string(settings.tilts.size()) + "; choose a larger step of the tilts");
    check(
        std::all_of(settings.tilts.begin(), settings.tilts.end(), [](double t) { return std::abs(t) <= 90; }),
        "tilts must lie between -90 and 90 degrees");
    check(settings.handedness == 1 || settings.handedness == -1, "the handedness is 1 or -1");
    check(settings.stated.tiltStep.value_or(1) != 0, "the stated tilt step cannot be 0");
    const OrientationSettings& orientation = settings.orientation;
    check(!orientation.matrix || (!orientation.beamAlong && !orientation.axisAlong),
          "give either an orientation or the directions along beam and axis");
    check(orientation.offZone == 0 || orientation.beamAlong,
          "an angle from the zone axis needs the zone axis along the beam");
    check(settings.secondCrystal > 0 || (!settings.secondTurn && !settings.secondCell),
          "the turn and the cell of a second crystal need its intensity");
    checkRanges(settings);
    checkSizes(settings);
}

double frameRotation(const SimulationSettings& settings) {
    if (settings.frameRotation > 0) return settings.frameRotation;
    if (settings.tilts.size() < 2) return 1;
    return std::abs(settings.tilts.back() - settings.tilts.front()) /
           static_cast<double>(settings.tilts.size() - 1);
}

double frameExposure(const SimulationSettings& settings) {
    const bool turning = settings.counts == CountModel::Time && settings.mode == RotationMode::Continuous;
    return settings.dose * (turning ? frameRotation(settings) : 1);
}

}  // namespace vrk
