#include "cellfinding/detail/BaseChoice.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "crystallography/BasicMath.h"

namespace VRK::detail {
namespace {

constexpr double kLargestAngle = 3.0;
constexpr double kLeastRelativeVolume = 0.1;

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

bool isAngleBetween(const Vector& a, const Vector& b, double least) {
    const double angle = BasicMath::CalcAngleBetweenAandB(a.data(), b.data());
    return std::abs(angle) >= least && std::abs(angle) <= kLargestAngle;
}

bool isOutOfPlane(const Vector& a, const Vector& b, const Vector& c, double detLimit) {
    const double volume = std::abs(BasicMath::Determinant(a.data(), b.data(), c.data()));
    return volume > detLimit && volume > kLeastRelativeVolume * BasicMath::Norm(a.data()) *
                                             BasicMath::Norm(b.data()) * BasicMath::Norm(c.data());
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
