#include "pipeline/simulation/detail/SettingsJson.h"

#include <array>

namespace vrk::detail {
namespace {

using Json = nlohmann::ordered_json;

Json vectorOrNull(const std::optional<Vector3>& vector) {
    return vector ? Json(*vector) : Json(nullptr);
}

Json beamStopJson(const SimulationSettings& s) {
    if (!s.beamStop) return nullptr;
    const double usual = 0.02 * s.detector.size;
    return {{"direction_deg", s.beamStop->direction},
            {"width_px", s.beamStop->width.value_or(usual)},
            {"disc_radius_px", s.beamStop->disc.value_or(usual)},
            {"offset_px", s.beamStop->offset},
            {"transmission", s.beamStop->transmission},
            {"pedestal", s.beamStop->pedestal}};
}

}  // namespace

Json settingsJson(const SimulationSettings& s) {
    return {{"seed", s.seed},
            {"b_factor", s.bFactor},
            {"dmin", s.dmin},
            {"rocking_width", s.rockingWidth},
            {"even", s.evenIntensities},
            {"asymmetry", s.asymmetry},
            {"second_crystal", s.secondCrystal},
            {"second_turn_deg", s.secondTurn ? Json(*s.secondTurn) : Json(nullptr)},
            {"second_cell", s.secondCell ? Json(*s.secondCell) : Json(nullptr)},
            {"beam_along", vectorOrNull(s.orientation.beamAlong)},
            {"axis_along", vectorOrNull(s.orientation.axisAlong)},
            {"off_zone_deg", s.orientation.offZone},
            {"mode", nameOf(s.mode)},
            {"frame_rotation_deg", frameRotation(s)},
            {"precession_angle_deg", s.precessionAngle},
            {"tilt_errors",
             {{"offset_deg", s.tiltErrors.offset},
              {"scale", s.tiltErrors.scale},
              {"jitter_deg", s.tiltErrors.jitter}}},
            {"centre",
             {{"offset_px", s.centre.offset},
              {"drift_px", s.centre.drift},
              {"jump_px", s.centre.jump},
              {"jumps", s.centre.jump != 0 ? s.centre.jumps : 0},
              {"jitter_px", s.centre.jitter}}},
            {"counts", s.counts == CountModel::Time ? "time" : "sphere"},
            {"dose", s.dose},
            {"exposure", frameExposure(s)},
            {"peak_counts", s.peakCounts},
            {"spot_width_px", s.spotWidth},
            {"distortion",
             {{"ellipse", s.distortion.ellipse},
              {"ellipse_azimuth_deg", s.distortion.ellipseAzimuth},
              {"radial", s.distortion.radial}}},
            {"background",
             {{"halo", s.background.halo},
              {"direct_beam", s.background.directBeam},
              {"halo_gradient", s.background.gradient},
              {"halo_azimuth_deg", s.background.gradientAzimuth},
              {"ice", s.background.ice}}},
            {"beam_stop", beamStopJson(s)},
            {"detector",
             {{"size", s.detector.size},
              {"noise", s.detector.noise},
              {"saturation", s.detector.saturation},
              {"hot_pixels", s.detector.hotPixels},
              {"zingers", s.detector.zingers},
              {"cross", s.detector.cross}}}};
}

}  // namespace vrk::detail
