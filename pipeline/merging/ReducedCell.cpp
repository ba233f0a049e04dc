#include "pipeline/merging/ReducedCell.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/integration/SeriesGeometry.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using Matrix34 = Eigen::Matrix<double, 3, 4>;

/// Cosines up to this count as near zero: strains of half of it take them across.
constexpr double kNear = 0.15;
/// A lattice has at most 16 obtuse superbases, the cuboid ones have; tolerance brings in some more.
constexpr std::size_t kMostImages = 48;
constexpr int kMostSteps = 100000;
/// The volume as a part of the product of the edges.
constexpr double kLeastVolume = 1e-4;

struct Pair {
    int first, second;
};
constexpr std::array<Pair, 6> kPairs = {{{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}}};

std::size_t pairOf(int first, int second) {
    constexpr std::array<std::array<std::size_t, 4>, 4> kNumbers = {
        {{0, 0, 1, 2}, {0, 0, 3, 4}, {1, 3, 0, 5}, {2, 4, 5, 0}}};
    return kNumbers[static_cast<std::size_t>(first)][static_cast<std::size_t>(second)];
}

using Order = std::array<int, 4>;
const std::array<Order, 24>& orders() {
    static const std::array<Order, 24> all = [] {
        std::array<Order, 24> list{};
        Order order = {0, 1, 2, 3};
        for (Order& one : list) {
            one = order;
            std::next_permutation(order.begin(), order.end());
        }
        return list;
    }();
    return all;
}

/// Primitive vectors as columns, in the conventional base.
Matrix3d primitiveVectors(const CrystalCell& cell) {
    Matrix3d vectors = Matrix3d::Identity();
    switch (cell.centring) {
        case 'A':
            vectors.col(2) = Vector3d(0, 0.5, 0.5);
            break;
        case 'B':
            vectors.col(2) = Vector3d(0.5, 0, 0.5);
            break;
        case 'C':
            vectors.col(1) = Vector3d(0.5, 0.5, 0);
            break;
        case 'I':
            vectors.col(2) = Vector3d(0.5, 0.5, 0.5);
            break;
        case 'F':
            vectors << 0, 0.5, 0.5, 0.5, 0, 0.5, 0.5, 0.5, 0;
            break;
        case 'R':
            if (std::abs(cell.cell[5] - 120) > 5) break;
            vectors << 2, -1, -1, 1, 1, -2, 1, 1, 1;
            vectors /= 3;
            break;
        default:
            break;
    }
    return vectors;
}

/// The other base on the far side of the border at which two of the vectors are perpendicular.
Matrix34 beyond(const Matrix34& superbase, Pair pair) {
    Matrix34 result = superbase;
    for (int k = 0; k < 4; ++k)
        if (k != pair.first && k != pair.second) result.col(k) += superbase.col(pair.first);
    result.col(pair.first) *= -1;
    return result;
}

/// The vectors whatever their order and common sign.
using Key = std::array<std::array<int, 3>, 4>;
Key keyOf(const Matrix34& coordinates) {
    Key key, opposite;
    for (std::size_t k = 0; k < 4; ++k)
        for (std::size_t i = 0; i < 3; ++i) {
            const auto sixths = static_cast<int>(
                std::lround(6 * coordinates(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(k))));
            key[k][i] = sixths;
            opposite[k][i] = -sixths;
        }
    std::sort(key.begin(), key.end());
    std::sort(opposite.begin(), opposite.end());
    return std::min(key, opposite);
}

}  // namespace

ReducedCell::ReducedCell(const CrystalCell& cell) : m_base(standardVectors(cell.cell)), m_ordered{} {
    const auto& c = cell.cell;
    const double edges = c[0] * c[1] * c[2];
    const bool positive = c[0] > 0 && c[1] > 0 && c[2] > 0 && std::isfinite(edges);
    if (!positive || !m_base.allFinite() || !(m_base.determinant() > kLeastVolume * edges))
        throw Failure(
            formatted("a cell of %g %g %g %g %g %g spans no lattice", c[0], c[1], c[2], c[3], c[4], c[5]),
            FailureKind::Usage);
    m_images.push_back(superbaseOf(reduced(primitiveVectors(cell))));
    findImages();
    findInvariants();
    m_ordered = allOrders(m_images.front());
}

ReducedCell::Superbase ReducedCell::superbaseOf(const Matrix34& coordinates) const {
    Superbase result;
    result.coordinates = coordinates;
    const Matrix34 vectors = m_base * coordinates;
    const Matrix34 duals = (vectors * vectors.transpose()).inverse() * vectors;
    for (std::size_t n = 0; n < kScalars; ++n) {
        const auto [i, j] = kPairs[n];
        result.scalars[n] = vectors.col(i).dot(vectors.col(j));
        result.dual[n] = -(duals.col(i) - duals.col(j)).squaredNorm();
    }
    return result;
}

Matrix34 ReducedCell::reduced(const Matrix3d& primitive) const {
    Matrix34 coordinates;
    coordinates << primitive, -primitive.rowwise().sum();
    for (int step = 0; step < kMostSteps; ++step) {
        const Matrix34 vectors = m_base * coordinates;
        double largest = 1e-12 * vectors.colwise().squaredNorm().minCoeff();
        const Pair* worst = nullptr;
        for (const Pair& pair : kPairs) {
            const double scalar = vectors.col(pair.first).dot(vectors.col(pair.second));
            if (scalar <= largest) continue;
            largest = scalar;
            worst = &pair;
        }
        if (!worst) return coordinates;
        coordinates = beyond(coordinates, *worst);
    }
    throw Failure("a cell with such different edges spans no lattice that can be reduced",
                  FailureKind::Usage);
}

void ReducedCell::findImages() {
    std::set<Key> known = {keyOf(m_images.front().coordinates)};
    for (std::size_t n = 0; n < m_images.size(); ++n) {
        const Matrix34 from = m_images[n].coordinates;
        const Matrix34 vectors = m_base * from;
        for (const Pair& pair : kPairs) {
            if (m_images.size() == kMostImages) return;
            const double cosine = vectors.col(pair.first).normalized().dot(vectors.col(pair.second)) /
                                  vectors.col(pair.second).norm();
            if (cosine < -kNear) continue;
            const Matrix34 to = beyond(from, pair);
            const Matrix34 image = (m_base * to).colwise().normalized();
            const bool obtuse = std::all_of(kPairs.begin(), kPairs.end(), [&](const Pair& one) {
                return image.col(one.first).dot(image.col(one.second)) < kNear;
            });
            if (obtuse && known.insert(keyOf(to)).second) m_images.push_back(superbaseOf(to));
        }
    }
}

void ReducedCell::findInvariants() {
    const Matrix34 superbase = m_base * m_images.front().coordinates;
    // The shortest vectors of a lattice are among these of a reduced superbase.
    std::vector<Vector3d> vectors = {superbase.col(0),
                                     superbase.col(1),
                                     superbase.col(2),
                                     superbase.col(3),
                                     superbase.col(0) + superbase.col(1),
                                     superbase.col(0) + superbase.col(2),
                                     superbase.col(1) + superbase.col(2)};
    std::sort(vectors.begin(), vectors.end(),
              [](const Vector3d& a, const Vector3d& b) { return a.squaredNorm() < b.squaredNorm(); });
    const double volume = std::abs(superbase.leftCols<3>().determinant());
    std::size_t third = 2;
    while (third < 6 && std::abs(vectors[0].cross(vectors[1]).dot(vectors[third])) < 0.5 * volume)
        ++third;
    m_logLengths = {std::log(vectors[0].norm()), std::log(vectors[1].norm()),
                    std::log(vectors[third].norm())};
    m_logVolume = std::log(volume);
}

ReducedCell::Ordered ReducedCell::allOrders(const Superbase& superbase) {
    Ordered result{};
    for (std::size_t o = 0; o < kOrders; ++o) {
        const Order& order = orders()[o];
        for (std::size_t n = 0; n < kScalars; ++n) {
            const std::size_t from = pairOf(order[static_cast<std::size_t>(kPairs[n].first)],
                                            order[static_cast<std::size_t>(kPairs[n].second)]);
            result.scalars[n][o] = superbase.scalars[from];
            result.dual[n][o] = superbase.dual[from];
        }
    }
    return result;
}

std::array<double, ReducedCell::kOrders> ReducedCell::squares(const Superbase& image,
                                                              CellMetric metric) const {
    std::array<double, kOrders> sums{};
    if (metric == CellMetric::S6) {
        for (std::size_t n = 0; n < kScalars; ++n)
            for (std::size_t o = 0; o < kOrders; ++o) {
                const double difference = image.scalars[n] - m_ordered.scalars[n][o];
                sums[o] += difference * difference;
            }
        return sums;
    }
    for (std::size_t n = 0; n < kScalars; ++n)
        for (std::size_t o = 0; o < kOrders; ++o)
            sums[o] += image.scalars[n] * m_ordered.dual[n][o] + image.dual[n] * m_ordered.scalars[n][o];
    // tr(F^T F) + tr((F^T F)^-1) = sum 2 cosh(2 e) = 6 + 4 sum sinh^2 e.
    for (double& sum : sums)
        sum = std::max(0.0, 0.25 * (sum - 6));
    return sums;
}

double ReducedCell::distance(const ReducedCell& other, CellMetric metric) const {
    double least = std::numeric_limits<double>::max();
    const auto compare = [&](const ReducedCell& one, const ReducedCell& images) {
        for (const Superbase& image : images.m_images)
            for (const double square : one.squares(image, metric))
                least = std::min(least, square);
    };
    compare(*this, other);
    compare(other, *this);
    return std::sqrt(least);
}

double ReducedCell::leastStrain(const ReducedCell& other) const {
    double least = std::abs(m_logVolume - other.m_logVolume) / std::sqrt(3.0);
    for (std::size_t i = 0; i < 3; ++i)
        least = std::max(least, std::abs(m_logLengths[i] - other.m_logLengths[i]));
    return least;
}

std::vector<ReducedCell::Match> ReducedCell::matches(const ReducedCell& other, double most) const {
    std::vector<Match> found;
    const Matrix34& mine = m_images.front().coordinates;
    for (const Superbase& image : other.m_images) {
        const auto strains = squares(image, CellMetric::Strain);
        for (std::size_t o = 0; o < kOrders; ++o) {
            if (strains[o] > most * most) continue;
            Matrix3d ordered;
            for (int k = 0; k < 3; ++k)
                ordered.col(k) = mine.col(orders()[o][static_cast<std::size_t>(k)]);
            Matrix3d base = image.coordinates.leftCols<3>() * ordered.inverse();
            if (base.determinant() < 0) base = -base;
            // Not -0, so that equal bases are equal bit by bit.
            base = (base * 6).array().round().matrix() / 6 + Matrix3d::Zero();
            found.push_back({base, std::sqrt(strains[o])});
        }
    }
    // Strains that differ by rounding are equal.
    const auto key = [](const Match& match) {
        return std::pair(std::lround(1e5 * match.strain), -match.base.trace());
    };
    std::stable_sort(found.begin(), found.end(),
                     [&](const Match& a, const Match& b) { return key(a) < key(b); });
    return found;
}

}  // namespace vrk
