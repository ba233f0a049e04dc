#include "cellfinding/detail/BaseRefinement.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "crystallography/BasicMath.h"

namespace VRK::detail {
namespace {

/// A centre belongs to a node within this share of the shortest distance of nodes.
constexpr double kReach = 0.3;

/// A cluster centre on the row of a direction.
struct RowCentre {
    Vector place;
    double weight;
    double multiple;
};

double distanceToMultiple(const RowCentre& centre, const Vector& direction) {
    const Vector rest = {centre.place[0] - centre.multiple * direction[0],
                         centre.place[1] - centre.multiple * direction[1],
                         centre.place[2] - centre.multiple * direction[2]};
    return BasicMath::Norm(rest.data());
}

/// The centres within the reach of a multiple of the direction, up to the largest multiple.
std::vector<RowCentre> rowOf(std::span<const Centre> centres, const Vector& direction, double reach,
                             double largestMultiple) {
    std::vector<RowCentre> row;
    const double square = BasicMath::Dot(direction.data(), direction.data());
    for (const auto& [place, weight] : centres) {
        const double multiple = std::round(BasicMath::Dot(place.data(), direction.data()) / square);
        const RowCentre centre{place, weight, multiple};
        if (multiple != 0.0 && std::abs(multiple) <= largestMultiple &&
            distanceToMultiple(centre, direction) <= reach)
            row.push_back(centre);
    }
    return row;
}

/// The median of the distances, each counted as often as its centre has points.
double medianDistance(const std::vector<RowCentre>& row, const Vector& direction) {
    std::vector<std::pair<double, double>> distances;
    double total = 0.0;
    for (const RowCentre& centre : row) {
        distances.emplace_back(distanceToMultiple(centre, direction), centre.weight);
        total += centre.weight;
    }
    std::sort(distances.begin(), distances.end());
    double sum = 0.0;
    for (const auto& [distance, weight] : distances)
        if (sum += weight; 2.0 * sum >= total) return distance;
    return 0.0;
}

/// The direction of which the multiples fit the centres best; centres that fit badly lose their weight.
Vector fitToRow(const std::vector<RowCentre>& row, Vector direction) {
    constexpr int kRounds = 10;
    constexpr double kBiweight = 4.685;
    // In voxels. Where the half space cuts through a cluster, its halves appear at v and at -v and are this
    // far from each other when turned the same way; only together are they at the right place.
    constexpr double kLeastCutOff = 1.0;
    for (int round = 0; round < kRounds; ++round) {
        const double cutOff = std::max(kLeastCutOff, kBiweight * 1.4826 * medianDistance(row, direction));
        Vector sum{};
        double squares = 0.0;
        for (const RowCentre& centre : row) {
            const double distance = distanceToMultiple(centre, direction) / cutOff;
            if (distance >= 1.0) continue;
            const double belief = (1.0 - distance * distance) * (1.0 - distance * distance);
            const double weight = belief * centre.weight * centre.multiple;
            for (std::size_t axis = 0; axis < 3; ++axis)
                sum[axis] += weight * centre.place[axis];
            squares += weight * centre.multiple;
        }
        if (!(squares > 0.0)) break;
        direction = {sum[0] / squares, sum[1] / squares, sum[2] / squares};
    }
    return direction;
}

/// The base vectors as the columns of a matrix.
struct Base {
    double columns[3][3];
    double inverse[3][3];

    explicit Base(const std::array<Vector, 3>& vectors) {
        for (std::size_t row = 0; row < 3; ++row)
            for (std::size_t column = 0; column < 3; ++column)
                columns[row][column] = vectors[column][row];
        valid = BasicMath::Invert(columns, inverse);
    }
    bool valid;
};

/// Normal equations of the base: the sums of w place h' and w h h' over the centres.
struct LatticeSums {
    double moments[3][3] = {};
    double squares[3][3] = {};

    void add(const Vector& place, const double h[3], double weight) {
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 3; ++j) {
                moments[i][j] += weight * place[i] * h[j];
                squares[i][j] += weight * h[i] * h[j];
            }
    }
    bool solve(std::array<Vector, 3>& base) const {
        double inverse[3][3];
        if (!BasicMath::Invert(squares, inverse)) return false;
        double columns[3][3];
        BasicMath::MatrixProduct(moments, inverse, columns);
        for (std::size_t row = 0; row < 3; ++row)
            for (std::size_t column = 0; column < 3; ++column)
                base[column][row] = columns[row][column];
        return true;
    }
};

/// One fit to the centres whose indices are at most \p largest.
bool fitOnce(std::span<const Centre> centres, double largest, std::array<Vector, 3>& vectors) {
    const Base base(vectors);
    if (!base.valid) return false;
    double reach = BasicMath::Norm(vectors[0].data());
    for (const Vector& vector : vectors)
        reach = std::min(reach, BasicMath::Norm(vector.data()));
    reach *= kReach;
    LatticeSums sums;
    for (const auto& [place, weight] : centres) {
        double h[3];
        BasicMath::MatrixProduct(base.inverse, place.data(), h);
        double most = 0.0;
        for (double& index : h) {
            index = std::round(index);
            most = std::max(most, std::abs(index));
        }
        Vector node;
        BasicMath::MatrixProduct(base.columns, h, node.data());
        const Vector rest = {place[0] - node[0], place[1] - node[1], place[2] - node[2]};
        if (most <= largest && BasicMath::Norm(rest.data()) <= reach) sums.add(place, h, weight);
    }
    return sums.solve(vectors);
}

}  // namespace

bool fitToItsRow(std::span<const Centre> centres, Vector& direction) {
    const double length = BasicMath::Norm(direction.data());
    if (!isFinite(direction) || !(length > 0.0)) return false;
    const double reach = kReach * std::min(length, lengthOfShortest(centres));
    Vector vector = direction;
    std::vector<RowCentre> row;
    // Each round doubles the length of the row, until no centre is left out.
    constexpr double kFarthest = 1024.0;
    for (double multiple = 1.0; multiple <= kFarthest; multiple *= 2.0) {
        row = rowOf(centres, vector, reach, multiple);
        if (!row.empty()) vector = fitToRow(row, vector);
    }
    if (row.empty() || !isFinite(vector)) return false;
    direction = vector;
    return true;
}

bool fitToLattice(std::span<const Centre> centres, std::array<Vector, 3>& base) {
    constexpr double kFarthest = 1024.0;
    std::array<Vector, 3> vectors = base;
    bool fitted = false;
    for (double largest = 1.0; largest <= kFarthest; largest *= 2.0)
        fitted = fitOnce(centres, largest, vectors);
    if (fitted) base = vectors;
    return fitted;
}

bool moveToNearest(std::span<const Centre> centres, double reach, Vector& vector) {
    double nearest = reach;
    Vector found{};
    for (const Centre& centre : centres)
        for (const double sign : {1.0, -1.0}) {
            Vector place = centre.place;
            for (double& x : place)
                x *= sign;
            const double distance =
                std::hypot(place[0] - vector[0], place[1] - vector[1], place[2] - vector[2]);
            if (!(distance <= nearest)) continue;
            nearest = distance;
            found = place;
        }
    if (BasicMath::Norm(found.data()) == 0.0) return false;
    vector = found;
    return true;
}

}  // namespace VRK::detail
