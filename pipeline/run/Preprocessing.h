/// \file
/// What a raw series goes through before anything is searched in it.
#pragma once

#include <filesystem>
#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// Square frames, without hot spots, with the direct beam in the middle and the background taken off.
/// The axis is where it was. Throws Failure when a step fails or the user stopped it.
std::unique_ptr<VoxMRCData> preprocessed(std::unique_ptr<VoxMRCData> series, Session& session);

/// The calibrated pixel size (1/m) that a fine-calibration file gives for a stated one; 0, with a warning,
/// when it has no line for it. Throws Failure when the file cannot be used.
double fineCalibratedPixelSize(const std::filesystem::path& path, double stated, Session& session);

}  // namespace vrk
