#include "pipeline/latticesearch/EquivalentAxes.h"

#include <Eigen/Core>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "pipeline/base/UnitCellParameters.h"
#include "pipeline/latticesearch/TiedLattice.h"

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

Matrix matrixOf(const LatticeCharacter& character) {
    Matrix matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(i, j) = character.toConventional[i][j];
    return matrix;
}

/// Of all axes that a rotation of the lattice makes of these.
Matrix settled(const Matrix& matrix, LATTICE::BravaisTypes type) {
    const std::vector<Matrix> orbit = orbitOf(matrix, generatorsOf(type));
    return *std::max_element(orbit.begin(), orbit.end(),
                             [](const Matrix& a, const Matrix& b) { return rankOf(a) < rankOf(b); });
}

void setAxes(LatticeCharacter& character, const Matrix& matrix, const UnitCell& cell) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            character.toConventional[i][j] = matrix(i, j);
    UnitCell conventional = LatticeSymmetry::conventionalCell(cell, character);
    if (!cell.isRealCell()) {
        const std::unique_ptr<UnitCell> direct(conventional.getReciprocalCell());
        conventional = *direct;
    }
    character.measured = parametersOf(conventional);
}

/// Misfits of the measured cell by the ties of the type.
void setMisfits(LatticeCharacter& character) {
    const CellTies ties = CellTies::of(character.bravaisType, Eigen::Matrix3d::Identity());
    const CellParameters& cell = character.measured;
    const std::array<double, 3> lengths = {cell.a, cell.b, cell.c};
    const std::array<double, 3> angles = {cell.alpha, cell.beta, cell.gamma};
    character.qualityIndex = character.lengthMisfit = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        if (ties.angle[i] != 0.0)
            character.qualityIndex = std::max(character.qualityIndex, std::abs(angles[i] - ties.angle[i]));
        double sum = 0.0, count = 0.0;
        for (std::size_t j = 0; j < 3; ++j)
            if (ties.length[j] == ties.length[i]) {
                sum += lengths[j];
                count += 1.0;
            }
        character.lengthMisfit = std::max(character.lengthMisfit, std::abs(lengths[i] * count / sum - 1.0));
    }
}

}  // namespace

std::vector<LatticeCharacter> otherAxes(const LatticeCharacter& character, const LatticeCharacter& higher,
                                        const UnitCell& cell) {
    const Matrix from = matrixOf(higher);
    const Eigen::Matrix3d back = from.cast<double>().inverse();
    std::vector<Matrix> known = {settled(matrixOf(character), character.bravaisType)};
    std::vector<LatticeCharacter> others;
    for (const Matrix& turned : orbitOf(from, generatorsOf(higher.bravaisType))) {
        // The rotation on the primitive axes.
        const Eigen::Matrix3d rotation = turned.cast<double>() * back;
        const Matrix axes =
            settled(Matrix((rotation.array().round().cast<int>()).matrix()) * matrixOf(character),
                    character.bravaisType);
        if (std::find(known.begin(), known.end(), axes) != known.end()) continue;
        known.push_back(axes);
        others.push_back(character);
        setAxes(others.back(), axes, cell);
        setMisfits(others.back());
    }
    return others;
}

void settleAxes(LatticeCharacter& character, const UnitCell& cell) {
    const Matrix matrix = matrixOf(character);
    const Matrix axes = settled(matrix, character.bravaisType);
    if (axes != matrix) setAxes(character, axes, cell);
}

}  // namespace vrk
