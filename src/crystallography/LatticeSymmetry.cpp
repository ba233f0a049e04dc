#include "crystallography/LatticeSymmetry.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <optional>
#include <tuple>

#include "crystallography/BasicMath.h"
#include "crystallography/UnitCell.h"
#include "crystallography/detail/Centring.h"
#include "crystallography/detail/CharacterSearch.h"
#include "crystallography/detail/ConventionalSetting.h"
#include "crystallography/detail/ExactCharacter.h"
#include "crystallography/detail/FitLimits.h"
#include "crystallography/detail/LatticeMetric.h"
#include "crystallography/detail/ShortestBase.h"
#include "foundation/VRKLogger.h"

namespace {

using VRK::detail::Axes;
using VRK::detail::CharacterFit;
using VRK::detail::CharacterRow;
using VRK::detail::CharacterSearch;
using VRK::detail::inBaseOf;
using VRK::detail::isHexagonal;
using VRK::detail::isMonoclinic;
using VRK::detail::Metric;
using VRK::detail::metricOf;
using VRK::detail::negated;
using VRK::detail::ShortestBase;
using VRK::detail::symmetryOrder;
using VRK::detail::Vector;

double angleInDegrees(double dotProduct, double squared1, double squared2) {
    if (dotProduct == 0.0) return 90.0;
    return std::acos(std::clamp(dotProduct / std::sqrt(squared1 * squared2), -1.0, 1.0)) *
           BasicMath::kDegreePerRadian;
}

CellParameters parametersOf(const Metric& m) {
    return {std::sqrt(m.A),
            std::sqrt(m.B),
            std::sqrt(m.C),
            angleInDegrees(m.D, m.B, m.C),
            angleInDegrees(m.E, m.A, m.C),
            angleInDegrees(m.F, m.A, m.B)};
}

/// The largest deviation of the angles from 90 or 120 degrees.
double angleMisfit(LATTICE::BravaisTypes type, const CellParameters& p) {
    if (type == LATTICE::aP) return 0.0;
    const double beta = isMonoclinic(type) ? 0.0 : std::abs(p.beta - 90.0);
    return std::max({std::abs(p.alpha - 90.0), beta, std::abs(p.gamma - (isHexagonal(type) ? 120.0 : 90.0))});
}

/// A fit in the standard setting of its type.
struct ConventionalFit {
    explicit ConventionalFit(const CharacterFit& characterFit)
        : fit(&characterFit), inForm(standardAxes(*fit->row, fit->form.metric)) {
        axes = *inBaseOf(inForm, fit->form.axes);  // indices of both are small
        unordered = axes;
        for (Vector& axis : unordered)
            if (axis < Vector{}) axis = negated(axis);
        std::sort(unordered.begin(), unordered.end());
    }

    bool hasAxesOf(const ConventionalFit& other) const {
        return fit->row->bravais == other.fit->row->bravais && unordered == other.unordered;
    }

    const CharacterFit* fit;
    Axes inForm;     ///< in the nearly reduced base that fits
    Axes axes;       ///< in the shortest base
    Axes unordered;  ///< the axes without their order and signs
};

/// Of fits with the same axes the best.
std::vector<ConventionalFit> withoutRepetition(const std::vector<CharacterFit>& fits) {
    std::vector<ConventionalFit> out;
    out.reserve(fits.size());
    for (const CharacterFit& fit : fits) {
        const ConventionalFit candidate(fit);
        const auto known = std::find_if(out.begin(), out.end(),
                                        [&](const ConventionalFit& one) { return one.hasAxesOf(candidate); });
        if (known == out.end())
            out.push_back(candidate);
        else if (fit.score < known->fit->score * CharacterSearch::kBetter)
            *known = candidate;
    }
    return out;
}

/// Nothing where the base given is so skew that it cannot hold the axes.
std::optional<LatticeCharacter> describe(const ConventionalFit& conventional, const ShortestBase& shortest) {
    const CharacterRow& row = *conventional.fit->row;
    const Metric& form = conventional.fit->form.metric;
    const Metric metric = metricOf(conventional.inForm, form);
    const std::optional<Axes> inInput = inBaseOf(conventional.axes, shortest.axes());
    if (!inInput) return std::nullopt;

    LatticeCharacter out;
    out.number = exactCharacter(row, form);
    out.bravaisType = row.bravais;
    out.centring = VRK::detail::centringOf(row.bravais).letter;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            out.toConventional[i][j] = (*inInput)[j][i];
    out.measured = parametersOf(metric);
    out.symmetrised = parametersOf(symmetrised(row.bravais, metric));
    out.qualityIndex = angleMisfit(row.bravais, out.measured);
    out.lengthMisfit = lengthMisfit(row.bravais, metric);
    return out;
}

bool ranksBefore(const LatticeCharacter& x, const LatticeCharacter& y) {
    // Rounding must not decide between exact fits.
    const auto rank = [](const LatticeCharacter& character) {
        constexpr double rounding = 1e-6;
        return std::tuple(-symmetryOrder(character.bravaisType),
                          std::round(character.qualityIndex / rounding),
                          std::round(character.lengthMisfit / rounding), character.number);
    };
    return rank(x) < rank(y);
}

/// How far a cell is from a symmetry, in degrees.
double misfitOf(const LatticeCharacter& character) {
    return std::max(character.qualityIndex, character.lengthMisfit * BasicMath::kDegreePerRadian);
}

const CharacterRow* findRow(int character) {
    if (character >= 1 && character <= 44)
        return &VRK::detail::kLatticeCharacters[static_cast<std::size_t>(character) - 1];
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
    const CharacterSearch search(metricOf(shortest.vectors()), tolerances);

    const std::vector<CharacterFit> fits = search.fits();
    std::vector<LatticeCharacter> characters;
    characters.reserve(fits.size());
    for (const ConventionalFit& fit : withoutRepetition(fits))
        if (const auto character = describe(fit, shortest)) characters.push_back(*character);
    std::sort(characters.begin(), characters.end(), ranksBefore);
    return characters;
}

void LatticeSymmetry::preferExactFit(std::vector<LatticeCharacter>& characters, double angleSigma) {
    constexpr double smallest = 0.06;
    auto answer = characters.begin();
    for (auto lower = characters.begin(); lower != characters.end(); ++lower)
        if (lower->bravaisType != LATTICE::aP && misfitOf(*answer) > std::max(smallest, 6.0 * angleSigma) &&
            misfitOf(*lower) < 0.1 * misfitOf(*answer))
            answer = lower;
    if (answer != characters.end()) std::rotate(characters.begin(), answer, answer + 1);
}

LatticeCharacter LatticeSymmetry::best(const UnitCell& cell, const LatticeTolerances& tolerances,
                                       double angleSigma) {
    std::vector<LatticeCharacter> characters = analyse(cell, tolerances);
    preferExactFit(characters, angleSigma);
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
