/// Steps one to six of the cell finding on 3,000 reflections: the time of all six, and the memory that they
/// need at most, as bytes per difference vector.
#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <set>

#include "CountedMemory.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/CalculateCellAlgorithm.h"
#include "cellfinding/Parameter.h"
#include "crystallography/UnitCell.h"
#include "reflections/ReflexVector.h"

namespace {

/// A volume of 512 voxels along each axis with the reflections of a triclinic lattice, a missing wedge and
/// one wrong reflection in five.
ReflexVectorPtr makeReflections(std::size_t count) {
    std::mt19937 random(5);
    std::normal_distribution<double> noise(0.0, 0.3);
    std::uniform_real_distribution<double> place(-220.0, 220.0);
    const double base[3][3] = {{9.0, 1.0, 0.5}, {-2.0, 11.0, 0.7}, {0.4, -1.5, 14.0}};
    std::set<std::array<double, 3>> taken;
    ReflexVectorPtr list(new ReflexVector);
    while (list->size() < count) {
        double p[3] = {place(random), place(random), place(random)};
        if (std::hypot(p[0], p[1], p[2]) > 130.0 || std::abs(p[2]) > 1.7 * std::abs(p[0])) continue;
        if (list->size() % 5 != 0) {
            const double h = std::round(p[0] / 9.5), k = std::round(p[1] / 11.2), l = std::round(p[2] / 14.0);
            if (!taken.insert({h, k, l}).second) continue;
            for (int i = 0; i < 3; ++i)
                p[i] = h * base[0][i] + k * base[1][i] + l * base[2][i] + noise(random);
        }
        list->push_back(new Reflex(256.0 + p[0], 256.0 + p[1], 256.0 + p[2]));
    }
    return list;
}

void allSteps(benchmark::State& state) {
    const std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(512, 512, 1));
    const ReflexVectorPtr reflections = makeReflections(static_cast<std::size_t>(state.range(0)));
    int vectors = 0;
    std::size_t peak = 0;
    for (auto _ : state) {
        ReflexVector list(*reflections);
        Parameter parameter;
        parameter.setDBSCANEps(static_cast<double>(state.range(1)) / 10.0);
        parameter.setMinDistToZeroBeam(3.0);
        const counted_memory::Peak memory;
        CalculateCellAlgorithm algorithm;
        double seconds = algorithm.StepOne_CutOfZeroBeam(&list, volume.get(), &parameter);
        const std::unique_ptr<CubicGrid<ClusterPoint<double>>> grid(
            algorithm.StepTwo_CalcDiffVectors(&parameter, &list, &seconds));
        std::vector<Cluster<Point<double>>*> clusters;
        std::vector<ClusterPoint<double>*> noise;
        algorithm.StepThree_Clustering(&parameter, grid.get(), &clusters, &noise);
        ClusterPoint<double> a(3, -1), b(3, -1), c(3, -1);
        UnitCell cell;
        bool refined[3] = {};
        algorithm.StepFour_FindLinearIndependentVectors(&parameter, &cell, &clusters, &a, &b, &c);
        algorithm.StepFive_CalculateNiggliCell(&parameter, &a, &b, &c, &a, &b, &c);
        seconds = algorithm.StepSix_Refinement(&clusters, &a, &b, &c, &a, &b, &c, &refined[0], &refined[1],
                                               &refined[2]);
        if (seconds < 0.0) state.SkipWithError("no cell");
        vectors = grid->getNumberOfPoints();
        peak = memory.bytes();
        for (auto* cluster : clusters)
            delete cluster;
        for (auto* vector : noise)
            delete vector;
        list.clear();
    }
    state.counters["vectors"] = vectors;
    state.counters["bytes_per_vector"] = static_cast<double>(peak) / vectors;
}
// Arguments: reflections, radius of the clustering in tenths of a voxel.
BENCHMARK(allSteps)->Args({3000, 10})->Args({3000, 20})->Unit(benchmark::kMillisecond);

}  // namespace
