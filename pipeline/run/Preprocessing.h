/// \file
/// What a raw series goes through before anything is searched in it.
#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"
#include "processing/PatternCentre.h"

namespace vrk {

/// Square frames as they were recorded, without hot spots: what intensities are measured on.
struct RecordedFrames {
    std::unique_ptr<VoxMRCData> counts;
    std::vector<PatternCentre> centres;  ///< of the frames
};

/// Square frames, without hot spots, with the direct beam in the middle and the background taken off.
/// The axis is where it was. Throws Failure when a step fails or the user stopped it.
/// \param recorded  receives the frames before they were centred; may be null
std::unique_ptr<VoxMRCData> preprocessed(std::unique_ptr<VoxMRCData> series, Session& session,
                                         RecordedFrames* recorded = nullptr);

/// The calibrated pixel size (1/m) that a fine-calibration file gives for a stated one; 0, with a warning,
/// when it has no line for it. Throws Failure when the file cannot be used.
double fineCalibratedPixelSize(const std::filesystem::path& path, double stated, Session& session);

}  // namespace vrk
