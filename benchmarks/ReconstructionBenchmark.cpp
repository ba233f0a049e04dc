// The reconstruction of a usual series, and as its measure one memcpy of the volume it makes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <random>

#include "processing/VoxMRCstemProcessing.h"

namespace {

constexpr unsigned kPatterns = 121;

std::unique_ptr<VoxMRCData> makeSeries(unsigned size) {
    std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(size, size, kPatterns));
    std::mt19937 random(1);
    std::poisson_distribution<int> background(8);
    for (unsigned i = 0; i < kPatterns; ++i) {
        series->m_Header.setValue(SliceValue::TiltAngle, static_cast<int>(i), static_cast<float>(i) - 60.0F);
        short* pixels = series->GetChunkPointer(i);
        for (unsigned p = 0; p < series->GetChunkSize(); ++p)
            pixels[p] =
                static_cast<short>(background(random) - 8 + (random() % 500 == 0 ? random() % 3000 : 0));
    }
    return series;
}

void copyVolume(benchmark::State& state) {
    const auto size = static_cast<unsigned>(state.range(0));
    const auto series = makeSeries(size);
    VoxMRCstemProcessing processing;
    const std::unique_ptr<VoxMRCData> volume(processing.recoByAngle(series.get(), 0, 0, true));
    const std::unique_ptr<VoxMRCData> copy(VoxMRCData::Create3D(size, size, volume->GetDepth()));
    const auto copyAll = [&] {
        for (unsigned z = 0; z < volume->GetDepth(); ++z)
            std::memcpy(copy->GetChunkPointer(z), volume->GetChunkPointer(z),
                        volume->GetChunkSize() * sizeof(short));
    };
    copyAll();  // the target's pages are there when the time is taken
    for (auto _ : state)
        copyAll();
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(volume->GetDataSize()) * 2);
}

void reconstruct(benchmark::State& state) {
    const auto series = makeSeries(static_cast<unsigned>(state.range(0)));
    VoxMRCstemProcessing processing;
    std::size_t voxels = 0;
    std::cout.setstate(std::ios::failbit);  // the histogram tells of itself
    // The machine has provided the memory once when the time is taken.
    std::unique_ptr<VoxMRCData>(processing.recoByAngle(series.get(), 0, 0, true));
    for (auto _ : state) {
        const std::unique_ptr<VoxMRCData> volume(processing.recoByAngle(series.get(), 0, 0, true));
        voxels = volume->GetDataSize();
    }
    std::cout.clear();
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(voxels) * 2);
}

}  // namespace

BENCHMARK(copyVolume)->Arg(512)->Arg(1024)->Unit(benchmark::kMillisecond);
BENCHMARK(reconstruct)->Arg(512)->Arg(1024)->Unit(benchmark::kMillisecond);
