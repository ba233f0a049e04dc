/// \file
/// Cells of a session clustered: crystals of four phases with errors of measurement and some garbage, and, as
/// the worst case, as many unrelated cells. Time is to grow about linearly with the crystals.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "pipeline/merging/CellClusters.h"

namespace {

using vrk::CrystalCell;

std::vector<CrystalCell> session(std::size_t crystals, double garbage) {
    const std::vector<CrystalCell> phases = {{{11.9, 11.9, 11.9, 90, 90, 90}, 'I'},
                                             {{5.1, 8.2, 14.9, 90, 90, 90}, 'P'},
                                             {{9.7, 6.4, 11.9, 90, 104.5, 90}, 'P'},
                                             {{6, 7, 8, 91, 99, 95}, 'P'}};
    std::mt19937 engine(3);
    std::normal_distribution<double> error;
    std::uniform_real_distribution<double> uniform;
    std::vector<CrystalCell> list;
    for (std::size_t i = 0; i < crystals; ++i) {
        CrystalCell one = phases[i % phases.size()];
        if (uniform(engine) < garbage)
            for (std::size_t k = 0; k < 3; ++k)
                one.cell[k] = 4 + 20 * uniform(engine);
        for (std::size_t k = 0; k < 3; ++k) {
            one.cell[k] *= 1 + 0.004 * error(engine);
            one.cell[k + 3] += 0.3 * error(engine);
        }
        list.push_back(one);
    }
    return list;
}

void cluster(benchmark::State& state, double garbage) {
    const auto crystals = session(static_cast<std::size_t>(state.range(0)), garbage);
    vrk::CellClustering result;
    for (auto _ : state)
        benchmark::DoNotOptimize(result = vrk::clusterCells(crystals));
    state.counters["clusters"] = static_cast<double>(result.clusters.size());
    state.counters["resolution"] = result.resolution;
}
BENCHMARK_CAPTURE(cluster, phases, 0.1)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(cluster, unrelated, 1.0)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
