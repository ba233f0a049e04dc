/// \file
/// The search for reflections in a reconstructed reciprocal volume.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>

#include "VRKCoreExport.h"
#include "foundation/VoxProgressObserver.h"
#include "reflections/ReflexVector.h"

class Parameter;
class VoxMRCData;
namespace VRK::detail {
struct RegionSeeds;
}

/// Segments a volume into reflections: every region of face-connected voxels at or above the threshold is
/// one, if it passes the size limits and the two distance limits of the Parameter set.
///
/// A region is found when it has a voxel whose three coordinates are all even or all odd. One that has none,
/// a lone voxel at (0, 1, 0) for instance, is not reported: a real spot extends over several voxels, and the
/// sampling keeps out most single-voxel noise.
///
/// The list is in the order of the seeds, the first voxel of a region that the scan meets: all seeds with
/// even coordinates, by x, then y, then z, before all with odd ones. Distances are measured from the voxel
/// (D0 / 2, D1 / 2, D2 / 2), with integer division and in this order of the volume's dimensions.
///
/// Time: one pass over every other row of the volume plus time linear in the voxels at or above the
/// threshold. Memory beyond the volume: one bit a voxel, and up to about 16 bytes for every voxel at or
/// above the threshold, most of it in the reflections returned; the sets of those whose getPoints() is asked
/// for take three times as much more.
///
/// Several thresholds: lookThrough() passes over the volume once for all searches from a threshold upwards,
/// which then cost what their own voxels cost.
class VRKCORE_EXPORT FindReflexes : public VoxProgressObservable {
public:
    FindReflexes() = default;

    /// Collects the voxels at which regions may start from a threshold upwards, up to 6 bytes for each of
    /// them. Searches of this volume at that threshold and above use them and find what they find without;
    /// the volume must not change meanwhile. Does nothing for a volume that cannot be searched.
    /// \throw std::bad_alloc when memory does not suffice
    void lookThrough(const VoxMRCData* volume, double lowestThreshold);
    /// A search that would return more reflections than this ends as soon as that is certain, with a list of
    /// more than so many of them.
    void setMostReflections(std::size_t most) { m_most = most; }

    /// \param quiet    nothing to the log, errors included, but for the line that tells of a cancellation
    /// \param seconds  receives the elapsed time in whole seconds; may be null
    /// \return a new list of ReflexOnGrid in the volume; the caller owns it (ReflexVectorPtr frees it whole)
    ///         and keeps the volume while using it. Empty when nothing was found or the volume has no voxels.
    ///         Null, with an error in the log unless quiet, when the volume or the parameters are missing,
    ///         when the volume is not stored by slice in three dimensions or has more voxels than int can
    ///         count; and null when the progress observer asks to stop.
    /// \throw std::bad_alloc when memory does not suffice, after an error in the log unless quiet
    ///
    /// The observer sees the steps announced once, an update after each x of the even and then of the odd
    /// seeds (1 to D1), and a last one with the number announced. Sets the process-wide zero-compare value of
    /// VolumeMath to the threshold.
    ReflexVector* findAllReflexes(VoxMRCData* volume, Parameter* parameter, bool quiet, double* seconds);

private:
    std::shared_ptr<const VRK::detail::RegionSeeds> seedsFor(const VoxMRCData& volume,
                                                             int foregroundLimit) const;
    ReflexVector* findAllReflexes(VoxMRCData* volume, Parameter* parameter);
    /// Appends the regions that pass the size limits. False when the observer asked to stop.
    bool collectRegions(const VoxMRCData& volume, const Parameter& parameter, ReflexVector& found);

    std::shared_ptr<const VRK::detail::RegionSeeds> m_seeds;
    std::size_t m_most = std::numeric_limits<std::size_t>::max();
};
