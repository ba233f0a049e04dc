#include "pipeline/integration/SpotMeasurement.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>

#include "foundation/SharedLoop.h"
#include "pipeline/integration/LocalBackground.h"

namespace vrk {
namespace {

constexpr double kDiscInWidths = 3.9;
constexpr double kRingPixels = 250;
/// A spot of less than this share of its full brightness spoils no background.
constexpr float kBrightShare = 0.01F;
constexpr int kCentroidRounds = 8;

/// The pixels of a frame within a distance of a place.
struct Box {
    int left, right, top, bottom;

    Box(double x, double y, double radius, const FrameStack& stack)
        : left(std::max(static_cast<int>(std::ceil(x - radius)), 0)),
          right(std::min(static_cast<int>(std::floor(x + radius)), stack.width - 1)),
          top(std::max(static_cast<int>(std::ceil(y - radius)), 0)),
          bottom(std::min(static_cast<int>(std::floor(y + radius)), stack.height - 1)) {}
};

/// One frame with everything that its spots are measured against.
class FrameMeasurement {
public:
    FrameMeasurement(const FrameStack& stack, const RadialShape& shape, const NoiseModel& noise,
                     const SpotExtent& extent)
        : m_stack(stack),
          m_shape(shape),
          m_noise(noise),
          m_extent(extent),
          m_background(noise),
          m_coverage(stack.width, stack.height) {}

    void select(const SpotPrediction& prediction, std::size_t frame, const FramePose& pose) {
        m_frame = m_stack.frames[frame];
        m_centreX = static_cast<float>(pose.centreX);
        m_centreY = static_cast<float>(pose.centreY);
        m_coverage.fill(prediction, frame, m_extent.radius);
    }
    MeasuredSpot measure(const PredictedSpot& spot);
    std::optional<SpotCentroid> centroid(const PredictedSpot& spot, const MeasuredSpot& measured,
                                         double search);

private:
    /// Sums over the pixels of a spot that were measured.
    struct Disc {
        float sum = 0, sumX = 0, sumY = 0, sumShape = 0;
        int inside = 0;
        int expected = 0;  ///< also those that were not
    };

    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(m_stack.width) +
               static_cast<std::size_t>(x);
    }
    bool missing(std::size_t i) const {
        return m_frame[i] == FrameStack::kMissing || (!m_stack.dead.empty() && m_stack.dead[i] != 0);
    }
    float shapeAt(double x, double y) const {
        const float dx = static_cast<float>(x) - m_centreX;
        const float dy = static_cast<float>(y) - m_centreY;
        return m_shape.at(dx * dx + dy * dy);
    }
    float backgroundAt(const PredictedSpot& spot, const MeasuredSpot& measured, int x, int y) const {
        return measured.background + measured.slopeX * (static_cast<float>(x) - spot.x) +
               measured.slopeY * (static_cast<float>(y) - spot.y) + shapeAt(x, y) - shapeAt(spot.x, spot.y);
    }
    Disc discOf(const PredictedSpot& spot, float shapeHere, MeasuredSpot& result) const;
    void collectBackground(const PredictedSpot& spot, float shapeHere);
    void brightest(const PredictedSpot& spot, const MeasuredSpot& measured, double search, double& x,
                   double& y) const;
    void weighColumns(double x, const Box& box);

    const FrameStack& m_stack;
    const RadialShape& m_shape;
    const NoiseModel& m_noise;
    SpotExtent m_extent;
    LocalBackground m_background;
    CoverageMap m_coverage;
    BackgroundPixels m_pixels;
    std::vector<double> m_columns;  ///< weights of the columns of a box; the rows have theirs
    std::span<const short> m_frame;
    float m_centreX = 0;
    float m_centreY = 0;
};

/// Flags the result for what disturbs the pixels.
FrameMeasurement::Disc FrameMeasurement::discOf(const PredictedSpot& spot, float shapeHere,
                                                MeasuredSpot& result) const {
    const auto radius2 = static_cast<float>(m_extent.radius * m_extent.radius);
    const Box box(spot.x, spot.y, m_extent.radius, m_stack);
    Disc disc;
    for (int y = box.top; y <= box.bottom; ++y)
        for (int x = box.left; x <= box.right; ++x) {
            const float dx = static_cast<float>(x) - spot.x;
            const float dy = static_cast<float>(y) - spot.y;
            if (dx * dx + dy * dy > radius2) continue;
            ++disc.expected;
            const std::uint8_t covered = m_coverage.at(x, y);
            if (covered > 1 || (covered == 1 && spot.share < kBrightShare)) result.flags |= kSpotOverlapped;
            const std::size_t i = index(x, y);
            if (missing(i)) {
                result.flags |= kSpotMasked;
                continue;
            }
            if (m_stack.saturation > 0 && m_frame[i] >= m_stack.saturation) result.flags |= kSpotSaturated;
            disc.sum += static_cast<float>(m_frame[i]);
            disc.sumX += dx;
            disc.sumY += dy;
            disc.sumShape += shapeAt(x, y) - shapeHere;
            ++disc.inside;
        }
    return disc;
}

/// The pixels between two circles about the spot.
void FrameMeasurement::collectBackground(const PredictedSpot& spot, float shapeHere) {
    const auto inner2 = static_cast<float>((m_extent.radius + 1) * (m_extent.radius + 1));
    const auto outer2 = static_cast<float>(m_extent.outer * m_extent.outer);
    const Box box(spot.x, spot.y, m_extent.outer, m_stack);
    m_pixels.clear();
    for (int y = box.top; y <= box.bottom; ++y) {
        const float dy = static_cast<float>(y) - spot.y;
        for (int x = box.left; x <= box.right; ++x) {
            const float dx = static_cast<float>(x) - spot.x;
            const float distance2 = dx * dx + dy * dy;
            if (distance2 > outer2 || distance2 <= inner2 || m_coverage.at(x, y) != 0) continue;
            const std::size_t i = index(x, y);
            if (!missing(i)) m_pixels.add(dx, dy, m_frame[i], shapeAt(x, y) - shapeHere);
        }
    }
}

MeasuredSpot FrameMeasurement::measure(const PredictedSpot& spot) {
    MeasuredSpot result;
    const float shapeHere = shapeAt(spot.x, spot.y);
    const Disc disc = discOf(spot, shapeHere, result);
    collectBackground(spot, shapeHere);
    const double area = std::numbers::pi * m_extent.radius * m_extent.radius;
    if (disc.expected < 0.85 * area) result.flags |= kSpotAtEdge;
    const BackgroundPlane plane = m_background.fit(m_pixels);
    if (plane.pixels == 0) {
        result.flags |= kSpotNoBackground;
        return result;
    }
    result.background = static_cast<float>(plane.level);
    result.slopeX = static_cast<float>(plane.slopeX);
    result.slopeY = static_cast<float>(plane.slopeY);
    result.levelVariance = static_cast<float>(plane.levelVariance);
    result.scatter = static_cast<float>(plane.scatter);
    const auto pixels = static_cast<float>(disc.inside);
    const float under =
        result.background * pixels + result.slopeX * disc.sumX + result.slopeY * disc.sumY + disc.sumShape;
    result.sum = disc.sum - under;
    const double plain = disc.inside > 0 ? m_noise.variance(under / pixels) * disc.inside : 0;
    result.ground = static_cast<float>(plain) + pixels * pixels * result.levelVariance;
    result.variance = result.ground + static_cast<float>(m_noise.gain) * std::max(result.sum, 0.0F);
    return result;
}

/// The place, within reach of the search, about which nine pixels hold most.
void FrameMeasurement::brightest(const PredictedSpot& spot, const MeasuredSpot& measured, double search,
                                 double& x, double& y) const {
    const Box box(spot.x, spot.y, search, m_stack);
    float best = 0;
    for (int j = std::max(box.top, 1); j <= std::min(box.bottom, m_stack.height - 2); ++j)
        for (int i = std::max(box.left, 1); i <= std::min(box.right, m_stack.width - 2); ++i) {
            if (std::hypot(static_cast<float>(i) - spot.x, static_cast<float>(j) - spot.y) > search) continue;
            float sum = 0;
            for (int n = -1; n <= 1; ++n)
                for (int m = -1; m <= 1; ++m)
                    sum += static_cast<float>(m_frame[index(i + m, j + n)]) -
                           backgroundAt(spot, measured, i + m, j + n);
            if (sum <= best) continue;
            best = sum;
            x = i;
            y = j;
        }
}

void FrameMeasurement::weighColumns(double x, const Box& box) {
    m_columns.clear();
    for (int i = box.left; i <= box.right; ++i)
        m_columns.push_back(std::exp(-(i - x) * (i - x) / (2 * m_extent.sigma * m_extent.sigma)));
}

std::optional<SpotCentroid> FrameMeasurement::centroid(const PredictedSpot& spot,
                                                       const MeasuredSpot& measured, double search) {
    double x = spot.x;
    double y = spot.y;
    const double sigma = m_extent.sigma;
    if (search > 1.5 * sigma) brightest(spot, measured, search, x, y);
    double total = 0, momentX = 0, momentY = 0, spread = 0, varianceX = 0, varianceY = 0;
    for (int round = 0; round < kCentroidRounds; ++round) {
        total = momentX = momentY = spread = varianceX = varianceY = 0;
        const Box box(x, y, 3 * sigma, m_stack);
        weighColumns(x, box);
        for (int j = box.top; j <= box.bottom; ++j) {
            const double dy = j - y;
            const double weightOfRow = std::exp(-dy * dy / (2 * sigma * sigma));
            for (int i = box.left; i <= box.right; ++i) {
                const double dx = i - x;
                const double weight = weightOfRow * m_columns[static_cast<std::size_t>(i - box.left)];
                const double counts = m_frame[index(i, j)];
                const double over = weight * (counts - backgroundAt(spot, measured, i, j));
                total += over;
                momentX += over * dx;
                momentY += over * dy;
                spread += over * (dx * dx + dy * dy);
                const double noise = weight * weight * m_noise.variance(std::max(counts, 0.0));
                varianceX += noise * dx * dx;
                varianceY += noise * dy * dy;
            }
        }
        if (!(total > 0)) return std::nullopt;
        // The weight follows the spot and halves every step.
        const double stepX = 2 * momentX / total;
        const double stepY = 2 * momentY / total;
        x += std::clamp(stepX, -sigma, sigma);
        y += std::clamp(stepY, -sigma, sigma);
        if (std::hypot(x - spot.x, y - spot.y) > search + 0.5 * sigma) return std::nullopt;
        if (std::hypot(stepX, stepY) < 1e-3) break;
    }
    SpotCentroid result;
    result.x = static_cast<float>(x);
    result.y = static_cast<float>(y);
    result.sigmaX = static_cast<float>(2 * std::sqrt(varianceX) / total);
    result.sigmaY = static_cast<float>(2 * std::sqrt(varianceY) / total);
    const double inverse = 2 * total / spread - 1 / (sigma * sigma);
    result.width = inverse > 0 ? static_cast<float>(1 / std::sqrt(inverse)) : 0;
    return result;
}

}  // namespace

SpotExtent SpotExtent::of(double sigma) {
    SpotExtent extent;
    extent.sigma = sigma;
    extent.radius = std::max(kDiscInWidths * sigma, 2.5);
    const double inner = extent.radius + 1;
    extent.outer = std::sqrt(inner * inner + kRingPixels / std::numbers::pi);
    return extent;
}

void CoverageMap::fill(const SpotPrediction& prediction, std::size_t frame, double radius) {
    std::fill(m_count.begin(), m_count.end(), std::uint8_t{0});
    const auto radius2 = static_cast<float>(radius * radius);
    for (std::uint32_t n = prediction.frameStart[frame]; n < prediction.frameStart[frame + 1]; ++n) {
        const PredictedSpot& spot = prediction.spots[prediction.byFrame[n]];
        if (spot.share < kBrightShare) continue;
        const int left = std::max(static_cast<int>(std::ceil(spot.x - radius)), 0);
        const int right = std::min(static_cast<int>(std::floor(spot.x + radius)), m_width - 1);
        const int top = std::max(static_cast<int>(std::ceil(spot.y - radius)), 0);
        const int bottom = std::min(static_cast<int>(std::floor(spot.y + radius)), m_height - 1);
        for (int y = top; y <= bottom; ++y) {
            std::uint8_t* row =
                m_count.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width);
            const float dy = static_cast<float>(y) - spot.y;
            for (int x = left; x <= right; ++x) {
                const float dx = static_cast<float>(x) - spot.x;
                if (dx * dx + dy * dy <= radius2 && row[x] < 255) ++row[x];
            }
        }
    }
}

SpotMeasurement::SpotMeasurement(const FrameStack& stack, const SeriesGeometry& geometry,
                                 const RadialShape& shape, const NoiseModel& noise, const SpotExtent& extent)
    : m_stack(stack), m_geometry(geometry), m_shape(shape), m_noise(noise), m_extent(extent) {}

/// \param visit  called with the frame at hand, its number and that of each of its spots
template <typename Visit>
void SpotMeasurement::overSpots(const SpotPrediction& prediction, Visit visit) const {
    VRK::PerLane<FrameMeasurement> lanes(
        [this] { return FrameMeasurement(m_stack, m_shape, m_noise, m_extent); });
    VRK::shareItems(m_stack.frames.size(), [&](std::size_t f, std::size_t lane) {
        FrameMeasurement& frame = lanes[lane];
        frame.select(prediction, f, m_geometry.frames[f]);
        for (std::uint32_t n = prediction.frameStart[f]; n < prediction.frameStart[f + 1]; ++n)
            visit(frame, f, prediction.byFrame[n]);
    });
}

std::vector<MeasuredSpot> SpotMeasurement::sums(const SpotPrediction& prediction,
                                                std::span<const std::uint8_t> wanted) const {
    MeasuredSpot nothing;
    nothing.flags = kSpotNoBackground;
    std::vector<MeasuredSpot> result(prediction.spots.size(), nothing);
    overSpots(prediction, [&](FrameMeasurement& frame, std::size_t, std::uint32_t spot) {
        if (wanted.empty() || wanted[prediction.spots[spot].reflection] != 0)
            result[spot] = frame.measure(prediction.spots[spot]);
    });
    return result;
}

std::vector<SpotCentroid> SpotMeasurement::centroids(const SpotPrediction& prediction,
                                                     std::span<const MeasuredSpot> measured,
                                                     double significance, double search) const {
    std::vector<std::vector<SpotCentroid>> ofFrame(m_stack.frames.size());
    overSpots(prediction, [&](FrameMeasurement& frame, std::size_t f, std::uint32_t spot) {
        const MeasuredSpot& sum = measured[spot];
        if (sum.flags != 0 || !(sum.sum > significance * std::sqrt(sum.variance))) return;
        std::optional<SpotCentroid> place = frame.centroid(prediction.spots[spot], sum, search);
        if (!place) return;
        place->spot = spot;
        ofFrame[f].push_back(*place);
    });
    std::vector<SpotCentroid> result;
    for (const std::vector<SpotCentroid>& found : ofFrame)
        result.insert(result.end(), found.begin(), found.end());
    return result;
}

}  // namespace vrk
