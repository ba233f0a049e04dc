/// \file
/// What a raw series goes through before anything is searched in it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"
#include "pipeline/run/ReplacedPixels.h"
#include "pipeline/run/RunOptions.h"
#include "processing/PatternCentre.h"
#include "processing/RecordedPixels.h"
#include "processing/ShadowMask.h"

namespace vrk {

/// A series moved to its centres, with what the moving brought in.
struct MovedSeries {
    std::unique_ptr<VoxMRCData> frames;
    std::vector<PatternCentre> centres;  ///< in the frames before they were moved
    RecordedPixels recorded;
    ShadowMask shadows;  ///< of the frames before they were moved
};

/// Square frames as they were recorded, without hot spots: what intensities are measured on. Until then they
/// need not be in memory beside those that the volume is built of.
struct RecordedCounts {
    std::unique_ptr<VoxMRCData> frames = {};
    ShadowMask shadows = {};
    /// The frames as they came; empty: those that are wanted are kept.
    std::function<std::unique_ptr<VoxMRCData>(Session&)> again = {};
    ReplacedPixels replaced = {};

    /// Whether there are frames, or will be when they are restored.
    bool wanted() const { return frames || again; }
    /// Reads the frames once more unless they are there. Throws Failure when they are not the same any more.
    void restore(Session& session);
};

/// Width and height of frames before they were made square, pixels.
struct FrameSize {
    int width = 0;
    int height = 0;

    explicit FrameSize(const VoxMRCData& frames)
        : width(static_cast<int>(frames.GetWidth())), height(static_cast<int>(frames.GetHeight())) {}
};

/// Moves the patterns so that their direct beams come to lie in the middle. Jumps of the beam, doubtful
/// centres and patterns without one are told.
///
/// \param frames  square; before they were made so, they had this size. Their memory becomes the result's.
/// \param kept    receives the frames as they were, at the cost of a copy; may be null
///
/// Throws Failure when the centres are given and make no sense, or the user stopped it.
MovedSeries movedToCentre(std::unique_ptr<VoxMRCData> frames, const FrameSize& before,
                          const CentreChoice& choice, Session& session,
                          std::unique_ptr<VoxMRCData>* kept = nullptr);

/// Square frames, without hot spots, with the direct beam in the middle and the background taken off.
/// The axis is where it was. Throws Failure when a step fails or the user stopped it.
/// \param counts  receives the frames before they were centred, or what it takes to restore them where it
///                says how they come again; may be null
MovedSeries preprocessed(std::unique_ptr<VoxMRCData> series, const CentreChoice& choice, Session& session,
                         RecordedCounts* counts = nullptr);

/// Puts pixel sizes and tilts in the header of a series right, as far as they are known, and tells when the
/// series was recorded at another camera length. \returns the distortion of its frames
FrameDistortion applyInstrument(const InstrumentCalibration& known, mrcH& header, Session& session);

/// Warns when what is known of an instrument comes from another camera length. \returns whether it does not
bool hasCameraLength(const InstrumentCalibration& known, double statedPixelSize, Session& session);

/// The calibrated pixel size (1/m) that a fine-calibration file gives for a stated one; 0, with a warning,
/// when it has no line for it. Throws Failure when the file cannot be used.
double fineCalibratedPixelSize(const std::filesystem::path& path, double stated, Session& session);

}  // namespace vrk
