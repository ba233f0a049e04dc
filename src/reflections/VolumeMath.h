/// \file
/// How a voxel of a reciprocal volume is numbered and when it counts as background.
#pragma once

#include <atomic>

#include "VRKCoreExport.h"

class VoxMRCData;

/// Static voxel helpers of the reflection search.
///
/// For a volume with the dimension list (D0, D1, D2), voxel (x, y, z) is valid when 0 <= x < D1,
/// 0 <= y < D0 and 0 <= z < D2, and its linear index is (D1 z + x) D0 + y: y runs fastest. The value of a
/// voxel is read through this index, at position x D0 + y inside the chunk of slice z. For the square slices
/// that the reconstruction makes this is the volume's own order; for others x and y address the same
/// storage in rows of D0 voxels, and every valid voxel lies inside its slice.
///
/// Only volumes in storage by slice have voxels here; in any other array, and for a null volume, every
/// voxel is outside. So is a voxel whose index exceeds the range of int.
class VRKCORE_EXPORT VolumeMath {
public:
    /// The linear index; -1 for a voxel outside the volume.
    static int getIndex(const VoxMRCData* volume, int x, int y, int z);
    /// The inverse of getIndex(), for a valid index.
    static void getCoordinates(const VoxMRCData* volume, int index, int& x, int& y, int& z);

    /// The value of the voxel with a valid index.
    static short getValue(const VoxMRCData* volume, int index);

    /// True when the value, compared as float, lies strictly below the zero-compare value.
    static bool isZero(short value) { return static_cast<float>(value) < getZeroCompareValue(); }
    /// The same for the voxel with a valid index.
    static bool isZero(const VoxMRCData* volume, int index) { return isZero(getValue(volume, index)); }

    /// Sets the zero-compare value, which is process-wide and kept as float. The reflection search sets it to
    /// its threshold.
    static void setZeroCompareValue(double value);
    static float getZeroCompareValue() { return m_zeroCompareValue.load(std::memory_order_relaxed); }

private:
    static std::atomic<float> m_zeroCompareValue;
};
