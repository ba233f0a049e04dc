#include "crystallography/VoxVTKMath.h"

#include "support/Testing.h"

#include <rapidcheck.h>

namespace {

/// A square matrix with the row pointers that the routines take.
class Rows {
public:
    explicit Rows(int n) : m_n(n), m_values(static_cast<std::size_t>(n * n)) {
        for (int i = 0; i < n; ++i)
            m_rows.push_back(&m_values[static_cast<std::size_t>(i * n)]);
    }
    double& operator()(int i, int j) { return m_rows[static_cast<std::size_t>(i)][j]; }
    double* const* rows() { return m_rows.data(); }
    int size() const { return m_n; }

private:
    int m_n;
    std::vector<double> m_values;
    std::vector<double*> m_rows;
};

Rows randomMatrix(int n, std::mt19937& random, bool symmetric) {
    std::normal_distribution<double> normal;
    Rows matrix(n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            matrix(i, j) = symmetric && j < i ? matrix(j, i) : normal(random);
    return matrix;
}

}  // namespace

TEST(VoxVTKMath, EigenvectorsSatisfyTheirEquationInDescendingOrder) {
    std::mt19937 random(1);
    for (int n = 1; n <= 6; ++n) {
        Rows a = randomMatrix(n, random, true);
        Rows v(n);
        std::vector<double> w(static_cast<std::size_t>(n));
        ASSERT_TRUE(VoxVTKMath::JacobiN(a.rows(), n, w.data(), v.rows()));
        for (int k = 0; k < n; ++k) {
            const double value = w[static_cast<std::size_t>(k)];
            EXPECT_LE(value, w[static_cast<std::size_t>(std::max(k - 1, 0))]);
            double length = 0.0;
            for (int i = 0; i < n; ++i) {
                double product = 0.0;
                for (int j = 0; j < n; ++j)
                    product += a(i, j) * v(j, k);
                EXPECT_NEAR(product, value * v(i, k), 1e-12);
                length += v(i, k) * v(i, k);
            }
            EXPECT_NEAR(length, 1.0, 1e-12);
        }
    }
}

TEST(VoxVTKMath, SingularValuesRebuildTheMatrixWithRotations) {
    EXPECT_TRUE(rc::check("U diag(w) V^T = A with det U = det V = 1", [] {
        double a[3][3];
        for (auto& row : a)
            for (double& value : row)
                value = *rc::gen::inRange(-9, 10);
        double u[3][3], w[3], vt[3][3];
        RC_ASSERT(VoxVTKMath::SingularValueDecomposition3x3(a, u, w, vt));
        RC_ASSERT(std::abs(VoxVTKMath::Determinant3x3(u) - 1.0) < 1e-9);
        RC_ASSERT(std::abs(VoxVTKMath::Determinant3x3(vt) - 1.0) < 1e-9);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                double sum = 0.0;
                for (int k = 0; k < 3; ++k)
                    sum += u[i][k] * w[k] * vt[k][j];
                RC_ASSERT(std::abs(sum - a[i][j]) < 1e-9);
            }
    }));
}

TEST(VoxVTKMath, SolvesAndInvertsRegularSystemsOnly) {
    std::mt19937 random(2);
    for (int n = 1; n <= 5; ++n) {
        Rows a = randomMatrix(n, random, false);
        Rows inverse(n);
        ASSERT_TRUE(VoxVTKMath::InvertMatrix(a.rows(), inverse.rows(), n));
        std::vector<double> x(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                x[static_cast<std::size_t>(i)] += a(i, j) * (j + 1.0);
        ASSERT_TRUE(VoxVTKMath::SolveLinearSystem(a.rows(), x.data(), n));
        for (int i = 0; i < n; ++i) {
            EXPECT_NEAR(x[static_cast<std::size_t>(i)], i + 1.0, 1e-9);
            double diagonal = 0.0;
            for (int j = 0; j < n; ++j)
                diagonal += a(i, j) * inverse(j, i);
            EXPECT_NEAR(diagonal, 1.0, 1e-9);
        }
    }

    Rows singular(2);
    singular(0, 0) = singular(0, 1) = singular(1, 0) = singular(1, 1) = 2.0;
    double x[2] = {3.0, 4.0};
    Rows out(2);
    EXPECT_FALSE(VoxVTKMath::SolveLinearSystem(singular.rows(), x, 2));
    EXPECT_FALSE(VoxVTKMath::InvertMatrix(singular.rows(), out.rows(), 2));
    EXPECT_EQ(x[0], 3.0);
    singular(0, 0) = std::numeric_limits<double>::quiet_NaN();
    double w[2];
    EXPECT_FALSE(VoxVTKMath::JacobiN(singular.rows(), 2, w, out.rows()));
}

TEST(VoxVTKMath, LeastSquaresFitsALine) {
    const double rows[4][2] = {{1, 0}, {1, 1}, {1, 2}, {1, 3}};
    const double* const pointers[4] = {rows[0], rows[1], rows[2], rows[3]};
    const double b[4] = {1.0, 3.0, 5.0, 11.0};
    double x[2];
    ASSERT_TRUE(VoxVTKMath::SolveLeastSquares(4, 2, pointers, b, x));
    EXPECT_NEAR(x[0], 0.2, 1e-12);
    EXPECT_NEAR(x[1], 3.2, 1e-12);
    EXPECT_FALSE(VoxVTKMath::SolveLeastSquares(1, 2, pointers, b, x));

    // Equal columns share what either of them could do.
    const double same[2] = {1, 1};
    const double* const equal[4] = {same, same, same, same};
    ASSERT_TRUE(VoxVTKMath::SolveLeastSquares(4, 2, equal, b, x));
    EXPECT_NEAR(x[0], 2.5, 1e-12);
    EXPECT_NEAR(x[1], 2.5, 1e-12);
}
