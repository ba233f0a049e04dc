#include "tiltaxis/ReflectionTransformation.h"

#include <cmath>
#include <memory>
#include <numbers>

#include "tiltaxis/Reflex2d.h"

ReflexVector* ReflectionTransformation::rotate2DReflectionsInImagePlane(const ReflexVector* spots,
                                                                        double angleDegrees) {
    if (!spots) return nullptr;
    const double angle = angleDegrees * std::numbers::pi / 180.0;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    ReflexVectorPtr rotated(new ReflexVector);
    rotated->reserve(spots->size());
    for (const Reflex* reflex : *spots) {
        const auto* spot = dynamic_cast<const Reflex2d*>(reflex);
        if (!spot) continue;
        auto turned = std::make_unique<Reflex2d>(*spot);
        turned->setInPlane(c * spot->getU() + s * spot->getV(), c * spot->getV() - s * spot->getU());
        rotated->append(ReflexPtr(turned.release()));
    }
    return rotated.release();
}

void ReflectionTransformation::transformTo3DPositions(ReflexVector* spots) {
    if (!spots) return;
    for (Reflex* reflex : *spots) {
        auto* spot = dynamic_cast<Reflex2d*>(reflex);
        if (!spot) continue;
        const double tilt = spot->getTilt() * std::numbers::pi / 180.0;
        spot->setPosition(spot->getU() * std::cos(tilt), spot->getV(), spot->getU() * std::sin(tilt));
    }
}
