/// \file
/// The cubic grid and the clustering over it, in their plainest form.
#pragma once

#include <deque>

#include "Clustered.h"
#include "support/Testing.h"

namespace testing_support {

/// Neighbourhoods from a walk over all cubes near the one of a point.
class PlainGrid {
public:
    PlainGrid(const std::vector<Coordinates>& points, const Coordinates& min, const Coordinates& max,
              int edge)
        : m_dimension(points.front().size()), m_edge(edge) {
        int cubes = 1;
        for (std::size_t k = 0; k < m_dimension; ++k) {
            m_cubes.push_back(std::max(0, static_cast<int>(std::ceil((max[k] - min[k]) / edge))));
            cubes *= m_cubes.back();
        }
        m_members.resize(static_cast<std::size_t>(cubes));
        for (const Coordinates& p : points) {
            const int cube = cubeOf(p);
            if (cube >= 0) m_members[static_cast<std::size_t>(cube)].push_back(p);
        }
        for (const auto& cube : m_members) {
            m_begin.push_back(m_list.size());
            m_list.insert(m_list.end(), cube.begin(), cube.end());
        }
        m_list.resize(points.size(), Coordinates(m_dimension, 0.0));
    }

    const std::vector<Coordinates>& list() const { return m_list; }

    int cubeOf(const Coordinates& p) const {
        int index = 0;
        int stride = 1;
        for (std::size_t k = 0; k < m_dimension; ++k) {
            const int c = static_cast<int>(std::ceil(p[k] / m_edge));
            if (c > 0) index += (c - 1) * stride;
            stride *= m_cubes[k];
        }
        return index < static_cast<int>(m_members.size()) ? index : -1;
    }

    /// Places in the list.
    std::vector<int> neighbours(const Coordinates& p, double eps) const {
        std::vector<int> found;
        const int centre = cubeOf(p);
        if (centre < 0) return found;
        const int n0 = m_cubes[0], n1 = m_cubes[1], n2 = m_dimension == 3 ? m_cubes[2] : 1;
        const int reach = static_cast<int>(std::ceil(eps / m_edge));
        const int c0 = centre % n0, c1 = centre / n0 % n1, c2 = centre / n0 / n1;
        for (int i = std::max(0, c0 - reach); i <= std::min(n0 - 1, c0 + reach); ++i)
            for (int j = std::max(0, c1 - reach); j <= std::min(n1 - 1, c1 + reach); ++j)
                for (int k = std::max(0, c2 - reach); k <= std::min(n2 - 1, c2 + reach); ++k)
                    addFromCube(i + n0 * (j + n1 * k), p, eps, found);
        return found;
    }

    double kthDistance(const Coordinates& p, std::size_t k) const {
        for (const double radius : {1.0, 2.0, 4.0, 16.0, 256.0}) {
            std::vector<double> distances;
            for (const int i : neighbours(p, radius))
                distances.push_back(distance(m_list[static_cast<std::size_t>(i)], p));
            std::sort(distances.begin(), distances.end());
            if (distances.size() >= k) return distances[k - 1];
        }
        return 0.0;
    }

    /// Labels of the list, clusters grown one neighbourhood after the other.
    std::vector<int> cluster(double eps, std::size_t minPts) const {
        std::vector<int> labels(m_list.size(), -1);
        int id = 1;
        for (std::size_t start = 0; start < m_list.size(); ++start) {
            if (labels[start] != -1) continue;
            const std::vector<int> first = neighbours(m_list[start], eps);
            if (first.size() < minPts) {
                labels[start] = 0;
                continue;
            }
            bool grown = false;
            for (const int i : first)
                if (labels[static_cast<std::size_t>(i)] <= 0) {
                    labels[static_cast<std::size_t>(i)] = id;
                    grown = true;
                }
            std::deque<int> seeds(first.begin(), first.end());
            for (; !seeds.empty(); seeds.pop_front()) {
                const std::vector<int> next =
                    neighbours(m_list[static_cast<std::size_t>(seeds.front())], eps);
                if (next.size() < minPts) continue;
                for (const int i : next) {
                    int& label = labels[static_cast<std::size_t>(i)];
                    if (label == -1) seeds.push_back(i);
                    if (label <= 0) label = id;
                }
            }
            id += grown;
        }
        return labels;
    }

private:
    static double distance(const Coordinates& a, const Coordinates& b) {
        double sum = 0.0;
        for (std::size_t k = 0; k < a.size(); ++k)
            sum += (a[k] - b[k]) * (a[k] - b[k]);
        return std::sqrt(sum);
    }

    void addFromCube(int cube, const Coordinates& p, double eps, std::vector<int>& found) const {
        const std::size_t begin = m_begin[static_cast<std::size_t>(cube)];
        const std::size_t size = m_members[static_cast<std::size_t>(cube)].size();
        for (std::size_t i = begin; i < begin + size; ++i)
            if (distance(m_list[i], p) < eps) found.push_back(static_cast<int>(i));
    }

    std::size_t m_dimension;
    int m_edge;
    std::vector<int> m_cubes;
    std::vector<std::vector<Coordinates>> m_members;
    std::vector<std::size_t> m_begin;
    std::vector<Coordinates> m_list;
};

/// A random cloud and a grid for it.
struct Cloud {
    std::vector<Coordinates> points;
    Coordinates min, max;
    int edge = 3;
    double eps = 3.0;
};

/// The points of a cloud in the library's grid.
struct CloudRun : Clustered<ClusterPoint<double>> {
    explicit CloudRun(const Cloud& cloud) {
        for (const Coordinates& c : cloud.points)
            add(c);
        testing::internal::CaptureStdout();
        makeGrid(cloud.min, cloud.max, cloud.edge);
        spoken = testing::internal::GetCapturedStdout();
    }
    std::string spoken;
};

/// Blobs on a sparse background with duplicates, points on the borders between cubes, negative
/// coordinates, and, for odd seeds, limits that leave points beyond the grid.
inline Cloud randomCloud(unsigned seed) {
    std::mt19937 random(seed);
    const auto between = [&](double a, double b) { return std::uniform_real_distribution<>(a, b)(random); };
    const auto dice = [&](int sides) { return std::uniform_int_distribution<>(0, sides - 1)(random); };
    Cloud cloud;
    const std::size_t dimension = seed % 3 == 0 ? 2 : 3;
    cloud.edge = 1 + dice(4);
    cloud.eps = dice(3) ? between(0.5, 5.0) : cloud.edge * (1.0 + dice(2));
    cloud.min.assign(dimension, -12.0);
    cloud.max.assign(dimension, 12.0);
    for (int i = 0; i < 150; ++i) {
        Coordinates p(dimension);
        for (double& x : p)
            x = between(-11.9, 11.9);
        if (dice(3) == 0)
            for (double& x : p)
                x = std::round(x);
        cloud.points.push_back(p);
        for (int copies = dice(4) ? 0 : dice(8); copies > 0; --copies) {
            if (dice(3))
                for (double& x : p)
                    x = std::clamp(x + between(-1.0, 1.0), -11.9, 11.9);
            cloud.points.push_back(p);
        }
    }
    if (seed % 2)
        for (std::size_t k = 0; k < dimension; ++k) {
            cloud.min[k] = -5.0 + dice(8);
            cloud.max[k] = 4.0 + dice(8);
        }
    return cloud;
}

}  // namespace testing_support
