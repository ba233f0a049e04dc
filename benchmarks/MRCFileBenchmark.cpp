// Reading and writing of a series of 121 patterns of 512 x 512 pixels, against a plain read of the same
// file into memory with one pass over the values, and a plain write. Ratios are those of one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"

namespace {

constexpr unsigned kSize = 512;
constexpr unsigned kSlices = 121;
constexpr std::size_t kDataBytes = 2UL * kSize * kSize * kSlices;

/// The series on disk, in the page cache, removed at the end. Values are those of a weak pattern: a
/// background with noise and some bright pixels.
class SeriesFile {
public:
    SeriesFile() : m_path(std::filesystem::temp_directory_path() / "vrk_benchmark.mrc") {
        const std::unique_ptr<VoxMRCData> data(VoxMRCData::Create3D(kSize, kSize, kSlices));
        data->m_Header.type = MRCType::TILT_SERIES;
        data->m_Header.next = kSlices * 144;
        std::mt19937 generator(1);
        std::poisson_distribution<int> background(12);
        std::uniform_int_distribution<int> bright(0, 20000);
        for (unsigned z = 0; z < kSlices; ++z) {
            data->m_Header.setValue(SliceValue::TiltAngle, static_cast<int>(z), static_cast<float>(z) - 60);
            short* slice = data->GetChunkPointer(z);
            for (std::size_t i = 0; i < data->GetChunkSize(); ++i) {
                const int value = background(generator) + (i % 97 == 0 ? bright(generator) : 0);
                slice[i] = static_cast<short>(value);
            }
        }
        VoxMRCFileHandler().writeMRCFile(data.get(), m_path.string());
    }
    ~SeriesFile() { std::filesystem::remove(m_path); }
    SeriesFile(const SeriesFile&) = delete;
    SeriesFile& operator=(const SeriesFile&) = delete;

    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

const SeriesFile& seriesFile() {
    static const SeriesFile file;
    return file;
}

/// Library classes narrate on the standard output, where the results of the benchmark belong.
class SilentOutput {
public:
    SilentOutput() : m_stdout(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~SilentOutput() {
        std::cout.flush();
        dup2(m_stdout, STDOUT_FILENO);
        close(m_stdout);
    }
    SilentOutput(const SilentOutput&) = delete;
    SilentOutput& operator=(const SilentOutput&) = delete;

private:
    int m_stdout;
};

/// Gives large blocks back to the system when they are freed, so that every turn reads into fresh memory
/// as a program does that reads one series.
const int freshMemory = mallopt(M_MMAP_THRESHOLD, 128 * 1024);

void plainRead(benchmark::State& state) {
    const std::string path = seriesFile().path();
    for (auto _ : state) {
        const std::size_t length = std::filesystem::file_size(path);
        const std::unique_ptr<char[]> bytes(new char[length]);
        std::FILE* file = std::fopen(path.c_str(), "rb");
        if (std::fread(bytes.get(), 1, length, file) != length) state.SkipWithError("short read");
        std::fclose(file);
        const auto* values = reinterpret_cast<const short*>(bytes.get() + (length - kDataBytes));
        short low = values[0];
        short high = values[0];
        for (std::size_t i = 0; i < kDataBytes / 2; ++i) {
            low = values[i] < low ? values[i] : low;
            high = values[i] > high ? values[i] : high;
        }
        benchmark::DoNotOptimize(low + high);
    }
}

void readMRCFile(benchmark::State& state) {
    const std::string path = seriesFile().path();
    const SilentOutput silent;
    for (auto _ : state) {
        const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().readMRCFile(path));
        benchmark::DoNotOptimize(data->m_Histogram->m_Bins.data());
    }
}

/// A memory figure of this process, bytes: VmRSS (now) or VmHWM (most since the last reset).
double memory(const std::string& figure) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.starts_with(figure + ":")) return 1024 * std::stod(line.substr(figure.size() + 1));
    return 0;
}

/// Counter memory_over_data: the most memory in use while reading, over the size of the data.
void readMRCFileMemory(benchmark::State& state) {
    const std::string path = seriesFile().path();
    const SilentOutput silent;
    double ratio = 0;
    for (auto _ : state) {
        const double before = memory("VmRSS");
        std::ofstream("/proc/self/clear_refs") << "5";
        const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().readMRCFile(path));
        ratio = (memory("VmHWM") - before) / static_cast<double>(kDataBytes);
    }
    state.counters["memory_over_data"] = ratio;
}

/// A volume of 512 x 512 x 121 voxels as a view of the given reduction. Counter memory_over_data as above.
void readView(benchmark::State& state, VoxVolumeData::Block block) {
    const std::string path = seriesFile().path() + ".volume";
    const SilentOutput silent;
    {
        const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().readMRCFile(seriesFile().path()));
        data->m_Header.type = MRCType::MRCVOLUME;
        data->m_Header.next = 0;
        VoxMRCFileHandler().writeMRCFile(data.get(), path);
    }
    double ratio = 0;
    for (auto _ : state) {
        const double before = memory("VmRSS");
        std::ofstream("/proc/self/clear_refs") << "5";
        const std::unique_ptr<VoxVolumeData> view(
            VoxMRCFileHandler().readMRCFile_asVolumeData(path, static_cast<int>(state.range(0)), block));
        ratio = (memory("VmHWM") - before) / static_cast<double>(kDataBytes);
    }
    state.counters["memory_over_data"] = ratio;
    std::filesystem::remove(path);
}

void plainWrite(benchmark::State& state) {
    const std::vector<short> values(kDataBytes / 2, 7);
    const std::string path = seriesFile().path() + ".out";
    for (auto _ : state) {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        std::fwrite(values.data(), 2, values.size(), file);
        std::fclose(file);
    }
    std::filesystem::remove(path);
}

void writeMRCFile(benchmark::State& state) {
    const SilentOutput silent;
    const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().readMRCFile(seriesFile().path()));
    const std::string path = seriesFile().path() + ".out";
    for (auto _ : state)
        VoxMRCFileHandler().writeMRCFile(data.get(), path);
    std::filesystem::remove(path);
}

}  // namespace

BENCHMARK(plainRead)->Unit(benchmark::kMillisecond);
BENCHMARK(readMRCFile)->Unit(benchmark::kMillisecond);
BENCHMARK(readMRCFileMemory)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(readView, means, VoxVolumeData::Block::Mean)
    ->RangeMultiplier(2)
    ->Range(1, 8)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(readView, maxima, VoxVolumeData::Block::Maximum)
    ->RangeMultiplier(2)
    ->Range(1, 8)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(plainWrite)->Unit(benchmark::kMillisecond);
BENCHMARK(writeMRCFile)->Unit(benchmark::kMillisecond);
