#include "crystallography/detail/ExactCharacter.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "crystallography/detail/LatticeMetric.h"
#include "crystallography/detail/Tolerance.h"

namespace VRK::detail {
namespace {

constexpr double kRounding = 1e-9;

/// The nearly reduced base in conventional axes.
struct Inverse {
    constexpr explicit Inverse(const CharacterRow& row) {
        const auto& m = row.toConventional;
        const auto det = static_cast<double>(determinant(
            {{{m[0][0], m[0][1], m[0][2]}, {m[1][0], m[1][1], m[1][2]}, {m[2][0], m[2][1], m[2][2]}}}));
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 3; ++j) {
                const auto at = [&m](std::size_t k, std::size_t l) { return m[k % 3][l % 3]; };
                const int cofactor =
                    at(j + 1, i + 1) * at(j + 2, i + 2) - at(j + 1, i + 2) * at(j + 2, i + 1);
                axes[i][j] = cofactor / det;
            }
    }
    std::array<std::array<double, 3>, 3> axes = {};
};

/// The metric of the base after its conventional cell has been made symmetric.
Metric symmetricForm(const CharacterRow& row, const Metric& form) {
    return metricOf(Inverse(row).axes, symmetrised(row.bravais, metricOf(row.toConventional, form)));
}

/// The steps of Krivy & Gruber (1976), doi:10.1107/S0567739476000636, with a tolerance for rounding alone.
class Reduction {
public:
    explicit Reduction(const Metric& metric)
        : m(metric), m_eps(kRounding * std::max({metric.A, metric.B, metric.C})) {
        constexpr int mostPasses = 100;
        for (int pass = 0; pass < mostPasses && step(); ++pass) {
        }
    }

    const Metric& metric() const { return m; }

private:
    bool eq(double x, double y) const { return equal(x, y, m_eps); }
    bool lt(double x, double y) const { return lessThan(x, y, m_eps); }
    bool gt(double x, double y) const { return greaterThan(x, y, m_eps); }

    /// True when the form has changed.
    bool step() {
        if (sort()) return true;
        settleSigns();
        if (gt(2.0 * std::abs(m.D), m.B) || (eq(2.0 * m.D, m.B) && lt(2.0 * m.E, m.F)) ||
            (eq(2.0 * m.D, -m.B) && lt(m.F, 0.0))) {
            const double sign = std::copysign(1.0, m.D);
            m.C += m.B - 2.0 * sign * m.D;
            m.E -= sign * m.F;
            m.D -= sign * m.B;
            return true;
        }
        if (gt(2.0 * std::abs(m.E), m.A) || (eq(2.0 * m.E, m.A) && lt(2.0 * m.D, m.F)) ||
            (eq(2.0 * m.E, -m.A) && lt(m.F, 0.0))) {
            const double sign = std::copysign(1.0, m.E);
            m.C += m.A - 2.0 * sign * m.E;
            m.D -= sign * m.F;
            m.E -= sign * m.A;
            return true;
        }
        if (gt(2.0 * std::abs(m.F), m.A) || (eq(2.0 * m.F, m.A) && lt(2.0 * m.D, m.E)) ||
            (eq(2.0 * m.F, -m.A) && lt(m.E, 0.0))) {
            const double sign = std::copysign(1.0, m.F);
            m.B += m.A - 2.0 * sign * m.F;
            m.D -= sign * m.E;
            m.F -= sign * m.A;
            return true;
        }
        const double sum = m.A + m.B + 2.0 * (m.D + m.E + m.F);
        if (!lt(sum, 0.0) && !(eq(sum, 0.0) && gt(m.A + 2.0 * m.E + m.F, 0.0))) return false;
        m.C += sum;
        m.D += m.B + m.F;
        m.E += m.A + m.F;
        return true;
    }

    bool sort() {
        if (gt(m.A, m.B) || (eq(m.A, m.B) && gt(std::abs(m.D), std::abs(m.E)))) {
            std::swap(m.A, m.B);
            std::swap(m.D, m.E);
        }
        if (!gt(m.B, m.C) && !(eq(m.B, m.C) && gt(std::abs(m.E), std::abs(m.F)))) return false;
        std::swap(m.B, m.C);
        std::swap(m.E, m.F);
        return true;
    }

    void settleSigns() {
        const auto sign = [this](double x) { return gt(x, 0.0) ? 1 : lt(x, 0.0) ? -1 : 0; };
        const double common = sign(m.D) * sign(m.E) * sign(m.F) > 0 ? 1.0 : -1.0;
        for (double* value : {&m.D, &m.E, &m.F})
            *value = common * std::abs(*value);
    }

    Metric m;
    double m_eps;
};

bool holds(const DotCondition& condition, double value, const Metric& m, double eps) {
    return condition.isFree || equal(value, condition.wanted(m), eps);
}

bool holds(const CharacterRow& row, const Metric& m) {
    const double eps = 10.0 * kRounding * m.C;
    const bool isFormI = m.D > eps && m.E > eps && m.F > eps;
    const bool needsAB = row.edges == Edges::AllEqual || row.edges == Edges::ABEqual;
    const bool needsBC = row.edges == Edges::AllEqual || row.edges == Edges::BCEqual;
    return (row.form == Form::I) == isFormI && (!needsAB || equal(m.A, m.B, eps)) &&
           (!needsBC || equal(m.B, m.C, eps)) && holds(row.D, m.D, m, eps) && holds(row.E, m.E, m, eps) &&
           holds(row.F, m.F, m, eps) &&
           (row.sum == SumCondition::None || equal(-2.0 * (m.D + m.E + m.F), m.A + m.B, eps)) &&
           (row.sum != SumCondition::Dagger || equal(-2.0 * m.D - m.F, m.B, eps));
}

}  // namespace

int exactCharacter(const CharacterRow& row, const Metric& form) {
    const Metric reduced = Reduction(symmetricForm(row, form)).metric();
    const auto named = std::find_if(kLatticeCharacters.begin(), kLatticeCharacters.end(),
                                    [&](const CharacterRow& candidate) {
                                        return candidate.bravais == row.bravais && holds(candidate, reduced);
                                    });
    return named != kLatticeCharacters.end() ? named->number : row.number;
}

}  // namespace VRK::detail
