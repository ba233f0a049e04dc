// Indexing, refinement and export. For each: a list of noisy reflections of one lattice.
#include <benchmark/benchmark.h>

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include "crystallography/UnitCell.h"
#include "indexing/HKLfileImportExport.h"
#include "indexing/IndicateWithHKL.h"
#include "pipeline/latticesearch/LatticeFit.h"
#include "pipeline/latticesearch/PointsOnNodes.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"

namespace {

const double kBasis[3][3] = {{11.0, 0.5, -1.0}, {-0.7, 13.0, 2.0}, {1.5, -3.0, 17.0}};

UnitCell cellOf() {
    return UnitCell(kBasis[0], kBasis[1], kBasis[2], 5e7, false, true, LATTICE::aP);
}

ReflexVectorPtr reflectionsOf(int count) {
    std::mt19937 random(1);
    std::normal_distribution<double> noise(0.0, 0.5);
    std::uniform_int_distribution<int> index(-25, 25);
    ReflexVectorPtr list(new ReflexVector);
    for (int i = 0; i < count; ++i) {
        const int hkl[3] = {index(random), index(random), index(random)};
        double p[3];
        for (int axis = 0; axis < 3; ++axis)
            p[axis] = 255.5 + hkl[0] * kBasis[0][axis] + hkl[1] * kBasis[1][axis] + hkl[2] * kBasis[2][axis] +
                      noise(random);
        list->push_back(new Reflex(p[0], p[1], p[2]));
        list->back()->setIntensity(100.0 * (1 + i % 97));
    }
    return list;
}

void Indicate(benchmark::State& state) {
    const ReflexVectorPtr list = reflectionsOf(static_cast<int>(state.range(0)));
    UnitCell cell = cellOf();
    double origin[3] = {255.5, 255.5, 255.5};
    double result[IndicateWithHKL::kResultSize];
    std::vector<double> out[8];
    for (auto _ : state)
        benchmark::DoNotOptimize(IndicateWithHKL::indicate(nullptr, &cell, list.get(), origin, 3, 0.1, result,
                                                           &out[0], &out[1], &out[2], &out[3], &out[4],
                                                           &out[5], &out[6], &out[7]));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Indicate)->Arg(3000)->Arg(100000)->Unit(benchmark::kMillisecond);

void RefineCell(benchmark::State& state) {
    const ReflexVectorPtr list = reflectionsOf(static_cast<int>(state.range(0)));
    std::vector<vrk::FitPoint> points;
    for (Reflex* reflex : *list)
        points.push_back({{reflex->getCenterInX(), reflex->getCenterInY(), reflex->getCenterInZ()}});
    const vrk::Lattice start = vrk::Lattice::of(cellOf(), Eigen::Vector3d(256.0, 255.0, 255.5));
    for (auto _ : state)
        benchmark::DoNotOptimize(vrk::fitLattice(points, start, 0.25, {}));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(RefineCell)->Arg(3000)->Arg(100000)->Unit(benchmark::kMillisecond);

/// Points on the nodes of a turned lattice, one rotation after the other.
/// \param plain  one point after the other, by the function that rounds
void CountOnNodes(benchmark::State& state, bool plain) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> place(-80.0, 80.0);
    std::vector<Eigen::Vector3d> points(400);
    for (Eigen::Vector3d& point : points)
        point = {place(random), place(random), place(random)};
    const vrk::Lattice lattice = vrk::Lattice::of(cellOf(), Eigen::Vector3d::Zero());
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    const vrk::PointsOnNodes count(lattice, points, 2.0);
    double angle = 0.0;
    for (auto _ : state) {
        const Eigen::Matrix3d back =
            Eigen::AngleAxisd(angle += 0.01, Eigen::Vector3d::UnitX()).toRotationMatrix();
        int within = 0;
        if (plain)
            for (const Eigen::Vector3d& point : points) {
                const Eigen::Vector3d index = inverse * (back * point);
                const Eigen::Vector3d off = index - Eigen::Vector3d(index.array().round());
                within += (lattice.basis * off).squaredNorm() <= 4.0 ? 1 : 0;
            }
        else
            within = count.within(back, 0, points.size());
        benchmark::DoNotOptimize(within);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(points.size()));
}
BENCHMARK_CAPTURE(CountOnNodes, fast, false);
BENCHMARK_CAPTURE(CountOnNodes, plain, true);

void WriteHKLFile(benchmark::State& state) {
    const ReflexVectorPtr list = reflectionsOf(static_cast<int>(state.range(0)));
    UnitCell cell = cellOf();
    double origin[3] = {255.5, 255.5, 255.5};
    IndicateWithHKL::indicate(nullptr, &cell, list.get(), origin, 3, 0.25, nullptr, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr);
    const char* path = "indexing_benchmark.hkl";
    for (auto _ : state)
        HKLfileImportExport::saveHKLFile(list.get(), path);
    std::remove(path);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WriteHKLFile)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
