#include "cellfinding/CalculateDiffVectors.h"

#include <array>
#include <cmath>
#include <memory>

#include "cellfinding/TraceInternal.h"

namespace {

using Position = std::array<double, 3>;

/// A null reflection lies nowhere, which pairs it with none.
std::vector<Position> positionsOf(const ReflexVector& reflexes, int centerType) {
    std::vector<Position> positions;
    positions.reserve(reflexes.size());
    for (Reflex* reflex : reflexes) {
        Position& p = positions.emplace_back();
        for (int axis = 0; axis < 3; ++axis)
            p[static_cast<std::size_t>(axis)] = reflex ? reflex->getCenter(axis, centerType) : std::nan("");
    }
    return positions;
}

bool pointsForward(const Position& from, const Position& to) {
    for (std::size_t k = 0; k < 3; ++k)
        if (to[k] != from[k]) return to[k] > from[k];
    return true;
}

}  // namespace

std::vector<ClusterPoint<double>*>* CalculateDiffVectors::calculateDiffVectors(ReflexVector* reflexes,
                                                                               Parameter* parameter,
                                                                               double* min, double* max,
                                                                               bool halfSpace) {
    const VRK::detail::Trace trace(">> CalculateDiffVectors::calculateDiffVectors",
                                   "<< CalculateDiffVectors::calculateDiffVectors");
    if (!reflexes || !parameter || reflexes->empty()) return nullptr;
    const double minLength = parameter->getMinLength();
    const double maxLength = parameter->getMaxLength();
    const auto positions = positionsOf(*reflexes, parameter->getWhichReflectionMiddleShouldUsed());

    auto result = std::make_unique<std::vector<ClusterPoint<double>*>>();
    for (std::size_t i = 0; i < positions.size(); ++i)
        for (std::size_t j = i + 1; j < positions.size(); ++j) {
            const bool forward = !halfSpace || pointsForward(positions[i], positions[j]);
            const Position& from = positions[forward ? i : j];
            const Position& to = positions[forward ? j : i];
            const double d[3] = {to[0] - from[0], to[1] - from[1], to[2] - from[2]};
            add(result.get(), minLength, maxLength, d, min, max);
            if (halfSpace) continue;
            const double reverse[3] = {from[0] - to[0], from[1] - to[1], from[2] - to[2]};
            add(result.get(), minLength, maxLength, reverse, min, max);
        }
    return result.release();
}

void CalculateDiffVectors::add(std::vector<ClusterPoint<double>*>* out, double minLength, double maxLength,
                               const double* vec, double* min, double* max) {
    const double length = std::sqrt(vec[0] * vec[0] + vec[1] * vec[1] + vec[2] * vec[2]);
    if (!(minLength < length && length < maxLength)) return;
    if (min && max)
        for (int k = 0; k < 3; ++k) {
            if (vec[k] < min[k]) min[k] = vec[k];
            if (vec[k] > max[k]) max[k] = vec[k];
        }
    out->push_back(
        std::make_unique<ClusterPoint<double>>(vec, static_cast<unsigned char>(3), short(-1)).release());
}
