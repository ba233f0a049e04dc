#include "cellfinding/DiffVector3D.h"

#include <cmath>

DiffVector3D::DiffVector3D(double x, double y, double z) : DiffVector(x, y), m_z(z) {
    m_dimension = 3;
    DiffVector3D::updateLength();
}

DiffVector3D::~DiffVector3D() = default;

double DiffVector3D::getValue(int i) const {
    return i == 2 ? m_z : DiffVector::getValue(i);
}

void DiffVector3D::getValues(double& x, double& y, double& z) const {
    x = m_x;
    y = m_y;
    z = m_z;
}

void DiffVector3D::setValue(int i, double v) {
    if (i == 2) m_z = v;
    DiffVector::setValue(i, v);
}

void DiffVector3D::setValues(double x, double y, double z) {
    m_z = z;
    setValues(x, y);
}

void DiffVector3D::updateLength() {
    m_length = std::sqrt(m_x * m_x + m_y * m_y + m_z * m_z);
}
