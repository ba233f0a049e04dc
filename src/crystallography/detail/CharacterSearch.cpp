#include "crystallography/detail/CharacterSearch.h"

#include <bit>
#include <cmath>
#include <cstdint>

#include "crystallography/UnitCellTest.h"
#include "crystallography/detail/ConventionalSetting.h"
#include "crystallography/detail/LatticeMetric.h"

namespace VRK::detail {
namespace {

/// What is let through for the misfit of the whole cell to judge, whose rounding is another.
constexpr double kSlack = 1.0 + 1e-12;

template <typename Predicate>
constexpr RowSet rowsWhere(Predicate holds) {
    RowSet rows = 0;
    for (std::size_t i = 0; i < kLatticeCharacters.size(); ++i)
        if (holds(kLatticeCharacters[i])) rows |= RowSet(1) << i;
    return rows;
}

constexpr RowSet kSymmetric = rowsWhere([](const CharacterRow& row) { return row.bravais != LATTICE::aP; });
constexpr RowSet kWithSum = rowsWhere([](const CharacterRow& row) { return row.sum != SumCondition::None; });
constexpr RowSet kMonoclinic = rowsWhere([](const CharacterRow& row) { return isMonoclinic(row.bravais); });
constexpr RowSet kHexagonal = rowsWhere([](const CharacterRow& row) { return isHexagonal(row.bravais); });
constexpr RowSet kFormI = rowsWhere([](const CharacterRow& row) { return row.form == Form::I; });
constexpr RowSet kABEqual = rowsWhere(
    [](const CharacterRow& row) { return row.edges == Edges::AllEqual || row.edges == Edges::ABEqual; });
constexpr RowSet kBCEqual = rowsWhere(
    [](const CharacterRow& row) { return row.edges == Edges::AllEqual || row.edges == Edges::BCEqual; });

/// The conditions of the table on one of the dot products, each once, with the rows that ask for it.
class SharedConditions {
public:
    struct Shared {
        DotCondition condition;
        RowSet rows;
    };

    constexpr explicit SharedConditions(DotCondition CharacterRow::*dotProduct) {
        for (std::size_t i = 0; i < kLatticeCharacters.size(); ++i)
            add(kLatticeCharacters[i].*dotProduct, RowSet(1) << i);
    }

    /// Of the rows given those whose condition the value meets.
    RowSet rowsThatHold(RowSet rows, double value, const Metric& m, double largestSquaredDifference) const {
        for (std::size_t i = 0; i < m_count; ++i) {
            const double difference = value - m_all[i].condition.wanted(m);
            rows &= difference * difference > largestSquaredDifference ? ~m_all[i].rows : ~RowSet(0);
        }
        return rows;
    }

private:
    constexpr void add(const DotCondition& condition, RowSet row) {
        if (condition.isFree) return;
        std::size_t i = 0;
        while (i < m_count && !isSame(m_all[i].condition, condition))
            ++i;
        if (i == m_count) m_all[m_count++].condition = condition;
        m_all[i].rows |= row;
    }

    static constexpr bool isSame(const DotCondition& x, const DotCondition& y) {
        return x.factor == y.factor && x.of == y.of;
    }

    std::array<Shared, 12> m_all = {};
    std::size_t m_count = 0;
};

constexpr SharedConditions kConditionsOnD(&CharacterRow::D);
constexpr SharedConditions kConditionsOnE(&CharacterRow::E);
constexpr SharedConditions kConditionsOnF(&CharacterRow::F);

/// Of the rows given those whose conditions the base meets within the looseness.
RowSet rowsThatMayFit(RowSet rows, const NearForm& form, double looseness) {
    const Metric& m = form.metric;
    if (!form.fitsFormI) rows &= ~kFormI;
    if (!form.fitsFormII) rows &= kFormI;
    if (std::abs(m.A - m.B) > looseness * m.B) rows &= ~kABEqual;
    if (std::abs(m.B - m.C) > looseness * m.C) rows &= ~kBCEqual;
    if (std::abs(2.0 * std::abs(m.D + m.E + m.F) - (m.A + m.B)) > looseness * (m.A + m.B + m.C))
        rows &= ~kWithSum;
    const double squared = looseness * looseness;
    rows = kConditionsOnD.rowsThatHold(rows, m.D, m, squared * (m.B * m.C));
    rows = kConditionsOnE.rowsThatHold(rows, m.E, m, squared * (m.A * m.C));
    return kConditionsOnF.rowsThatHold(rows, m.F, m, squared * (m.A * m.B));
}

bool isReduced(const Metric& m) {
    return UnitCellTest::isNiggliCell(m.A, m.B, m.C, 2.0 * m.D, 2.0 * m.E, 2.0 * m.F, 1e-9 * m.C);
}

}  // namespace

CharacterSearch::CharacterSearch(const Metric& shortest, const LatticeTolerances& tolerances)
    : m_limits(tolerances), m_pending(kSymmetric), m_near(shortest, m_limits.looseness) {
    const double beforeSetting = FitLimits({2.0 * tolerances.angle, tolerances.length}).squaredSine;
    for (std::size_t row = 0; row < m_best.size(); ++row)
        m_best[row].squaredSine =
            (kMonoclinic >> row & 1U) != 0 ? beforeSetting : m_limits.squaredSine * kSlack;
    for (const NearForm& form : m_near.forms())
        tryRows(form);
}

void CharacterSearch::tryRows(const NearForm& form) {
    for (RowSet rows = rowsThatMayFit(m_pending, form, 3.0 * m_limits.looseness); rows != 0;
         rows &= rows - 1) {
        const auto row = static_cast<std::size_t>(std::countr_zero(rows));
        const bool isMono = (kMonoclinic >> row & 1U) != 0;
        if (isMono && (rowsTriedWith(row, form) >> row & 1U) != 0) continue;
        const Metric m = kConventionalMetrics[row].of(form.metric);
        // Gives up when one right angle is too far off for a fit, or for a better one than the best so far.
        const double limit = m_best[row].squaredSine;
        const bool isHex = (kHexagonal >> row & 1U) != 0;
        const bool alphaIsFar = m.D * m.D > limit * (m.B * m.C);
        const bool betaIsFar = m.E * m.E > limit * (m.A * m.C);
        const bool gammaIsFar = m.F * m.F > limit * (m.A * m.B);
        if (alphaIsFar | (betaIsFar & !isMono) | (gammaIsFar & !isHex)) continue;
        if (isMono)
            judgeMonoclinic(row, form);
        else
            judge(row, form, m);
    }
}

/// The unique axis decides about the standard setting, and with it about all angles.
void CharacterSearch::judgeMonoclinic(std::size_t row, const NearForm& form) {
    rowsTriedWith(row, form) |= RowSet(1) << row;
    judge(row, form, metricOf(standardAxes(kLatticeCharacters[row], form.metric), form.metric));
}

/// The monoclinic rows that have been tried with the unique axis that the row gives the form.
RowSet& CharacterSearch::rowsTriedWith(std::size_t row, const NearForm& form) {
    const auto& b = kLatticeCharacters[row].toConventional[1];
    const int axis = b[0] * form.names[0] + b[1] * form.names[1] + b[2] * form.names[2];
    return m_rowsByAxis[static_cast<std::size_t>(std::abs(axis))];
}

void CharacterSearch::judge(std::size_t row, const NearForm& form, const Metric& conventional) {
    const LATTICE::BravaisTypes type = kLatticeCharacters[row].bravais;
    Best& best = m_best[row];
    const double squaredSine = squaredSineOfMisfit(type, conventional);
    if (squaredSine > m_limits.squaredSine) return;
    if (best.form && !(m_limits.score(squaredSine, 0.0) < best.score * kBetter)) return;
    const double length = lengthMisfit(type, conventional);
    if (length > m_limits.length) return;
    const double score = m_limits.score(squaredSine, length);
    if (best.form && !(score < best.score * kBetter)) return;
    best.form = &form;
    best.score = score;
    if (FitLimits::isExact(squaredSine, length)) m_pending &= ~(RowSet(1) << row);
    if ((kMonoclinic >> row & 1U) == 0)
        best.squaredSine = std::min(best.squaredSine, m_limits.squaredSine * score * kBetter * kSlack);
}

CharacterFit CharacterSearch::triclinicFit() const {
    const auto forms = m_near.forms();
    const auto reduced =
        std::find_if(forms.begin(), forms.end(), [](const NearForm& form) { return isReduced(form.metric); });
    // Which of the two triclinic rows it is follows from the form.
    return {&kLatticeCharacters.back(), reduced != forms.end() ? *reduced : forms.front(), 0.0};
}

std::vector<CharacterFit> CharacterSearch::fits() const {
    std::vector<CharacterFit> out = {triclinicFit()};
    for (std::size_t i = 0; i < m_best.size(); ++i)
        if (m_best[i].form) out.push_back({&kLatticeCharacters[i], *m_best[i].form, m_best[i].score});
    return out;
}

}  // namespace VRK::detail
