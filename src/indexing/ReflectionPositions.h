/// \file
/// Where the measured intensity of a reflection really lies.
#pragma once

#include <vector>

#include "VRKCoreExport.h"

class ReflexVector;
class SamplingGeometry;

/// Positions of reflections from the places of the pixels that their voxels were made of.
///
/// A voxel of the volume is the average of four pixels whose mean place differs from the voxel's own by up to
/// a voxel, and differently on both sides of the axis (SamplingGeometry). Cells refined on voxel positions
/// are wrong by a few tenths of a percent and of a degree; on these positions they are not.
class VRKCORE_EXPORT ReflectionPositions {
public:
    /// The intensity-weighted mean of (r cos t, y, r sin t) over the voxels of every reflection, r and t
    /// being the mean radius and the mean tilt of each voxel's samples, in voxel coordinates of the volume.
    ///
    /// \param reflections  unchanged. An element without voxels (a plain Reflex) keeps its position; its tilt
    ///                     follows from the position.
    /// \param geometry     of the reconstruction that made the volume
    /// \param tilts        receives one intensity-weighted mean tilt (radians) for each reflection; may be
    ///                     null
    /// \returns a new list of plain reflections in the same order, with the indices and intensities of the
    ///          old ones (the caller owns it, ReflexVector::destroy() frees it); null, with an error logged,
    ///          when the list is null. An empty place stays empty, with tilt 0.
    static ReflexVector* fromSamples(const ReflexVector* reflections, const SamplingGeometry& geometry,
                                     std::vector<double>* tilts);

    /// The same for reflections of which only the positions in the volume are known, such as those of a peak
    /// file: a spot of about two voxels' width at getCenter(axis, centerType) is taken for the voxels.
    static ReflexVector* fromCenters(const ReflexVector* reflections, int centerType,
                                     const SamplingGeometry& geometry, std::vector<double>* tilts);

    /// Copies at getCenter(axis, centerType), for positions that are exact already, each with the tilt at
    /// which a voxel at its place was seen. \param origin  the centre of the volume, ((W - 1) / 2, (H - 1) /
    /// 2, (D - 1) / 2)
    static ReflexVector* copies(const ReflexVector* reflections, int centerType, const double origin[3],
                                std::vector<double>* tilts);
};
