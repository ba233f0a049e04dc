/// \file
/// Reading of MRC files for all commands.
#pragma once

#include <filesystem>
#include <memory>

#include "Host.h"
#include "VoxCore/DataModel/VoxMRCData.h"

namespace host {

/// Reads a series or a volume, with progress. Throws Failure with the library's reason when the file is
/// refused or reading was stopped. Warnings go to the standard error stream.
std::unique_ptr<VoxMRCData> readMRC(Host& host, const std::filesystem::path& path);

}  // namespace host
