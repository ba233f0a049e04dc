#include "crystallography/Space.h"

#include <algorithm>
#include <cmath>

namespace {

using Base = double[3][3];

void copyRows(const double a[3], const double b[3], const double c[3], Base& out) {
    std::copy_n(a, 3, out[0]);
    std::copy_n(b, 3, out[1]);
    std::copy_n(c, 3, out[2]);
}

}  // namespace

Space::Space()
    : m_real{{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}},
      m_reciprocal{{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}} {}

bool Space::setBase(const double base[3][3], double own[3][3], double dual[3][3]) {
    if (!SpaceMath::DualBase(base, dual)) return false;
    std::copy_n(&base[0][0], 9, &own[0][0]);
    return true;
}

bool Space::setRealBaseVectors(const double a[3], const double b[3], const double c[3]) {
    Base base;
    copyRows(a, b, c, base);
    return setBase(base, m_real, m_reciprocal);
}

bool Space::setReciprocalBaseVectors(const double a[3], const double b[3], const double c[3]) {
    Base base;
    copyRows(a, b, c, base);
    return setBase(base, m_reciprocal, m_real);
}

bool Space::setRealDimensions(const SpaceDimensions& dimensions) {
    Base base;
    return SpaceMath::BaseVectors(dimensions, base) && setBase(base, m_real, m_reciprocal);
}

bool Space::setReciprocalDimensions(const SpaceDimensions& dimensions) {
    Base base;
    return SpaceMath::BaseVectors(dimensions, base) && setBase(base, m_reciprocal, m_real);
}

void Space::getRealBaseVectors(double a[3], double b[3], double c[3]) const {
    std::copy_n(m_real[0], 3, a);
    std::copy_n(m_real[1], 3, b);
    std::copy_n(m_real[2], 3, c);
}

void Space::getReciprocalBaseVectors(double a[3], double b[3], double c[3]) const {
    std::copy_n(m_reciprocal[0], 3, a);
    std::copy_n(m_reciprocal[1], 3, b);
    std::copy_n(m_reciprocal[2], 3, c);
}

bool Space::equal(const Space& other, double tolerance) const {
    const SpaceDimensions d = getRealDimensions();
    const double limit = tolerance * std::max({d.a, d.b, d.c});
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (!(std::abs(m_real[i][j] - other.m_real[i][j]) <= limit)) return false;
    return true;
}
