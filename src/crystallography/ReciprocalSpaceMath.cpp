#include "crystallography/ReciprocalSpaceMath.h"

#include <cmath>

#include "crystallography/BasicMath.h"
#include "crystallography/Space.h"

double ReciprocalSpaceMath::Dot(const Space& space, const double hkl1[3], const double hkl2[3]) {
    double v1[3];
    double v2[3];
    Cartesian(space, hkl1, v1);
    Cartesian(space, hkl2, v2);
    return BasicMath::Dot(v1, v2);
}

double ReciprocalSpaceMath::Length(const Space& space, const double hkl[3]) {
    return std::sqrt(Dot(space, hkl, hkl));
}

double ReciprocalSpaceMath::Spacing(const Space& space, const double hkl[3]) {
    return 1.0 / Length(space, hkl);
}

double ReciprocalSpaceMath::Angle(const Space& space, const double hkl1[3], const double hkl2[3]) {
    double v1[3];
    double v2[3];
    Cartesian(space, hkl1, v1);
    Cartesian(space, hkl2, v2);
    return BasicMath::ConvertAngleFromRadianToDegree(BasicMath::CalcAngleBetweenAandB(v1, v2));
}

void ReciprocalSpaceMath::Cartesian(const Space& space, const double hkl[3], double out[3]) {
    double a[3];
    double b[3];
    double c[3];
    space.getReciprocalBaseVectors(a, b, c);
    for (int i = 0; i < 3; ++i)
        out[i] = hkl[0] * a[i] + hkl[1] * b[i] + hkl[2] * c[i];
}
