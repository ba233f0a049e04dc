/// \file
/// What a file holds, whatever its name says: for messages about files in the wrong place.
#pragma once

#include <filesystem>
#include <string>

namespace vrk {

/// A file by its first bytes.
struct FileContent {
    enum class Kind { Mrc, Frame, Picture, PeakFile, CellFile, OtherText, Unknown };
    Kind kind = Kind::Unknown;
    std::string name;  ///< "an SMV frame"; empty when unknown

    /// Throws Failure when there is no such file, it is a folder or cannot be read.
    static FileContent of(const std::filesystem::path& path);
};

/// Throws Failure for a path that is surely no MRC file, with what it is and where it belongs.
void refuseUnlessMrc(const std::filesystem::path& path);

/// The same for lists of peaks and for cell files.
void refuseUnlessPeaks(const std::filesystem::path& path);
void refuseUnlessCell(const std::filesystem::path& path);

}  // namespace vrk
