#include "cellfinding/DiffVector.h"

#include <cmath>

DiffVector::DiffVector(double x, double y) : m_x(x), m_y(y) {
    m_length = std::sqrt(x * x + y * y);
}

DiffVector::~DiffVector() = default;

double DiffVector::getValue(int i) const {
    return i == 0 ? m_x : i == 1 ? m_y : 0.0;
}

void DiffVector::getValues(double& x, double& y) const {
    x = m_x;
    y = m_y;
}

void DiffVector::setValue(int i, double v) {
    if (i == 0) m_x = v;
    if (i == 1) m_y = v;
    updateLength();
}

void DiffVector::setValues(double x, double y) {
    m_x = x;
    m_y = y;
    updateLength();
}

bool DiffVector::compareLength(const DiffVector* a, const DiffVector* b) {
    return a->m_dimension == b->m_dimension && a->m_length <= b->m_length;
}

void DiffVector::updateLength() {
    m_length = std::sqrt(m_x * m_x + m_y * m_y);
}
