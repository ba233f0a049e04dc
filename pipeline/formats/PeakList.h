/// \file
/// Reading of reflection positions: peak files and the lists of other programs.
#pragma once

#include <array>
#include <filesystem>
#include <optional>

#include "reflections/ReflexVector.h"

namespace vrk {

/// What the head of a peak file says about the volume of the peaks.
struct PeakFileHead {
    std::array<int, 3> size{};  ///< voxels along x, y, z
    double firstTilt = 0.0;     ///< degrees
    double lastTilt = 0.0;
    double pixelSize = 0.0;  ///< 1/m per voxel; 0 is unknown
};

/// Reflections of which the positions are known, perhaps with intensities.
struct PeakList {
    ReflexVectorPtr reflections;
    std::optional<PeakFileHead> head;  ///< of a peak file; plain lists have none
    /// The place of 000 in the reflections' coordinates: the centre of the volume for a peak file (voxel
    /// coordinates), 0, 0, 0 for a plain list.
    std::array<double, 3> origin{};
    /// Every reflection has an intensity of its own; without, all have 1.
    bool hasIntensities = false;
};

/// Reads a peak file or, when the first line is none of a peak file, a plain list: x y z and perhaps an
/// intensity a line, separated by blanks, tabs, commas or semicolons; further columns, empty lines and lines
/// that begin with a number sign are skipped. Throws Failure when the file cannot be read, names the line
/// that is not understood, and (NothingFound) when it holds no reflection.
PeakList readPeaks(const std::filesystem::path& path);

}  // namespace vrk
