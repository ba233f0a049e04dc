/// \file
/// The crystal behind VoxMRCFileHandler::createTestDummyMRCFile(): what a run on that series must find.
#pragma once

#include <array>

namespace VRK {

/// A triclinic reciprocal lattice with a spot at every node, seen at 61 tilts about the image's y axis.
///
/// Frame: voxels of the volume reconstructed from the series at full size, relative to the centre
/// ((W-1)/2, (H-1)/2, (depth-1)/2). Pixel (x, y) of the pattern at tilt t lies at
/// (r cos t, y - (H-1)/2, r sin t) with r = x - (W-1)/2.
///
/// Spots are gaussians of kSpotSigma in all three directions, kWeakestSpot to kStrongestSpot high near
/// the centre, falling off outwards, equal at opposite nodes; the last lie kLastSpot from the centre. The
/// node 0 0 0 is the direct beam on a background that decays outwards. The nodes between 60 and 90
/// degrees of tilt were not seen, the third base vector among them; its multiples still are differences
/// of seen nodes.
struct DummyCrystal {
    static constexpr int kWidth = 128;
    static constexpr int kHeight = 128;
    static constexpr int kSlices = 61;
    static constexpr float kFirstTilt = -60.0F;    ///< degrees
    static constexpr float kTiltStep = 2.0F;       ///< degrees
    static constexpr float kPixelSize = 1.0e8F;    ///< 1/metre per pixel
    static constexpr float kHighTension = 200.0F;  ///< kilovolts

    static constexpr double kSpotSigma = 1.3;         ///< voxels
    static constexpr double kLastSpot = 58.0;         ///< voxels
    static constexpr double kWeakestSpot = 400.0;     ///< counts
    static constexpr double kStrongestSpot = 4000.0;  ///< counts
    static constexpr double kDirectBeam = 12000.0;    ///< counts

    /// The lattice's three base vectors. They are its shortest ones: 15.6, 16.9 and 19.6 voxels long.
    static constexpr std::array<std::array<double, 3>, 3> kReciprocalVectors = {
        {{15.0, 2.5, 3.5}, {-6.5, 15.5, 2.0}, {-3.5, -7.0, 18.0}}};
};

}  // namespace VRK
