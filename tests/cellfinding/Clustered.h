/// \file
/// Points, their grid and what a clustering makes of them.
#pragma once

#include <algorithm>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "cellfinding/Cluster.h"
#include "cellfinding/CubicGrid.h"

namespace testing_support {

using Coordinates = std::vector<double>;

/// P = ClusterPoint<double>, ClusterPointDDSC<double>.
template <typename P>
struct Clustered {
    std::vector<P> points;
    std::unique_ptr<CubicGrid<P>> grid;
    std::vector<Cluster<Point<double>>*> clusters;
    std::vector<ClusterPoint<double>*> noise;
    std::mt19937 random{5};

    Clustered() = default;
    Clustered(const Clustered&) = delete;
    Clustered& operator=(const Clustered&) = delete;
    ~Clustered() { clear(); }

    void clear() {
        for (auto* cluster : clusters)
            delete cluster;
        for (auto* point : noise)
            delete point;
        clusters.clear();
        noise.clear();
    }
    void add(const Coordinates& c) {
        const auto dimension = static_cast<unsigned char>(c.size());
        if constexpr (std::is_same_v<P, ClusterPointDDSC<double>>)
            points.emplace_back(c.data(), dimension, short(5), 4);
        else
            points.emplace_back(c.data(), dimension, short(7));
    }
    void addBlob(const Coordinates& centre, int count, double sigma) {
        std::normal_distribution<> normal(0.0, sigma);
        for (int i = 0; i < count; ++i) {
            Coordinates c = centre;
            for (double& x : c)
                x += normal(random);
            add(c);
        }
    }
    /// Scattered evenly over a box.
    void addBox(int count, const Coordinates& from, const Coordinates& to) {
        for (int i = 0; i < count; ++i) {
            Coordinates c;
            for (std::size_t k = 0; k < from.size(); ++k)
                c.push_back(std::uniform_real_distribution<>(from[k], to[k])(random));
            add(c);
        }
    }
    void makeGrid(double min = -50.0, double max = 50.0, int edge = 3) {
        makeGrid(Coordinates(4, min), Coordinates(4, max), edge);
    }
    void makeGrid(const Coordinates& min, const Coordinates& max, int edge) {
        const std::vector<P*> pointers = all();
        grid = std::make_unique<CubicGrid<P>>(&pointers, min.data(), max.data(), edge);
    }
    /// Over the limits of the points.
    void makeGridAround(int edge) {
        const std::vector<P*> pointers = all();
        grid = std::make_unique<CubicGrid<P>>(&pointers, edge);
    }
    std::vector<int> labels() const {
        std::vector<int> result;
        for (const P* point : *grid->getPoints())
            result.push_back(point->getClusterID());
        return result;
    }
    long count(int label) const {
        const std::vector<int> every = labels();
        return std::count(every.begin(), every.end(), label);
    }
    /// Whether every cluster has its number and the points of that label, and the noise all others but those
    /// that were not looked at.
    bool agrees() const {
        long labelled = count(0) + count(-1);
        bool agree = count(0) == static_cast<long>(noise.size());
        for (std::size_t i = 0; i < clusters.size(); ++i) {
            const int id = static_cast<int>(i) + 1;
            const long size = count(id);
            agree = agree && size > 0 && clusters[i]->getNumberOfPoints() == size &&
                    clusters[i]->getClusterID() == id;
            labelled += size;
        }
        return agree && labelled == grid->getNumberOfPoints();
    }

private:
    std::vector<P*> all() {
        std::vector<P*> pointers;
        for (P& point : points)
            pointers.push_back(&point);
        return pointers;
    }
};

}  // namespace testing_support
