#include "crystallography/ReciprocalSpaceMath.h"

#include <cmath>

#include "crystallography/Space.h"

double ReciprocalSpaceMath::Dot(const Space& space, const double hkl1[3], const double hkl2[3]) {
    return SpaceMath::Dot(space.reciprocalBase(), hkl1, hkl2);
}

double ReciprocalSpaceMath::Length(const Space& space, const double hkl[3]) {
    return std::sqrt(Dot(space, hkl, hkl));
}

double ReciprocalSpaceMath::Spacing(const Space& space, const double hkl[3]) {
    return 1.0 / Length(space, hkl);
}

double ReciprocalSpaceMath::Angle(const Space& space, const double hkl1[3], const double hkl2[3]) {
    return SpaceMath::Angle(space.reciprocalBase(), hkl1, hkl2);
}

void ReciprocalSpaceMath::Cartesian(const Space& space, const double hkl[3], double out[3]) {
    SpaceMath::Cartesian(space.reciprocalBase(), hkl, out);
}
