/// \file
/// How the crystal moves while a frame of a tilt series is recorded.
#pragma once

namespace vrk {

enum class RotationMode {
    Continuous,  ///< the tilt runs on during the exposure
    Stepwise,    ///< the tilt stands still
    Precession   ///< the tilt stands still and the beam runs round a cone
};

constexpr const char* nameOf(RotationMode mode) {
    return mode == RotationMode::Continuous ? "continuous"
           : mode == RotationMode::Stepwise ? "stepwise"
                                            : "precession";
}

}  // namespace vrk
