#include "cellfinding/CalculateDiffVectors.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "cellfinding/detail/CellList.h"
#include "cellfinding/detail/Trace.h"

namespace {

using VRK::detail::CellList;
using Position = CellList::Position;

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

/// The share of the bounding box that a search around a position covers.
double shareInReach(const CellList& cells, double maxLength) {
    double share = 1.0;
    for (std::size_t axis = 0; axis < 3; ++axis)
        share *= std::min(1.0, (2.0 * maxLength + cells.side()) / cells.extent(axis));
    return share;
}

/// Calls visit(i, j) for pairs i < j, i outer, j inner, and at least for those closer than \p maxLength.
template <typename Visit>
void forEachPair(const std::vector<Position>& positions, double maxLength, Visit visit) {
    constexpr double kLargestShare = 0.3;  // above it the search costs more than it saves
    const auto positionOf = [&](std::size_t i) { return positions[i]; };
    const CellList cells(positions.size(), maxLength / 2.0, positionOf);
    if (!(shareInReach(cells, maxLength) < kLargestShare)) {
        for (std::size_t i = 0; i < positions.size(); ++i)
            for (std::size_t j = i + 1; j < positions.size(); ++j)
                visit(i, j);
        return;
    }
    const double reach2 = VRK::detail::largestSquareWithin(maxLength);
    std::vector<std::uint32_t> partners;
    for (std::size_t i = 0; i < positions.size(); ++i) {
        partners.clear();
        cells.visitBall(positions[i], maxLength, reach2, [&](std::size_t place, double) {
            if (cells.index(place) > i) partners.push_back(cells.index(place));
        });
        std::sort(partners.begin(), partners.end());
        for (const std::uint32_t j : partners)
            visit(i, j);
    }
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
    const auto addPair = [&](std::size_t i, std::size_t j) {
        const bool forward = !halfSpace || pointsForward(positions[i], positions[j]);
        const Position& from = positions[forward ? i : j];
        const Position& to = positions[forward ? j : i];
        const double d[3] = {to[0] - from[0], to[1] - from[1], to[2] - from[2]};
        add(result.get(), minLength, maxLength, d, min, max);
        if (halfSpace) return;
        const double reverse[3] = {from[0] - to[0], from[1] - to[1], from[2] - to[2]};
        add(result.get(), minLength, maxLength, reverse, min, max);
    };
    forEachPair(positions, maxLength, addPair);
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
