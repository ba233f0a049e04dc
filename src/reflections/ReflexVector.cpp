#include "reflections/ReflexVector.h"

#include <algorithm>
#include <iostream>
#include <limits>

#include "crystallography/BasicMath.h"

namespace {

double distanceToCenter(Reflex& reflex, double cx, double cy, double cz, int type) {
    const double offset[3] = {cx - reflex.getCenter(0, type), cy - reflex.getCenter(1, type),
                              cz - reflex.getCenter(2, type)};
    return BasicMath::Norm(offset);
}

/// Removes the elements that the test does not want to keep.
template <typename Keep>
void keepOnly(ReflexVector& list, Keep keep) {
    std::erase_if(list, [&](Reflex* reflex) { return reflex && !keep(*reflex); });
}

bool fitsInt(double value) {
    return value > static_cast<double>(std::numeric_limits<int>::min()) - 1.0 &&
           value < static_cast<double>(std::numeric_limits<int>::max()) + 1.0;
}

}  // namespace

ReflexVector::~ReflexVector() {
    for (Reflex* reflex : *this) {
        if (!reflex) continue;
        reflex->Reflex::~Reflex();
        Reflex::operator delete(reflex);
    }
}

void ReflexVector::destroy(ReflexVector* list) {
    if (list) list->destroyElements();
    delete list;
}

void ReflexVector::destroyElements() {
    for (Reflex* reflex : *this)
        Reflex::destroy(reflex);
    clear();
}

void ReflexVector::append(ReflexPtr reflex) {
    push_back(nullptr);
    back() = reflex.release();
}

void ReflexVector::print() {
    std::cout << "Count of reflections: " << size() << std::endl;
}

void ReflexVector::removeAllReflexesSmallerThanX(int n) {
    keepOnly(*this, [&](Reflex& reflex) { return reflex.getNumberOfVoxels() >= n; });
}

void ReflexVector::romoveAllReflexesGreaterThanX(int n) {
    keepOnly(*this, [&](Reflex& reflex) { return reflex.getNumberOfVoxels() <= n; });
}

void ReflexVector::cutOffZeroBeam(double cx, double cy, double cz, double radius, int type) {
    keepOnly(*this, [&](Reflex& reflex) { return radius <= distanceToCenter(reflex, cx, cy, cz, type); });
}

void ReflexVector::limitResolution(double cx, double cy, double cz, double radius, int type) {
    keepOnly(*this, [&](Reflex& reflex) { return distanceToCenter(reflex, cx, cy, cz, type) <= radius; });
}

Reflex* ReflexVector::getReflex(double x, double y, double z) {
    if (!fitsInt(x) || !fitsInt(y) || !fitsInt(z)) return nullptr;
    const auto contains = [px = static_cast<int>(x), py = static_cast<int>(y), pz = static_cast<int>(z)](
                              Reflex* reflex) { return reflex && reflex->isInside(px, py, pz); };
    const auto found = std::find_if(begin(), end(), contains);
    return found == end() ? nullptr : *found;
}

void ReflexVector::sortReflectionsByHKL() {
    std::sort(begin(), end(), Reflex::compareByHKL);
}
