#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "Arrays.h"
#include "Calls.h"
#include "SettingTable.h"
#include "cellfinding/DBSCAN.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/NiggliReduction.h"
#include "pipeline/formats/CellInput.h"

namespace vrk::python {
namespace {

/// What the work gives; raises what it throws.
template <typename Work>
auto quietly(Work work) {
    return call(py::object(), py::object(),
                [&](Observer& observer) { return attempt(observer, [&](Session&) { return work(); }); });
}

char centringOf(const std::string& text) {
    if (text.size() != 1)
        raise({FailureKind::Usage, "the centring is one of P A B C I F R, not '" + text + "'"});
    return text[0];
}

std::vector<double> niggli(const std::vector<double>& numbers, const std::string& centring) {
    const char letter = centringOf(centring);
    return quietly([&] {
        UnitCell cell = cellFromNumbers(numbers, letter).primitive;
        NiggliReduction::niggliReduction(&cell, 0);
        return std::vector<double>{cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC(),
                                   cell.getAlpha(),     cell.getBeta(),      cell.getGamma()};
    });
}

py::list latticeSymmetry(const std::vector<double>& numbers, const std::string& centring, double angle,
                         double length) {
    const char letter = centringOf(centring);
    const auto characters = quietly([&] {
        return LatticeSymmetry::analyse(cellFromNumbers(numbers, letter).primitive, {angle, length});
    });
    const auto sixOf = [](const CellParameters& c) {
        return py::make_tuple(c.a, c.b, c.c, c.alpha, c.beta, c.gamma);
    };
    py::list list;
    for (const LatticeCharacter& one : characters) {
        py::array_t<int> matrix({3, 3});
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                matrix.mutable_at(i, j) = one.toConventional[i][j];
        list.append(py::make_tuple(LATTICE::shortName(one.bravaisType), one.number, one.qualityIndex,
                                   one.lengthMisfit, sixOf(one.measured), sixOf(one.symmetrised), matrix));
    }
    return list;
}

/// The points of an index, one for each row.
class Cloud {
public:
    explicit Cloud(const py::array_t<double, py::array::c_style | py::array::forcecast>& rows)
        : m_rows(rows.data()),
          m_size(static_cast<std::size_t>(rows.shape(0))),
          m_axes(static_cast<std::size_t>(rows.shape(1))) {
        for (std::size_t i = 0; i < m_size; ++i)
            m_points.emplace_back(at(i), static_cast<unsigned char>(m_axes), short(-1));
    }

    std::span<const double> row(std::size_t i) const { return {at(i), m_axes}; }

    std::vector<std::int64_t> cluster(double eps, int minPoints) {
        // Limits around the cloud and 0: all points are in the grid.
        std::vector<double> low(m_axes, -1.0);
        std::vector<double> high(m_axes, 1.0);
        for (std::size_t i = 0; i < m_size; ++i)
            for (std::size_t axis = 0; axis < m_axes; ++axis) {
                low[axis] = std::min(low[axis], row(i)[axis] - 1.0);
                high[axis] = std::max(high[axis], row(i)[axis] + 1.0);
            }
        std::vector<ClusterPoint<double>*> all;
        for (ClusterPoint<double>& point : m_points)
            all.push_back(&point);
        const int edge = std::max(1, static_cast<int>(std::min(std::ceil(eps), 1e6)));
        CubicGrid<ClusterPoint<double>> grid(&all, low.data(), high.data(), edge);
        std::vector<Cluster<Point<double>>*> clusters;
        std::vector<ClusterPoint<double>*> noise;
        DBSCAN::cluster(&grid, eps, minPoints, &clusters, &noise);
        for (const auto* cluster : clusters)
            delete cluster;
        for (const auto* point : noise)
            delete point;
        return labelsOf(grid);
    }

private:
    const double* at(std::size_t i) const { return m_rows + i * m_axes; }

    /// The grid has its points in an order of its own; those at one place have one label.
    std::vector<std::int64_t> labelsOf(CubicGrid<ClusterPoint<double>>& grid) const {
        const std::vector<ClusterPoint<double>*>& labelled = *grid.getPoints();
        std::vector<std::size_t> own(m_size);
        std::iota(own.begin(), own.end(), std::size_t{0});
        std::vector<std::size_t> others = own;
        const auto place = [&](std::size_t i) {
            std::array<double, 3> values{};
            for (std::size_t axis = 0; axis < m_axes; ++axis)
                values[axis] = labelled[i]->getData(static_cast<int>(axis));
            return values;
        };
        std::sort(own.begin(), own.end(), [&](std::size_t a, std::size_t b) {
            return std::ranges::lexicographical_compare(row(a), row(b));
        });
        std::sort(others.begin(), others.end(),
                  [&](std::size_t a, std::size_t b) { return place(a) < place(b); });
        std::vector<std::int64_t> labels(m_size);
        for (std::size_t i = 0; i < m_size; ++i)
            labels[own[i]] = labelled[others[i]]->getClusterID() - 1;
        return labels;
    }

    const double* m_rows;
    std::size_t m_size;
    std::size_t m_axes;
    std::vector<ClusterPoint<double>> m_points;
};

py::array_t<std::int64_t> dbscan(const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
                                 double eps, int minPoints) {
    if (points.ndim() != 2 || (points.shape(1) != 2 && points.shape(1) != 3))
        throw py::value_error("points have the shape (points, 3) or (points, 2)");
    if (!(eps > 0.0) || !std::isfinite(eps)) throw py::value_error("eps is a positive distance");
    if (minPoints < 1) throw py::value_error("min_points is at least 1");
    const double* values = points.data();
    if (!std::all_of(values, values + points.size(), [](double v) { return std::isfinite(v); }))
        throw py::value_error("points hold what is no number");
    if (points.shape(0) == 0) return py::array_t<std::int64_t>(0);
    return arrayOf(quietly([&] { return Cloud(points).cluster(eps, minPoints); }));
}

}  // namespace

void addCells(py::module_& module) {
    module.def("niggli", niggli);
    module.def("lattice_symmetry", latticeSymmetry);
    module.def("dbscan", dbscan);
}

}  // namespace vrk::python
