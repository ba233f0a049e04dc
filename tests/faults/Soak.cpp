// Many runs in one process: memory and descriptors stay as they are after the first ones, and every result is
// that of the first, also of two threads at once. Memory is judged from 100 runs on: what threads keep for
// the next time depends on which of them had how much to do. usage: soak [RUNS]
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>
#include <vector>

#include "pipeline/Pipeline.h"
#include "pipeline/base/MemoryLimit.h"

namespace {

vrk::TiltSeries smallSeries() {
    vrk::SimulationSettings settings;
    settings.cell = {5.2, 6.1, 4.6, 90, 105, 90};
    settings.dmin = 1.1;
    settings.detector.size = 80;
    settings.seed = 4;
    for (int tilt = -60; tilt <= 60; tilt += 4)
        settings.tilts.push_back(tilt);
    settings.stated.axis = true;
    settings.axis = 6;
    return vrk::simulate(settings).value().series;
}

/// Every number of a result that must not change.
std::vector<double> numbersOf(const vrk::RunResult& result) {
    std::vector<double> numbers;
    for (const vrk::CellRow& row : {vrk::conventionalCell(result), vrk::reducedCell(result)}) {
        numbers.insert(numbers.end(), row.cell.begin(), row.cell.end());
        numbers.insert(numbers.end(), row.sigma.begin(), row.sigma.end());
    }
    for (const vrk::ReflectionRow& row : vrk::reflectionRows(result))
        numbers.insert(numbers.end(),
                       {double(row.h), double(row.k), double(row.l), row.x, row.y, row.z, row.intensity});
    for (const vrk::ObservationRow& row : vrk::observationRows(result))
        numbers.insert(numbers.end(),
                       {double(row.h), double(row.k), double(row.l), row.intensity, row.sigma});
    return numbers;
}

struct State {
    std::size_t allocated;  ///< bytes; 0 under a sanitizer, which finds what is lost by itself
    std::size_t resident;   ///< told, not judged: an allocator may keep what it was given back
    long descriptors;
};

State now() {
    const auto files = std::filesystem::directory_iterator("/proc/self/fd");
    const auto heap = mallinfo2();
    return {heap.uordblks + heap.hblkhd, vrk::residentMemory(), std::distance(begin(files), end(files))};
}

bool print(int runs, const State& state) {
    return std::printf("%5d runs: %8.1f KiB allocated, %6.1f MiB resident, %ld descriptors\n", runs,
                       static_cast<double>(state.allocated) / 1024,
                       static_cast<double>(state.resident) / 1048576, state.descriptors) > 0;
}

/// \returns how many results differ from the first
int runsThatDiffer(const vrk::TiltSeries& series, const std::vector<double>& first, int runs) {
    int different = 0;
    for (int i = 0; i < runs; ++i)
        different += numbersOf(vrk::run(series).value()) != first;
    return different;
}

int soak(int runs) {
    const vrk::TiltSeries series = smallSeries();
    const std::vector<double> first = numbersOf(vrk::run(series).value());
    std::printf("%zu numbers a result\n", first.size());
    const int part = std::max(runs / 10, 4);
    int different = 0;
    State settled{};
    for (int done = 0; done < runs; done += part) {
        // Half of them in two threads at once.
        int here = 0, there = 0;
        std::thread other([&] { there = runsThatDiffer(series, first, part / 4); });
        here = runsThatDiffer(series, first, part / 4);
        other.join();
        different += here + there + runsThatDiffer(series, first, part - 2 * (part / 4));
        malloc_trim(0);
        const State state = now();
        print(done + part, state);
        if (done == 0) settled = state;
    }
    const State end = now();
    constexpr std::size_t kMoreAllocated = std::size_t{512} << 10;
    constexpr int kManyRuns = 100;
    const bool isFlat = (runs < kManyRuns || end.allocated <= settled.allocated + kMoreAllocated) &&
                        end.descriptors == settled.descriptors;
    std::printf("soak: %d results differ, memory and descriptors %s\n", different, isFlat ? "flat" : "GROW");
    return different == 0 && isFlat ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) try {
    return soak(count > 1 ? std::atoi(arguments[1]) : 2000);
} catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 1;
}
