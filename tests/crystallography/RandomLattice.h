/// \file
/// Random lattices of a given Bravais type, random bases of them and noise.
#pragma once

#include <Eigen/LU>
#include <array>
#include <cmath>
#include <random>

#include "crystallography/BasicMath.h"
#include "crystallography/BravaisTypes.h"
#include "crystallography/SpaceMath.h"
#include "crystallography/UnitCell.h"
#include "crystallography/detail/LatticeCharacterTable.h"
#include "crystallography/detail/LatticeMetric.h"

namespace testing_support {

using Matrix = std::array<std::array<double, 3>, 3>;
using IntMatrix = std::array<std::array<int, 3>, 3>;

inline auto raw(const Matrix& m) {
    return reinterpret_cast<const double(*)[3]>(m.data());
}
inline auto raw(const IntMatrix& m) {
    return reinterpret_cast<const int(*)[3]>(m.data());
}

using Parameters = SpaceDimensions;

/// A direct cell with a along x and b in the plane of x and y.
inline UnitCell cellOf(const Parameters& p, LATTICE::BravaisTypes type = LATTICE::aP, bool primitiv = true) {
    double base[3][3] = {};
    SpaceMath::BaseVectors(p, base);
    return UnitCell(base[0], base[1], base[2], 1.0, true, primitiv, type);
}

inline Parameters parametersOf(const UnitCell& cell) {
    return {cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC(),
            cell.getAlpha(),     cell.getBeta(),      cell.getGamma()};
}

template <typename... Types>
bool isOneOf(LATTICE::BravaisTypes type, Types... types) {
    return ((type == types) || ...);
}

/// The vectors of a cell as columns.
inline Eigen::Matrix3d baseOf(const UnitCell& cell) {
    Eigen::Matrix3d base;
    cell.getBase(base.col(0).data(), base.col(1).data(), base.col(2).data());
    return base;
}

/// By how much the entry that is farthest from a whole number is off.
inline double fractionOf(const Eigen::Matrix3d& matrix) {
    return (matrix - Eigen::Matrix3d(matrix.array().round())).cwiseAbs().maxCoeff();
}

/// Whether a metric meets the conditions of a row, but for its form, within a relative tolerance.
inline bool meets(const VRK::detail::CharacterRow& row, const VRK::detail::Metric& m, double tolerance) {
    using namespace VRK::detail;
    const auto isZero = [tolerance](double difference, double scale) {
        return std::abs(difference) <= tolerance * scale;
    };
    const auto holds = [&](const DotCondition& condition, double value, double squares) {
        return condition.isFree || isZero(value - condition.wanted(m), std::sqrt(squares));
    };
    const bool needsAB = row.edges == Edges::AllEqual || row.edges == Edges::ABEqual;
    const bool needsBC = row.edges == Edges::AllEqual || row.edges == Edges::BCEqual;
    return (!needsAB || isZero(m.A - m.B, m.B)) && (!needsBC || isZero(m.B - m.C, m.C)) &&
           holds(row.D, m.D, m.B * m.C) && holds(row.E, m.E, m.A * m.C) && holds(row.F, m.F, m.A * m.B) &&
           (row.sum == SumCondition::None ||
            isZero(2.0 * std::abs(m.D + m.E + m.F) - (m.A + m.B), m.A + m.B + m.C));
}

class RandomLattice {
public:
    explicit RandomLattice(unsigned seed) : m_random(seed) {}

    double uniform(double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(m_random);
    }
    int integer(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_random); }

    /// A conventional cell of the type (rhombohedral: hexagonal axes), edges from 4 to 30.
    UnitCell conventional(LATTICE::BravaisTypes type) {
        const auto edge = [this] { return uniform(4.0, 30.0); };
        Parameters p = {edge(), edge(), edge(), 90.0, 90.0, 90.0};
        using enum LATTICE::BravaisTypes;
        if (isOneOf(type, cP, cI, cF)) p.b = p.c = p.a;
        if (isOneOf(type, hP, hR, tP, tI)) p.b = p.a;
        if (isOneOf(type, hP, hR)) p.gamma = 120.0;
        if (isOneOf(type, mP, mC)) p.beta = uniform(92.0, 125.0);
        if (type == aP)
            for (double* angle : {&p.alpha, &p.beta, &p.gamma})
                *angle = uniform(70.0, 110.0);
        return cellOf(p, type, false);
    }

    /// The same lattice in a primitive base.
    UnitCell primitive(LATTICE::BravaisTypes type) {
        UnitCell cell = conventional(type);
        cell.transformIntoPrimitivCell();
        return cell;
    }

    /// A product of elementary transformations, determinant 1.
    IntMatrix unimodular(int steps) {
        IntMatrix m = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
        for (int n = 0; n < steps; ++n) {
            const auto to = static_cast<std::size_t>(integer(0, 2));
            const auto from = (to + static_cast<std::size_t>(integer(1, 2))) % 3;
            const int factor = integer(0, 1) == 0 ? -1 : 1;
            for (auto& row : m)
                row[to] += factor * row[from];
        }
        return m;
    }

    /// Edges and angles changed by up to the given relative and absolute (degrees) amounts.
    UnitCell disturbed(const UnitCell& cell, double length, double angle) {
        Parameters p = parametersOf(cell);
        for (double* edge : {&p.a, &p.b, &p.c})
            *edge *= 1.0 + uniform(-length, length);
        for (double* corner : {&p.alpha, &p.beta, &p.gamma})
            *corner += uniform(-angle, angle);
        return cellOf(p, cell.getBravaisType(), cell.isPrimitiv());
    }

private:
    std::mt19937 m_random;
};

inline constexpr std::array kAllBravaisTypes = {
    LATTICE::cP, LATTICE::cI, LATTICE::cF, LATTICE::tP, LATTICE::tI, LATTICE::hP, LATTICE::hR,
    LATTICE::oP, LATTICE::oI, LATTICE::oC, LATTICE::oF, LATTICE::mP, LATTICE::mC, LATTICE::aP};

}  // namespace testing_support
