#include "crystallography/CrystallographyMath.h"

#include "crystallography/BasicMath.h"

void CrystallographyMath::MetricMatrix(const double a[3], const double b[3], const double c[3],
                                       double G[3][3]) {
    const double* base[3] = {a, b, c};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            G[i][j] = BasicMath::Dot(base[i], base[j]);
}

double CrystallographyMath::CrystallDot(const double u[3], const double v[3], const double G[3][3]) {
    double Gv[3];
    BasicMath::MatrixProduct(G, v, Gv);
    return BasicMath::Dot(u, Gv);
}

double CrystallographyMath::CrystallDot(const double u[3], const double v[3], const double a[3],
                                        const double b[3], const double c[3]) {
    double G[3][3];
    MetricMatrix(a, b, c, G);
    return CrystallDot(u, v, G);
}

void CrystallographyMath::CrystallCross(const double u[3], const double v[3], const double a[3],
                                        const double b[3], const double c[3], double out[3]) {
    double cartesianU[3];
    double cartesianV[3];
    for (int i = 0; i < 3; ++i) {
        cartesianU[i] = u[0] * a[i] + u[1] * b[i] + u[2] * c[i];
        cartesianV[i] = v[0] * a[i] + v[1] * b[i] + v[2] * c[i];
    }
    BasicMath::Cross(cartesianU, cartesianV, out);
}
