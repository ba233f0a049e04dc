#include "pipeline/integration/SpotProfile.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "foundation/SharedLoop.h"
#include "pipeline/base/SymmetricSystem.h"

namespace vrk {
namespace {

constexpr double kSignificance = 20;
constexpr std::size_t kFewestSpots = 30;
constexpr std::size_t kMostSpots = 600;  ///< a region
/// Relative error of the shape that a single spot may have.
constexpr double kShapeError = 0.03;
/// How many spots the profile of all stands for in a region.
constexpr double kPriorSpots = 10;

/// The four cubic splines that are not 0 at a place between two knots, 0 <= t < 1.
std::array<float, 4> splines(double t) {
    const double s = 1 - t;
    return {static_cast<float>(s * s * s / 6), static_cast<float>((3 * t * t * t - 6 * t * t + 4) / 6),
            static_cast<float>((3 * s * s * s - 6 * s * s + 4) / 6), static_cast<float>(t * t * t / 6)};
}

}  // namespace

SpotProfile::SpotProfile(const SpotExtent& extent)
    : m_radius(extent.radius),
      m_spacing(std::max(0.8 * extent.sigma, 0.5)),
      m_knots(2 * static_cast<int>(std::ceil(m_radius / m_spacing)) + 4) {
    m_coefficients.resize(static_cast<std::size_t>(m_knots) * static_cast<std::size_t>(m_knots));
    // A spline through the values of a Gaussian is wider by a third of the square of the spacing.
    const double square = std::max(extent.sigma * extent.sigma - m_spacing * m_spacing / 3, 0.05);
    for (int j = 0; j < m_knots; ++j)
        for (int i = 0; i < m_knots; ++i) {
            const double x = (i - 0.5 * (m_knots - 1)) * m_spacing;
            const double y = (j - 0.5 * (m_knots - 1)) * m_spacing;
            const int knot = j * m_knots + i;
            m_coefficients[static_cast<std::size_t>(knot)] =
                static_cast<float>(std::exp(-(x * x + y * y) / (2 * square)));
        }
    normalise();
}

SpotProfile::Knots SpotProfile::knotsAt(double offset) const {
    const double place = offset / m_spacing + 0.5 * (m_knots - 1);
    const int cell = std::clamp(static_cast<int>(std::floor(place)), 1, m_knots - 3);
    return {splines(place - cell), cell - 1};
}

void SpotProfile::sample(double x, double y, int left, int top, int width, int height,
                         std::span<float> values) const {
    const auto columns = static_cast<std::size_t>(width);
    const auto knots = static_cast<std::size_t>(m_knots);
    thread_local std::vector<float> alongX;
    alongX.assign(knots * columns, 0);
    for (std::size_t i = 0; i < columns; ++i) {
        const Knots at = knotsAt(left + static_cast<double>(i) - x);
        const float* row = m_coefficients.data() + at.first;
        for (std::size_t j = 0; j < knots; ++j, row += knots)
            alongX[j * columns + i] =
                row[0] * at.weight[0] + row[1] * at.weight[1] + row[2] * at.weight[2] + row[3] * at.weight[3];
    }
    const auto radius2 = static_cast<float>(m_radius * m_radius);
    for (std::size_t j = 0; j < static_cast<std::size_t>(height); ++j) {
        const double dy = top + static_cast<double>(j) - y;
        const Knots at = knotsAt(dy);
        const float* rows = alongX.data() + static_cast<std::size_t>(at.first) * columns;
        float* out = values.data() + j * columns;
        const auto dy2 = static_cast<float>(dy * dy);
        for (std::size_t i = 0; i < columns; ++i) {
            const auto dx = static_cast<float>(left + static_cast<double>(i) - x);
            const float value = rows[i] * at.weight[0] + rows[columns + i] * at.weight[1] +
                                rows[2 * columns + i] * at.weight[2] + rows[3 * columns + i] * at.weight[3];
            out[i] = dx * dx + dy2 <= radius2 ? value : 0;
        }
    }
}

/// Scales to a sum of 1 over the disc, averaged over the places of a spot between the pixels.
void SpotProfile::normalise() {
    constexpr int kPhases = 4;
    const int reach = static_cast<int>(std::ceil(m_radius));
    const int edge = 2 * reach + 1;
    std::vector<float> values(static_cast<std::size_t>(edge) * static_cast<std::size_t>(edge));
    double sum = 0;
    for (int j = 0; j < kPhases; ++j)
        for (int i = 0; i < kPhases; ++i) {
            sample((i + 0.5) / kPhases - 0.5, (j + 0.5) / kPhases - 0.5, -reach, -reach, edge, edge, values);
            for (const float value : values)
                sum += value;
        }
    const double scale = kPhases * kPhases / sum;
    for (float& coefficient : m_coefficients)
        coefficient = static_cast<float>(coefficient * scale);
}

std::size_t ProfileSet::regionOf(double dx, double dy) {
    if (std::hypot(dx, dy) < 0.4) return 0;
    const double turn = std::atan2(dy, dx) / (2 * std::numbers::pi) + 0.5;
    return 1 + std::min<std::size_t>(static_cast<std::size_t>(turn * 8), 7);
}

/// Collects the normal equations of the coefficients.
class ProfileLearner {
public:
    ProfileLearner(const FrameStack& stack, const SeriesGeometry& geometry, const RadialShape& shape,
                   const NoiseModel& noise, const SpotExtent& extent, const SpotPrediction& prediction,
                   std::span<const MeasuredSpot> measured)
        : m_stack(stack),
          m_geometry(geometry),
          m_shape(shape),
          m_noise(noise),
          m_prediction(prediction),
          m_measured(measured),
          m_start(extent) {}

    ProfileSet learn(const SpotExtent& extent);

private:
    struct Equations {
        Eigen::MatrixXd matrix;
        Eigen::VectorXd right;
    };
    std::vector<std::uint32_t> strongSpots() const;
    std::size_t regionOf(const PredictedSpot& spot) const;
    void add(std::uint32_t number, Equations& equations) const;
    SpotProfile solve(const Equations& equations, const SpotProfile& prior, double weight) const;

    const FrameStack& m_stack;
    const SeriesGeometry& m_geometry;
    const RadialShape& m_shape;
    const NoiseModel& m_noise;
    const SpotPrediction& m_prediction;
    std::span<const MeasuredSpot> m_measured;
    SpotProfile m_start;
};

std::size_t ProfileLearner::regionOf(const PredictedSpot& spot) const {
    const FramePose& pose = m_geometry.frames[spot.frame];
    const double half = 0.5 * std::min(m_stack.width, m_stack.height);
    return ProfileSet::regionOf((spot.x - pose.centreX) / half, (spot.y - pose.centreY) / half);
}

/// The most significant spots of every region.
std::vector<std::uint32_t> ProfileLearner::strongSpots() const {
    std::array<std::vector<std::pair<float, std::uint32_t>>, ProfileSet::kRegions> found;
    for (std::uint32_t i = 0; i < m_measured.size(); ++i) {
        const MeasuredSpot& spot = m_measured[i];
        const float significance = spot.sum / std::sqrt(spot.variance);
        if (spot.flags == 0 && significance > kSignificance)
            found[regionOf(m_prediction.spots[i])].emplace_back(significance, i);
    }
    std::vector<std::uint32_t> strong;
    for (auto& region : found) {
        const std::size_t count = std::min(region.size(), kMostSpots);
        std::partial_sort(region.begin(), region.begin() + static_cast<std::ptrdiff_t>(count), region.end(),
                          std::greater<>());
        for (std::size_t i = 0; i < count; ++i)
            strong.push_back(region[i].second);
    }
    return strong;
}

void ProfileLearner::add(std::uint32_t number, Equations& equations) const {
    const PredictedSpot& spot = m_prediction.spots[number];
    const MeasuredSpot& measured = m_measured[number];
    const FramePose& pose = m_geometry.frames[spot.frame];
    const auto shapeAt = [&](double x, double y) {
        const auto dx = static_cast<float>(x - pose.centreX);
        const auto dy = static_cast<float>(y - pose.centreY);
        return m_shape.at(dx * dx + dy * dy);
    };
    const int reach = static_cast<int>(std::ceil(m_start.m_radius));
    const int left = static_cast<int>(std::lround(spot.x)) - reach;
    const int top = static_cast<int>(std::lround(spot.y)) - reach;
    const int edge = 2 * reach + 1;
    std::vector<float> guess(static_cast<std::size_t>(edge) * static_cast<std::size_t>(edge));
    m_start.sample(spot.x, spot.y, left, top, edge, edge, guess);
    const double radius2 = m_start.m_radius * m_start.m_radius;
    const double shapeHere = shapeAt(spot.x, spot.y);
    const auto knots = static_cast<Eigen::Index>(m_start.m_knots);
    for (int j = 0; j < edge; ++j)
        for (int i = 0; i < edge; ++i) {
            const double dx = left + i - static_cast<double>(spot.x);
            const double dy = top + j - static_cast<double>(spot.y);
            if (dx * dx + dy * dy > radius2 || left + i < 0 || left + i >= m_stack.width || top + j < 0 ||
                top + j >= m_stack.height)
                continue;
            const double under = measured.background + measured.slopeX * dx + measured.slopeY * dy +
                                 shapeAt(left + i, top + j) - shapeHere;
            const double counts = m_stack.frames[spot.frame][static_cast<std::size_t>(top + j) *
                                                                 static_cast<std::size_t>(m_stack.width) +
                                                             static_cast<std::size_t>(left + i)];
            const int place = j * edge + i;
            const double expected = measured.sum * guess[static_cast<std::size_t>(place)];
            const double variance = m_noise.variance(under + expected) + std::pow(kShapeError * expected, 2);
            const double weight = measured.sum * measured.sum / variance;
            const double value = (counts - under) / measured.sum;
            const SpotProfile::Knots atX = m_start.knotsAt(dx);
            const SpotProfile::Knots atY = m_start.knotsAt(dy);
            std::array<Eigen::Index, 16> index{};
            std::array<double, 16> basis{};
            for (std::size_t m = 0; m < 4; ++m)
                for (std::size_t n = 0; n < 4; ++n) {
                    index[4 * m + n] = (atY.first + static_cast<Eigen::Index>(m)) * knots + atX.first +
                                       static_cast<Eigen::Index>(n);
                    basis[4 * m + n] = static_cast<double>(atY.weight[m]) * atX.weight[n];
                }
            for (std::size_t m = 0; m < 16; ++m) {
                equations.right(index[m]) += weight * value * basis[m];
                for (std::size_t n = 0; n <= m; ++n)
                    equations.matrix(index[m], index[n]) += weight * basis[m] * basis[n];
            }
        }
}

/// \param weight  of the deviation from the prior, relative to the mean weight of a coefficient
SpotProfile ProfileLearner::solve(const Equations& equations, const SpotProfile& prior, double weight) const {
    const Eigen::Index count = equations.right.size();
    Eigen::MatrixXd matrix = equations.matrix;
    Eigen::VectorXd right = equations.right;
    for (Eigen::Index i = 0; i < count; ++i) {
        matrix(i, i) += weight;
        right(i) += weight * static_cast<double>(prior.m_coefficients[static_cast<std::size_t>(i)]);
    }
    const Eigen::VectorXd solution = SymmetricSystem(matrix).solve(right);
    SpotProfile profile = prior;
    if (!solution.allFinite()) return profile;
    for (Eigen::Index i = 0; i < count; ++i)
        profile.m_coefficients[static_cast<std::size_t>(i)] = static_cast<float>(solution(i));
    profile.normalise();
    return profile;
}

ProfileSet ProfileLearner::learn(const SpotExtent& extent) {
    ProfileSet set(extent);
    const std::vector<std::uint32_t> strong = strongSpots();
    set.setSpots(static_cast<int>(strong.size()));
    if (strong.size() < kFewestSpots) return set;
    const auto count = static_cast<Eigen::Index>(m_start.m_coefficients.size());
    std::vector<Equations> regions(ProfileSet::kRegions,
                                   {Eigen::MatrixXd::Zero(count, count), Eigen::VectorXd::Zero(count)});
    std::array<std::vector<std::uint32_t>, ProfileSet::kRegions> spots;
    for (const std::uint32_t number : strong)
        spots[regionOf(m_prediction.spots[number])].push_back(number);
    VRK::shareItems(spots.size(), [&](std::size_t region, std::size_t) {
        for (const std::uint32_t number : spots[region])
            add(number, regions[region]);
    });
    Equations all{Eigen::MatrixXd::Zero(count, count), Eigen::VectorXd::Zero(count)};
    for (const Equations& region : regions) {
        all.matrix += region.matrix;
        all.right += region.right;
    }
    const double perSpot =
        all.matrix.trace() / (static_cast<double>(count) * static_cast<double>(strong.size()));
    const SpotProfile common = solve(all, m_start, perSpot);
    for (std::size_t region = 0; region < ProfileSet::kRegions; ++region)
        set.set(region,
                !spots[region].empty() ? solve(regions[region], common, kPriorSpots * perSpot) : common);
    return set;
}

ProfileSet learnProfiles(const FrameStack& stack, const SeriesGeometry& geometry, const RadialShape& shape,
                         const NoiseModel& noise, const SpotExtent& extent, const SpotPrediction& prediction,
                         std::span<const MeasuredSpot> measured) {
    return ProfileLearner(stack, geometry, shape, noise, extent, prediction, measured).learn(extent);
}

}  // namespace vrk
