#include "tiltaxis/Reflex2d.h"

Reflex2d::Reflex2d(int pattern, double tiltDegrees, double u, double v)
    : Reflex(u, v, 0.0), m_pattern(pattern), m_tilt(tiltDegrees), m_u(u), m_v(v) {}

void Reflex2d::setInPlane(double u, double v) {
    m_u = u;
    m_v = v;
    setPosition(u, v, 0.0);
}

void Reflex2d::setPosition(double x, double y, double z) {
    m_x = x;
    m_y = y;
    m_z = z;
}
