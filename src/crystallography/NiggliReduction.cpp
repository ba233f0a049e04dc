#include "crystallography/NiggliReduction.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <string>

#include "crystallography/BasicMath.h"
#include "crystallography/UnitCell.h"
#include "crystallography/UnitCellTest.h"
#include "crystallography/detail/NumberText.h"
#include "crystallography/detail/ShortestBase.h"
#include "crystallography/detail/Tolerance.h"
#include "foundation/Narration.h"

thread_local std::ostream* NiggliReduction::m_narration = &std::cout;

namespace {

constexpr int kMostSteps = 1'000'000;
constexpr int kMostStepsFromShortestVectors = 1'000;

/// The sign that an action takes its multiple with: zero counts as negative.
int sgn(double x) {
    return x > 0.0 ? 1 : -1;
}

bool hasReader(const std::ostream* stream) {
    if (stream == &std::cout) stream = &VRK::narration();
    return stream && stream->good() && stream->rdbuf();
}

void appendEdgesAndAngles(std::string& text, double A, double B, double C, double xi, double eta,
                          double zeta) {
    const double a = std::sqrt(A);
    const double b = std::sqrt(B);
    const double c = std::sqrt(C);
    VRK::detail::append(text, "a = ", a, "  b = ", b, "  c = ", c);
    VRK::detail::append(text, "\nalpha = ", std::acos(xi / (2.0 * b * c)) * BasicMath::kDegreePerRadian,
                        "  beta = ", std::acos(eta / (2.0 * a * c)) * BasicMath::kDegreePerRadian,
                        "  gamma = ", std::acos(zeta / (2.0 * a * b)) * BasicMath::kDegreePerRadian);
    text += '\n';
}

void appendSix(std::string& text, std::initializer_list<double> values) {
    const char* separator = "";
    for (const double x : values) {
        text += separator;
        VRK::detail::appendNumber(text, x);
        separator = "  ";
    }
}

}  // namespace

/// Remembers where the steps have been and notices when they come back.
///
/// As long as A + B + C keeps falling the steps lead nowhere they have been, so it begins to look a few
/// passes after the last fall. States are compared within the tolerance with the latest ones (circles have a
/// few states) and, for long circles, with one older state that moves on after 1, 2, 4, 8 ... passes (Brent's
/// method).
class NiggliReduction::Circle {
public:
    enum Place { StartOfPass, SignsSettled };

    explicit Circle(NiggliReduction& reduction) : m_reduction(reduction), m_state(reduction.m_state) {}

    /// True when the working values have been here before and the steps do not end by themselves. The
    /// working state is then the best of the circle.
    bool closes(Place place) {
        if (m_harmless || !isWorthLooking(place)) return false;
        const std::size_t first = findEarlier(place);
        if (first == kNotFound) {
            remember(place);
            return false;
        }
        m_harmless = m_reduction.endsByItself();
        if (!m_harmless) chooseBestFrom(first);
        return !m_harmless;
    }

private:
    struct Visit {
        State state;
        Place place;
    };
    using Test = bool (*)(double, double, double, double, double, double, double);

    static constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);
    static constexpr std::size_t kMostVisits = 64;

    bool isWorthLooking(Place place) {
        constexpr int passesThatSort = 4;
        if (place == SignsSettled) return m_passesSinceFall > passesThatSort;
        const double trace = m_state.A + m_state.B + m_state.C;
        if (trace < m_lowestTrace - m_reduction.m_eps) {
            m_lowestTrace = trace;
            m_passesSinceFall = 0;
        }
        return ++m_passesSinceFall > passesThatSort;
    }

    bool isSame(const State& x, const State& y) const {
        const auto eq = [this](double a, double b) { return m_reduction.eq(a, b); };
        return eq(x.A, y.A) && eq(x.B, y.B) && eq(x.C, y.C) && eq(x.xi, y.xi) && eq(x.eta, y.eta) &&
               eq(x.zeta, y.zeta);
    }

    std::size_t findEarlier(Place place) const {
        for (std::size_t i = 0; i < m_visited; ++i)
            if (m_visits[i].place == place && isSame(m_visits[i].state, m_state)) return i;
        const bool isMilestone = place == StartOfPass && m_passes > 0 && isSame(m_milestone, m_state);
        return isMilestone ? 0 : kNotFound;
    }

    void remember(Place place) {
        if (m_visited == kMostVisits) {
            std::copy(m_visits.begin() + kMostVisits / 2, m_visits.end(), m_visits.begin());
            m_visited = kMostVisits / 2;
        }
        m_visits[m_visited++] = {m_state, place};
        if (place != StartOfPass) return;
        if (++m_passes == m_nextMilestone) {
            m_milestone = m_state;
            m_nextMilestone *= 2;
        }
    }

    void chooseBestFrom(std::size_t first) {
        for (const Test test : {Test(UnitCellTest::isNiggliCell), Test(UnitCellTest::isBurgerCell)})
            for (std::size_t i = first; i < m_visited; ++i) {
                const State& s = m_visits[i].state;
                if (!test(s.A, s.B, s.C, s.xi, s.eta, s.zeta, m_reduction.m_eps)) continue;
                m_state = s;
                return;
            }
    }

    NiggliReduction& m_reduction;
    State& m_state;
    std::array<Visit, kMostVisits> m_visits;
    std::size_t m_visited = 0;
    State m_milestone = {};
    long m_passes = 0;
    long m_nextMilestone = 1;
    double m_lowestTrace = std::numeric_limits<double>::infinity();
    int m_passesSinceFall = 0;
    bool m_harmless = false;
};

bool NiggliReduction::niggliReduction(UnitCell* cell, int limit) {
    if (!cell) return false;
    NiggliReduction work;
    work.init(cell, limit);
    if (work.m_verbose) work.narrateStart(*cell);
    work.reduce(*cell);
    cell->transform(work.m_state.T);
    if (work.m_verbose) work.narrateEnd(*cell);
    return true;
}

void NiggliReduction::setNarration(std::ostream* out) {
    m_narration = out;
}

std::ostream* NiggliReduction::getNarration() {
    return m_narration;
}

void NiggliReduction::init(UnitCell* cell, int limit) {
    m_count = 0;
    m_limit = limit < 2 ? 1000 : limit;
    m_verbose = hasReader(m_narration);
    m_overflow = false;
    m_eps = cell->getEps();
    m_smallestA = 100.0 * m_eps;
    m_state = {cell->getA(),
               cell->getB(),
               cell->getC(),
               2.0 * cell->getD(),
               2.0 * cell->getE(),
               2.0 * cell->getF(),
               {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
}

void NiggliReduction::reduce(const UnitCell& cell) {
    if (run(kMostSteps) && isConfirmedBy(cell)) return;
    if (startFromShortestVectors(cell)) run(kMostStepsFromShortestVectors);
}

/// True when the steps ended, or were found in a circle, on values that can be relied on.
bool NiggliReduction::run(int mostSteps) {
    Circle circle(*this);
    const int last = m_count + mostSteps;
    while (isUsable() && m_count < last)
        if (!step(&circle)) return isUsable();
    return false;
}

bool NiggliReduction::isUsable() const {
    return m_state.A >= m_smallestA && !m_overflow;
}

/// The six values of the transformed vectors.
NiggliReduction::State NiggliReduction::transformed(const UnitCell& cell) const {
    State out = m_state;
    UnitCell copy(cell);
    copy.transform(out.T);
    out.A = copy.getA();
    out.B = copy.getB();
    out.C = copy.getC();
    out.xi = 2.0 * copy.getD();
    out.eta = 2.0 * copy.getE();
    out.zeta = 2.0 * copy.getF();
    return out;
}

/// Whether the transformed vectors are reduced as the working values say.
bool NiggliReduction::isConfirmedBy(const UnitCell& cell) const {
    const State& s = m_state;
    const State fresh = transformed(cell);
    if (roundingOf(cell) > m_eps) {
        const double drift =
            std::max({std::abs(fresh.A - s.A), std::abs(fresh.B - s.B), std::abs(fresh.C - s.C),
                      std::abs(fresh.xi - s.xi), std::abs(fresh.eta - s.eta), std::abs(fresh.zeta - s.zeta)});
        return drift <= m_eps;
    }
    const double tolerance = std::clamp(0.01 * fresh.A, m_eps, 100.0 * m_eps);
    return UnitCellTest::fulfillPrimaryConditions(fresh.A, fresh.B, fresh.C, fresh.xi, fresh.eta, fresh.zeta,
                                                  tolerance) &&
           fresh.A + fresh.B + fresh.xi + fresh.eta + fresh.zeta >= -tolerance;
}

/// What the digits lost since the first of the working values can amount to.
double NiggliReduction::roundingOf(const UnitCell& cell) const {
    const auto& T = m_state.T;
    const double a = std::sqrt(cell.getA());
    const double b = std::sqrt(cell.getB());
    const double c = std::sqrt(cell.getC());
    double longest = 0.0;
    for (int j = 0; j < 3; ++j)
        longest = std::max(longest, std::abs(T[0][j]) * a + std::abs(T[1][j]) * b + std::abs(T[2][j]) * c);
    return 4.0 * std::numeric_limits<double>::epsilon() * longest * longest;
}

/// False when they cannot be told; the working state is then that of some base of the lattice.
bool NiggliReduction::startFromShortestVectors(const UnitCell& cell) {
    double base[3][3];
    cell.getOrientationMatrix(base);
    const VRK::detail::ShortestBase shortest(base);
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            m_state.T[i][j] = shortest.axes()[j][i];
    m_state = transformed(cell);
    m_eps = std::min(m_eps, 1e-5 * m_state.A);
    m_smallestA = 0.0;
    m_overflow = false;
    return shortest.isReduced();
}

bool NiggliReduction::endsByItself() {
    constexpr long mostPasses = 100'000;
    const State start = m_state;
    const int count = m_count;
    const bool verbose = m_verbose;
    m_verbose = false;

    // C decides nothing but whether it changes places with B; all else follows from the other five.
    const auto isSameButC = [](const State& x, const State& y) {
        return x.A == y.A && x.B == y.B && x.xi == y.xi && x.eta == y.eta && x.zeta == y.zeta;
    };
    State milestone = start;
    double nearest = std::numeric_limits<double>::infinity();  // of C above B since the milestone
    bool ends = false;
    for (long pass = 1; pass < mostPasses && isUsable(); ++pass) {
        ends = !step(nullptr);
        if (ends) break;
        const State& s = m_state;
        nearest = std::min(nearest, s.C - s.B);
        if (isSameButC(s, milestone)) {
            // The same again and again, but for what rounding adds to C.
            constexpr double kRounding = 1e-13;  // of the few sums of a pass
            const double drift = std::abs(s.C - milestone.C);
            if (drift == 0.0 || nearest - m_eps > mostPasses * (drift + kRounding * s.C)) break;
        }
        if ((pass & (pass - 1)) == 0) {
            milestone = s;
            nearest = std::numeric_limits<double>::infinity();
        }
    }

    m_state = start;
    m_count = count;
    m_verbose = verbose;
    m_overflow = false;
    return ends;
}

bool NiggliReduction::step(Circle* circle) {
    State& s = m_state;
    if (m_verbose) narrateValues();
    if (circle && circle->closes(Circle::StartOfPass)) return false;
    if (sortsAB()) {
        a1_action();
        return true;
    }
    if (sortsBC()) {
        a2_action();
        return true;
    }
    settleSigns();
    if (m_verbose) narrateValues();
    if (circle && circle->closes(Circle::SignsSettled)) return false;

    if (gt(std::abs(s.xi), s.B) || (eq(s.xi, s.B) && lt(2.0 * s.eta, s.zeta)) ||
        (eq(s.xi, -s.B) && lt(s.zeta, 0.0))) {
        a5_action();
        return true;
    }
    if (gt(std::abs(s.eta), s.A) || (eq(s.zeta, s.A) && lt(2.0 * s.xi, s.zeta)) ||
        (eq(s.eta, -s.A) && lt(s.zeta, 0.0))) {
        a6_action();
        return true;
    }
    if (gt(std::abs(s.zeta), s.A) || (eq(s.zeta, s.A) && lt(2.0 * s.xi, s.eta)) ||
        (eq(s.zeta, -s.A) && lt(s.eta, 0.0))) {
        a7_action();
        return true;
    }
    const double sum = s.xi + s.eta + s.zeta + s.A + s.B;
    if (lt(sum, 0.0) || (eq(sum, 0.0) && gt(2.0 * s.A + 2.0 * s.eta + s.zeta, 0.0))) {
        a8_action();
        return true;
    }
    return false;
}

bool NiggliReduction::normalize() {
    return normalizeStep();
}

bool NiggliReduction::normalizeStep() {
    if (sortsAB()) a1_action();
    if (sortsBC()) {
        a2_action();
        return true;
    }
    settleSigns();
    return false;
}

void NiggliReduction::settleSigns() {
    if (multTest())
        a3_action();
    else
        a4_action();
}

bool NiggliReduction::sortsAB() const {
    const State& s = m_state;
    return gt(s.A, s.B) || (eq(s.A, s.B) && gt(std::abs(s.xi), std::abs(s.eta)));
}

bool NiggliReduction::sortsBC() const {
    const State& s = m_state;
    return gt(s.B, s.C) || (eq(s.B, s.C) && gt(std::abs(s.eta), std::abs(s.zeta)));
}

/// True when the product xi eta zeta is positive.
bool NiggliReduction::multTest() const {
    int positive = 0;
    int zero = 0;
    for (const double x : {m_state.xi, m_state.eta, m_state.zeta}) {
        if (x - m_eps > 0.0)
            ++positive;
        else if (!(x < -m_eps))
            ++zero;
    }
    return positive == 3 || (positive == 1 && zero == 0);
}

/// In place where the actions call it, most of the matrix' entries are constants.
[[gnu::always_inline]] inline void NiggliReduction::update(int m11, int m12, int m13, int m21, int m22,
                                                           int m23, int m31, int m32, int m33) {
    const long long M[3][3] = {{m11, m12, m13}, {m21, m22, m23}, {m31, m32, m33}};
    for (auto& row : m_state.T) {
        const long long old[3] = {row[0], row[1], row[2]};
        for (int j = 0; j < 3; ++j) {
            const long long entry = old[0] * M[0][j] + old[1] * M[1][j] + old[2] * M[2][j];
            m_overflow = m_overflow || std::abs(entry) > std::numeric_limits<int>::max() / 2;
            row[j] = static_cast<int>(entry);
        }
    }
    ++m_count;
}

void NiggliReduction::a1_action() {
    update(0, -1, 0, -1, 0, 0, 0, 0, -1);
    std::swap(m_state.A, m_state.B);
    std::swap(m_state.xi, m_state.eta);
}

void NiggliReduction::a2_action() {
    update(-1, 0, 0, 0, 0, -1, 0, -1, 0);
    std::swap(m_state.B, m_state.C);
    std::swap(m_state.eta, m_state.zeta);
}

void NiggliReduction::a3_action() {
    State& s = m_state;
    const auto sign = [this](double x) { return x < -m_eps ? -1 : 1; };
    update(sign(s.xi), 0, 0, 0, sign(s.eta), 0, 0, 0, sign(s.zeta));
    s.xi = std::abs(s.xi);
    s.eta = std::abs(s.eta);
    s.zeta = std::abs(s.zeta);
}

void NiggliReduction::a4_action() {
    State& s = m_state;
    int signs[3] = {1, 1, 1};
    int* lastZero = nullptr;
    double* const values[3] = {&s.xi, &s.eta, &s.zeta};
    for (int i = 0; i < 3; ++i) {
        if (*values[i] > m_eps)
            signs[i] = -1;
        else if (*values[i] >= -m_eps)
            lastZero = &signs[i];
    }
    if (signs[0] * signs[1] * signs[2] < 0 && lastZero) *lastZero = -1;
    update(signs[0], 0, 0, 0, signs[1], 0, 0, 0, signs[2]);
    for (double* value : values)
        *value = -std::abs(*value);
}

void NiggliReduction::a5_action() {
    State& s = m_state;
    const int sign = sgn(s.xi);
    update(1, 0, 0, 0, 1, -sign, 0, 0, 1);
    s.C = s.B + s.C - sign * s.xi;
    s.eta = s.eta - sign * s.zeta;
    s.xi = s.xi - sign * 2.0 * s.B;
}

void NiggliReduction::a6_action() {
    State& s = m_state;
    const int sign = sgn(s.eta);
    update(1, 0, -sign, 0, 1, 0, 0, 0, 1);
    s.C = s.A + s.C - sign * s.eta;
    s.xi = s.xi - sign * s.zeta;
    s.eta = s.eta - sign * 2.0 * s.A;
}

void NiggliReduction::a7_action() {
    State& s = m_state;
    const int sign = sgn(s.zeta);
    update(1, -sign, 0, 0, 1, 0, 0, 0, 1);
    s.B = s.A + s.B - sign * s.zeta;
    s.xi = s.xi - sign * s.eta;
    s.zeta = s.zeta - sign * 2.0 * s.A;
}

void NiggliReduction::a8_action() {
    State& s = m_state;
    update(1, 0, 1, 0, 1, 1, 0, 0, 1);
    s.C = s.A + s.B + s.C + s.xi + s.eta + s.zeta;
    s.xi = 2.0 * s.B + s.xi + s.zeta;
    s.eta = 2.0 * s.A + s.eta + s.zeta;
}

bool NiggliReduction::eq(double x, double y) const {
    return VRK::detail::equal(x, y, m_eps);
}

bool NiggliReduction::lt(double x, double y) const {
    return VRK::detail::lessThan(x, y, m_eps);
}

bool NiggliReduction::gt(double x, double y) const {
    return VRK::detail::greaterThan(x, y, m_eps);
}

void NiggliReduction::narrate(const char* text) {
    *m_narration << text;
}

void NiggliReduction::narrateValues() const {
    const State& s = m_state;
    std::string text;
    if (UnitCellTest::isBurgerCell(s.A, s.B, s.C, s.xi, s.eta, s.zeta, m_eps)) text = "Burger-Zelle:\n";
    appendSix(text, {s.A, s.B, s.C, s.xi, s.eta, s.zeta});
    text += '\n';
    narrate(text.c_str());
}

void NiggliReduction::narrateStart(const UnitCell& cell) const {
    const State& s = m_state;
    narrate(" \n \n");
    cell.printOrientationMatrix(*m_narration);
    cell.printParameter(*m_narration);
    std::string text = "Cell parameter: \n";
    appendEdgesAndAngles(text, s.A, s.B, s.C, s.xi, s.eta, s.zeta);
    text += "Niggli reduction gestartet\n";
    narrate(text.c_str());
}

void NiggliReduction::narrateEnd(const UnitCell& cell) const {
    const State& s = m_state;
    std::string text = "Niggli reduction beendet\n";
    appendSix(text, {s.A, s.B, s.C, s.xi, s.eta, s.zeta});
    text += UnitCellTest::isNiggliCell(s.A, s.B, s.C, s.xi, s.eta, s.zeta, 1e-5)
                ? "\nJa ist Niggli-Zelle\n"
                : "\nNein ist leider keine Niggli-Zelle\n";
    text += "Matrix: \n";
    for (const auto& row : s.T)
        text += std::to_string(row[0]) + ' ' + std::to_string(row[1]) + ' ' + std::to_string(row[2]) + '\n';
    text += "Niggli-Cell parameter: \n";
    appendEdgesAndAngles(text, s.A, s.B, s.C, s.xi, s.eta, s.zeta);
    narrate(text.c_str());
    cell.printOrientationMatrix(*m_narration);
    cell.printParameter(*m_narration);
    narrate(" \n \n");
}
