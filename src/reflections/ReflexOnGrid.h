/// \file
/// A reflection that is a connected set of voxels of a volume, with the measures derived from them.
#pragma once

#include <cstddef>
#include <set>
#include <vector>

#include "VRKCoreExport.h"
#include "reflections/Reflex.h"

class VoxMRCData;

namespace VRK::detail {
struct Region;
}

/// A connected region of voxels at or above the zero-compare value of VolumeMath. Voxels are numbered as
/// VolumeMath describes.
///
/// The inherited x, y, z hold the sums of the voxel coordinates; the inherited intensity is the sum of the
/// voxel values. The region is complete when the constructor returns.
class VRKCORE_EXPORT ReflexOnGrid : public Reflex {
public:
    /// Grows the region from the voxel (x, y, z): level by level, over all voxels that are connected through
    /// shared faces and not background, without a limit of size.
    ///
    /// \param volume       stays the caller's and must outlive the reflection
    /// \param markVisited  whether to set flags in \p visited
    /// \param visited      the caller's flags, one per linear voxel index; those of all voxels of the region
    ///                     but the start voxel are set. They are never read.
    ///
    /// A start voxel outside the volume gives a region without voxels at position 0 and the log line
    /// "Startvoxel not correct.", a start voxel in the background one without voxels at that voxel.
    /// \throw std::bad_alloc when memory does not suffice: growing takes a bit for every voxel of the volume
    ReflexOnGrid(int x, int y, int z, const VoxMRCData* volume, bool markVisited, bool* visited);
    /// A region without voxels: getPoints() is empty and every measure of voxels 0, while position and
    /// intensity are those of a Reflex at \p xyz (the intensity is 1). The flags are set as the region that
    /// starts there would set them.
    ReflexOnGrid(const int* xyz, const VoxMRCData* volume, bool markVisited, bool* visited);
    ReflexOnGrid(const ReflexOnGrid&) = default;
    ReflexOnGrid& operator=(const ReflexOnGrid&) = default;
    ~ReflexOnGrid() = default;

    /// \name Position
    /// Without a type, the arithmetical mean of the voxel coordinates. It is 0 for a region without voxels;
    /// the form that returns all three coordinates divides by the voxel count as it is.
    /// @{

    /// 1 centre of gravity, 2 arithmetical mean, 3 intensity-weighted mean; any other type gives 0.
    double getCenter(int axis, int type) override;
    double getCenter(int axis) override;
    void getCenter(double& x, double& y, double& z) override;
    double getCenterInX() override;
    double getCenterInY() override;
    double getCenterInZ() override;

    /// Sum of value times coordinate divided by the sum of values.
    double getWeightedCenter(int axis) const;
    double getWeightedCenterInX() const { return getWeightedCenter(0); }
    double getWeightedCenterInY() const { return getWeightedCenter(1); }
    double getWeightedCenterInZ() const { return getWeightedCenter(2); }

    /// The brightest voxel; of several the one that growing reached first.
    double getCenterOfGravity(int axis) const { return m_centerOfGravity[axis]; }
    double getCenterOfGravityInX() const { return m_centerOfGravity[0]; }
    double getCenterOfGravityInY() const { return m_centerOfGravity[1]; }
    double getCenterOfGravityInZ() const { return m_centerOfGravity[2]; }
    void getCenterOfGravity(double& x, double& y, double& z) const;
    /// @}

    /// Membership of a voxel, by coordinates or by linear index.
    bool isInside(int x, int y, int z) override;
    bool isInside(int index) const;
    int getNumberOfVoxels() override;
    /// The linear indices of the member voxels; the reflection keeps the ownership.
    std::set<int>* getPoints() override;
    /// Calls visit(index) for the linear index of each member voxel, ascending, without making a set of them.
    template <typename Visit>
    void forEachVoxel(Visit visit) const {
        for (const int index : m_sorted)
            visit(index);
        for (const int index : m_points)
            visit(index);
    }

    float getMaxValue() const { return m_maxValue; }
    float getMinValue() const { return m_minValue; }
    const VoxMRCData* getVolume() const { return m_volume; }

    /// Extent of the bounding box in voxels along x, y and z.
    double getWidth() const { return m_maxX - m_minX + 1; }
    double getHeight() const { return m_maxY - m_minY + 1; }
    double getDepth() const { return m_maxZ - m_minZ + 1; }

    /// Sets the intensity to the sum of the voxel values.
    void integrate() { m_intensity = static_cast<double>(m_sumOfValues); }

    /// Writes the measures to the standard output; mean and weighted mean appear as the raw sums. The log
    /// gets an empty message.
    void print();

protected:
    /// Lets a derived class build a region voxel by voxel: adds the voxel to the set and the measures and
    /// returns true, unless it is outside, a member already or background. \p index receives its linear
    /// index, -1 outside. With \p markVisited the voxel's flag is set when it is added.
    bool add(int x, int y, int z, int* index, bool markVisited, bool* visited);
    /// Replaces the region by the one that contains the start voxel, whatever that voxel's own value; does
    /// nothing when it lies outside.
    void detectReflex(int x, int y, int z, bool markVisited, bool* visited);
    /// Widens the bounding box to contain the voxel.
    void updateDimensions(int x, int y, int z);
    std::set<int>::iterator getBeginPoint() { return points().begin(); }
    std::set<int>::iterator getEndPoint() { return points().end(); }

private:
    friend class FindReflexes;

    /// A region that has been grown already; sorts its voxels.
    ReflexOnGrid(const VoxMRCData* volume, VRK::detail::Region& region);
    void adopt(VRK::detail::Region& region);
    void setPosition(double x, double y, double z);

    /// The set, made when it is first asked for: a set takes many times what a list takes, and few ask.
    std::set<int>& points();
    std::size_t voxelCount() const { return m_sorted.size() + m_points.size(); }

    double m_centerOfGravity[3] = {};
    std::vector<int> m_sorted;  ///< the member voxels, ascending, while there is no set
    std::set<int> m_points;
    float m_maxValue = 0.0f;
    float m_minValue = 0.0f;
    double m_weightedSums[3] = {};
    const VoxMRCData* m_volume = nullptr;
    int m_minX = 0;
    int m_maxX = 0;
    int m_minY = 0;
    int m_maxY = 0;
    int m_minZ = 0;
    int m_maxZ = 0;
    float m_sumOfValues = 0.0f;
};
