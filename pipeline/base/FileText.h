/// \file
/// Files that are read as a whole.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vrk {

/// All bytes of a file; none where it cannot be read to its end, is no file, or holds more than 1 GB, which
/// no text of the project does (devices have no end).
std::optional<std::string> wholeFile(const std::filesystem::path& path);

/// The same; throws Failure with the path where there are none.
std::string textOfFile(const std::filesystem::path& path);

}  // namespace vrk
