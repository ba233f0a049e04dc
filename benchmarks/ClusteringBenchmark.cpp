/// The three clusterings on the same difference vectors: in how many crystals steps four to six find the
/// lattice from the clusters (counter "lattices", of "crystals"), the time of the clustering alone, and the
/// most memory that it takes for one crystal, in MiB.
///
/// "--table" prints one line a crystal instead.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "CountedMemory.h"
#include "MadeReflections.h"
#include "cellfinding/CalculateCellAlgorithm.h"
#include "crystallography/UnitCell.h"
#include "reflections/ReflexVector.h"

namespace {

using made::cell;
using made::Crystal;
using made::Matrix3d;
using made::Vector3d;

Matrix3d centred(const Matrix3d& basis, char centring) {
    Matrix3d m = Matrix3d::Identity();  // reciprocal base of the primitive cell
    if (centring == 'I') m << 0, 1, 1, 1, 0, 1, 1, 1, 0;
    if (centring == 'F') m << -1, 1, 1, 1, -1, 1, 1, 1, -1;
    if (centring == 'C') m << 1, -1, 0, 1, 1, 0, 0, 0, 1;
    return basis * m;
}

std::vector<Crystal> crystals() {
    return {
        {"cubic", cell(10, 10, 10)},
        {"cubic I", centred(cell(7, 7, 7), 'I')},
        {"cubic F", centred(cell(7, 7, 7), 'F')},
        {"tetragonal", cell(8, 8, 15)},
        {"hexagonal", cell(9, 9, 14, 90, 90, 60)},
        {"orthorhombic", cell(8, 11, 14)},
        {"orthorhombic C", centred(cell(7, 9, 12), 'C')},
        {"monoclinic", cell(8, 11, 13, 90, 73, 90)},
        {"triclinic", cell(9, 10, 12.5, 83, 98, 104)},
        {"large cell", cell(5.5, 6, 7, 85, 80, 95)},
        {"small cell", cell(22, 25, 28), 0.8},
        {"long axis", cell(4.5, 12, 15)},
        {"two long axes", cell(5, 5.5, 18)},
        {"few reflections", cell(12, 13, 17), 0.25},
        {"blurred", cell(9, 11, 14), 0.5, 0.8},
        {"sharp", cell(9, 11, 14), 0.5, 0.1},
        {"mostly wrong", cell(9, 11, 14), 0.5, 0.35, 0.65},
        {"clean", cell(9, 11, 14), 0.9, 0.35, 0.0},
    };
}
constexpr unsigned kFirstSeed = 101;
constexpr unsigned kSeeds = 3;

/// The ways to cluster that are compared.
enum Way { DefaultDBSCAN, RuledDBSCAN, RuledDDSC, ParameterFreeFSC };
constexpr const char* kWays[] = {"DBSCAN, radius 3, 20 vectors", "DBSCAN, density rule", "DDSC, density rule",
                                 "FSC"};

struct Outcome {
    bool found = false;
    double seconds = 0.0;
    double mebibytes = 0.0;
    std::size_t clusters = 0;
    int vectors = 0;
};

/// The median distance of a point from its fourth neighbour.
double spacingOf(const std::vector<Vector3d>& points) {
    std::vector<double> fourth;
    for (std::size_t i = 0; i < points.size(); i += points.size() / 200 + 1) {
        std::vector<double> distances;
        for (const Vector3d& other : points)
            distances.push_back((other - points[i]).norm());
        std::nth_element(distances.begin(), distances.begin() + 4, distances.end());
        fourth.push_back(distances[4]);
    }
    std::nth_element(fourth.begin(), fourth.begin() + std::ssize(fourth) / 2, fourth.end());
    return fourth[fourth.size() / 2];
}

Outcome run(Crystal crystal, unsigned seed, Way way) {
    const std::vector<Vector3d> points = made::reflections(crystal, seed);
    ReflexVectorPtr list(new ReflexVector);
    for (const Vector3d& p : points)
        list->push_back(new Reflex(p[0], p[1], p[2]));
    Parameter parameter;
    parameter.setMaxLength(2.6 * spacingOf(points));
    CalculateCellAlgorithm algorithm;
    const std::unique_ptr<CubicGrid<ClusterPoint<double>>> grid(
        algorithm.StepTwo_CalcDiffVectors(&parameter, list.get(), nullptr));
    Outcome outcome;
    if (!grid) return outcome;
    outcome.vectors = grid->getNumberOfPoints();
    if (way == RuledDBSCAN || way == RuledDDSC) {
        // Twice the number that chance puts into a sphere, and four of its standard deviations.
        parameter.setDBSCANEps(1.2);
        const double expected = outcome.vectors * std::pow(1.2 / parameter.getMaxLength(), 3) / 0.5;
        parameter.setDBSCANMinPts(std::max(5, static_cast<int>(2.0 * expected + 4.0 * std::sqrt(expected))));
    }
    const ClusteringMethod method = way == RuledDDSC          ? ClusteringMethod::DDSC
                                    : way == ParameterFreeFSC ? ClusteringMethod::FSC
                                                              : ClusteringMethod::DBSCAN;
    std::vector<Cluster<Point<double>>*> clusters;
    std::vector<ClusterPoint<double>*> noise;
    const counted_memory::Peak memory;
    outcome.seconds = algorithm.clusteringStep(&parameter, grid.get(), &clusters, &noise, method);
    outcome.mebibytes = static_cast<double>(memory.bytes()) / (1024.0 * 1024.0);
    outcome.clusters = clusters.size();

    ClusterPoint<double> v[3] = {{3, -1}, {3, -1}, {3, -1}};
    bool refined[3] = {};
    UnitCell unused;
    if (algorithm.StepFour_FindLinearIndependentVectors(&parameter, &unused, &clusters, &v[0], &v[1],
                                                        &v[2]) >= 0.0 &&
        algorithm.StepFive_CalculateNiggliCell(&parameter, &v[0], &v[1], &v[2], &v[0], &v[1], &v[2]) >= 0.0 &&
        algorithm.StepSix_Refinement(&clusters, &v[0], &v[1], &v[2], &v[0], &v[1], &v[2], &refined[0],
                                     &refined[1], &refined[2]) >= 0.0) {
        Matrix3d vectors;
        for (int column = 0; column < 3; ++column)
            for (int row = 0; row < 3; ++row)
                vectors(row, column) = v[column].getData(row);
        outcome.found = made::spans(crystal.basis, vectors, 0.5);
    }
    for (auto* cluster : clusters)
        delete cluster;
    for (auto* vector : noise)
        delete vector;
    return outcome;
}

void clustering(benchmark::State& state) {
    const auto way = static_cast<Way>(state.range(0));
    state.SetLabel(kWays[way]);
    double found = 0.0, all = 0.0, mebibytes = 0.0, vectors = 0.0;
    for (auto _ : state) {
        found = all = mebibytes = vectors = 0.0;
        double seconds = 0.0;
        for (const Crystal& crystal : crystals())
            for (unsigned seed = kFirstSeed; seed < kFirstSeed + kSeeds; ++seed) {
                const Outcome outcome = run(crystal, seed, way);
                found += outcome.found;
                all += 1.0;
                vectors += outcome.vectors;
                seconds += std::max(0.0, outcome.seconds);
                mebibytes = std::max(mebibytes, outcome.mebibytes);
            }
        state.SetIterationTime(seconds);
    }
    state.counters["lattices"] = found;
    state.counters["crystals"] = all;
    state.counters["vectors"] = vectors;
    state.counters["MiB"] = mebibytes;
}
BENCHMARK(clustering)
    ->DenseRange(DefaultDBSCAN, ParameterFreeFSC)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

void printTable() {
    for (const Crystal& crystal : crystals()) {
        std::printf("%-16s", crystal.name);
        for (int way = DefaultDBSCAN; way <= ParameterFreeFSC; ++way) {
            int found = 0;
            Outcome last;
            for (unsigned seed = kFirstSeed; seed < kFirstSeed + kSeeds; ++seed) {
                last = run(crystal, seed, static_cast<Way>(way));
                found += last.found;
            }
            std::printf("  | %d/%u %4zu clusters %6.0f ms", found, kSeeds, last.clusters, 1e3 * last.seconds);
        }
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--table") == 0) {
        printTable();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
