/// \file
/// What the directories of a TIFF file say about its pages.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace vrk {

struct TiffPage {
    long long width = 0;  ///< 0 when the directory does not say
    long long height = 0;
};

/// Follows the chain of directories (Adobe, TIFF revision 6.0, section 2; also the 64-bit variant) without
/// touching the pixels, so that sizes are known before memory is taken. Stops at the first directory that
/// cannot be read, so the result of a damaged file is shorter or empty; never longer than a 100,000 pages.
std::vector<TiffPage> readTiffPages(const std::filesystem::path& path);

}  // namespace vrk
