#include "cellfinding/CubicGrid.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <sstream>
#include <tuple>
#include <type_traits>

#include "cellfinding/detail/CellList.h"
#include "cellfinding/detail/Trace.h"
#include "foundation/Narration.h"

namespace {

constexpr int kDefaultEdgeLength = 8;
constexpr int kLargestEdgeLength = 1 << 30;

template <typename P>
P emptyPoint(int dimension) {
    const auto d = static_cast<unsigned char>(dimension);
    if constexpr (std::is_same_v<P, ClusterPointDDSC<double>>)
        return P(d, short(-1), -1);
    else
        return P(d, short(-1));
}

template <typename P>
std::vector<P*> withoutNull(const std::vector<P*>* points) {
    std::vector<P*> result;
    if (!points) return result;
    result.reserve(points->size());
    std::copy_if(points->begin(), points->end(), std::back_inserter(result), [](const P* p) { return p; });
    return result;
}

/// The number of cubes between two limits as a double, which holds any number of them.
double cubesBetween(double min, double max, int edgeLength) {
    const double count = std::ceil((max - min) / edgeLength);
    return count > 0.0 ? count : 0.0;
}

template <typename P>
void boundsOf(const std::vector<P*>& points, int dimension, std::vector<double>& min,
              std::vector<double>& max) {
    min.assign(static_cast<std::size_t>(dimension), std::numeric_limits<double>::max());
    max.assign(static_cast<std::size_t>(dimension), std::numeric_limits<double>::min());
    for (const P* point : points)
        for (int k = 0; k < dimension; ++k) {
            const double x = point->getData(k);
            const auto axis = static_cast<std::size_t>(k);
            if (x < min[axis]) min[axis] = x;
            if (x > max[axis]) max[axis] = x;
        }
}

}  // namespace

template <typename P>
CubicGrid<P>::CubicGrid(const std::vector<P*>* points, int edgeLength) {
    const VRK::detail::Trace trace(">> first constructor CubicGrid", "<< first constructor CubicGrid",
                                   VRK::ObjectControl);
    init(withoutNull(points), nullptr, nullptr, edgeLength);
}

template <typename P>
CubicGrid<P>::CubicGrid(const std::vector<P*>* points, const double* min, const double* max, int edgeLength) {
    const VRK::detail::Trace trace(">> constructor CubicGrid", "<< constructor CubicGrid",
                                   VRK::ObjectControl);
    init(withoutNull(points), min, max, edgeLength);
}

template <typename P>
CubicGrid<P>::CubicGrid(const CubicGrid<P>& other) {
    *this = other;
}

template <typename P>
CubicGrid<P>& CubicGrid<P>::operator=(const CubicGrid<P>& other) {
    if (this == &other) return *this;
    const auto members = [](auto& grid) {
        return std::tie(grid.m_storage, grid.m_cubes, grid.m_cells, grid.m_cubesPerAxis, grid.m_gridMin,
                        grid.m_gridMax, grid.m_numberOfCubes, grid.m_dimension, grid.m_edgeLength,
                        grid.m_regular);
    };
    members(*this) = members(other);
    linkPoints();
    return *this;
}

template <typename P>
CubicGrid<P>::~CubicGrid() {
    const VRK::detail::Trace trace(">> destructor CubicGrid", "<< destructor CubicGrid", VRK::ObjectControl);
}

template <typename P>
void CubicGrid<P>::init(const std::vector<P*>& points, const double* min, const double* max, int edgeLength) {
    m_edgeLength = edgeLength < 1 ? kDefaultEdgeLength : edgeLength;
    m_dimension = points.empty() ? 0 : points.front()->getDimension();
    if (min && max) {
        m_gridMin.assign(min, min + m_dimension);
        m_gridMax.assign(max, max + m_dimension);
    } else {
        boundsOf(points, m_dimension, m_gridMin, m_gridMax);
    }
    countCubes();
    place(points);
    print();
}

template <typename P>
void CubicGrid<P>::countCubes() {
    const auto product = [this] {
        double cubes = 1.0;
        for (std::size_t k = 0; k < m_gridMin.size(); ++k)
            cubes *= cubesBetween(m_gridMin[k], m_gridMax[k], m_edgeLength);
        return cubes;
    };
    constexpr double kMost = std::numeric_limits<int>::max();
    const int asked = m_edgeLength;
    while (!(product() <= kMost) && m_edgeLength < kLargestEdgeLength)
        m_edgeLength = m_edgeLength > kLargestEdgeLength / 2 ? kLargestEdgeLength : 2 * m_edgeLength;
    if (m_edgeLength != asked)
        VRKLogger::getInstance()->log("The limits of the cubic grid ask for too many cubes of edge length " +
                                          std::to_string(asked) + ". Use now edge length " +
                                          std::to_string(m_edgeLength) + ".",
                                      VRK::Warning, VRK::Information);

    const double cubes = product();
    const bool countable = cubes <= kMost;
    m_numberOfCubes = countable ? static_cast<int>(cubes) : 0;
    m_cubesPerAxis.clear();
    for (std::size_t k = 0; k < m_gridMin.size(); ++k) {
        const double count = countable ? cubesBetween(m_gridMin[k], m_gridMax[k], m_edgeLength) : 0.0;
        m_cubesPerAxis.push_back(static_cast<int>(std::min(count, kMost)));
    }
}

template <typename P>
void CubicGrid<P>::place(const std::vector<P*>& points) {
    // Cube index above, input position below: sorting keeps the order of input within a cube.
    std::vector<std::uint64_t> order;
    order.reserve(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const int cube = getCubeIndex(points[i]);
        if (cube < 0)
            VRK::narration() << "== -1\n";
        else
            order.push_back(static_cast<std::uint64_t>(cube) << 32 | i);
        if (cube < 0 || isBeyondAnAxis(points[i])) m_regular = false;
    }
    std::sort(order.begin(), order.end());

    m_storage.assign(points.size(), emptyPoint<P>(m_dimension));
    for (std::size_t slot = 0; slot < order.size(); ++slot) {
        const P* point = points[order[slot] & 0xffffffffU];
        for (int k = 0; k < m_dimension; ++k)
            m_storage[slot].setData(point->getData(k), k);
        const std::uint64_t cube = order[slot] >> 32;
        if (slot == 0 || cube != order[slot - 1] >> 32)
            m_cubes.emplace_back(static_cast<int>(slot), static_cast<int>(slot), m_edgeLength);
        m_cubes.back().setEndIdx(static_cast<int>(slot));
    }
    linkPoints();
}

template <typename P>
void CubicGrid<P>::linkPoints() {
    m_points.resize(m_storage.size());
    std::transform(m_storage.begin(), m_storage.end(), m_points.begin(), [](P& p) { return &p; });
}

template <typename P>
P* CubicGrid<P>::getPoint(int i) {
    return i >= 0 && i < getNumberOfPoints() ? m_points[static_cast<std::size_t>(i)] : nullptr;
}

template <typename P>
int CubicGrid<P>::getCubeIndex(const P* point) const {
    std::int64_t index = 0;
    std::int64_t stride = 1;
    for (int k = 0; k < m_dimension; ++k) {
        const double c = std::ceil(point->getData(k) / m_edgeLength);
        if (!(c <= std::numeric_limits<int>::max())) return -1;
        if (c > 0.0) index += (static_cast<std::int64_t>(c) - 1) * stride;
        if (index >= m_numberOfCubes) return -1;
        stride *= m_cubesPerAxis[static_cast<std::size_t>(k)];
    }
    return index < m_numberOfCubes ? static_cast<int>(index) : -1;
}

template <typename P>
auto CubicGrid<P>::getCubeCoordinates(int cubeIndex) const -> Cell {
    Cell cell{};
    for (std::size_t k = 0; k < m_cubesPerAxis.size() && k < cell.size(); ++k) {
        cell[k] = cubeIndex % m_cubesPerAxis[k];
        cubeIndex /= m_cubesPerAxis[k];
    }
    return cell;
}

template <typename P>
bool CubicGrid<P>::isBeyondAnAxis(const P* point) const {
    for (int k = 0; k < m_dimension; ++k)
        if (std::ceil(point->getData(k) / m_edgeLength) > m_cubesPerAxis[static_cast<std::size_t>(k)])
            return true;
    return false;
}

template <typename P>
int CubicGrid<P>::reachInCubes(double eps) const {
    return static_cast<int>(std::min(std::ceil(eps / m_edgeLength), 1e9));
}

template <typename P>
bool CubicGrid<P>::coversRadius(double eps) const {
    const bool hasNeighbours = m_dimension == 2 || m_dimension == 3;
    return hasNeighbours && m_regular && eps <= static_cast<double>(reachInCubes(eps)) * m_edgeLength;
}

template <typename P>
template <typename Visit>
void CubicGrid<P>::visitNeighborhood(const P* point, double eps, Visit visit) {
    if (!point || (m_dimension != 2 && m_dimension != 3) || point->getDimension() != m_dimension) return;
    const int centreCube = getCubeIndex(point);
    if (centreCube < 0 || !(eps > 0.0)) return;
    const auto positionOf = [](const P& p) -> VRK::detail::CellList::Position {
        return {p.getData(0), p.getData(1), p.getData(2)};
    };
    if (!m_cells) {
        const std::size_t inside =
            m_cubes.empty() ? 0 : static_cast<std::size_t>(m_cubes.back().getEndIdx()) + 1;
        m_cells = std::make_shared<const VRK::detail::CellList>(
            inside, m_edgeLength, [&](std::size_t slot) { return positionOf(m_storage[slot]); });
    }

    const bool everyCubeIsNear = coversRadius(eps) && !isBeyondAnAxis(point);
    const Cell at = getCubeCoordinates(centreCube);
    const int reach = reachInCubes(eps);
    const auto isNear = [&](int cube) {
        const Cell cell = getCubeCoordinates(cube);
        for (std::size_t k = 0; k < cell.size(); ++k)
            if (std::abs(cell[k] - at[k]) > reach) return false;
        return true;
    };
    m_cells->visitBall(positionOf(*point), eps, VRK::detail::largestSquareWithin(eps),
                       [&](std::size_t place, double square) {
                           const std::uint32_t slot = m_cells->index(place);
                           const auto cube = [&] { return getCubeIndex(&m_storage[slot]); };
                           if (everyCubeIsNear || isNear(cube())) visit(slot, square);
                       });
}

template <typename P>
void CubicGrid<P>::getNeighborhood(const P* point, double eps, std::vector<P*>* out) {
    if (!out) return;
    out->clear();
    struct Found {
        std::int64_t visited;
        std::uint32_t slot;
        bool operator<(const Found& other) const {
            return visited != other.visited ? visited < other.visited : slot < other.slot;
        }
    };
    std::vector<Found> found;
    visitNeighborhood(point, eps, [&](std::uint32_t slot, double) {
        const Cell cell = getCubeCoordinates(getCubeIndex(&m_storage[slot]));
        std::int64_t visited = 0;
        for (std::size_t k = 0; k < m_cubesPerAxis.size(); ++k)
            visited = visited * m_cubesPerAxis[k] + cell[k];
        found.push_back({visited, slot});
    });
    std::sort(found.begin(), found.end());
    out->reserve(found.size());
    for (const Found& neighbour : found)
        out->push_back(m_points[neighbour.slot]);
}

template <typename P>
int CubicGrid<P>::getSizeOfNeighborhood(const P* point, double eps) {
    int count = 0;
    visitNeighborhood(point, eps, [&count](std::uint32_t, double) { ++count; });
    return count;
}

template <typename P>
double CubicGrid<P>::getSizeOfKNN(const P* point, int k) {
    if (k < 1) return 0.0;
    std::vector<double> squares;
    for (const double radius : {1.0, 2.0, 4.0, 16.0, 256.0}) {
        squares.clear();
        visitNeighborhood(point, radius, [&](std::uint32_t, double square) { squares.push_back(square); });
        if (squares.size() < static_cast<std::size_t>(k)) continue;
        const auto nth = squares.begin() + (k - 1);
        std::nth_element(squares.begin(), nth, squares.end());
        return std::sqrt(*nth);
    }
    return 0.0;
}

template <typename P>
void CubicGrid<P>::print() const {
    constexpr const char* kRule = "------------------------------\n";
    std::ostringstream text;
    text << kRule << "CubicGrid\n"
         << kRule << "Dimension: " << m_dimension << "\nAnzahl an Wuerfel: " << m_numberOfCubes
         << "\nKantenlaenge: " << m_edgeLength << "\nAnzahl an Punkten: " << m_points.size()
         << "\n------------------------------";
    VRKLogger::getInstance()->log(text.str(), VRK::Debug, VRK::Information);
}

template class CubicGrid<ClusterPoint<double>>;
template class CubicGrid<ClusterPointDDSC<double>>;
