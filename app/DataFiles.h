/// \file
/// Reading and writing the MRC files of the pipeline, with the messages that a user of vrk meets.
#pragma once

#include <filesystem>
#include <memory>

#include "Host.h"
#include "VoxCore/DataModel/VoxMRCData.h"

namespace host {

/// A tilt series. Throws Failure when the file cannot be read or holds a volume.
std::unique_ptr<VoxMRCData> readSeries(const std::filesystem::path& path, Host& host);

/// A reciprocal volume. Throws Failure when the file cannot be read or holds a tilt series.
std::unique_ptr<VoxMRCData> readVolume(const std::filesystem::path& path, Host& host);

/// Writes aside and renames when complete. Throws Failure when that is not possible.
void writeData(VoxMRCData& data, const std::filesystem::path& path, Host& host);

}  // namespace host
