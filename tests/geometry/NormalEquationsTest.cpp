// The sums of least squares, as one product after the other makes them.
#include "pipeline/base/NormalEquations.h"

#include "support/Testing.h"

namespace {

TEST(NormalEquations, AreThePlainSums) {
    std::mt19937 random(5);
    std::uniform_real_distribution<double> number(-3, 3);
    for (Eigen::Index size = 1; size < 14; ++size) {
        vrk::NormalEquations equations(size);
        Eigen::MatrixXd matrix = Eigen::MatrixXd::Zero(size, size);
        Eigen::VectorXd right = Eigen::VectorXd::Zero(size);
        for (int point = 0; point < 40; ++point) {
            vrk::NormalEquations::Derivatives r(size, 3);
            for (double& one : r.reshaped())
                one = number(random);
            const Eigen::Vector3d d(number(random), number(random), number(random));
            const double weight = std::abs(number(random));
            equations.add(r, d, weight);
            for (Eigen::Index i = 0; i < size; ++i) {
                for (Eigen::Index j = 0; j <= i; ++j) {
                    for (int axis = 0; axis < 3; ++axis)
                        matrix(i, j) += weight * r(i, axis) * r(j, axis);
                    matrix(j, i) = matrix(i, j);
                }
                for (int axis = 0; axis < 3; ++axis)
                    right(i) += d[axis] * (weight * r(i, axis));
            }
        }
        EXPECT_EQ(equations.matrix(), matrix) << size;
        EXPECT_EQ(equations.right(), right) << size;
    }
}

}  // namespace
