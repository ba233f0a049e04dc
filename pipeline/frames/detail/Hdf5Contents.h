/// \file
/// Where in an HDF5 file the frames lie and what it says about them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/detail/Hdf5Access.h"

namespace vrk::detail {

/// An array that holds frames.
struct Hdf5Stack {
    std::string path;
    int axis = 0;  ///< the dimension that counts frames, for three of them
    int count = 0;
};

struct Hdf5Contents {
    std::vector<Hdf5Stack> stacks;
    std::vector<FrameInfo> infos;              ///< one a frame, sizes included
    std::vector<float> mask;                   ///< not 0 where a pixel is dead; empty when none is stated
    bool largestIsDead = false;                ///< unsigned pixels with all bits set are dead
    std::vector<std::filesystem::path> parts;  ///< files that links lead to
    std::string problem;                       ///< why there are no frames
};

/// Knows NeXus files (NXmx and what detectors of that kind write), with data in other files behind links; EMD
/// files of the layout with emd_group_type and of that with /Data/Image; and otherwise takes the largest
/// array of three dimensions, or of two when there is none of three. The slowest dimension counts the frames,
/// except where the file names another as an angle. \param inside  the path of an array or of a group that
/// holds it; empty: the whole file
Hdf5Contents contentsOf(const Hdf5Id& file, const FrameSource& source);

}  // namespace vrk::detail
