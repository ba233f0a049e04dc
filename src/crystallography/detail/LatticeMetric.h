/// \file
/// Arithmetic of lattice metrics: vectors in whole numbers, bases, and the symmetric form of a conventional
/// cell.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <optional>
#include <utility>

#include "crystallography/BasicMath.h"
#include "crystallography/detail/LatticeCharacterTable.h"
#include "crystallography/detail/ShortestBase.h"

namespace VRK::detail {

constexpr Vector plus(const Vector& u, int factor, const Vector& v) {
    return {u[0] + factor * v[0], u[1] + factor * v[1], u[2] + factor * v[2]};
}

constexpr Vector negated(const Vector& v) {
    return {-v[0], -v[1], -v[2]};
}

/// Exact for entries up to 1e6.
constexpr std::int64_t determinant(const Axes& axes) {
    std::array<std::array<std::int64_t, 3>, 3> m = {};
    for (std::size_t i = 0; i < 3; ++i)
        std::copy(axes[i].begin(), axes[i].end(), m[i].begin());
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

/// The metric times a vector.
struct Lowered {
    constexpr Lowered() = default;
    template <typename Number>
    constexpr Lowered(const Number& v, const Metric& m)
        : x(v[0] * m.A + v[1] * m.F + v[2] * m.E),
          y(v[0] * m.F + v[1] * m.B + v[2] * m.D),
          z(v[0] * m.E + v[1] * m.D + v[2] * m.C) {}

    template <typename Number>
    constexpr double dot(const Number& v) const {
        return v[0] * x + v[1] * y + v[2] * z;
    }

    double x = 0.0, y = 0.0, z = 0.0;
};

/// The metric of the conventional cell of a row of the table as a linear function of that of the reduced
/// base.
class ConventionalMetric {
public:
    constexpr ConventionalMetric() = default;
    /// @param axes row i holds conventional axis i
    constexpr explicit ConventionalMetric(const int (&axes)[3][3]) {
        for (std::size_t value = 0; value < 6; ++value) {
            const auto& u = axes[kPairs[value][0]];
            const auto& v = axes[kPairs[value][1]];
            for (std::size_t of = 0; of < 6; ++of) {
                const auto [i, j] = kPairs[of];
                m_factors[of][value] = i == j ? u[i] * v[i] : u[i] * v[j] + u[j] * v[i];
            }
        }
    }

    constexpr Metric of(const Metric& m) const {
        const double in[6] = {m.A, m.B, m.C, m.D, m.E, m.F};
        double out[6] = {};
        for (std::size_t value = 0; value < 6; ++value)
            out[value] = in[0] * m_factors[0][value];
        for (std::size_t i = 1; i < 6; ++i)
            for (std::size_t value = 0; value < 6; ++value)
                out[value] += in[i] * m_factors[i][value];
        return {out[0], out[1], out[2], out[3], out[4], out[5]};
    }

private:
    /// The axes whose product each metric value is.
    static constexpr std::array<std::array<std::size_t, 2>, 6> kPairs = {
        {{0, 0}, {1, 1}, {2, 2}, {1, 2}, {0, 2}, {0, 1}}};
    alignas(16) double m_factors[6][6] = {};
};

/// For each row of the table.
inline constexpr auto kConventionalMetrics = [] {
    std::array<ConventionalMetric, kLatticeCharacters.size()> all;
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = ConventionalMetric(kLatticeCharacters[i].toConventional);
    return all;
}();

template <typename Three>
constexpr Metric metricOf(const Three& axes, const Metric& m) {
    const Lowered b(axes[1], m);
    const Lowered c(axes[2], m);
    const Lowered a(axes[0], m);
    return {a.dot(axes[0]), b.dot(axes[1]), c.dot(axes[2]), c.dot(axes[1]), c.dot(axes[0]), b.dot(axes[0])};
}

inline Metric metricOf(const double (&vectors)[3][3]) {
    const auto& [a, b, c] = vectors;
    return {BasicMath::Dot(a, a), BasicMath::Dot(b, b), BasicMath::Dot(c, c),
            BasicMath::Dot(b, c), BasicMath::Dot(a, c), BasicMath::Dot(a, b)};
}

/// The vectors of `axes`, given in the base `base`, in the base that `base` itself is given in; nothing when
/// that takes larger numbers than an axis holds.
constexpr std::optional<Axes> inBaseOf(const Axes& axes, const Axes& base) {
    Axes out = {};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j) {
            std::int64_t sum = 0;
            for (std::size_t k = 0; k < 3; ++k)
                sum += std::int64_t{axes[i][k]} * base[k][j];
            if (!std::in_range<int>(sum)) return std::nullopt;
            out[i][j] = static_cast<int>(sum);
        }
    return out;
}

/// Order of the point group of the lattice, by the letter of the crystal family.
constexpr int symmetryOrder(LATTICE::BravaisTypes type) {
    switch (type) {
        case LATTICE::cP:
        case LATTICE::cI:
        case LATTICE::cF:
            return 48;
        case LATTICE::hP:
            return 24;
        case LATTICE::tP:
        case LATTICE::tI:
            return 16;
        case LATTICE::hR:
            return 12;
        case LATTICE::oP:
        case LATTICE::oI:
        case LATTICE::oC:
        case LATTICE::oF:
            return 8;
        case LATTICE::mP:
        case LATTICE::mC:
            return 4;
        default:
            return 2;
    }
}

constexpr bool isHexagonal(LATTICE::BravaisTypes type) {
    return type == LATTICE::hP || type == LATTICE::hR;
}

constexpr bool isMonoclinic(LATTICE::BravaisTypes type) {
    return type == LATTICE::mP || type == LATTICE::mC;
}

/// The metric averaged over the point group of the Bravais type in its conventional setting.
constexpr Metric symmetrised(LATTICE::BravaisTypes type, const Metric& m) {
    if (isHexagonal(type)) {
        const double A = (m.A + m.B + (m.A + m.B + 2.0 * m.F)) / 3.0;
        return {A, A, m.C, 0.0, 0.0, -0.5 * A};
    }
    switch (symmetryOrder(type)) {
        case 48: {
            const double A = (m.A + m.B + m.C) / 3.0;
            return {A, A, A, 0.0, 0.0, 0.0};
        }
        case 16: {
            const double A = (m.A + m.B) / 2.0;
            return {A, A, m.C, 0.0, 0.0, 0.0};
        }
        case 8:
            return {m.A, m.B, m.C, 0.0, 0.0, 0.0};
        case 4:
            return {m.A, m.B, m.C, 0.0, m.E, 0.0};
        default:
            return m;
    }
}

/// The largest squared sine of the deviations of the angles of a conventional cell from its symmetrised form.
inline double squaredSineOfMisfit(LATTICE::BravaisTypes type, const Metric& m) {
    const double alpha = m.D * m.D / (m.B * m.C);
    const double beta = isMonoclinic(type) ? 0.0 : m.E * m.E / (m.A * m.C);
    double gamma = m.F * m.F / (m.A * m.B);
    if (isHexagonal(type)) {
        const double cosine = std::copysign(std::sqrt(gamma), m.F);
        const double sine = std::sqrt(std::max(1.0 - gamma, 0.0));
        const double sineOfMisfit = 0.5 * sine + 0.5 * std::numbers::sqrt3 * cosine;
        gamma = sineOfMisfit * sineOfMisfit;
    }
    return std::max({alpha, beta, gamma});
}

/// The largest relative deviation of its edges.
inline double lengthMisfit(LATTICE::BravaisTypes type, const Metric& m) {
    const int order = symmetryOrder(type);
    if (order <= 8) return 0.0;
    const Metric mean = symmetrised(type, m);
    const auto misfit = [](double squared, double wanted) {
        return std::abs(std::sqrt(squared / wanted) - 1.0);
    };
    const double ofAB = std::max(misfit(m.A, mean.A), misfit(m.B, mean.B));
    return order == 48 ? std::max(ofAB, misfit(m.C, mean.C)) : ofAB;
}

}  // namespace VRK::detail
