/// \file
/// A volume view: what a display needs of a series or a volume.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/mrcH.h"

class VoxMRCData;
namespace VRK::detail {
class SliceReduction;
}

/// Voxels in one block, x fastest, then y, then z, whether they come from a series or from a volume. With a
/// copy of the header, whose sizes and pixel size are those of the view.
///
/// A view may be coarser than its source: reduction n makes one voxel of a block of n along x and y, and
/// of a volume along z too; 1, 2, 4 and 8 are usual. Blocks at the far edges that the data fill only in part
/// count what is there. The slices of a series are never mixed, as each is a pattern of another tilt.
///
/// Views are made from data in memory by fromData(), and from files, of which one slice at a time is held, by
/// VoxMRCFileHandler::readMRCFile_asVolumeData().
class VRKCORE_EXPORT VoxVolumeData {
public:
    /// What a block of voxels becomes.
    enum class Block {
        Mean,    ///< rounded to the nearest integer, halves away from 0: noise goes down
        Maximum  ///< spots of a single voxel keep their height
    };

    /// An all-zero view with the sizes that data with this header have at that reduction. The header's nx,
    /// ny and nz must be positive; a reduction below 1 counts as 1. Throws std::bad_alloc.
    explicit VoxVolumeData(const mrcH& header, int reduction = 1);

    /// A view of the data, which are not changed and not kept.
    static VoxVolumeData fromData(const VoxMRCData& data, int reduction = 1, Block block = Block::Mean);
    /// This view made coarser.
    VoxVolumeData reduced(int reduction, Block block = Block::Mean) const;

    unsigned width() const { return static_cast<unsigned>(m_header.nx); }
    unsigned height() const { return static_cast<unsigned>(m_header.ny); }
    unsigned depth() const { return static_cast<unsigned>(m_header.nz); }
    /// Not checked against the sizes.
    short value(unsigned x, unsigned y, unsigned z) const { return m_voxels[index(x, y, z)]; }
    void setValue(unsigned x, unsigned y, unsigned z, short value) { m_voxels[index(x, y, z)] = value; }
    std::span<const short> voxels() const { return m_voxels; }

    /// nx, ny, nz and m_pixelsize are the view's; the slice values of a series are those of its slices.
    const mrcH& header() const { return m_header; }

    /// Edge of the blocks, voxels of the data.
    int reduction() const { return m_reduction; }
    /// Where the middle of the data, ((W - 1) / 2, (H - 1) / 2, (D - 1) / 2), lies in the view: of a volume
    /// the origin of reciprocal space. In voxels of the view; blocks at the far edges that are filled in part
    /// do not move it.
    const std::array<double, 3>& middle() const { return m_middle; }

private:
    friend class VRK::detail::SliceReduction;
    std::size_t index(unsigned x, unsigned y, unsigned z) const {
        return (static_cast<std::size_t>(z) * height() + y) * width() + x;
    }

    mrcH m_header;
    int m_reduction;
    std::array<double, 3> m_middle;
    std::vector<short> m_voxels;
};
