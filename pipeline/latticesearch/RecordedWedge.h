/// \file
/// Which part of reciprocal space a list of reflections comes from, by the reflections themselves.
#pragma once

#include <Eigen/Core>
#include <span>

namespace vrk {

/// The places that a turn about one axis passes: an angle about it on both sides of the origin.
struct RecordedWedge {
    /// Takes places to a frame with the turn about y, x in the middle of the wedge.
    Eigen::Matrix3d toFrame = Eigen::Matrix3d::Identity();
    double halfAngle = 0.0;  ///< of the turn to either side, radians; a quarter turn: no part is missing
};

/// The axis about which the widest angle holds no places, but for one in 200, and what that leaves. The view
/// along a zone of a small lattice has empty angles too: those below 20 degrees count for none, and those in
/// which an even distribution would have fewer than 25 places.
/// \param places  relative to the origin
RecordedWedge wedgeOf(std::span<const Eigen::Vector3d> places);

}  // namespace vrk
