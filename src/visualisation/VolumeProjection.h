/// \file
/// Maximum-intensity projections of a volume along its axes.
#pragma once

#include "VRKCoreExport.h"
#include "visualisation/PlaneImage.h"

class VoxMRCData;
class VoxVolumeData;

class VRKCORE_EXPORT VolumeProjection {
public:
    /// The largest value along an axis of the volume.
    ///
    /// | axis | picture's x, to the right | picture's y, downwards |
    /// |---|---|---|
    /// | 0 (x) | z | y |
    /// | 1 (y, the tilt axis) | x | z |
    /// | 2 (z) | x | y, as in a pattern at tilt 0 |
    ///
    /// \param volume  a reconstructed volume (y fastest inside a slice)
    /// \returns an empty image for another axis or a volume without three dimensions
    static PlaneImage maximumAlong(const VoxMRCData& volume, int axis);
    /// The same of a view.
    static PlaneImage maximumAlong(const VoxVolumeData& view, int axis);

    /// Arrows with the names of the two axes, for a picture of maximumAlong().
    /// \param length  of the arrows in pixels
    static ImageOverlay axesOf(const PlaneImage& image, int axis, double length = 40.0);
};
