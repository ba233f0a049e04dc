#include "pipeline/latticesearch/EquivalentAxes.h"

#include <Eigen/Core>
#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <vector>

namespace vrk {
namespace {

using Matrix = Eigen::Matrix3i;

Matrix rows(const std::array<int, 9>& entries) {
    return Eigen::Map<const Eigen::Matrix<int, 3, 3, Eigen::RowMajor>>(entries.data());
}

/// Rotations that generate all of a lattice type; new axes as columns in the old ones.
std::vector<Matrix> generatorsOf(LATTICE::BravaisTypes type) {
    const Matrix about2b = rows({-1, 0, 0, 0, 1, 0, 0, 0, -1});
    const Matrix about2a = rows({1, 0, 0, 0, -1, 0, 0, 0, -1});
    const Matrix about4c = rows({0, -1, 0, 1, 0, 0, 0, 0, 1});
    const Matrix about3 = rows({0, 0, 1, 1, 0, 0, 0, 1, 0});
    const Matrix about6c = rows({1, -1, 0, 1, 0, 0, 0, 0, 1});
    const Matrix hexagonal2a = rows({1, -1, 0, 0, -1, 0, 0, 0, -1});
    switch (type) {
        case LATTICE::cP:
        case LATTICE::cI:
        case LATTICE::cF:
            return {about4c, about3};
        case LATTICE::tP:
        case LATTICE::tI:
            return {about4c, about2a};
        case LATTICE::hP:
            return {about6c, hexagonal2a};
        case LATTICE::hR:
            return {about6c * about6c, hexagonal2a};
        case LATTICE::oP:
        case LATTICE::oI:
        case LATTICE::oC:
        case LATTICE::oF:
            return {about2a, about2b};
        case LATTICE::mP:
        case LATTICE::mC:
            return {about2b};
        default:
            return {};
    }
}

/// All products of the generators and a matrix.
std::vector<Matrix> orbitOf(const Matrix& start, const std::vector<Matrix>& generators) {
    std::vector<Matrix> orbit = {start};
    for (std::size_t i = 0; i < orbit.size(); ++i)
        for (const Matrix& generator : generators) {
            const Matrix next = orbit[i] * generator;
            if (std::find(orbit.begin(), orbit.end(), next) == orbit.end()) orbit.push_back(next);
        }
    return orbit;
}

std::pair<int, std::array<int, 9>> rankOf(const Matrix& matrix) {
    std::array<int, 9> entries{};
    Eigen::Map<Eigen::Matrix<int, 3, 3, Eigen::RowMajor>>(entries.data()) = matrix;
    return {matrix.trace(), entries};
}

}  // namespace

void settleAxes(LatticeCharacter& character, const UnitCell& cell) {
    Matrix matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(i, j) = character.toConventional[i][j];
    const std::vector<Matrix> orbit = orbitOf(matrix, generatorsOf(character.bravaisType));
    const Matrix& settled = *std::max_element(
        orbit.begin(), orbit.end(), [](const Matrix& a, const Matrix& b) { return rankOf(a) < rankOf(b); });
    if (settled == matrix) return;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            character.toConventional[i][j] = settled(i, j);
    UnitCell conventional = LatticeSymmetry::conventionalCell(cell, character);
    if (!cell.isRealCell()) {
        const std::unique_ptr<UnitCell> direct(conventional.getReciprocalCell());
        conventional = *direct;
    }
    character.measured = {conventional.getLengthOfA(), conventional.getLengthOfB(),
                          conventional.getLengthOfC(), conventional.getAlpha(),
                          conventional.getBeta(),      conventional.getGamma()};
}

}  // namespace vrk
