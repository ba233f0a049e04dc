#include "cellfinding/Line.h"

#include <vector>

#include "cellfinding/detail/Trace.h"

namespace {

constexpr const char* kEnter = ">> constructor Line";
constexpr const char* kLeave = "<< constructor Line";

bool isValidDimension(int dimension) {
    if (dimension > 0 && dimension <= 255) return true;
    VRKLogger::getInstance()->log("Dimension 0 not valid.", VRK::Error, VRK::Information);
    return false;
}

template <typename T>
Point<T> converted(const double* values, int dimension) {
    Point<T> point(static_cast<unsigned short>(dimension));
    for (int i = 0; i < dimension; ++i)
        point.setData(static_cast<T>(values[i]), i);
    return point;
}

}  // namespace

template <typename T>
Line<T>::Line(int dimension) {
    const VRK::detail::Trace trace(kEnter, kLeave, VRK::ObjectControl);
    if (!isValidDimension(dimension)) return;
    const std::vector<T> ones(static_cast<std::size_t>(dimension), T(1));
    const Point<T> vec(ones.data(), static_cast<unsigned char>(dimension));
    const Point<T> point(static_cast<unsigned short>(dimension));
    take(&point, &vec);
}

template <typename T>
Line<T>::Line(const Point<T>* point, const Point<T>* vec) {
    const VRK::detail::Trace trace(kEnter, kLeave, VRK::ObjectControl);
    if (!point || !vec || point->getDimension() != vec->getDimension()) {
        VRKLogger::getInstance()->log("Point and vec must be of the same dimension.", VRK::Error,
                                      VRK::Information);
        return;
    }
    take(point, vec);
}

template <typename T>
Line<T>::Line(const double* point, const double* vec, int dimension) {
    const VRK::detail::Trace trace(kEnter, kLeave, VRK::ObjectControl);
    if (!isValidDimension(dimension)) return;
    const Point<T> p = converted<T>(point, dimension);
    const Point<T> v = converted<T>(vec, dimension);
    take(&p, &v);
}

template <typename T>
Line<T>::Line(const Line<T>& other) {
    const VRK::detail::Trace trace(kEnter, kLeave, VRK::ObjectControl);
    if (other.m_point && other.m_vec) take(other.m_point.get(), other.m_vec.get());
}

template <typename T>
Line<T>& Line<T>::operator=(const Line<T>& other) {
    if (this == &other) return *this;
    m_point = other.m_point ? std::make_unique<Point<T>>(other.m_point.get()) : nullptr;
    m_vec = other.m_vec ? std::make_unique<Point<T>>(other.m_vec.get()) : nullptr;
    m_dimension = other.m_dimension;
    return *this;
}

template <typename T>
Line<T>::~Line() {
    const VRK::detail::Trace trace(">> destructor Line", "<< destructor Line", VRK::ObjectControl);
}

template <typename T>
void Line<T>::take(const Point<T>* point, const Point<T>* vec) {
    m_point = std::make_unique<Point<T>>(point);
    m_vec = std::make_unique<Point<T>>(vec);
    m_dimension = point->getDimension();
}

template <typename T>
bool Line<T>::setPoint(const Point<T>* point) {
    if (!point || !m_point || point->getDimension() != m_dimension) return false;
    *m_point = *point;
    return true;
}

template <typename T>
bool Line<T>::setVec(const Point<T>* vec) {
    if (!vec || !m_vec || vec->getDimension() != m_dimension) return false;
    *m_vec = *vec;
    return true;
}

template <typename T>
Point<T>* Line<T>::getFootOfAPerpendicular(const Point<T>* q) const {
    if (!q || !m_point || !m_vec || q->getDimension() != m_dimension) {
        VRKLogger::getInstance()->log("Dimension are not the same", VRK::Error, VRK::Information);
        return nullptr;
    }
    double along = 0.0;
    double square = 0.0;
    for (int k = 0; k < m_dimension; ++k) {
        const auto v = static_cast<double>(m_vec->getData(k));
        along += v * (static_cast<double>(q->getData(k)) - static_cast<double>(m_point->getData(k)));
        square += v * v;
    }
    const double t = along / square;
    auto foot = std::make_unique<Point<T>>(m_point.get());
    for (int k = 0; k < m_dimension; ++k) {
        const double p = static_cast<double>(m_point->getData(k));
        foot->setData(static_cast<T>(p + t * static_cast<double>(m_vec->getData(k))), k);
    }
    return foot.release();
}

template <typename T>
double Line<T>::getDistTo(const Point<T>* q) const {
    const std::unique_ptr<Point<T>> foot(getFootOfAPerpendicular(q));
    return foot ? foot->distTo(q) : 0.0;
}

template <typename T>
bool Line<T>::equalTo(const Line<T>* other) const {
    if (m_dimension < 1) return true;
    if (!other || !other->m_point || !other->m_vec) return false;
    return m_point->isEqual(other->m_point.get()) && m_vec->isEqual(other->m_vec.get());
}

template <typename T>
void Line<T>::print() const {
    VRKLogger::getInstance()->log("Line: ", VRK::Normal, VRK::Information);
    if (m_point) m_point->print();
    if (m_vec) m_vec->print();
}

template class Line<float>;
template class Line<double>;
