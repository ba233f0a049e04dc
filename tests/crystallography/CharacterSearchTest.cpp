#include "crystallography/detail/CharacterSearch.h"

#include "RandomLattice.h"
#include "crystallography/UnitCellTest.h"
#include "crystallography/detail/ConventionalSetting.h"
#include "crystallography/detail/LatticeMetric.h"
#include "support/Testing.h"

namespace {

using namespace testing_support;
using namespace VRK::detail;

/// The search written down plainly: every base with entries -1, 0, 1, every row, every condition.
class PlainSearch {
public:
    struct Best {
        NearForm form;
        double score;
        bool isExact;
    };

    PlainSearch(const Metric& shortest, const LatticeTolerances& tolerances)
        : m_limits(tolerances), m_wide({2.0 * tolerances.angle, tolerances.length}), m_shortest(shortest) {
        std::vector<Vector> half;
        for (int n = 0; n < 27; ++n)
            if (const Vector v = {n / 9 - 1, n / 3 % 3 - 1, n % 3 - 1}; v > Vector{}) half.push_back(v);
        for (const Vector& a : half)
            for (const Vector& b : half)
                for (const Vector& c : half)
                    for (const Vector& sign : {Vector{1, 1, 1}, {1, -1, -1}, {-1, 1, -1}, {-1, -1, 1}})
                        tryBase({a, b, c}, sign);
    }

    const std::map<int, Best>& best() const { return m_best; }

private:
    void tryBase(Axes axes, Vector sign) {
        const auto det = static_cast<int>(determinant(axes));
        if (det != 1 && det != -1) return;
        for (std::size_t i = 0; i < 3; ++i)
            for (int& entry : axes[i])
                entry *= sign[i] * det;
        const Metric m = metricOf(axes, m_shortest);
        const double loose = m_limits.looseness;
        const auto isNoLonger = [loose](double x, double y) { return x <= y * (1.0 + loose); };
        if (!isNoLonger(m.A, m_shortest.A) || !isNoLonger(m.B, m_shortest.B) ||
            !isNoLonger(m.C, m_shortest.C) || !isNoLonger(m.A, m.B) || !isNoLonger(m.B, m.C))
            return;
        const auto hasSign = [loose](double wanted, double x, double squares) {
            return wanted * x > 0.0 || x * x < loose * loose * squares;
        };
        const auto allHave = [&](double wanted) {
            return hasSign(wanted, m.D, m.B * m.C) && hasSign(wanted, m.E, m.A * m.C) &&
                   hasSign(wanted, m.F, m.A * m.B);
        };
        const NearForm form = {axes, m, {}, allHave(1.0), allHave(-1.0)};
        if (!form.fitsFormI && !form.fitsFormII) return;
        for (const CharacterRow& row : kLatticeCharacters)
            if (row.bravais != LATTICE::aP && meetsConditions(row, form)) tryRow(row, form);
    }

    bool meetsConditions(const CharacterRow& row, const NearForm& form) const {
        return (row.form == Form::I ? form.fitsFormI : form.fitsFormII) &&
               meets(row, form.metric, 3.0 * m_limits.looseness);
    }

    void tryRow(const CharacterRow& row, const NearForm& form) {
        Metric m = kConventionalMetrics[static_cast<std::size_t>(row.number) - 1].of(form.metric);
        if (isMonoclinic(row.bravais)) {
            if (m.D * m.D > m_wide.squaredSine * (m.B * m.C) || m.F * m.F > m_wide.squaredSine * (m.A * m.B))
                return;
            Vector axis =
                inBaseOf(
                    {Vector{row.toConventional[1][0], row.toConventional[1][1], row.toConventional[1][2]}},
                    form.axes)
                    ->front();
            if (axis < Vector{}) axis = negated(axis);
            if (!m_uniqueAxes.emplace(row.number, axis).second) return;
            m = metricOf(standardAxes(row, form.metric), form.metric);
        }
        const double squaredSine = squaredSineOfMisfit(row.bravais, m);
        const double length = lengthMisfit(row.bravais, m);
        if (squaredSine > m_limits.squaredSine || length > m_limits.length) return;
        const Best found = {form, m_limits.score(squaredSine, length),
                            FitLimits::isExact(squaredSine, length)};
        const auto known = m_best.find(row.number);
        if (known == m_best.end())
            m_best.emplace(row.number, found);
        else if (!known->second.isExact && found.score < known->second.score * CharacterSearch::kBetter)
            known->second = found;
    }

    FitLimits m_limits;
    FitLimits m_wide;
    Metric m_shortest;
    std::set<std::pair<int, Vector>> m_uniqueAxes;
    std::map<int, Best> m_best;
};

TEST(CharacterSearchTest, FindsWhatThePlainSearchFinds) {
    RandomLattice random(41);
    int fitted = 0;
    for (int n = 0; n < 1400; ++n) {
        UnitCell cell =
            random.primitive(kAllBravaisTypes[static_cast<std::size_t>(n) % kAllBravaisTypes.size()]);
        if (n % 3 > 0) cell = random.disturbed(cell, 0.01 * (n % 3), 1.0 * (n % 3));
        const LatticeTolerances tolerances = n % 4 == 0 ? LatticeTolerances{5.0, 0.1} : LatticeTolerances{};
        double base[3][3];
        cell.getOrientationMatrix(base);
        const Metric shortest = metricOf(ShortestBase(base).vectors());
        const auto fits = CharacterSearch(shortest, tolerances).fits();
        const PlainSearch plain(shortest, tolerances);
        const Metric& m = fits.front().form.metric;
        ASSERT_TRUE(UnitCellTest::isNiggliCell(m.A, m.B, m.C, 2 * m.D, 2 * m.E, 2 * m.F, 1e-6 * m.C)) << n;
        ASSERT_EQ(fits.size(), plain.best().size() + 1) << "draw " << n;
        auto expected = plain.best().begin();
        for (std::size_t i = 1; i < fits.size(); ++i, ++expected, ++fitted) {
            ASSERT_EQ(fits[i].row->number, expected->first) << "draw " << n;
            ASSERT_EQ(fits[i].form.axes, expected->second.form.axes) << "draw " << n;
            ASSERT_EQ(fits[i].score, expected->second.score) << "draw " << n;
        }
    }
    EXPECT_GT(fitted, 10000);
}

}  // namespace
