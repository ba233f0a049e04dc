/// \file
/// Reading and writing the MRC files of the pipeline.
#pragma once

#include <filesystem>
#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// A series or a volume. Throws Failure with the library's reason when the file is refused or reading was
/// stopped.
std::unique_ptr<VoxMRCData> readMRC(const std::filesystem::path& path, Session& session);

/// A tilt series. Throws Failure when the file cannot be read or holds a volume.
std::unique_ptr<VoxMRCData> readSeries(const std::filesystem::path& path, Session& session);

/// A reciprocal volume. Throws Failure when the file cannot be read or holds a tilt series.
std::unique_ptr<VoxMRCData> readVolume(const std::filesystem::path& path, Session& session);

/// Writes aside and renames when complete. Throws Failure when that is not possible.
void writeData(VoxMRCData& data, const std::filesystem::path& path, Session& session);

}  // namespace vrk
