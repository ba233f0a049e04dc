#include "pipeline/run/Run.h"

#include <chrono>
#include <utility>

namespace vrk {
namespace {

/// The result of a function; its time is added to the seconds.
template <typename Function>
auto timed(double& seconds, Function function) {
    const auto start = std::chrono::steady_clock::now();
    auto result = function();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

}  // namespace

RunResult run(const std::filesystem::path& path, const RunOptions& options, Session& session) {
    const auto start = std::chrono::steady_clock::now();
    RunSeconds s;
    Series series = timed(s.read, [&] { return loadSeries(path, options, session); });
    CentredSeries centred = timed(s.preprocess, [&] { return centre(std::move(series), session); });
    TiltAxis axis = timed(s.tiltAxis, [&] { return findAxis(centred, options.axis, session); });
    CentredSeries rotated = timed(s.preprocess, [&] { return rotate(std::move(centred), axis, session); });
    ReciprocalVolume volume = timed(s.reconstruct, [&] { return reconstruct(std::move(rotated), session); });
    std::vector<Level> levels =
        timed(s.search, [&] { return searchLevels(volume, options.search, session); });
    LatticeChoice lattice = timed(s.cell, [&] { return findLattice(levels, volume, options.cell, session); });
    Indexed indexed =
        timed(s.index, [&] { return indexReflections(std::move(levels), lattice, volume, session); });
    s.total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return {std::move(axis), std::move(volume), std::move(lattice), std::move(indexed), s};
}

}  // namespace vrk
