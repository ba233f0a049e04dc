#include "cellfinding/detail/BaseChoice.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "crystallography/BasicMath.h"

namespace VRK::detail {
namespace {

constexpr double kLargestAngle = 3.0;
constexpr double kLeastRelativeVolume = 0.1;

double productOfLengths(const Vector& a, const Vector& b, const Vector& c) {
    return BasicMath::Norm(a.data()) * BasicMath::Norm(b.data()) * BasicMath::Norm(c.data());
}

/// The three vectors found so far.
class Choice {
public:
    Choice(std::span<DiffVector3D* const> sorted, const Parameter& parameter)
        : m_sorted(sorted), m_parameter(parameter) {}

    bool isComplete() const { return m_count == 3; }
    std::optional<std::array<std::size_t, 3>> places() const {
        return isComplete() ? std::optional(m_places) : std::nullopt;
    }

    /// Vectors must come in their order.
    Judgement judge(std::size_t place) {
        using enum BaseVectorVerdict;
        if (isComplete()) return {LongerThanNeeded, 0.0};
        const Vector vector = componentsOf(*m_sorted[place]);
        const double limits[2] = {m_parameter.getAngleA(), m_parameter.getAngleB()};
        for (std::size_t i = 0; i < m_count; ++i) {
            const double angle =
                std::abs(BasicMath::CalcAngleBetweenAandB(m_vectors[i].data(), vector.data()));
            if (!(angle >= limits[i])) return {i == 0 ? NearA : NearB, angle};
            if (!(angle <= kLargestAngle)) return {i == 0 ? OppositeToA : OppositeToB, angle};
        }
        if (m_count == 2 && !isOutOfPlane(m_vectors[0], m_vectors[1], vector, m_parameter.getDetLimit())) {
            const double volume =
                BasicMath::Determinant(m_vectors[0].data(), m_vectors[1].data(), vector.data());
            return {InPlane, std::abs(volume) / productOfLengths(m_vectors[0], m_vectors[1], vector)};
        }
        constexpr BaseVectorVerdict kNames[3] = {A, B, C};
        m_places[m_count] = place;
        m_vectors[m_count] = vector;
        return {kNames[m_count++], 0.0};
    }

private:
    std::span<DiffVector3D* const> m_sorted;
    const Parameter& m_parameter;
    std::size_t m_count = 0;
    std::array<std::size_t, 3> m_places{};
    std::array<Vector, 3> m_vectors{};
};

/// The share of the judges' weight that lies within the radius of a node.
double explainedShare(const std::array<Vector, 3>& base, std::span<const Centre> judges, double radius) {
    double columns[3][3];
    double inverse[3][3];
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 3; ++column)
            columns[row][column] = base[column][row];
    if (!BasicMath::Invert(columns, inverse)) return 0.0;
    double explained = 0.0;
    double total = 0.0;
    for (const auto& [place, weight] : judges) {
        double h[3];
        BasicMath::MatrixProduct(inverse, place.data(), h);
        for (double& index : h)
            index -= std::round(index);
        double rest[3];
        BasicMath::MatrixProduct(columns, h, rest);
        total += weight;
        if (BasicMath::Norm(rest) <= radius) explained += weight;
    }
    return total > 0.0 ? explained / total : 0.0;
}

double evidenceOf(double share, double chance) {
    if (!(share > chance)) return 0.0;
    const double rest = share < 1.0 ? (1.0 - share) * std::log((1.0 - share) / (1.0 - chance)) : 0.0;
    return share * std::log(share / chance) + rest;
}

}  // namespace

bool isOutOfPlane(const Vector& a, const Vector& b, const Vector& c, double detLimit) {
    const double volume = std::abs(BasicMath::Determinant(a.data(), b.data(), c.data()));
    return volume > detLimit && volume > kLeastRelativeVolume * productOfLengths(a, b, c);
}

std::optional<std::array<std::size_t, 3>> chooseShortest(std::span<DiffVector3D* const> sorted,
                                                         const Parameter& parameter,
                                                         std::vector<Judgement>* judgements) {
    Choice choice(sorted, parameter);
    if (judgements) judgements->clear();
    for (std::size_t i = 0; i < sorted.size() && (judgements || !choice.isComplete()); ++i) {
        const Judgement judgement = choice.judge(i);
        if (judgements) judgements->push_back(judgement);
    }
    return choice.places();
}

std::vector<RankedBase> rankBases(std::span<const Vector> vectors, std::span<const Centre> judges,
                                  double radius) {
    constexpr double kMostChance = 0.5;
    std::vector<RankedBase> bases;
    for (std::size_t i = 0; i < vectors.size(); ++i)
        for (std::size_t j = i + 1; j < vectors.size(); ++j)
            for (std::size_t k = j + 1; k < vectors.size(); ++k) {
                const std::array<Vector, 3> base = {vectors[i], vectors[j], vectors[k]};
                if (!isOutOfPlane(base[0], base[1], base[2], 0.0)) continue;
                const double volume =
                    std::abs(BasicMath::Determinant(base[0].data(), base[1].data(), base[2].data()));
                const double sphere = 4.0 / 3.0 * std::numbers::pi * radius * radius * radius;
                const double chance = std::min(kMostChance, sphere / volume);
                const double evidence = evidenceOf(explainedShare(base, judges, radius), chance);
                if (evidence > 0.0) bases.push_back({evidence, base});
            }
    std::stable_sort(bases.begin(), bases.end(), [](const RankedBase& first, const RankedBase& second) {
        return first.evidence > second.evidence;
    });
    return bases;
}

}  // namespace VRK::detail
