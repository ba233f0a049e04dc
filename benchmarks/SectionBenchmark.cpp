// A 1024 x 1024 section and the projections of a 512 x 512 x 444 volume.
#include <benchmark/benchmark.h>

#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "crystallography/UnitCell.h"
#include "visualisation/ReciprocalSection.h"
#include "visualisation/VolumeProjection.h"

namespace {

std::unique_ptr<VoxMRCData> noisyVolume() {
    std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(512, 512, 444));
    unsigned state = 1;
    for (unsigned z = 0; z < volume->GetDepth(); ++z) {
        short* voxels = volume->GetChunkPointer(z);
        for (unsigned i = 0; i < volume->GetChunkSize(); ++i) {
            state = state * 1664525u + 1013904223u;
            voxels[i] = static_cast<short>(state >> 24);
        }
    }
    return volume;
}

void section(benchmark::State& state) {
    const auto volume = noisyVolume();
    const double a[3] = {9.0, 2.0, 1.0};
    const double b[3] = {-1.0, 8.0, 3.0};
    const double c[3] = {1.0, -2.0, 10.0};
    const UnitCell cell(a, b, c, 1.0, false, true, LATTICE::aP);
    const ReciprocalSection cut(*volume, cell, {255.5, 255.5, 221.5});
    ReciprocalSection::Settings settings;
    settings.thickness = static_cast<double>(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(cut.sample(settings));
}
BENCHMARK(section)->Arg(0)->Arg(2)->Unit(benchmark::kMillisecond);

void projection(benchmark::State& state) {
    const auto volume = noisyVolume();
    for (auto _ : state)
        benchmark::DoNotOptimize(VolumeProjection::maximumAlong(*volume, static_cast<int>(state.range(0))));
}
BENCHMARK(projection)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace
