// The reconstruction of a usual series, and as its measure one memcpy of the volume it makes.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <random>

#include "processing/VoxMRCstemProcessing.h"

namespace {

constexpr unsigned kPatterns = 121;

/// What a loop takes of the processor itself, and in the system, which provides memory there.
class ProcessorTimes {
public:
    void tell(benchmark::State& state) const {
        const rusage now = usage();
        const auto each = [&](const timeval& from, const timeval& to) {
            const double microseconds = 1e6 * static_cast<double>(to.tv_sec - from.tv_sec) +
                                        static_cast<double>(to.tv_usec - from.tv_usec);
            return 1e-3 * microseconds / static_cast<double>(state.iterations());
        };
        state.counters["user_ms"] = each(m_start.ru_utime, now.ru_utime);
        state.counters["system_ms"] = each(m_start.ru_stime, now.ru_stime);
    }

private:
    static rusage usage() {
        rusage now{};
        getrusage(RUSAGE_SELF, &now);
        return now;
    }
    rusage m_start = usage();
};

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

/// The same into memory that the system has yet to provide, as a reconstruction has it.
void copyVolumeToNewMemory(benchmark::State& state) {
    const auto size = static_cast<unsigned>(state.range(0));
    const auto series = makeSeries(size);
    VoxMRCstemProcessing processing;
    const std::unique_ptr<VoxMRCData> volume(processing.recoByAngle(series.get(), 0, 0, true));
    const ProcessorTimes times;
    for (auto _ : state) {
        const std::unique_ptr<VoxMRCData> copy(VoxMRCData::Create3D(size, size, volume->GetDepth()));
        for (unsigned z = 0; z < volume->GetDepth(); ++z)
            std::memcpy(copy->GetChunkPointer(z), volume->GetChunkPointer(z),
                        volume->GetChunkSize() * sizeof(short));
    }
    times.tell(state);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(volume->GetDataSize()) * 2);
}

void reconstruct(benchmark::State& state) {
    const auto series = makeSeries(static_cast<unsigned>(state.range(0)));
    VoxMRCstemProcessing processing;
    std::size_t voxels = 0;
    std::cout.setstate(std::ios::failbit);  // the histogram tells of itself
    // The machine has provided the memory once when the time is taken.
    std::unique_ptr<VoxMRCData>(processing.recoByAngle(series.get(), 0, 0, true));
    const ProcessorTimes times;
    for (auto _ : state) {
        const std::unique_ptr<VoxMRCData> volume(processing.recoByAngle(series.get(), 0, 0, true));
        voxels = volume->GetDataSize();
    }
    times.tell(state);
    std::cout.clear();
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(voxels) * 2);
}

}  // namespace

BENCHMARK(copyVolume)->Arg(512)->Arg(1024)->Unit(benchmark::kMillisecond);
BENCHMARK(copyVolumeToNewMemory)->Arg(512)->Arg(1024)->Unit(benchmark::kMillisecond);
BENCHMARK(reconstruct)->Arg(512)->Arg(1024)->Unit(benchmark::kMillisecond);
