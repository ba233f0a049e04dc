/// \file
/// One search for reflections at a time.
#pragma once

#include <mutex>

namespace vrk {

/// Held by whoever searches a volume for reflections: the core compares voxels with a value that is the
/// process' own, and two searches at once would share one threshold.
[[nodiscard]] std::unique_lock<std::mutex> lockSearch();

}  // namespace vrk
