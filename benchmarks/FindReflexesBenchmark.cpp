/// The reflection search against one counting pass over the same volume, on volumes as the reconstruction
/// makes them and on one in which a threshold set far too low leaves 30 % foreground.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "reflections/FindReflexes.h"

namespace {

constexpr short kThreshold = 25;

std::unique_ptr<VoxMRCData> emptyVolume(unsigned edge, unsigned depth) {
    return std::unique_ptr<VoxMRCData>(VoxMRCData::Create3D(edge, edge, depth));
}

/// Noise below the threshold and `count` round spots above it.
const VoxMRCData& spotVolume(unsigned edge, unsigned depth, int count) {
    static std::unique_ptr<VoxMRCData> volume;
    if (volume && volume->GetWidth() == edge) return *volume;
    volume.reset();
    volume = emptyVolume(edge, depth);
    std::minstd_rand random(1);
    for (unsigned z = 0; z < depth; ++z)
        std::generate_n(volume->GetChunkPointer(z), volume->GetChunkSize(),
                        [&] { return static_cast<short>(random() >> 8 & 15U); });
    constexpr int radius = 3;
    const int size = static_cast<int>(edge);
    for (int spot = 0; spot < count; ++spot) {
        const int cx = radius + static_cast<int>(random() % (edge - 2 * radius));
        const int cy = radius + static_cast<int>(random() % (edge - 2 * radius));
        const int cz = radius + static_cast<int>(random() % (depth - 2 * radius));
        for (int x = -radius; x <= radius; ++x)
            for (int y = -radius; y <= radius; ++y)
                for (int z = -radius; z <= radius; ++z)
                    volume->GetChunkPointer(static_cast<unsigned>(cz + z))[(cx + x) * size + cy + y] =
                        static_cast<short>(500.0 * std::exp(-0.5 * (x * x + y * y + z * z)));
    }
    return *volume;
}

const VoxMRCData& denseVolume(unsigned edge, unsigned depth) {
    static std::unique_ptr<VoxMRCData> volume;
    if (volume && volume->GetWidth() == edge) return *volume;
    volume = emptyVolume(edge, depth);
    std::minstd_rand random(1);
    for (unsigned z = 0; z < depth; ++z)
        std::generate_n(volume->GetChunkPointer(z), volume->GetChunkSize(),
                        [&] { return static_cast<short>((random() >> 8) % 100 < 30 ? 60 : 3); });
    return *volume;
}

long countForeground(const VoxMRCData& volume) {
    long count = 0;
    for (unsigned z = 0; z < volume.GetChunkCount(); ++z) {
        const short* slice = volume.GetChunkPointer(z);
        count += std::count_if(slice, slice + volume.GetChunkSize(), [](short v) { return v >= kThreshold; });
    }
    return count;
}

void search(benchmark::State& state, const VoxMRCData& volume, int maxVoxels) {
    Parameter parameter;
    parameter.setThreshold(kThreshold);
    parameter.setMaxCountOfVoxel(maxVoxels);
    std::size_t found = 0;
    for (auto _ : state) {
        const ReflexVectorPtr list(
            FindReflexes().findAllReflexes(const_cast<VoxMRCData*>(&volume), &parameter, true, nullptr));
        found = list->size();
    }
    state.counters["reflections"] = static_cast<double>(found);
    state.counters["foreground"] = static_cast<double>(countForeground(volume));
}

void countSpots(benchmark::State& state) {
    const VoxMRCData& volume =
        spotVolume(static_cast<unsigned>(state.range(0)), static_cast<unsigned>(state.range(1)), 3000);
    for (auto _ : state)
        benchmark::DoNotOptimize(countForeground(volume));
}

void searchSpots(benchmark::State& state) {
    search(state,
           spotVolume(static_cast<unsigned>(state.range(0)), static_cast<unsigned>(state.range(1)), 3000),
           100000);
}

void searchDense(benchmark::State& state) {
    search(state, denseVolume(static_cast<unsigned>(state.range(0)), static_cast<unsigned>(state.range(0))),
           static_cast<int>(state.range(1)));
}

/// A ladder of thresholds: a pass over the volume for each, and one for all.
void searchLevels(benchmark::State& state) {
    const VoxMRCData& volume = spotVolume(512, 444, 3000);
    Parameter parameter;
    for (auto _ : state) {
        FindReflexes finder;
        if (state.range(0) == 1) finder.lookThrough(&volume, kThreshold);
        for (int threshold = kThreshold; threshold < 500; threshold *= 2) {
            parameter.setThreshold(threshold);
            const ReflexVectorPtr list(
                finder.findAllReflexes(const_cast<VoxMRCData*>(&volume), &parameter, true, nullptr));
            benchmark::DoNotOptimize(list->size());
        }
    }
}

}  // namespace

BENCHMARK(searchLevels)->ArgName("once")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(countSpots)->Args({512, 444})->Unit(benchmark::kMillisecond);
BENCHMARK(searchSpots)->Args({512, 444})->Unit(benchmark::kMillisecond);
// 30 % foreground: with the usual size limit, and with every region kept.
BENCHMARK(searchDense)->Args({128, 100000})->Args({256, 100000})->Unit(benchmark::kMillisecond);
BENCHMARK(searchDense)->Args({128, 1000000000})->Args({256, 1000000000})->Unit(benchmark::kMillisecond);
BENCHMARK(countSpots)->Args({1024, 887})->Unit(benchmark::kMillisecond);
BENCHMARK(searchSpots)->Args({1024, 887})->Unit(benchmark::kMillisecond);
