#include "crystallography/RealSpaceMath.h"

#include <cmath>

#include "crystallography/Space.h"

double RealSpaceMath::Dot(const Space& space, const double uvw1[3], const double uvw2[3]) {
    return SpaceMath::Dot(space.realBase(), uvw1, uvw2);
}

double RealSpaceMath::Length(const Space& space, const double uvw[3]) {
    return std::sqrt(Dot(space, uvw, uvw));
}

double RealSpaceMath::Angle(const Space& space, const double uvw1[3], const double uvw2[3]) {
    return SpaceMath::Angle(space.realBase(), uvw1, uvw2);
}

void RealSpaceMath::Cartesian(const Space& space, const double uvw[3], double out[3]) {
    SpaceMath::Cartesian(space.realBase(), uvw, out);
}
