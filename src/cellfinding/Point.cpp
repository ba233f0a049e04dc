#include "cellfinding/Point.h"

#include <sstream>
#include <type_traits>
#include <vector>

#include "cellfinding/detail/PointText.h"
#include "foundation/VRKLogger.h"

template <typename T>
void Point<T>::setDataAndDimension(const T* data, unsigned char dimension) {
    if (dimension == m_dimension) {
        if (!data)
            std::fill_n(m_data, dimension, T(0));
        else if (data != m_data)
            std::copy_n(data, dimension, m_data);
        return;
    }
    std::vector<T> values(dimension, T(0));
    if (data) std::copy_n(data, dimension, values.begin());
    release();
    allocate(dimension);
    std::copy(values.begin(), values.end(), m_data);
}

template <typename T>
double Point<T>::calcAngle(const Point<T>* other) const {
    if (other->m_dimension != m_dimension) return std::numeric_limits<double>::max();
    const double cosine = Dot(other) / (getLength() * other->getLength());
    return std::acos(std::clamp(cosine, -1.0, 1.0));
}

template <typename T>
void Point<T>::multiply(double f) {
    for (int i = 0; i < m_dimension; ++i)
        m_data[i] = static_cast<T>(static_cast<double>(m_data[i]) * f);
}

template <typename T>
void Point<T>::normalize() {
    const double length = getLength();
    if (std::is_integral_v<T> && length == 0.0) return;
    for (int i = 0; i < m_dimension; ++i)
        m_data[i] = static_cast<T>(static_cast<double>(m_data[i]) / length);
}

template <typename T>
bool Point<T>::isEqual(const Point<T>* other) const {
    return other->m_dimension == m_dimension && std::equal(m_data, m_data + m_dimension, other->m_data);
}

template <typename T>
void Point<T>::print() const {
    std::ostringstream text;
    text << "( ";
    VRK::detail::writeList(text, m_data, m_dimension);
    text << " )";
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

template <typename T>
void Point<T>::printCoefficientsWithLength() const {
    std::ostringstream text;
    text << "( ";
    VRK::detail::writeList(text, m_data, m_dimension);
    text << " ) - length = " << getLength();
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

template <typename T>
void Point<T>::printOnlyCoefficients() const {
    std::ostringstream text;
    VRK::detail::writeList(text, m_data, m_dimension);
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

template class Point<int>;
template class Point<float>;
template class Point<double>;
