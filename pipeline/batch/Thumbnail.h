/// \file
/// A small picture of a result.
#pragma once

#include <filesystem>

namespace vrk {

/// Makes a PNG file of 96 x 96 pixels of the first of a result's sections and projections that is there. Does
/// nothing where the result has no pictures, or the small one cannot be written: it is an ornament.
void writeThumbnail(const std::filesystem::path& result, const std::filesystem::path& thumbnail);

}  // namespace vrk
