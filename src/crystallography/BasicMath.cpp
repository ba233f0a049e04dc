#include "crystallography/BasicMath.h"

#include <algorithm>

void BasicMath::MatrixProduct(const double L[3][3], const double R[3][3], double out[3][3]) {
    double product[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            product[i][j] = L[i][0] * R[0][j] + L[i][1] * R[1][j] + L[i][2] * R[2][j];
    std::copy_n(&product[0][0], 9, &out[0][0]);
}

void BasicMath::MatrixProduct(const double M[3][3], const double v[3], double out[3]) {
    const double product[3] = {Dot(M[0], v), Dot(M[1], v), Dot(M[2], v)};
    std::copy_n(product, 3, out);
}

bool BasicMath::Invert(const double M[3][3], double out[3][3]) {
    // Rows of unit length keep the test and the cofactors free of overflow for any scale of M.
    constexpr double singular = 1e-12;
    double unit[3][3];
    double length[3];
    for (int i = 0; i < 3; ++i) {
        length[i] = std::hypot(M[i][0], M[i][1], M[i][2]);
        if (!(length[i] > 0.0) || !std::isfinite(length[i])) return false;
        for (int j = 0; j < 3; ++j)
            unit[i][j] = M[i][j] / length[i];
    }
    const double determinant = Determinant(unit);
    if (!(std::abs(determinant) > singular)) return false;
    for (int i = 0; i < 3; ++i) {
        double column[3];
        Cross(unit[(i + 1) % 3], unit[(i + 2) % 3], column);
        for (int j = 0; j < 3; ++j)
            out[j][i] = column[j] / determinant / length[i];
    }
    return true;
}

double BasicMath::CalcAngleBetweenAandB(const double u[3], const double v[3]) {
    return std::acos(std::clamp(Dot(u, v) / (Norm(u) * Norm(v)), -1.0, 1.0));
}
