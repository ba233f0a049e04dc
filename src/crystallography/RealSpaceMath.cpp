#include "crystallography/RealSpaceMath.h"

#include <cmath>

#include "crystallography/BasicMath.h"
#include "crystallography/Space.h"

double RealSpaceMath::Dot(const Space& space, const double uvw1[3], const double uvw2[3]) {
    double v1[3];
    double v2[3];
    Cartesian(space, uvw1, v1);
    Cartesian(space, uvw2, v2);
    return BasicMath::Dot(v1, v2);
}

double RealSpaceMath::Length(const Space& space, const double uvw[3]) {
    return std::sqrt(Dot(space, uvw, uvw));
}

double RealSpaceMath::Angle(const Space& space, const double uvw1[3], const double uvw2[3]) {
    double v1[3];
    double v2[3];
    Cartesian(space, uvw1, v1);
    Cartesian(space, uvw2, v2);
    return BasicMath::ConvertAngleFromRadianToDegree(BasicMath::CalcAngleBetweenAandB(v1, v2));
}

void RealSpaceMath::Cartesian(const Space& space, const double uvw[3], double out[3]) {
    double a[3];
    double b[3];
    double c[3];
    space.getRealBaseVectors(a, b, c);
    for (int i = 0; i < 3; ++i)
        out[i] = uvw[0] * a[i] + uvw[1] * b[i] + uvw[2] * c[i];
}
