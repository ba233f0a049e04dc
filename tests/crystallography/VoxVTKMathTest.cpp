#include "crystallography/VoxVTKMath.h"

#include "support/Testing.h"

#include <rapidcheck.h>
#include <Eigen/LU>

namespace {

using Square = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using Three = Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>;

/// The pointers to rows that the routines take.
std::vector<double*> rowsOf(Square& matrix) {
    std::vector<double*> rows;
    for (Eigen::Index i = 0; i < matrix.rows(); ++i)
        rows.push_back(matrix.row(i).data());
    return rows;
}

Square randomMatrix(int n, std::mt19937& random) {
    std::normal_distribution<double> normal;
    return Square::NullaryExpr(n, n, [&] { return normal(random); });
}

double largest(const Square& matrix) {
    return matrix.cwiseAbs().maxCoeff();
}

}  // namespace

TEST(VoxVTKMath, EigenvectorsSatisfyTheirEquationInDescendingOrder) {
    std::mt19937 random(1);
    for (int n = 1; n <= 6; ++n) {
        Square a = randomMatrix(n, random), v(n, n);
        a += a.transpose().eval();
        Eigen::VectorXd w(n);
        ASSERT_TRUE(VoxVTKMath::JacobiN(rowsOf(a).data(), n, w.data(), rowsOf(v).data()));
        EXPECT_TRUE(std::is_sorted(w.data(), w.data() + n, std::greater<>()));
        EXPECT_LT(largest(a * v - v * w.asDiagonal()), 1e-12);
        EXPECT_LT(largest(v.colwise().squaredNorm().array() - 1.0), 1e-12);
    }
}

TEST(VoxVTKMath, SingularValuesRebuildTheMatrixWithRotations) {
    const auto isRebuilt = [](const double(&a)[3][3]) {
        double u[3][3], w[3], vt[3][3];
        return VoxVTKMath::SingularValueDecomposition3x3(a, u, w, vt) &&
               std::abs(VoxVTKMath::Determinant3x3(u) - 1.0) < 1e-9 &&
               std::abs(VoxVTKMath::Determinant3x3(vt) - 1.0) < 1e-9 &&
               largest(Three(u[0]) * Eigen::Vector3d(w).asDiagonal() * Three(vt[0]) - Three(a[0])) < 1e-9;
    };
    EXPECT_TRUE(rc::check("U diag(w) V^T = A with det U = det V = 1", [&] {
        double a[3][3];
        for (auto& row : a)
            for (double& value : row)
                value = *rc::gen::inRange(-9, 10);
        RC_ASSERT(isRebuilt(a));
    }));
    EXPECT_TRUE(isRebuilt({{-9, -8, -8}, {-9, -8, -8}, {-8, -9, -8}})) << "the last value is rounding alone";
    EXPECT_TRUE(isRebuilt({{-8, -8, -8}, {-8, -8, -8}, {-8, -8, -8}}));
}

TEST(VoxVTKMath, SolvesAndInvertsRegularSystemsOnly) {
    std::mt19937 random(2);
    for (int n = 1; n <= 5; ++n) {
        Square a = randomMatrix(n, random), inverse(n, n);
        ASSERT_TRUE(VoxVTKMath::InvertMatrix(rowsOf(a).data(), rowsOf(inverse).data(), n));
        EXPECT_LT(largest(a * inverse - Square::Identity(n, n)), 1e-9);
        const Eigen::VectorXd expected = Eigen::VectorXd::LinSpaced(n, 1.0, n);
        Eigen::VectorXd x = a * expected;
        ASSERT_TRUE(VoxVTKMath::SolveLinearSystem(rowsOf(a).data(), x.data(), n));
        EXPECT_LT(largest(x - expected), 1e-9);
    }

    Square singular = Square::Constant(2, 2, 2.0), out(2, 2);
    double x[2] = {3.0, 4.0};
    EXPECT_FALSE(VoxVTKMath::SolveLinearSystem(rowsOf(singular).data(), x, 2));
    EXPECT_FALSE(VoxVTKMath::InvertMatrix(rowsOf(singular).data(), rowsOf(out).data(), 2));
    EXPECT_EQ(x[0], 3.0);
    singular(0, 0) = std::numeric_limits<double>::quiet_NaN();
    double w[2];
    EXPECT_FALSE(VoxVTKMath::JacobiN(rowsOf(singular).data(), 2, w, rowsOf(out).data()));
}

TEST(VoxVTKMath, LeastSquaresFitsALine) {
    Square line{{1, 0}, {1, 1}, {1, 2}, {1, 3}}, equal = Square::Ones(4, 2);
    const double b[4] = {1.0, 3.0, 5.0, 11.0};
    double x[2];
    ASSERT_TRUE(VoxVTKMath::SolveLeastSquares(4, 2, rowsOf(line).data(), b, x));
    EXPECT_NEAR(x[0], 0.2, 1e-12);
    EXPECT_NEAR(x[1], 3.2, 1e-12);
    EXPECT_FALSE(VoxVTKMath::SolveLeastSquares(1, 2, rowsOf(line).data(), b, x));

    // Equal columns share what either of them could do.
    ASSERT_TRUE(VoxVTKMath::SolveLeastSquares(4, 2, rowsOf(equal).data(), b, x));
    EXPECT_NEAR(x[0], 2.5, 1e-12);
    EXPECT_NEAR(x[1], 2.5, 1e-12);
}
