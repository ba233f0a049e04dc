/// \file
/// Difference vectors and their clustering.
///
/// dbscan_vs_sklearn.py compares the clustering with scikit-learn. For it "--make COUNT FILE" writes
/// difference vectors as doubles (x, y, z); "--vectors FILE EPS MINPTS" clusters them, prints the seconds of
/// the processor and writes the vectors in the grid's order with their labels to FILE.labels.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "cellfinding/CalculateDiffVectors.h"
#include "cellfinding/DBSCAN.h"
#include "cellfinding/DDSC.h"
#include "cellfinding/FSC.h"
#include "reflections/ReflexVector.h"

namespace {

using Vectors = std::vector<ClusterPoint<double>*>;

/// Reflections scattered at the density that 20,000 have in a ball of 250 voxels.
ReflexVectorPtr reflections(int count) {
    std::mt19937 random(1);
    const double radius = 250.0 * std::cbrt(count / 20000.0);
    std::uniform_real_distribution<> coordinate(-radius, radius);
    ReflexVectorPtr list(new ReflexVector);
    while (list->size() < static_cast<std::size_t>(count)) {
        const double x = coordinate(random);
        const double y = coordinate(random);
        const double z = coordinate(random);
        if (x * x + y * y + z * z < radius * radius) list->append(ReflexPtr(new Reflex(x, y, z)));
    }
    return list;
}

std::size_t deleteAll(Vectors* vectors) {
    const std::size_t count = vectors->size();
    for (auto* vector : *vectors)
        delete vector;
    delete vectors;
    return count;
}

void differenceVectors(benchmark::State& state) {
    const ReflexVectorPtr list = reflections(static_cast<int>(state.range(0)));
    Parameter parameter;
    std::size_t vectors = 0;
    for (auto _ : state) {
        auto* result =
            CalculateDiffVectors::calculateDiffVectors(list.get(), &parameter, nullptr, nullptr, true);
        state.PauseTiming();
        vectors = deleteAll(result);
        state.ResumeTiming();
    }
    state.counters["vectors"] = static_cast<double>(vectors);
}
BENCHMARK(differenceVectors)->Arg(3000)->Arg(20000)->Unit(benchmark::kMillisecond);

/// The same by the two nested loops.
void differenceVectorsOfAllPairs(benchmark::State& state) {
    const ReflexVectorPtr list = reflections(static_cast<int>(state.range(0)));
    const Parameter parameter;
    for (auto _ : state) {
        auto result = std::make_unique<Vectors>();
        for (std::size_t i = 0; i < list->size(); ++i)
            for (std::size_t j = i + 1; j < list->size(); ++j) {
                double d[3];
                for (int k = 0; k < 3; ++k)
                    d[k] = (*list)[j]->getCenter(k, 3) - (*list)[i]->getCenter(k, 3);
                if (d[0] < 0.0)
                    for (double& x : d)
                        x = -x;
                const double length = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
                if (length > parameter.getMinLength() && length < parameter.getMaxLength())
                    result->push_back(new ClusterPoint<double>(d, 3, -1));
            }
        state.PauseTiming();
        deleteAll(result.release());
        state.ResumeTiming();
    }
}
BENCHMARK(differenceVectorsOfAllPairs)->Arg(3000)->Arg(20000)->Unit(benchmark::kMillisecond);

/// What a clustering needs and leaves.
template <typename P = ClusterPoint<double>>
struct Clustering {
    std::vector<std::unique_ptr<P>> points;
    std::unique_ptr<CubicGrid<P>> grid;
    std::vector<Cluster<Point<double>>*> clusters;
    Vectors noise;

    explicit Clustering(const std::vector<double>& vectors) {
        for (std::size_t i = 0; i < vectors.size(); i += 3)
            if constexpr (std::is_same_v<P, ClusterPointDDSC<double>>)
                points.push_back(std::make_unique<P>(&vectors[i], 3, -1, -1));
            else
                points.push_back(std::make_unique<P>(&vectors[i], 3, -1));
    }
    ~Clustering() { clear(); }
    void clear() {
        for (auto* cluster : clusters)
            delete cluster;
        for (auto* point : noise)
            delete point;
        clusters.clear();
        noise.clear();
    }
    template <typename Method>
    void run(Method method) {
        std::vector<P*> pointers;
        for (const auto& point : points)
            pointers.push_back(point.get());
        grid = std::make_unique<CubicGrid<P>>(&pointers, 3);
        method(grid.get(), &clusters, &noise);
    }
};

/// Difference vectors of the half space: blobs at the points of a lattice on an even background. The box
/// grows with the number, the density stays.
std::vector<double> halfSpaceVectors(std::size_t count) {
    std::mt19937 random(7);
    const double reach = 60.0 * std::cbrt(static_cast<double>(count) / 1e5);
    std::uniform_real_distribution<> positive(0.0, reach);
    std::uniform_real_distribution<> any(-reach, reach);
    std::normal_distribution<> blur(0.0, 0.7);
    constexpr double kSpacing = 9.0;
    std::vector<double> vectors;
    for (std::size_t i = 0; i < count; ++i) {
        double v[3] = {positive(random), any(random), any(random)};
        if (random() % 2)
            for (double& x : v)
                x = std::round(x / kSpacing) * kSpacing + blur(random);
        v[0] = std::abs(v[0]);
        vectors.insert(vectors.end(), v, v + 3);
    }
    return vectors;
}

template <typename P, typename Method>
void clusterRepeatedly(benchmark::State& state, Method method) {
    Clustering<P> clustering(halfSpaceVectors(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) {
        clustering.clear();
        clustering.run(method);
    }
    state.counters["clusters"] = static_cast<double>(clustering.clusters.size());
}

void dbscan(benchmark::State& state) {
    clusterRepeatedly<ClusterPoint<double>>(state, [](auto* grid, auto* clusters, auto* noise) {
        DBSCAN::cluster(grid, 3.0, 20, clusters, noise);
    });
}
BENCHMARK(dbscan)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void ddsc(benchmark::State& state) {
    clusterRepeatedly<ClusterPointDDSC<double>>(state, [](auto* grid, auto* clusters, auto* noise) {
        DDSC::clustering(grid, 3.0, 20, 2.0, clusters, noise);
    });
}
BENCHMARK(ddsc)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void fsc(benchmark::State& state) {
    clusterRepeatedly<ClusterPoint<double>>(
        state, [](auto* grid, auto* clusters, auto* noise) { FSC().cluster(grid, 0.0, clusters, noise); });
}
BENCHMARK(fsc)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

int clusterFile(const std::string& path, double eps, int minPts) {
    std::ifstream in(path, std::ios::binary);
    std::vector<double> vectors;
    for (double x = 0.0; in.read(reinterpret_cast<char*>(&x), sizeof x);)
        vectors.push_back(x);
    Clustering<> clustering(vectors);
    const std::clock_t start = std::clock();
    clustering.run([&](auto* grid, auto* clusters, auto* noise) {
        DBSCAN::cluster(grid, eps, minPts, clusters, noise);
    });
    const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    std::ofstream out(path + ".labels", std::ios::binary);
    for (auto* point : *clustering.grid->getPoints()) {
        const double record[4] = {point->getData(0), point->getData(1), point->getData(2),
                                  static_cast<double>(point->getClusterID())};
        out.write(reinterpret_cast<const char*>(record), sizeof record);
    }
    std::cout << "seconds " << seconds << '\n';
    return out ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--vectors") == 0)
        return clusterFile(argv[2], std::stod(argv[3]), std::stoi(argv[4]));
    if (argc == 4 && std::strcmp(argv[1], "--make") == 0) {
        const std::vector<double> vectors = halfSpaceVectors(std::stoul(argv[2]));
        std::ofstream out(argv[3], std::ios::binary);
        out.write(reinterpret_cast<const char*>(vectors.data()),
                  static_cast<std::streamsize>(vectors.size() * sizeof(double)));
        return out ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
