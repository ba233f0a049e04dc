/// \file
/// Lists of tilts and of frames beside the frames.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vrk {

/// Tilts for the frames of a series in the order of the frames.
struct TiltList {
    std::vector<double> tilts;  ///< degrees
    std::optional<double> kilovolts;
};

/// \param text a file (.tlt and .rawtlt: one number a line; .mdoc: the TiltAngle of every ZValue section, in
///        the order of the ZValues) or START:STEP, the first tilt and the step from frame to frame
/// Throws Failure naming file and line when it is neither or does not give \p count tilts.
TiltList readTilts(const std::string& text, std::size_t count);

/// A list that names its frames (.ed3d).
struct FrameList {
    struct Entry {
        std::filesystem::path path;
        double tilt = 0;  ///< degrees
    };
    std::vector<Entry> frames;
    std::optional<double> wavelength;  ///< Angstrom
    std::optional<double> pixelSize;   ///< 1/metre per pixel
    std::optional<double> rotation;    ///< degrees per frame
    /// Degrees. ROTATIONAXIS counts from x towards higher rows of the file, an axis' angle from y: 90 less.
    std::optional<double> axis;
};

/// Reads an .ed3d list: lines KEYWORD VALUE and, between FILELIST and ENDFILELIST, lines FILE NAME TILT ...
/// whose names are relative to the list. Throws Failure naming the line.
FrameList readFrameList(const std::filesystem::path& path);

}  // namespace vrk
