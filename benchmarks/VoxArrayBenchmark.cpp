// Whole-array operations against a flat loop over one contiguous array, interpolation and histogram
// against their rules written down directly. Ratios of times within one run are what counts.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <random>
#include <vector>

#include "VoxCore/DataModel/VoxArray/VoxArray.h"
#include "VoxCore/DataModel/VoxHistogram.h"

namespace {

constexpr unsigned kEdge = 256;
constexpr unsigned kDepth = 64;
constexpr std::size_t kElements = std::size_t{kEdge} * kEdge * kDepth;

template <typename T>
using Array = std::unique_ptr<VoxArray<T>>;

/// Grey values of a pattern: a low background with some noise and a few strong pixels.
short greyValue(std::mt19937& random) {
    const auto r = static_cast<unsigned>(random());
    return static_cast<short>(r % 1000 == 0 ? r >> 17 : 100 + (r >> 8) % 60);
}

Array<short> stack(StorageMethod method = Storage_BySlice) {
    Array<short> array(VoxArray<short>::Create3D(kEdge, kEdge, kDepth, method));
    std::mt19937 random(1);
    for (unsigned c = 0; c < array->GetChunkCount(); ++c)
        std::generate_n(array->GetChunkPointer(c), array->GetChunkSize(), [&] { return greyValue(random); });
    return array;
}

std::vector<short> flat(const VoxArray<short>& array) {
    std::vector<short> values;
    for (unsigned c = 0; c < array.GetChunkCount(); ++c)
        values.insert(values.end(), array.GetChunkPointer(c),
                      array.GetChunkPointer(c) + array.GetChunkSize());
    return values;
}

/// Times a loop over two arrays of values: once flat, once through the array.
template <typename FlatLoop>
void runFlat(benchmark::State& state, FlatLoop loop) {
    std::vector<short> a = flat(*stack());
    const std::vector<short> b = a;
    for (auto _ : state) {
        loop(a, b);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}

template <typename Operation>
void runArray(benchmark::State& state, Operation operation) {
    const Array<short> a = stack();
    const Array<short> b(a->Clone());
    for (auto _ : state) {
        operation(*a, *b);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}

using Values = std::vector<short>;
using Shorts = VoxArray<short>;

void addFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values& b) {
        for (std::size_t i = 0; i < a.size(); ++i)
            a[i] = static_cast<short>(a[i] + b[i]);
    });
}
void addArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts& b) { a += b; });
}
void scaleFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values&) {
        for (short& v : a)
            v = static_cast<short>(v * 3);
    });
}
void scaleArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts&) { a *= short{3}; });
}
void divideFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values& b) {
        for (std::size_t i = 0; i < a.size(); ++i)
            a[i] = static_cast<short>(a[i] / b[i]);
    });
}
void divideArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts& b) { a /= b; });
}
void limitFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values&) {
        for (short& v : a)
            v = v < 120 ? short{120} : v;
    });
}
void limitArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts&) { a.LimitMinValue(120, 120); });
}
void sumFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values&) {
        short sum = 0;
        for (const short v : a)
            sum = static_cast<short>(sum + v);
        benchmark::DoNotOptimize(sum);
    });
}
void sumArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts&) { benchmark::DoNotOptimize(a.Sum()); });
}
void minimumFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values&) {
        short best = a.front();
        for (const short v : a)
            best = v < best ? v : best;
        benchmark::DoNotOptimize(best);
    });
}
void minimumArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts&) { benchmark::DoNotOptimize(a.GetMinValue({})); });
}
void minimumExcludingFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values&) {
        const std::vector<short> excluded{100, 101};
        short best = 32767;
        for (const short v : a)
            if (std::find(excluded.begin(), excluded.end(), v) == excluded.end()) best = std::min(best, v);
        benchmark::DoNotOptimize(best);
    });
}
void minimumExcludingArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts&) { benchmark::DoNotOptimize(a.GetMinValue({100, 101})); });
}
void equalFlat(benchmark::State& state) {
    runFlat(state, [](Values& a, const Values& b) { benchmark::DoNotOptimize(a == b); });
}
void equalArray(benchmark::State& state) {
    runArray(state, [](Shorts& a, const Shorts& b) { benchmark::DoNotOptimize(a == b); });
}

/// The three passes that the definition of the histogram describes.
void histogramByRule(benchmark::State& state) {
    const std::vector<short> values = flat(*stack());
    const std::vector<short> excluded{0};
    const auto counts = [&](short v) {
        return std::find(excluded.begin(), excluded.end(), v) == excluded.end();
    };
    std::vector<unsigned> bins(256);
    for (auto _ : state) {
        int low = 32767;
        int high = -32768;
        for (const short v : values)
            if (counts(v)) low = std::min<int>(low, v);
        for (const short v : values)
            if (counts(v)) high = std::max<int>(high, v);
        for (const short v : values)
            if (counts(v)) ++bins[static_cast<std::size_t>((v - low) * 255 / (high - low))];
        benchmark::DoNotOptimize(bins.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}
void histogram(benchmark::State& state) {
    const Array<short> array = stack();
    VoxHistogram<short> grey(array.get(), 256, {0});
    std::cout.setstate(std::ios::failbit);
    for (auto _ : state)
        grey.Update();
    std::cout.clear();
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}

/// An oblique line of samples through the volume.
template <typename Sample>
void runSamples(benchmark::State& state, StorageMethod method, Sample sample) {
    const Array<short> array = stack(method);
    constexpr int kSamples = 100000;
    for (auto _ : state) {
        int sum = 0;
        for (int i = 0; i < kSamples; ++i) {
            const auto t = static_cast<float>(i);
            sum += sample(*array, 1 + t * 0.0025f, 3 + t * 0.0024f, 2 + t * 0.0006f);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kSamples);
}

short sampleByRule(const Shorts& a, float px, float py, float pz) {
    const float x = px + 1e-6f;
    const float y = py + 1e-6f;
    const float z = pz + 1e-6f;
    const auto x0 = static_cast<unsigned>(std::floor(x));
    const auto y0 = static_cast<unsigned>(std::floor(y));
    const auto z0 = static_cast<unsigned>(std::floor(z));
    const auto x1 = static_cast<unsigned>(std::ceil(x));
    const auto y1 = static_cast<unsigned>(std::ceil(y));
    const auto z1 = static_cast<unsigned>(std::ceil(z));
    const double u = x - static_cast<float>(x0);
    const double v = y - static_cast<float>(y0);
    const double w = z - static_cast<float>(z0);
    const auto plane = [&](unsigned k) {
        return (a.GetValue(x1, y0, k) * u + a.GetValue(x0, y0, k) * (1 - u)) * (1 - v) +
               (a.GetValue(x1, y1, k) * u + a.GetValue(x0, y1, k) * (1 - u)) * v;
    };
    return static_cast<short>(plane(z1) * w + plane(z0) * (1 - w));
}
void trilinearByRule(benchmark::State& state) {
    runSamples(state, Storage_BySlice, sampleByRule);
}
void trilinear(benchmark::State& state, StorageMethod method) {
    runSamples(state, method, [](const Shorts& a, float x, float y, float z) { return a.GetValue(x, y, z); });
}

/// A turn about z by the right angle and a shift: the maps that a matrix of short can hold.
Array<short> turn() {
    Array<short> map(Shorts::CreateMatrix(3, 4, Storage_Auto));
    map->SetValue(1, 0, 1);
    map->SetValue(-1, 1, 0);
    map->SetValue(kEdge - 1, 1, 3);
    map->SetValue(1, 2, 2);
    return map;
}
void transformByRule(benchmark::State& state) {
    const Array<short> array = stack();
    const Array<short> map = turn();
    const Array<short> target(array->Clone());
    for (auto _ : state) {
        for (unsigned z = 0; z < kDepth; ++z) {
            for (unsigned y = 0; y < kEdge; ++y) {
                for (unsigned x = 0; x < kEdge; ++x) {
                    float p[3];
                    for (unsigned r = 0; r < 3; ++r)
                        p[r] = static_cast<float>(map->GetValue(r, 0U) * static_cast<double>(x) +
                                                  map->GetValue(r, 1U) * static_cast<double>(y) +
                                                  map->GetValue(r, 2U) * static_cast<double>(z) +
                                                  map->GetValue(r, 3U));
                    const bool inside = array->Inside(p[0], p[1], p[2]);
                    target->SetValue(inside ? sampleByRule(*array, p[0], p[1], p[2]) : short{0}, x, y, z);
                }
            }
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}
void transform(benchmark::State& state) {
    const Array<short> array = stack();
    const Array<short> map = turn();
    for (auto _ : state)
        benchmark::DoNotOptimize(Array<short>(array->GetTransformedVolume(*map)).get());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kElements));
}

}  // namespace

BENCHMARK(addFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(addArray)->Unit(benchmark::kMillisecond);
BENCHMARK(scaleFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(scaleArray)->Unit(benchmark::kMillisecond);
BENCHMARK(divideFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(divideArray)->Unit(benchmark::kMillisecond);
BENCHMARK(limitFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(limitArray)->Unit(benchmark::kMillisecond);
BENCHMARK(sumFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(sumArray)->Unit(benchmark::kMillisecond);
BENCHMARK(minimumFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(minimumArray)->Unit(benchmark::kMillisecond);
BENCHMARK(minimumExcludingFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(minimumExcludingArray)->Unit(benchmark::kMillisecond);
BENCHMARK(equalFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(equalArray)->Unit(benchmark::kMillisecond);
BENCHMARK(histogramByRule)->Unit(benchmark::kMillisecond);
BENCHMARK(histogram)->Unit(benchmark::kMillisecond);
BENCHMARK(trilinearByRule)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(trilinear, bySlice, Storage_BySlice)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(trilinear, interleaved, Storage_Interleaved)->Unit(benchmark::kMillisecond);
BENCHMARK(transformByRule)->Unit(benchmark::kMillisecond);
BENCHMARK(transform)->Unit(benchmark::kMillisecond);
