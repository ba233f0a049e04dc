/// \file
/// Reading and writing the MRC files of the pipeline.
#pragma once

#include <filesystem>
#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// Throws Failure where there is not the memory for the data that the header of an MRC file announces. Sizes
/// that no file has are left for readMRC() to refuse.
void requireMemoryToRead(const std::filesystem::path& path);

/// A series or a volume. Throws Failure with the library's reason when the file is refused or reading was
/// stopped.
std::unique_ptr<VoxMRCData> readMRC(const std::filesystem::path& path, Session& session);

/// A tilt series. Throws Failure when the file cannot be read or holds a volume.
std::unique_ptr<VoxMRCData> readSeries(const std::filesystem::path& path, Session& session);

/// A reciprocal volume. Throws Failure when the file cannot be read or holds a tilt series.
std::unique_ptr<VoxMRCData> readVolume(const std::filesystem::path& path, Session& session);

/// A view of a reciprocal volume, made of the largest values of blocks; the volume itself is never held.
/// \param edge  largest edge that the view has to have, voxels: the reduction is the largest of 1, 2, 4 and 8
///              that leaves at least so many, where the volume has them
/// Throws Failure as readVolume() does.
std::unique_ptr<VoxVolumeData> readVolumeView(const std::filesystem::path& path, int edge, Session& session);

/// Writes aside and renames when complete. Throws Failure when that is not possible.
void writeData(VoxMRCData& data, const std::filesystem::path& path, Session& session);

}  // namespace vrk
