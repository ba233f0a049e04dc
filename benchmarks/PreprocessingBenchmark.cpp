// The steps of the preprocessing on patterns of 512 x 512 pixels, in patterns a second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "processing/RecordedPixels.h"
#include "processing/VoxMRCstemProcessing.h"

namespace {

constexpr unsigned kSize = 512;
constexpr unsigned kPatterns = 60;

using Data = std::unique_ptr<VoxMRCData>;

/// Beam with a halo, reflections, hot pixels and counting noise; the centre drifts.
Data makeSeries() {
    Data series(VoxMRCData::Create3D(kSize, kSize, kPatterns));
    std::mt19937 random(1);
    for (unsigned i = 0; i < kPatterns; ++i) {
        series->m_Header.setValue(SliceValue::TiltAngle, static_cast<int>(i), static_cast<float>(i) - 10.0F);
        const double cx = 258.3 + 0.2 * i;
        const double cy = 252.1 - 0.1 * i;
        short* pixels = series->GetChunkPointer(i);
        for (unsigned y = 0; y < kSize; ++y)
            for (unsigned x = 0; x < kSize; ++x) {
                const double r = std::hypot(x - cx, y - cy);
                const double u = std::remainder(x - cx, 23.0);
                const double v = std::remainder(y - cy, 31.0);
                const double expected = 5 + 900 * std::exp(-r / 18) + 30000 * std::exp(-r * r / 40) +
                                        (r > 20 ? 200 * std::exp(-(u * u + v * v) / 3) : 0);
                const double value = std::normal_distribution<double>(expected, std::sqrt(expected))(random);
                pixels[y * kSize + x] = static_cast<short>(std::clamp(std::round(value), 0.0, 30000.0));
            }
        for (int hot = 0; hot < 50; ++hot)
            pixels[random() % (kSize * kSize)] = 8000;
    }
    return series;
}

VoxMRCData* cleaned(VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.HotSpotFilterImageStack(s);
}
VoxMRCData* centred(VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.step2_CenterShift(s);
}
VoxMRCData* withoutBackground(VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.step1_BackgroundSubstraction(s);
}
VoxMRCData* smoothed(VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.smooth(s);
}
VoxMRCData* rotated(VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.step3_Rotation2TiltAxis(s, true, 37.0, 0);
}
VoxMRCData* halved(VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.DownsampleImageStack(s, true, 0);
}
VoxMRCData* allSteps(VoxMRCstemProcessing& p, VoxMRCData* series) {
    Data data(p.HotSpotFilterImageStack(series));
    for (const auto& step : {centred, withoutBackground, smoothed, rotated, halved})
        data.reset(step(p, data.get()));
    return data.release();
}

/// What a run does with its frames, a new series a step.
Data prepared(VoxMRCstemProcessing& p, Data series) {
    series.reset(p.HotSpotFilterImageStack(series.get()));
    series.reset(p.step2_CenterShift(series.get()));
    return Data(p.step1_BackgroundSubstraction(series.get()));
}
/// The same in the memory of the series.
Data preparedInPlace(VoxMRCstemProcessing& p, Data series) {
    std::vector<PatternCentre> centres;
    series.reset(p.removeHotSpots(std::move(series)));
    p.findCentres(series.get(), centres);
    series.reset(p.centreInPlace(std::move(series), centres));
    return Data(p.subtractBackground(std::move(series), {}));
}

void prepare(benchmark::State& state, Data (*operation)(VoxMRCstemProcessing&, Data)) {
    static const Data series = makeSeries();
    VoxMRCstemProcessing processing;
    for (auto _ : state) {
        state.PauseTiming();
        Data copy(VoxMRCData::Create3D(kSize, kSize, kPatterns));
        *copy = *series;
        state.ResumeTiming();
        const Data result = operation(processing, std::move(copy));
    }
    state.SetItemsProcessed(state.iterations() * kPatterns);
}

void run(benchmark::State& state, VoxMRCData* (*operation)(VoxMRCstemProcessing&, VoxMRCData*)) {
    static const Data series = makeSeries();
    VoxMRCstemProcessing processing;
    for (auto _ : state)
        const Data result(operation(processing, series.get()));
    state.SetItemsProcessed(state.iterations() * kPatterns);
}

}  // namespace

BENCHMARK_CAPTURE(run, hot_spots, cleaned)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, centre, centred)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, background, withoutBackground)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, smooth, smoothed)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, rotation, rotated)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, downsample, halved)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare, new_series, prepared)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(prepare, in_place, preparedInPlace)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, all_steps, allSteps)->Unit(benchmark::kMillisecond);
