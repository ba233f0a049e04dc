// One evaluation of a candidate angle, by either route. The series of the 3-D route has 121 patterns of 256 x
// 256 pixels, the lists of the 2-D route
// about 3000 and 9000 spots.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cellfinding/CalculateDiffVectors.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/Parameter.h"
#include "pipeline/simulation/Simulation.h"
#include "tiltaxis/FindReflexes2d.h"
#include "tiltaxis/VRKSphericalProjection.h"
#include "tiltaxis/VRKTiltAxisRefinement.h"

namespace {

std::unique_ptr<VoxMRCData> makeSeries(double cellFactor) {
    vrk::SimulationSettings settings;
    settings.cell = {cellFactor * 5.0, cellFactor * 6.0, cellFactor * 7.5, 90, 95, 90};
    settings.axis = 37.4;
    settings.detector.size = 256;
    settings.background.halo = 0;
    for (int tilt = -60; tilt <= 60; ++tilt)
        settings.tilts.push_back(tilt);
    return vrk::simulateSeries(settings).series;
}

/// Times scoreAngle() alone, behind the preparation of a search.
class TimedSearch : public VRKTiltAxisRefinement {
public:
    explicit TimedSearch(benchmark::State& state) : m_state(state) {}

protected:
    void evaluateAngles(const std::vector<float>& angles, const std::string&, bool mode3D) override {
        TiltAxisScore score;
        std::size_t next = 0;
        for (auto _ : m_state)
            score = scoreAngle(angles[next++ % angles.size()], mode3D);
        m_state.counters["reflections"] = score.reflexes;
        m_state.counters["vectors"] = static_cast<double>(score.diffVectors);
    }

private:
    benchmark::State& m_state;
};

std::filesystem::path makeFolder() {
    auto folder = std::filesystem::temp_directory_path() / "vrk_tilt_axis_benchmark";
    std::filesystem::create_directories(folder);
    return folder;
}

void evaluateVolume(benchmark::State& state) {
    const auto series = makeSeries(1.9);
    const std::filesystem::path folder = makeFolder();
    TimedSearch search(state);
    std::cout.setstate(std::ios::failbit);  // histograms tell of themselves
    search.searchTiltAxisManual3D(series.get(), "", folder.string(), 30, 44, 1.3);
    std::cout.clear();
    std::filesystem::remove_all(folder);
}

void evaluatePatterns(benchmark::State& state) {
    const auto series = makeSeries(1.0 + 0.01 * static_cast<double>(state.range(0)));
    const std::filesystem::path folder = makeFolder();
    TimedSearch search(state);
    const ReflexVectorPtr spots(FindReflexes2d().findAllReflexes(series.get()));
    state.counters["spots"] = static_cast<double>(spots->size());
    search.searchTiltAxisManual2D(series.get(), "", folder.string(), 30, 44, 1.3);
    std::filesystem::remove_all(folder);
}

/// The histogram of the directions between points that lie anywhere: from a list of all vectors, and from the
/// pairs.
void directions(benchmark::State& state) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> anywhere(0.0, 256.0);
    ReflexVector points;
    for (int i = 0; i < 1500; ++i)
        points.append(ReflexPtr(new Reflex(anywhere(random), anywhere(random), anywhere(random))));
    Parameter parameter;
    parameter.setMinLength(30.5);
    parameter.setMaxLength(1000.0);
    std::vector<int> image(512 * 512);
    int largest = 0;
    std::int64_t vectors = 0;
    for (auto _ : state) {
        std::fill(image.begin(), image.end(), 0);
        if (state.range(0) == 1) {
            benchmark::DoNotOptimize(VRKSphericalProjection::getSphericalHistoImageOfPairs(
                &points, &parameter, image.data(), 512, 512, &largest, &vectors, true));
            continue;
        }
        const std::unique_ptr<std::vector<ClusterPoint<double>*>> list(
            CalculateDiffVectors::calculateDiffVectors(&points, &parameter, nullptr, nullptr, true));
        VRKSphericalProjection::foldToHalfSpace(list.get());
        benchmark::DoNotOptimize(VRKSphericalProjection::getSphericalHistoImage(list.get(), image.data(), 512,
                                                                                512, &largest, true));
        for (auto* vector : *list)
            delete vector;
    }
}

}  // namespace

BENCHMARK(directions)->ArgName("pairs")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(evaluateVolume)->Unit(benchmark::kMillisecond);
BENCHMARK(evaluatePatterns)->Arg(0)->Arg(60)->Unit(benchmark::kMillisecond);
