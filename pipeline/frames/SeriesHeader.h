/// \file
/// Headers of the tilt series that the host makes.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace vrk {

/// The header of a tilt series of 16-bit frames with one extended-header record a slice.
/// \param tilts degrees, one a slice, at most mrcH::kMaxSlices
/// \param pixelSize 1/metre per pixel; also stored as the frame's edge in units of it, where readers of
///        files without records look
/// \param label the first label, cut at 80 characters
mrcH tiltSeriesHeader(int width, int height, const std::vector<double>& tilts, double pixelSize,
                      const std::string& label);

/// What the crystal and the beam did while a frame was exposed, as the files of the frames state it.
struct StatedMotion {
    double rotation = 0;    ///< degrees; 0: the tilt stood still
    double precession = 0;  ///< half angle of the beam's cone, degrees; 0: none
};

/// Keeps it in the second label, which other programs show and leave alone.
void stateMotion(mrcH& header, const StatedMotion& motion);

/// Nothing when no label states it. \param labels  labels of 80 characters each
std::optional<StatedMotion> statedMotion(std::string_view labels);
std::optional<StatedMotion> statedMotion(const mrcH& header);

/// A series without contents. Throws std::bad_alloc.
std::unique_ptr<VoxMRCData> emptySeries(int width, int height, std::size_t slices);

/// Fills the mean intensity of every slice and the minimum, maximum and mean density from the data.
void setDensities(VoxMRCData& series);

}  // namespace vrk
