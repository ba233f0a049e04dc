/// \file
/// Vectors and cells of a summary for tests that calculate with them.
#pragma once

#include <Eigen/Dense>
#include <array>
#include <nlohmann/json.hpp>

/// Edges and angles, in the order of the usual parameters.
inline constexpr const char* kCellKeys[] = {"a", "b", "c", "alpha", "beta", "gamma"};

inline std::array<double, 6> cellOf(const nlohmann::json& cell) {
    return {cell["a"], cell["b"], cell["c"], cell["alpha"], cell["beta"], cell["gamma"]};
}

inline nlohmann::json jsonOfCell(const std::array<double, 6>& c) {
    return {{"a", c[0]}, {"b", c[1]}, {"c", c[2]}, {"alpha", c[3]}, {"beta", c[4]}, {"gamma", c[5]}};
}

/// Three vectors as the rows of a matrix.
inline Eigen::Matrix3d rows(const nlohmann::json& vectors) {
    return Eigen::Matrix3d::NullaryExpr([&](Eigen::Index i, Eigen::Index j) -> double {
        return vectors[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)];
    });
}
