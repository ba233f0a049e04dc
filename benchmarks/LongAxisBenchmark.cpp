/// Crystals with one long axis, whose difference vectors merge into rods: does the search for the cell find
/// the lattice ("found", of "lists"), do the rods lead to it, found as lines by random sample consensus, and
/// does the better answer of both? Time of one list of reflections.
///
/// Rods: the strongest lines through the origin among the clustered difference vectors give the direction of
/// the long axis' reciprocal vector; difference vectors seen along it cluster at the other two; the period
/// along the rows comes from the reflections.
#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <vector>

#include "MadeReflections.h"
#include "cellfinding/CalculateCellAlgorithm.h"
#include "cellfinding/FSC.h"
#include "pipeline/latticesearch/CellSearch.h"
#include "pipeline/latticesearch/LatticeFit.h"
#include "pipeline/latticesearch/LatticeScore.h"
#include "pipeline/latticesearch/LayerSearch.h"
#include "reflections/ReflexVector.h"

namespace {

using made::Crystal;
using made::Matrix3d;
using made::Vector3d;
using vrk::Lattice;

/// \p dmin  resolution at the frame's edge, Angstrom
Crystal crystal(const char* name, double a, double b, double c, int pixels, double dmin) {
    const double scale = 0.5 * pixels * dmin;  // voxels per 1/Angstrom
    Crystal result{name, made::cell(scale / a, scale / b, scale / c)};
    result.reach = 0.6 * 0.5 * pixels;
    result.seen = 0.6;
    result.outliers = 0.2;
    result.noise = 0.4;
    result.touching = 3.0;
    return result;
}

std::vector<Crystal> crystals() {
    return {
        crystal("41 A, 512 pixels", 9.2, 13.1, 41.0, 512, 0.8),
        crystal("80 A, 1024 pixels", 7.3, 11.9, 80.0, 1024, 0.8),
        crystal("120 A, 1024 pixels, 1.2 A", 7.3, 11.9, 120.0, 1024, 1.2),
        crystal("120 A, 1024 pixels", 7.3, 11.9, 120.0, 1024, 0.8),
        crystal("80 A, 512 pixels", 7.3, 11.9, 80.0, 512, 0.8),
    };
}

/// The grid of difference vectors and their clusters.
struct Vectors {
    Vectors() = default;
    ~Vectors() {
        for (auto* cluster : clusters)
            delete cluster;
        for (auto* vector : noise)
            delete vector;
    }
    Vectors(const Vectors&) = delete;
    Vectors& operator=(const Vectors&) = delete;

    std::unique_ptr<CubicGrid<ClusterPoint<double>>> grid;
    std::vector<Cluster<Point<double>>*> clusters;
    std::vector<ClusterPoint<double>*> noise;
};

/// The two shortest vectors of the lattice that the difference vectors form when seen along a direction.
std::optional<std::array<Vector3d, 2>> seenAlong(const Vectors& vectors, const Vector3d& direction) {
    const Vector3d x = direction.unitOrthogonal();
    const Vector3d y = direction.cross(x);
    std::vector<ClusterPoint<double>> points;
    for (const ClusterPoint<double>* v : *vectors.grid->getPoints()) {
        const Vector3d p(v->getData(0), v->getData(1), v->getData(2));
        double seen[2] = {x.dot(p), y.dot(p)};
        const double sign = seen[0] < 0.0 ? -1.0 : 1.0;
        for (double& s : seen)
            s *= sign;
        points.emplace_back(seen, static_cast<unsigned char>(2), short(-1));
    }
    std::vector<ClusterPoint<double>*> pointers;
    for (auto& point : points)
        pointers.push_back(&point);
    Vectors plane;
    plane.grid = std::make_unique<CubicGrid<ClusterPoint<double>>>(&pointers, 3);
    if (!FSC().cluster(plane.grid.get(), 0.0, &plane.clusters, &plane.noise)) return std::nullopt;
    std::vector<Eigen::Vector2d> centres;
    for (const auto* cluster : plane.clusters)
        centres.emplace_back(cluster->getCenterOfGrafity(0), cluster->getCenterOfGrafity(1));
    std::sort(centres.begin(), centres.end(),
              [](const auto& a, const auto& b) { return a.squaredNorm() < b.squaredNorm(); });
    std::erase_if(centres, [](const auto& centre) { return centre.norm() < 3.0; });  // the rod itself
    for (std::size_t i = 1; i < centres.size(); ++i) {
        const Eigen::Vector2d &a = centres[0], &b = centres[i];
        if (std::abs(a[0] * b[1] - a[1] * b[0]) < 0.3 * a.norm() * b.norm()) continue;
        return std::array<Vector3d, 2>{a[0] * x + a[1] * y, b[0] * x + b[1] * y};
    }
    return std::nullopt;
}

std::optional<Lattice> latticeFromRods(const std::vector<Vector3d>& points) {
    // The rods of a few thousand reflections are as clear as those of all.
    constexpr std::size_t kMost = 3000;
    const std::size_t step = points.size() / kMost + 1;
    ReflexVectorPtr list(new ReflexVector);
    for (std::size_t i = 0; i < points.size(); i += step)
        list->push_back(new Reflex(points[i][0], points[i][1], points[i][2]));
    Parameter parameter;
    parameter.setMaxLength(6.0 * vrk::neighbourDistance(points, 4));
    parameter.setDBSCANEps(1.2);
    CalculateCellAlgorithm algorithm;
    Vectors vectors;
    vectors.grid.reset(algorithm.StepTwo_CalcDiffVectors(&parameter, list.get(), nullptr));
    if (!vectors.grid) return std::nullopt;
    const double expected =
        vectors.grid->getNumberOfPoints() * std::pow(1.2 / parameter.getMaxLength(), 3) / 0.5;
    parameter.setDBSCANMinPts(std::max(5, static_cast<int>(2.0 * expected + 4.0 * std::sqrt(expected))));
    std::vector<RANSAC::FittedLine> rods;
    constexpr int kRods = 3;
    if (algorithm.StepThree_Clustering(&parameter, vectors.grid.get(), &vectors.clusters, &vectors.noise) <
            0.0 ||
        algorithm.testRANSAC(&vectors.clusters, kRods, &rods) < 0.0)
        return std::nullopt;
    std::optional<Lattice> best;
    double evidence = 0.0;
    for (const RANSAC::FittedLine& rod : rods) {
        const Vector3d direction(rod.line.getVec(0), rod.line.getVec(1), rod.line.getVec(2));
        const auto others = seenAlong(vectors, direction);
        if (!others) continue;
        Lattice rows;
        rows.basis << (*others)[0], (*others)[1], direction;
        for (const Matrix3d& basis : vrk::basesFromRows(points, rows, 2)) {
            Lattice lattice{basis, Vector3d::Zero()};
            lattice = vrk::fitWithin(points, lattice,
                                     std::max(1.0, 1.5 * vrk::scoreLattice(points, lattice).radius));
            const double score = vrk::scoreLattice(points, lattice).evidence;
            if (score <= evidence) continue;
            evidence = score;
            best = lattice;
        }
    }
    return best;
}

std::optional<Lattice> latticeFromSearch(const std::vector<Vector3d>& points) {
    const auto found = vrk::CellSearch().search(points, {});
    return found.empty() ? std::nullopt : std::optional(found.front().lattice);
}

/// The one of both answers that explains the reflections better.
std::optional<Lattice> latticeFromBoth(const std::vector<Vector3d>& points) {
    const auto search = latticeFromSearch(points);
    const auto rods = latticeFromRods(points);
    if (!search || !rods) return search ? search : rods;
    const bool rodsAreBetter =
        vrk::scoreLattice(points, *rods).evidence > vrk::scoreLattice(points, *search).evidence;
    return rodsAreBetter ? rods : search;
}

template <typename Search>
void longAxis(benchmark::State& state, Search search) {
    const Crystal crystal = crystals()[static_cast<std::size_t>(state.range(0))];
    constexpr unsigned kFirstSeed = 101;
    double found = 0.0, lists = 0.0, reflections = 0.0;
    unsigned seed = kFirstSeed;
    for (auto _ : state) {
        state.PauseTiming();
        Crystal turned = crystal;
        const std::vector<Vector3d> points = made::reflections(turned, seed++);
        state.ResumeTiming();
        const auto lattice = search(points);
        state.PauseTiming();
        found += lattice && made::spans(turned.basis, lattice->basis, 0.3);
        lists += 1.0;
        reflections = static_cast<double>(points.size());
        state.ResumeTiming();
    }
    state.SetLabel(crystal.name);
    state.counters["found"] = found;
    state.counters["lists"] = lists;
    state.counters["reflections"] = reflections;
}
BENCHMARK_CAPTURE(longAxis, search, latticeFromSearch)
    ->DenseRange(0, 4)
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(longAxis, rods, latticeFromRods)
    ->DenseRange(0, 4)
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(longAxis, both, latticeFromBoth)
    ->DenseRange(0, 4)
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);

}  // namespace
