#include "crystallography/LatticeSymmetry.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <span>

#include "crystallography/BasicMath.h"
#include "crystallography/UnitCell.h"
#include "crystallography/UnitCellTest.h"
#include "crystallography/detail/Centring.h"
#include "crystallography/detail/LatticeCharacterTable.h"
#include "crystallography/detail/ShortestBase.h"
#include "foundation/VRKLogger.h"

namespace {

using VRK::detail::Axes;
using VRK::detail::CharacterRow;
using VRK::detail::DotCondition;
using VRK::detail::Edges;
using VRK::detail::Form;
using VRK::detail::kLatticeCharacters;
using VRK::detail::Metric;
using VRK::detail::ShortestBase;
using VRK::detail::SumCondition;
using VRK::detail::Vector;

Vector plus(const Vector& u, int factor, const Vector& v) {
    return {u[0] + factor * v[0], u[1] + factor * v[1], u[2] + factor * v[2]};
}

Vector negated(const Vector& v) {
    return {-v[0], -v[1], -v[2]};
}

int determinant(const Axes& m) {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

double dot(const Vector& u, const Vector& v, const Metric& m) {
    return u[0] * v[0] * m.A + u[1] * v[1] * m.B + u[2] * v[2] * m.C + (u[1] * v[2] + u[2] * v[1]) * m.D +
           (u[0] * v[2] + u[2] * v[0]) * m.E + (u[0] * v[1] + u[1] * v[0]) * m.F;
}

Metric metricOf(const Axes& axes, const Metric& m) {
    return {dot(axes[0], axes[0], m), dot(axes[1], axes[1], m), dot(axes[2], axes[2], m),
            dot(axes[1], axes[2], m), dot(axes[0], axes[2], m), dot(axes[0], axes[1], m)};
}

/// The vectors of `axes`, given in the base `base`, in the base that `base` itself is given in.
Axes inBaseOf(const Axes& axes, const Axes& base) {
    Axes out;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            out[i][j] = axes[i][0] * base[0][j] + axes[i][1] * base[1][j] + axes[i][2] * base[2][j];
    return out;
}

double angleInDegrees(double dotProduct, double squared1, double squared2) {
    return std::acos(std::clamp(dotProduct / std::sqrt(squared1 * squared2), -1.0, 1.0)) *
           BasicMath::kDegreePerRadian;
}

Metric metricOf(const double (&vectors)[3][3]) {
    const auto& [a, b, c] = vectors;
    return {BasicMath::Dot(a, a), BasicMath::Dot(b, b), BasicMath::Dot(c, c),
            BasicMath::Dot(b, c), BasicMath::Dot(a, c), BasicMath::Dot(a, b)};
}

CellParameters parametersOf(const Metric& m) {
    return {std::sqrt(m.A),
            std::sqrt(m.B),
            std::sqrt(m.C),
            angleInDegrees(m.D, m.B, m.C),
            angleInDegrees(m.E, m.A, m.C),
            angleInDegrees(m.F, m.A, m.B)};
}

/// Order of the point group of the lattice, by the letter of the crystal family.
int symmetryOrder(LATTICE::BravaisTypes type) {
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

bool isHexagonal(LATTICE::BravaisTypes type) {
    return type == LATTICE::hP || type == LATTICE::hR;
}

/// The metric averaged over the point group of the Bravais type in its conventional setting.
Metric symmetrised(LATTICE::BravaisTypes type, const Metric& m) {
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

/// How far a conventional cell is from its symmetrised form.
struct Misfit {
    double angle = 0.0;
    double length = 0.0;
};

/// The tolerances in the form that comparisons need.
struct Limits {
    explicit Limits(const LatticeTolerances& tolerances)
        : angle(tolerances.angle + 1e-6), length(tolerances.length + 1e-8) {
        const double sine = std::sin(std::clamp(angle, 0.0, 90.0) / BasicMath::kDegreePerRadian);
        squaredSine = sine * sine * (1.0 + 1e-9);
    }

    bool isRightAngle(double dotProduct, double squared1, double squared2) const {
        return dotProduct * dotProduct <= squaredSine * squared1 * squared2;
    }
    bool allow(const Misfit& misfit) const { return misfit.angle <= angle && misfit.length <= length; }

    double angle;
    double length;
    double squaredSine;
};

/// The metric of a conventional cell, or false as soon as one of its right angles is out of limits.
bool formConventional(const CharacterRow& row, const Metric& m, const Limits& limits, Metric& out) {
    const auto& r = row.toConventional;
    const auto lower = [&m](const int v[3], double w[3]) {
        w[0] = v[0] * m.A + v[1] * m.F + v[2] * m.E;
        w[1] = v[0] * m.F + v[1] * m.B + v[2] * m.D;
        w[2] = v[0] * m.E + v[1] * m.D + v[2] * m.C;
    };
    const auto product = [](const int v[3], const double w[3]) {
        return v[0] * w[0] + v[1] * w[1] + v[2] * w[2];
    };
    double b[3];
    lower(r[1], b);
    double c[3];
    lower(r[2], c);
    out.B = product(r[1], b);
    out.C = product(r[2], c);
    out.D = product(r[1], c);
    if (!limits.isRightAngle(out.D, out.B, out.C)) return false;
    double a[3];
    lower(r[0], a);
    out.A = product(r[0], a);
    out.E = product(r[0], c);
    if (symmetryOrder(row.bravais) > 4 && !limits.isRightAngle(out.E, out.A, out.C)) return false;
    out.F = product(r[0], b);
    return isHexagonal(row.bravais) || limits.isRightAngle(out.F, out.A, out.B);
}

Misfit misfitOf(LATTICE::BravaisTypes type, const Metric& m) {
    const int order = symmetryOrder(type);
    if (order == 2) return {};
    Misfit misfit;
    misfit.angle = std::max(std::abs(angleInDegrees(m.D, m.B, m.C) - 90.0),
                            std::abs(angleInDegrees(m.F, m.A, m.B) - (isHexagonal(type) ? 120.0 : 90.0)));
    if (order > 4) misfit.angle = std::max(misfit.angle, std::abs(angleInDegrees(m.E, m.A, m.C) - 90.0));
    if (order > 8) {
        const Metric mean = symmetrised(type, m);
        misfit.length =
            std::max({std::abs(std::sqrt(m.A / mean.A) - 1.0), std::abs(std::sqrt(m.B / mean.B) - 1.0),
                      std::abs(std::sqrt(m.C / mean.C) - 1.0)});
    }
    return misfit;
}

/// The looseness within which a base still counts as nearly reduced: what the tolerances can do to a metric
/// value relative to the product of its edges.
double looseness(const LatticeTolerances& tolerances) {
    const double angle = std::clamp(tolerances.angle, 0.0, 30.0) / BasicMath::kDegreePerRadian;
    return std::min(2.0 * std::max(tolerances.length, 0.0) + 2.0 * std::sin(angle), 0.5) + 1e-6;
}

/// A nearly reduced base: the axes in the shortest base, and their metric.
struct NearForm {
    Axes axes;
    Metric metric;
    bool fitsFormI;
    bool fitsFormII;
};

/// All bases of entries -1, 0, 1 whose edges are as short as those of the shortest base, and whose dot
/// products are all positive or none positive, within the looseness. Always holds the shortest base itself.
class NearForms {
public:
    NearForms(const Metric& shortest, double loose) : m_shortest(shortest), m_loose(loose) {
        collectShortVectors();
        for (const auto& a : m_vectors)
            for (const auto& b : m_vectors)
                for (const auto& c : m_vectors)
                    addTriple(a, b, c);
    }

    std::span<const NearForm> forms() const { return m_forms; }

private:
    struct Short {
        Vector vector;
        double squared;
        bool fits[3];
    };

    void collectShortVectors() {
        const double limits[3] = {m_shortest.A, m_shortest.B, m_shortest.C};
        for (int x = 0; x <= 1; ++x)
            for (int y = (x == 0 ? 0 : -1); y <= 1; ++y)
                for (int z = (x == 0 && y == 0 ? 1 : -1); z <= 1; ++z) {
                    const Vector v = {x, y, z};
                    Short entry = {v, dot(v, v, m_shortest), {}};
                    for (int i = 0; i < 3; ++i)
                        entry.fits[i] = entry.squared <= limits[i] * (1.0 + m_loose);
                    if (entry.fits[2]) m_vectors.push_back(entry);
                }
    }

    void addTriple(const Short& a, const Short& b, const Short& c) {
        if (!a.fits[0] || !b.fits[1] || !c.fits[2]) return;
        if (a.squared > b.squared * (1.0 + m_loose) || b.squared > c.squared * (1.0 + m_loose)) return;
        Axes axes = {a.vector, b.vector, c.vector};
        const int det = determinant(axes);
        if (det != 1 && det != -1) return;
        if (det < 0)
            for (Vector& v : axes)
                v = negated(v);
        addSigns(axes, {a.squared, b.squared, c.squared, dot(b.vector, c.vector, m_shortest),
                        dot(a.vector, c.vector, m_shortest), dot(a.vector, b.vector, m_shortest)});
    }

    /// The four ways to turn the axes round in pairs.
    void addSigns(const Axes& axes, const Metric& m) {
        constexpr int kSigns[4][3] = {{1, 1, 1}, {1, -1, -1}, {-1, 1, -1}, {-1, -1, 1}};
        const double limitD = m_loose * std::sqrt(m.B * m.C);
        const double limitE = m_loose * std::sqrt(m.A * m.C);
        const double limitF = m_loose * std::sqrt(m.A * m.B);
        for (const auto& sign : kSigns) {
            const double D = sign[0] * m.D;
            const double E = sign[1] * m.E;
            const double F = sign[2] * m.F;
            NearForm form = {axes, {m.A, m.B, m.C, D, E, F}, false, false};
            form.fitsFormI = D > -limitD && E > -limitE && F > -limitF;
            form.fitsFormII = D < limitD && E < limitE && F < limitF;
            if (!form.fitsFormI && !form.fitsFormII) continue;
            for (int i = 0; i < 3; ++i)
                if (sign[i] < 0) form.axes[i] = negated(axes[i]);
            // Signs of the axes: D changes with b and c, so the pattern of D, E, F is that of a, b, c.
            m_forms.push_back(form);
        }
    }

    Metric m_shortest;
    double m_loose;
    std::vector<Short> m_vectors;
    std::vector<NearForm> m_forms;
};

/// A quick look at the conditions of the table before the conventional cell is formed. Lets everything pass
/// that can fit within the tolerances.
class RowFilter {
public:
    explicit RowFilter(double loose) : m_loose(3.0 * loose) {}

    bool mayFit(const CharacterRow& row, const NearForm& form) const {
        const Metric& m = form.metric;
        if (!(row.form == Form::I ? form.fitsFormI : form.fitsFormII)) return false;
        if ((row.edges == Edges::AllEqual || row.edges == Edges::ABEqual) && !isNear(m.A, m.B, m.B))
            return false;
        if ((row.edges == Edges::AllEqual || row.edges == Edges::BCEqual) && !isNear(m.B, m.C, m.C))
            return false;
        return holds(row.D, m.D, m, m.B * m.C) && holds(row.E, m.E, m, m.A * m.C) &&
               holds(row.F, m.F, m, m.A * m.B);
    }

private:
    bool isNear(double x, double y, double scale) const { return std::abs(x - y) <= m_loose * scale; }
    bool holds(const DotCondition& condition, double value, const Metric& m, double squaredScale) const {
        if (condition.isFree) return true;
        const double difference = value - condition.wanted(m);
        return difference * difference <= m_loose * m_loose * squaredScale;
    }

    double m_loose;
};

/// Puts conventional axes into the standard setting of their type. Axes and metric are in the reduced base.
class Setting {
public:
    Setting(LATTICE::BravaisTypes type, const Axes& axes, const Metric& reduced)
        : m_axes(axes), m_reduced(reduced) {
        switch (type) {
            case LATTICE::oP:
            case LATTICE::oI:
            case LATTICE::oF:
                sortAxes();
                break;
            case LATTICE::oC:
                swapIfLonger(0, 1);
                break;
            case LATTICE::mP:
                setMonoclinic(false);
                break;
            case LATTICE::mC:
                centreOnC();
                setMonoclinic(true);
                break;
            case LATTICE::hR:
                setObverse();
                break;
            default:
                break;
        }
        if (determinant(m_axes) < 0) {
            const int turned = symmetryOrder(type) == 4 ? 1 : 2;
            m_axes[turned] = negated(m_axes[turned]);
        }
    }

    const Axes& axes() const { return m_axes; }

private:
    double product(int i, int j) const { return dot(m_axes[i], m_axes[j], m_reduced); }

    void swapIfLonger(int i, int j) {
        if (product(i, i) > product(j, j)) std::swap(m_axes[i], m_axes[j]);
    }

    void sortAxes() {
        swapIfLonger(0, 1);
        swapIfLonger(1, 2);
        swapIfLonger(0, 1);
    }

    /// True when half the sum of the vectors is a lattice vector.
    static bool isCentred(const Vector& u, const Vector& v) {
        const Vector sum = plus(u, 1, v);
        return sum[0] % 2 == 0 && sum[1] % 2 == 0 && sum[2] % 2 == 0;
    }

    void centreOnC() {
        if (isCentred(m_axes[0], m_axes[1])) return;
        if (isCentred(m_axes[2], m_axes[1]))
            std::swap(m_axes[0], m_axes[2]);
        else
            m_axes[0] = plus(m_axes[0], 1, m_axes[2]);
    }

    /// The shortest a and c; a centred a may change only by even multiples of c.
    void setMonoclinic(bool isCentredOnC) {
        constexpr int mostRounds = 100;
        const int step = isCentredOnC ? 2 : 1;
        for (int round = 0; round < mostRounds; ++round) {
            const bool changed = shorten(2, 0, 1) | shorten(0, 2, step);
            if (!changed) break;
        }
        if (!isCentredOnC) swapIfLonger(0, 2);
        if (product(0, 2) > 0.0) m_axes[2] = negated(m_axes[2]);
    }

    bool shorten(int i, int by, int step) {
        constexpr double rounding = 1e-9;
        const double ratio = product(i, by) / (step * product(by, by));
        const double multiple = std::abs(ratio) <= 0.5 + rounding ? 0.0 : BasicMath::round(ratio);
        if (multiple == 0.0) return false;
        m_axes[i] = plus(m_axes[i], -step * static_cast<int>(multiple), m_axes[by]);
        return true;
    }

    /// Lattice points at 2/3 1/3 1/3; in the reverse setting they are at 1/3 2/3 1/3.
    void setObverse() {
        const auto& [a, b, c] = m_axes;
        for (int j = 0; j < 3; ++j) {
            if ((2 * a[j] + b[j] + c[j]) % 3 == 0) continue;
            m_axes[0] = negated(m_axes[0]);
            m_axes[1] = negated(m_axes[1]);
            return;
        }
    }

    Axes m_axes;
    const Metric& m_reduced;
};

/// The conventional axes of a row, in the reduced base and the standard setting of the type.
Axes standardAxes(const CharacterRow& row, const Metric& reduced) {
    Axes axes;
    for (std::size_t i = 0; i < 3; ++i)
        std::copy_n(row.toConventional[i], 3, axes[i].begin());
    return Setting(row.bravais, axes, reduced).axes();
}

/// Axis b of a row in the shortest base, of its two directions the one whose first component is positive.
Vector uniqueAxisOf(const CharacterRow& row, const NearForm& form) {
    const auto& b = row.toConventional[1];
    Vector axis = {};
    for (std::size_t i = 0; i < 3; ++i)
        axis = plus(axis, b[i], form.axes[i]);
    return axis < Vector{} ? negated(axis) : axis;
}

/// Adds the vector unless it is known.
bool isNew(std::vector<Vector>& known, const Vector& vector) {
    if (std::find(known.begin(), known.end(), vector) != known.end()) return false;
    known.push_back(vector);
    return true;
}

/// The best fit of one character so far.
struct Fit {
    const CharacterRow* row = nullptr;
    const NearForm* form = nullptr;
    Misfit misfit;
    double score = 0.0;
};

double scoreOf(const Misfit& misfit, const LatticeTolerances& tolerances) {
    const double angle = misfit.angle / std::max(tolerances.angle, 1e-6);
    const double length = misfit.length / std::max(tolerances.length, 1e-8);
    return angle * angle + length * length;
}

bool isReducedForm(const NearForm& form) {
    const Metric& m = form.metric;
    return UnitCellTest::isNiggliCell(m.A, m.B, m.C, 2.0 * m.D, 2.0 * m.E, 2.0 * m.F, 1e-9 * m.C);
}

/// A triclinic cell fits every base; of these the reduced one counts.
std::vector<Fit> fitTriclinic(std::span<const NearForm> forms) {
    const NearForm* reduced = nullptr;
    for (const NearForm& form : forms) {
        if (!isReducedForm(form)) continue;
        reduced = &form;
        break;
    }
    if (!reduced) reduced = &forms.front();
    const Metric& m = reduced->metric;
    const bool isFormI = m.D > 0.0 && m.E > 0.0 && m.F > 0.0;
    return {{&kLatticeCharacters[isFormI ? 30 : 43], reduced, {}, 0.0}};
}

std::vector<Fit> fitAll(std::span<const NearForm> forms, const LatticeTolerances& tolerances) {
    std::vector<Fit> fits = fitTriclinic(forms);
    const RowFilter filter(looseness(tolerances));
    const Limits limits(tolerances);
    const Limits wide({2.0 * tolerances.angle, tolerances.length});
    for (const CharacterRow& row : kLatticeCharacters) {
        if (row.bravais == LATTICE::aP) continue;
        const bool isMonoclinic = symmetryOrder(row.bravais) == 4;
        std::vector<Vector> uniqueAxes;
        Fit best;
        for (const NearForm& form : forms) {
            if (!filter.mayFit(row, form)) continue;
            Metric conventional;
            if (!formConventional(row, form.metric, isMonoclinic ? wide : limits, conventional)) continue;
            if (isMonoclinic) {
                // The unique axis decides about the standard setting, and with it about all angles.
                if (!isNew(uniqueAxes, uniqueAxisOf(row, form))) continue;
                conventional = metricOf(standardAxes(row, form.metric), form.metric);
            }
            const Misfit misfit = misfitOf(row.bravais, conventional);
            if (!limits.allow(misfit)) continue;
            const double score = scoreOf(misfit, tolerances);
            if (!best.form || score < best.score) best = {&row, &form, misfit, score};
        }
        if (best.form) fits.push_back(best);
    }
    return fits;
}

LatticeCharacter describe(const Fit& fit, const ShortestBase& shortest) {
    const CharacterRow& row = *fit.row;
    const Axes axes = standardAxes(row, fit.form->metric);
    const Metric metric = metricOf(axes, fit.form->metric);
    const Axes inInput = inBaseOf(inBaseOf(axes, fit.form->axes), shortest.axes());

    LatticeCharacter out;
    out.number = row.number;
    out.bravaisType = row.bravais;
    out.centring = VRK::detail::centringOf(row.bravais).letter;
    const Misfit misfit = misfitOf(row.bravais, metric);
    out.qualityIndex = misfit.angle;
    out.lengthMisfit = misfit.length;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            out.toConventional[i][j] = inInput[j][i];
    out.measured = parametersOf(metric);
    out.symmetrised = parametersOf(symmetrised(row.bravais, metric));
    return out;
}

bool ranksBefore(const LatticeCharacter& x, const LatticeCharacter& y) {
    const int orderX = symmetryOrder(x.bravaisType);
    const int orderY = symmetryOrder(y.bravaisType);
    if (orderX != orderY) return orderX > orderY;
    // Rounding must not decide between exact fits.
    constexpr double exact = 1e-6;
    if (std::abs(x.qualityIndex - y.qualityIndex) > exact) return x.qualityIndex < y.qualityIndex;
    if (std::abs(x.lengthMisfit - y.lengthMisfit) > exact) return x.lengthMisfit < y.lengthMisfit;
    return x.number < y.number;
}

Vector axisOf(const LatticeCharacter& x, int axis) {
    return {x.toConventional[0][axis], x.toConventional[1][axis], x.toConventional[2][axis]};
}

/// True when both have the same axes but for their order and signs.
bool hasSameAxes(const LatticeCharacter& x, const LatticeCharacter& y) {
    if (x.bravaisType != y.bravaisType) return false;
    for (int i = 0; i < 3; ++i) {
        const Vector axis = axisOf(x, i);
        bool found = false;
        for (int j = 0; j < 3; ++j)
            found = found || axisOf(y, j) == axis || axisOf(y, j) == negated(axis);
        if (!found) return false;
    }
    return true;
}

const CharacterRow* findRow(int character) {
    if (character >= 1 && character <= 44)
        return &kLatticeCharacters[static_cast<std::size_t>(character) - 1];
    VRKLogger::getInstance()->log("Cell type has to be between 1 and 44", VRK::Error, VRK::Information);
    return nullptr;
}

}  // namespace

std::vector<LatticeCharacter> LatticeSymmetry::analyse(const UnitCell& cell,
                                                       const LatticeTolerances& tolerances) {
    if (!cell.isRealCell()) {
        const std::unique_ptr<UnitCell> direct(cell.getReciprocalCell());
        return direct->isDegenerate() ? std::vector<LatticeCharacter>() : analyse(*direct, tolerances);
    }
    if (cell.isDegenerate()) return {};
    double base[3][3];
    cell.getOrientationMatrix(base);
    const ShortestBase shortest(base);
    if (!shortest.isReduced()) return {};
    const NearForms near(metricOf(shortest.vectors()), looseness(tolerances));

    std::vector<LatticeCharacter> characters;
    for (const Fit& fit : fitAll(near.forms(), tolerances))
        characters.push_back(describe(fit, shortest));
    std::sort(characters.begin(), characters.end(), ranksBefore);
    std::vector<LatticeCharacter> unique;
    for (const LatticeCharacter& candidate : characters)
        if (std::none_of(unique.begin(), unique.end(),
                         [&](const LatticeCharacter& known) { return hasSameAxes(known, candidate); }))
            unique.push_back(candidate);
    return unique;
}

LatticeCharacter LatticeSymmetry::best(const UnitCell& cell, const LatticeTolerances& tolerances) {
    const std::vector<LatticeCharacter> characters = analyse(cell, tolerances);
    return characters.empty() ? LatticeCharacter() : characters.front();
}

UnitCell LatticeSymmetry::conventionalCell(const UnitCell& cell, const LatticeCharacter& character) {
    double matrix[3][3];
    std::copy_n(&character.toConventional[0][0], 9, &matrix[0][0]);
    if (!cell.isRealCell()) {
        double inverse[3][3];
        if (!BasicMath::Invert(matrix, inverse)) return cell;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                matrix[i][j] = inverse[j][i];
    }
    UnitCell conventional(cell);
    conventional.transform(matrix);
    conventional.setPrimitiv(VRK::detail::centringOf(character.bravaisType).multiplicity == 1);
    conventional.setBravaisType(cell.isRealCell() ? character.bravaisType
                                                  : LATTICE::reciprocalType(character.bravaisType));
    conventional.setCellCase(character.number);
    conventional.setQualityIndex(character.qualityIndex);
    return conventional;
}

LATTICE::BravaisTypes LatticeSymmetry::getBravaisType(int character) {
    const CharacterRow* row = findRow(character);
    return row ? row->bravais : LATTICE::NoBravaisType;
}

char LatticeSymmetry::getCentring(int character) {
    const CharacterRow* row = findRow(character);
    return row ? VRK::detail::centringOf(row->bravais).letter : ' ';
}

bool LatticeSymmetry::getTransformation(int character, int M[3][3]) {
    const CharacterRow* row = findRow(character);
    if (!row) return false;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            M[j][i] = row->toConventional[i][j];
    return true;
}
