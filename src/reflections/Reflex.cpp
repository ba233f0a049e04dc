#include "reflections/Reflex.h"

#include <cmath>
#include <new>
#include <numbers>
#include <sstream>
#include <tuple>

#include "foundation/VRKLogger.h"
#include "reflections/ReflexOnGrid.h"

namespace {

/// Deletes an object as exactly the given class. The qualified call says that this is meant, although the
/// class has virtual functions and a destructor that is not virtual.
template <typename T>
void destroyAs(T* object) {
    object->T::~T();
    Reflex::operator delete(object);
}

}  // namespace

Reflex::Reflex(double x, double y, double z) : m_x(x), m_y(y), m_z(z) {}

Reflex::Reflex(const double*) {}

void* Reflex::operator new(std::size_t size) {
    return ::operator new(size);
}

void* Reflex::operator new(std::size_t, void* place) noexcept {
    return place;
}

void Reflex::operator delete(void* block) noexcept {
    ::operator delete(block);
}

void Reflex::operator delete(void*, void*) noexcept {}

void Reflex::destroy(Reflex* reflex) {
    if (!reflex) return;
    if (auto* region = dynamic_cast<ReflexOnGrid*>(reflex))
        destroyAs(region);
    else
        destroyAs(reflex);
}

double Reflex::getCenter(int axis, int) {
    return getCenter(axis);
}

double Reflex::getCenter(int axis) {
    return axis == 0 ? m_x : axis == 1 ? m_y : m_z;
}

void Reflex::getCenter(double& x, double& y, double& z) {
    x = m_x;
    y = m_y;
    z = m_z;
}

double Reflex::getCenterInX() {
    return m_x;
}

double Reflex::getCenterInY() {
    return m_y;
}

double Reflex::getCenterInZ() {
    return m_z;
}

void Reflex::merge(Reflex* other) {
    const double added = other->m_intensity;
    const auto mean = [&](double theirs, double ours) {
        const double merged = (theirs * added + ours * m_intensity) / (added + m_intensity);
        m_intensity += added;
        return merged;
    };
    m_x = mean(other->m_x, m_x);
    m_y = mean(other->m_y, m_y);
    m_z = mean(other->m_z, m_z);
}

void Reflex::bin(int factor) {
    if (factor <= 0) return;
    const double divisor = factor ^ 2;
    m_x /= divisor;
    m_y /= divisor;
    m_z /= divisor;
}

bool Reflex::isInside(int x, int y, int z) {
    return m_x == x && m_y == y && m_z == z;
}

int Reflex::getNumberOfVoxels() {
    return 1;
}

std::set<int>* Reflex::getPoints() {
    return nullptr;
}

void Reflex::getHKL(int& h, int& k, int& l) const {
    h = m_h;
    k = m_k;
    l = m_l;
}

void Reflex::setHKL(int h, int k, int l) {
    m_h = h;
    m_k = k;
    m_l = l;
}

bool Reflex::isIndicated() const {
    return m_h != kNotIndexed && m_k != kNotIndexed && m_l != kNotIndexed;
}

bool Reflex::setIntensity(double value) {
    if (!(value >= 0.0)) return false;
    m_intensity = value;
    return true;
}

double Reflex::getDistance(const Reflex* other) const {
    const double dx = m_x - other->m_x;
    const double dy = m_y - other->m_y;
    const double dz = m_z - other->m_z;
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

Reflex* Reflex::rotatez(double angleDegrees) const {
    const double angle = angleDegrees * std::numbers::pi / 180.0;
    const double cosine = std::cos(angle);
    const double sine = std::sin(angle);
    return new Reflex(cosine * m_x - sine * m_y, cosine * m_y + sine * m_x, m_z);
}

bool Reflex::compareByHKL(Reflex* a, Reflex* b) {
    return std::tie(a->m_h, a->m_k, a->m_l) < std::tie(b->m_h, b->m_k, b->m_l);
}

void Reflex::print() {
    std::ostringstream text;
    text << "---------- Information about reflection ----------\n"
         << "Center: [" << m_x << "," << m_y << "," << m_z << "]\n"
         << "HKL: [" << m_h << "," << m_k << "," << m_l << "]\n"
         << "Intensity: " << m_intensity << "\n"
         << "--------------------------------------------------\n";
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}
