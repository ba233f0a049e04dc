#include "cellfinding/PointSet.h"

#include <limits>
#include <new>
#include <sstream>

#include "cellfinding/Line.h"
#include "cellfinding/detail/PointText.h"
#include "cellfinding/detail/Trace.h"
#include "crystallography/VoxVTKMath.h"

namespace {

constexpr double kLargest = std::numeric_limits<double>::max();
constexpr double kSmallestPositive = std::numeric_limits<double>::min();

void logOutOfMemory() {
    VRKLogger::getInstance()->log("Could not allocate enough memory.", VRK::Error, VRK::Information);
}

}  // namespace

template <typename P>
PointSet<P>::PointSet(const std::vector<P*>* points) {
    assign(points);
}

template <typename P>
PointSet<P>::PointSet(const P* point) {
    const std::vector<P*> one(point ? 1 : 0, const_cast<P*>(point));  // read only
    assign(&one);
}

template <typename P>
PointSet<P>::PointSet(const PointSet<P>& other)
    : m_dimension(other.m_dimension),
      m_center(other.m_center),
      m_moments(other.m_moments),
      m_axes(other.m_axes),
      m_min(other.m_min),
      m_max(other.m_max) {
    const VRK::detail::Trace trace(">> Constructor PointSet", "<< Constructor PointSet", VRK::ObjectControl);
    m_points.reserve(other.m_points.size());
    for (const auto& point : other.m_points)
        m_points.push_back(std::make_unique<P>(point.get()));
}

template <typename P>
PointSet<P>& PointSet<P>::operator=(const PointSet<P>& other) {
    if (this == &other) return *this;
    std::vector<std::unique_ptr<P>> copies;
    copies.reserve(other.m_points.size());
    for (const auto& point : other.m_points)
        copies.push_back(std::make_unique<P>(point.get()));
    m_dimension = other.m_dimension;
    m_center = other.m_center;
    m_moments = other.m_moments;
    m_axes = other.m_axes;
    m_min = other.m_min;
    m_max = other.m_max;
    m_points = std::move(copies);
    return *this;
}

template <typename P>
PointSet<P>::~PointSet() {
    const VRK::detail::Trace trace(">> Destructor PointSet", "<< Destructor PointSet", VRK::ObjectControl);
    m_points.clear();
}

template <typename P>
bool PointSet<P>::setNewPoints(const std::vector<P*>* points) {
    return assign(points);
}

template <typename P>
bool PointSet<P>::assign(const std::vector<P*>* points) {
    const VRK::detail::Trace trace(">> Constructor PointSet", "<< Constructor PointSet", VRK::ObjectControl);
    // The given points may be the set's own, so those stay alive to the end.
    const std::vector<std::unique_ptr<P>> old = std::move(m_points);
    m_points.clear();
    m_dimension = 0;

    const P* first = nullptr;
    if (points) {
        const auto found = std::find_if(points->begin(), points->end(), [](const P* p) { return p; });
        if (found != points->end()) first = *found;
    }
    if (!first) {
        VRKLogger::getInstance()->log("No points given.", VRK::Error, VRK::Information);
        return false;
    }
    m_dimension = first->getDimension();
    for (const P* point : *points) {
        if (point && point->getDimension() != m_dimension)
            VRKLogger::getInstance()->log("Not all points are of the same dimension.", VRK::Error,
                                          VRK::Information);
    }
    initVariables();
    init(points);
    calculateMomentsOfInertiaAndMassCentroidAxis();
    return true;
}

template <typename P>
void PointSet<P>::initVariables() {
    try {
        const auto n = static_cast<std::size_t>(m_dimension);
        m_center.assign(n, 0.0);
        m_moments.assign(n, 0.0);
        m_axes.assign(n * n, 0.0);
        m_min.resize(n);
        m_max.resize(n);
    } catch (const std::bad_alloc&) {
        logOutOfMemory();
        throw;
    }
    resetBounds();
}

template <typename P>
void PointSet<P>::resetBounds() {
    std::fill(m_min.begin(), m_min.end(), kLargest);
    std::fill(m_max.begin(), m_max.end(), kSmallestPositive);
}

template <typename P>
void PointSet<P>::widen(const P& point) {
    for (int k = 0; k < m_dimension; ++k) {
        const auto x = static_cast<double>(point.getData(k));
        const auto axis = static_cast<std::size_t>(k);
        if (x < m_min[axis]) m_min[axis] = x;
        if (x > m_max[axis]) m_max[axis] = x;
    }
}

template <typename P>
void PointSet<P>::init(const std::vector<P*>* points) {
    const VRK::detail::Trace trace(">> PointSet::init", "<< PointSet::init");
    m_points.reserve(points->size());
    for (const P* point : *points) {
        if (!point) continue;
        for (int k = 0; k < m_dimension; ++k)
            m_center[static_cast<std::size_t>(k)] += static_cast<double>(point->getData(k));
        widen(*point);
        m_points.push_back(std::make_unique<P>(point));
    }
    for (double& x : m_center)
        x /= static_cast<double>(m_points.size());
}

template <typename P>
double PointSet<P>::calcCovEntry(int i, int j) const {
    const double ci = m_center[static_cast<std::size_t>(i)];
    const double cj = m_center[static_cast<std::size_t>(j)];
    double sum = 0.0;
    for (const auto& point : m_points)
        sum += (static_cast<double>(point->getData(i)) - ci) * (static_cast<double>(point->getData(j)) - cj);
    return sum / static_cast<double>(m_points.size());
}

template <typename P>
void PointSet<P>::calculateMomentsOfInertiaAndMassCentroidAxis() {
    if (m_dimension < 1 || m_points.empty()) return;
    try {
        const auto n = static_cast<std::size_t>(m_dimension);
        std::vector<double> covariance(n * n);
        std::vector<double*> rows(n);
        std::vector<double*> axes(n);
        for (int i = 0; i < m_dimension; ++i) {
            const auto row = static_cast<std::size_t>(i);
            rows[row] = &covariance[row * n];
            axes[row] = &m_axes[row * n];
            for (int j = 0; j <= i; ++j) {
                const auto column = static_cast<std::size_t>(j);
                rows[row][column] = rows[column][row] = calcCovEntry(i, j);
            }
        }
        if (VoxVTKMath::JacobiN(rows.data(), m_dimension, m_moments.data(), axes.data())) return;
        constexpr double kUndefined = std::numeric_limits<double>::quiet_NaN();
        std::fill(m_moments.begin(), m_moments.end(), kUndefined);
        std::fill(m_axes.begin(), m_axes.end(), kUndefined);
    } catch (const std::bad_alloc&) {
        logOutOfMemory();
        throw;
    }
}

template <typename P>
bool PointSet<P>::addPoint(const P* point) {
    if (!point || point->getDimension() != m_dimension) return false;
    try {
        m_points.push_back(std::make_unique<P>(point));
        widen(*point);
        const auto n = static_cast<double>(m_points.size());
        for (int k = 0; k < m_dimension; ++k) {
            double& center = m_center[static_cast<std::size_t>(k)];
            center = (center * (n - 1.0) + static_cast<double>(point->getData(k))) / n;
        }
        calculateMomentsOfInertiaAndMassCentroidAxis();
        return true;
    } catch (const std::bad_alloc&) {
        logOutOfMemory();
        throw;
    } catch (...) {
        VRKLogger::getInstance()->log("A unspecified exception occurred!", VRK::Error, VRK::Information);
        return false;
    }
}

template <typename P>
bool PointSet<P>::deletePoint(const P* point) {
    if (!point || point->getDimension() != m_dimension) return false;
    const auto found = std::find_if(m_points.begin(), m_points.end(),
                                    [&](const std::unique_ptr<P>& own) { return own->isEqual(point); });
    if (found == m_points.end()) return false;
    m_points.erase(found);

    resetBounds();
    std::fill(m_center.begin(), m_center.end(), 0.0);
    if (m_points.empty()) {
        std::fill(m_moments.begin(), m_moments.end(), 0.0);
        std::fill(m_axes.begin(), m_axes.end(), 0.0);
        return true;
    }
    for (const auto& own : m_points) {
        widen(*own);
        for (int k = 0; k < m_dimension; ++k)
            m_center[static_cast<std::size_t>(k)] += static_cast<double>(own->getData(k));
    }
    for (double& x : m_center)
        x /= static_cast<double>(m_points.size());
    calculateMomentsOfInertiaAndMassCentroidAxis();
    return true;
}

template <typename P>
P* PointSet<P>::getPointAt(int i) const {
    return i >= 0 && i < getNumberOfPoints() ? m_points[static_cast<std::size_t>(i)].get() : nullptr;
}

template <typename P>
double PointSet<P>::getCenterOfGrafity(int axis) const {
    return hasAxis(axis) ? m_center[static_cast<std::size_t>(axis)] : kLargest;
}

template <typename P>
void PointSet<P>::getCenterOfGrafity(double* out) const {
    std::copy_n(m_center.begin(), m_dimension, out);
}

template <typename P>
void PointSet<P>::getCenterOfGrafity(P* out) const {
    if (!out || m_dimension < 1 || out->getDimension() != m_dimension) return;
    for (int k = 0; k < m_dimension; ++k)
        out->setData(static_cast<typename P::ValueType>(m_center[static_cast<std::size_t>(k)]), k);
}

template <typename P>
double PointSet<P>::getMin(int axis) const {
    return hasAxis(axis) ? m_min[static_cast<std::size_t>(axis)] : kSmallestPositive;
}

template <typename P>
double PointSet<P>::getMax(int axis) const {
    return hasAxis(axis) ? m_max[static_cast<std::size_t>(axis)] : kLargest;
}

template <typename P>
void PointSet<P>::getMin(double* out) const {
    std::copy_n(m_min.begin(), m_dimension, out);
}

template <typename P>
void PointSet<P>::getMax(double* out) const {
    std::copy_n(m_max.begin(), m_dimension, out);
}

template <typename P>
double PointSet<P>::getMomentsOfInertia(int k) const {
    return hasAxis(k) ? m_moments[static_cast<std::size_t>(k)] : kLargest;
}

template <typename P>
double PointSet<P>::getMassCentroidAxis(int row, int column) const {
    if (!hasAxis(row) || !hasAxis(column)) return kLargest;
    return m_axes[static_cast<std::size_t>(row * m_dimension + column)];
}

template <typename P>
void PointSet<P>::getMassCentroidAxis(int column, double* out) const {
    for (int row = 0; row < m_dimension; ++row)
        out[row] = getMassCentroidAxis(row, column);
}

template <typename P>
double PointSet<P>::ratioOfMoments() const {
    return getMomentsOfInertia(0) / getMomentsOfInertia(m_dimension - 1);
}

template <typename P>
bool PointSet<P>::getLine(Line<double>* line) const {
    const double ratio = ratioOfMoments();
    if (0.0 <= ratio && ratio <= 10.0) return false;
    if (!line || m_dimension < 1) return false;
    const auto dimension = static_cast<unsigned char>(m_dimension);
    std::vector<double> axis(static_cast<std::size_t>(m_dimension));
    getMassCentroidAxis(0, axis.data());
    const Point<double> point(m_center.data(), dimension);
    const Point<double> direction(axis.data(), dimension);
    return line->setPoint(&point) && line->setVec(&direction);
}

template <typename P>
bool PointSet<P>::isSpherical(int factor) const {
    if (factor == 0) return false;
    const double ratio = ratioOfMoments();
    const int least = 1 / factor;
    return least <= ratio && ratio <= factor;
}

template <typename P>
bool PointSet<P>::isNear(const PointSet<P>*) const {
    return true;
}

template <typename P>
void PointSet<P>::print() const {
    std::ostringstream text;
    const auto line = [&](const char* label, const std::vector<double>& values) {
        text << label;
        VRK::detail::writeList(text, values.data(), m_dimension);
        text << '\n';
    };
    text << "PointSet:\nNumber of Points = " << m_points.size() << '\n';
    line("Center of grafity  = ", m_center);
    line("Minimum values = ", m_min);
    line("Maximum values = ", m_max);
    line("Moments of inertia = ", m_moments);
    text << "Mass centroid axis: ";
    for (int row = 0; row < m_dimension; ++row) {
        text << '\n';
        VRK::detail::writeList(text, m_axes.data() + row * m_dimension, m_dimension);
    }
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

template class PointSet<Point<int>>;
template class PointSet<Point<float>>;
template class PointSet<Point<double>>;
