#include "crystallography/SpaceMath.h"

#include <algorithm>
#include <cmath>

#include "crystallography/BasicMath.h"
#include "crystallography/CrystallographyMath.h"

SpaceDimensions SpaceMath::Dimensions(const double base[3][3]) {
    const auto angle = [base](int i, int j) {
        return BasicMath::ConvertAngleFromRadianToDegree(BasicMath::CalcAngleBetweenAandB(base[i], base[j]));
    };
    return {BasicMath::Norm(base[0]),
            BasicMath::Norm(base[1]),
            BasicMath::Norm(base[2]),
            angle(1, 2),
            angle(0, 2),
            angle(0, 1)};
}

void SpaceMath::MetricMatrix(const double base[3][3], double G[3][3]) {
    CrystallographyMath::MetricMatrix(base[0], base[1], base[2], G);
}

double SpaceMath::Volume(const double base[3][3]) {
    return std::abs(BasicMath::Determinant(base));
}

void SpaceMath::Cartesian(const double base[3][3], const double v[3], double out[3]) {
    for (int i = 0; i < 3; ++i)
        out[i] = v[0] * base[0][i] + v[1] * base[1][i] + v[2] * base[2][i];
}

double SpaceMath::Dot(const double base[3][3], const double u[3], const double v[3]) {
    double cartesianU[3];
    double cartesianV[3];
    Cartesian(base, u, cartesianU);
    Cartesian(base, v, cartesianV);
    return BasicMath::Dot(cartesianU, cartesianV);
}

double SpaceMath::Angle(const double base[3][3], const double u[3], const double v[3]) {
    double cartesianU[3];
    double cartesianV[3];
    Cartesian(base, u, cartesianU);
    Cartesian(base, v, cartesianV);
    return BasicMath::ConvertAngleFromRadianToDegree(
        BasicMath::CalcAngleBetweenAandB(cartesianU, cartesianV));
}

bool SpaceMath::DualBase(const double base[3][3], double dual[3][3]) {
    double inverse[3][3];
    if (!BasicMath::Invert(base, inverse)) return false;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            dual[i][j] = inverse[j][i];
    return true;
}

bool SpaceMath::BaseVectors(const SpaceDimensions& dimensions, double base[3][3]) {
    const auto& [a, b, c, alpha, beta, gamma] = dimensions;
    for (const double edge : {a, b, c})
        if (!(edge > 0.0) || !std::isfinite(edge)) return false;
    for (const double angle : {alpha, beta, gamma})
        if (!(angle > 0.0 && angle < 180.0)) return false;
    // Right angles exactly, so that an orthogonal cell has an orthogonal base.
    const auto cosine = [](double degree) {
        return degree == 90.0 ? 0.0 : std::cos(BasicMath::ConvertAngleFromDegreeToRadian(degree));
    };
    const double sinGamma = std::sin(BasicMath::ConvertAngleFromDegreeToRadian(gamma));
    const double x = cosine(beta);
    const double y = (cosine(alpha) - x * cosine(gamma)) / sinGamma;
    const double squaredZ = 1.0 - x * x - y * y;
    if (!(squaredZ > 0.0)) return false;
    const double vectors[3][3] = {
        {a, 0.0, 0.0}, {b * cosine(gamma), b * sinGamma, 0.0}, {c * x, c * y, c * std::sqrt(squaredZ)}};
    std::copy_n(&vectors[0][0], 9, &base[0][0]);
    return true;
}
