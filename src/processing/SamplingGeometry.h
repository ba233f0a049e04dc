/// \file
/// Which pixels of a tilt series a voxel of the reciprocal volume is made of.
#pragma once

#include <span>
#include <vector>

#include "VRKCoreExport.h"

/// Answers, for a voxel column (x, layer) of the volume, which four samples of the tilt series are averaged
/// into it, and where in reciprocal space the average of those samples really lies.
///
/// A volume of W columns and D layers is regridded from N patterns of width W, whose tilt axis lies along y
/// through (W - 1) / 2 and whose tilt angles a[0] ... a[N-1] ascend. The voxel at dx = x - (W - 1) / 2,
/// dz = layer - (D - 1) / 2 was seen at the tilt atan(dz / dx). It takes two pixel columns, the inner and
/// the outer one, that bracket its distance from the axis, from each of the two patterns, the lower and the
/// upper one, that bracket that tilt. All y of the column share the four sources. The angle and the distances
/// are computed in single precision and the distance from the whole part of dx, so the bracketing is defined
/// to the last bit; the reconstruction takes its samples from here.
///
/// The samples lie off the voxel's own place by up to a voxel: the distance is rounded down, and a column
/// p = trunc(+-distance + (W - 1) / 2) rounds towards the axis on its right side and away from it on its
/// left when W is even. Positions of reflections that shall be exact are therefore formed from the place of
/// the samples:
///
///     (r cos t, y, r sin t),  r = meanRadius(sample), t = meanTilt(sample)
///
/// weighted with the voxels' values, instead of the voxels' own (dx, y, dz). See docs/conventions.md for the
/// volume frame.
class VRKCORE_EXPORT SamplingGeometry {
public:
    /// The sources of one voxel column.
    struct Sample {
        /// Pattern below the voxel's tilt; -1 when the tilt is not above that of the first pattern, N when it
        /// is above that of the last one.
        int lower = -1;
        /// Pattern at or above the voxel's tilt; -1 when the tilt is above that of the last pattern.
        int upper = -1;
        int inner = 0;   ///< distance from the axis in whole pixels, rounded down; W / 2 outside of the frame
        int outer = -1;  ///< inner + 1; -1 when that would be beyond W / 2
        int innerColumn = -1;  ///< pixel column of the inner distance, -1 outside of the volume
        int outerColumn = -1;  ///< pixel column of the outer distance, -1 outside of the volume

        /// False when the voxel column was not recorded: it lies outside of the tilt range, beyond the
        /// half width of the frame, or on the axis itself, where no direction can be told. All its voxels are
        /// 0.
        bool inside() const { return innerColumn >= 0; }
    };

    /// \param width   columns of the patterns and of the volume
    /// \param tilts   tilt angles of the patterns in degrees, ascending; copied
    /// \param depth   layers of the volume, usually depthOf(width, tilts)
    SamplingGeometry(unsigned width, std::span<const float> tilts, unsigned depth);

    /// Layers that a series needs: the sine of its largest absolute tilt times the width, rounded up.
    /// 0 without patterns or when all tilts are 0. Only the first and the last angle count.
    static unsigned depthOf(unsigned width, std::span<const float> tilts);

    unsigned width() const { return m_width; }
    unsigned depth() const { return m_depth; }

    /// The sources of the column at \p x in the given layer. Columns outside of the volume give a sample that
    /// is not inside().
    Sample sample(unsigned x, unsigned layer) const;

    /// The pixel column at a distance from the axis in whole pixels. It may lie outside of the frame.
    int columnAt(int distance, bool right) const;

    /// Signed mean distance of the two pixel columns from the axis, in pixels, positive to the right. It is
    /// that of the pixels which are really read. 0 for a sample that is not inside().
    double meanRadius(const Sample& sample) const;

    /// Mean tilt of the two patterns in radians. 0 for a sample that is not inside().
    double meanTilt(const Sample& sample) const;

    /// The patterns that bracket a tilt. Below or at the first angle *lower is -1 and *upper 0; above the
    /// last one *lower is N and *upper -1; otherwise *upper is the first pattern whose angle is not below
    /// the tilt and *lower the one before it. Always true.
    static bool getLowerAndUpperTiltSliceNr(float angleDegrees, std::span<const float> tilts, int* lower,
                                            int* upper);

    /// The distances from the axis, in whole pixels, that bracket the voxel at the horizontal distance
    /// \p offset (in whole pixels) in the direction \p angleRadians. Beyond the half width *inner is W / 2
    /// and *outer -1. Always true.
    static bool getInnerAndOuterPixelIndex(float angleRadians, unsigned width, int offset, int* inner,
                                           int* outer);

private:
    unsigned m_width;
    unsigned m_depth;
    float m_centreX;
    float m_centreZ;
    std::vector<float> m_tilts;
};
