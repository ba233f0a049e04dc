/// \file
/// Vectors of a summary for tests that calculate with them.
#pragma once

#include <Eigen/Dense>
#include <nlohmann/json.hpp>

/// Three vectors as the rows of a matrix.
inline Eigen::Matrix3d rows(const nlohmann::json& vectors) {
    return Eigen::Matrix3d::NullaryExpr([&](Eigen::Index i, Eigen::Index j) -> double {
        return vectors[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)];
    });
}
