/// \file
/// A tilt series with the facts that everything after it builds on.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/geometry/InstrumentModel.h"
#include "pipeline/run/RunOptions.h"

namespace vrk {

/// What is known of a series beside its pixels.
struct SeriesFacts {
    std::array<int, 3> size{};  ///< columns, rows, frames
    double tiltFirst = 0.0;     ///< degrees
    double tiltLast = 0.0;      ///< degrees
    double pixelSize = 0.0;     ///< 1/m per pixel
    double kiloVolts = 0.0;
    std::optional<double> axis;          ///< as the series states it, degrees
    std::optional<StatedMotion> motion;  ///< of a frame, as the series states it
    bool kiloVoltsAssumed = false;       ///< neither the series nor the caller gave it
    /// What is known of the instrument, without what does not hold for this series.
    std::optional<InstrumentCalibration> instrument;
    FrameDistortion distortion;  ///< of the frames, as far as it is known

    double wavelength() const;  ///< Angstrom
};

/// What is known of the instrument, of frames that are rid of the distortion that is. The direction of the
/// axis changes with the focus of the diffraction pattern: it stays for the reflections to confirm.
KnownTerms knownTerms(const SeriesFacts& facts);

/// Frames in ascending order of tilt, none empty, no tilt twice.
struct Series {
    std::unique_ptr<VoxMRCData> frames;
    SeriesFacts facts;
    /// Gives the same frames once more, without warnings; empty for a series that is in memory alone. Throws
    /// Failure when they are not the same any more.
    std::function<std::unique_ptr<VoxMRCData>(Session&)> again = {};
};

/// Checks a series (checkedSeries()) and settles pixel size and voltage. Throws Failure when it cannot be
/// processed or no pixel size is known.
Series makeSeries(std::unique_ptr<VoxMRCData> frames, const RunOptions& options, Session& session);

/// Reads the series first.
Series loadSeries(const std::filesystem::path& path, const RunOptions& options, Session& session);

}  // namespace vrk
