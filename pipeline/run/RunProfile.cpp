#include "pipeline/run/RunProfile.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <utility>

namespace vrk {
namespace {

double bytesOf(const VoxMRCData* data) {
    return data ? static_cast<double>(data->GetDepth()) * static_cast<double>(data->GetChunkSize()) *
                      sizeof(short)
                : 0.0;
}

/// Passes of a step over the frames of the series, those that come out of its preprocessing, and the volume.
struct Passes {
    double recorded = 0;
    double centred = 0;
    double volume = 0;
};

struct Traffic {
    Passes first;  ///< when it is done first
    Passes again;
    Passes needed;
};

/// The passes of the operations of the core, each of which reads a series and writes another one, and looks
/// at what it wrote for the limits in the header.
Traffic trafficOf(const std::string& name) {
    // Hot spots: two looks, a result. Centre: the mean, two looks, a result. Background: one result.
    constexpr Passes kPreprocess{.recorded = 7, .centred = 6};
    constexpr Passes kRotation{.centred = 3};
    // The volume is cleared before it is filled.
    constexpr Passes kReconstruction{.centred = 1, .volume = 2};
    constexpr Passes kSearch{.volume = 1};
    // Saturation, dead pixels, the spots and their coverage, over and over.
    constexpr Passes kIntegration{.recorded = 8};
    if (name == "read") return {{.recorded = 2}, {.recorded = 2}, {.recorded = 2}};
    if (name == "preprocess") return {kPreprocess, kRotation, {.recorded = 2, .centred = 1}};
    if (name == "reconstruct") return {kReconstruction, kReconstruction, {.centred = 1, .volume = 1}};
    if (name == "search") return {kSearch, kSearch, {.volume = 1}};
    if (name == "integrate") return {kIntegration, kIntegration, {.recorded = 1}};
    return {};
}

}  // namespace

double measuredCopyRate() {
    constexpr std::size_t kBytes = std::size_t{64} << 20;
    constexpr int kTries = 5;
    const std::vector<char> from(kBytes, 1);
    std::vector<char> to(kBytes, 2);
    double best = 0.0;
    for (int i = 0; i < kTries; ++i) {
        const auto start = std::chrono::steady_clock::now();
        std::memcpy(to.data(), from.data(), kBytes);
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        // What is copied must be looked at.
        if (to[static_cast<std::size_t>(i)] == 1) best = std::max(best, 2.0 * kBytes / seconds.count());
    }
    return best;
}

RunProfile profileOf(const RunResult& result, const Workers& workers, double copyRate) {
    const RunSeconds& seconds = result.seconds;
    const std::array<int, 3>& size = result.facts().size;
    const double recorded = static_cast<double>(size[0]) * static_cast<double>(size[1]) *
                            static_cast<double>(size[2]) * sizeof(short);
    const double edge = result.volume.voxels->GetWidth();
    const double centred = edge * edge * static_cast<double>(size[2]) * sizeof(short);
    const double volume = bytesOf(result.volume.voxels.get());
    const auto bytes = [&](const Passes& passes) {
        return passes.recorded * recorded + passes.centred * centred + passes.volume * volume;
    };
    RunProfile profile{copyRate, {}, workers.secondsAlone(), workers.loops()};
    const auto add = [&](const char* name, const StageCost& cost) {
        const Traffic traffic = trafficOf(name);
        StepProfile step{name, cost.times, cost.seconds};
        step.residentBytes = cost.resident * (1 << 20);
        if (cost.times > 0) {
            step.movedBytes = bytes(traffic.first) + (cost.times - 1) * bytes(traffic.again);
            step.neededBytes = cost.times * bytes(traffic.needed);
        }
        if (cost.seconds > 0.0 && copyRate > 0.0)
            step.shareOfCopying = step.neededBytes / cost.seconds / copyRate;
        profile.steps.push_back(std::move(step));
    };
    add("read", seconds.read);
    add("preprocess", seconds.preprocess);
    add("tilt_axis", seconds.tiltAxis);
    add("reconstruct", seconds.reconstruct);
    add("search", seconds.search);
    add("cell", seconds.cell);
    add("index", seconds.index);
    add("integrate", seconds.integrate);
    return profile;
}

}  // namespace vrk
