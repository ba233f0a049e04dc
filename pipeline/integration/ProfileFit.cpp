#include "pipeline/integration/ProfileFit.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include "foundation/SharedLoop.h"
#include "pipeline/base/SymmetricSystem.h"

namespace vrk {
namespace {

constexpr float kLeastSeen = 0.5F;
/// Groups of more spots than this are solved spot by spot, each with its direct neighbours.
constexpr std::size_t kLargeGroup = 60;
/// Neighbours that share less than this (cosine of their profiles) do not matter to each other.
constexpr double kNoOverlap = 1e-3;

/// A spot's disc on its frame: profile, residual and weight of every pixel, 0 where it takes no part.
struct Window {
    std::uint32_t spot = 0;
    int left = 0;
    int top = 0;
    int width = 0;
    int height = 0;
    std::size_t first = 0;  ///< in the arrays of the frame
    double square = 0;      ///< sum of weight profile^2
    double right = 0;       ///< sum of weight profile residual
    double lever = 0;       ///< sum of weight profile
    float seen = 0;
};

class FrameFit {
public:
    FrameFit(const FrameStack& stack, const RadialShape& shape, const NoiseModel& noise,
             const ProfileSet& profiles, const SpotPrediction& prediction,
             std::span<const MeasuredSpot> measured, std::span<const float> expected)
        : m_stack(stack),
          m_shape(shape),
          m_noise(noise),
          m_profiles(profiles),
          m_prediction(prediction),
          m_measured(measured),
          m_expected(expected),
          m_model(stack.pixels(), 0) {}

    void fit(std::size_t frame, const FramePose& pose, std::vector<FittedSpot>& result);

private:
    void open(std::uint32_t spot, const FramePose& pose);
    void weigh(Window& window, std::size_t frame, const FramePose& pose);
    void findNeighbours();
    double overlap(const Window& a, const Window& b) const;
    void solveAlone(const Window& window, std::vector<FittedSpot>& result) const;
    /// Solves for the windows together and stores the results of the first \p stored.
    void solve(std::span<const std::size_t> group, std::size_t stored, std::vector<FittedSpot>& result) const;
    void store(const Window& window, double counts, double variance, std::vector<FittedSpot>& result) const;

    const FrameStack& m_stack;
    const RadialShape& m_shape;
    const NoiseModel& m_noise;
    const ProfileSet& m_profiles;
    const SpotPrediction& m_prediction;
    std::span<const MeasuredSpot> m_measured;
    std::span<const float> m_expected;
    std::vector<float> m_model;  ///< expected counts of the spots, by pixel of the frame
    std::vector<Window> m_windows;
    std::vector<float> m_profile;
    std::vector<float> m_residual;
    std::vector<float> m_weight;
    std::vector<std::vector<std::pair<std::size_t, double>>> m_neighbours;
};

void FrameFit::open(std::uint32_t number, const FramePose& pose) {
    const PredictedSpot& spot = m_prediction.spots[number];
    const double half = 0.5 * std::min(m_stack.width, m_stack.height);
    const SpotProfile& profile =
        m_profiles.of(ProfileSet::regionOf((spot.x - pose.centreX) / half, (spot.y - pose.centreY) / half));
    const double radius = profile.radius();
    Window window;
    window.spot = number;
    window.left = std::max(static_cast<int>(std::ceil(spot.x - radius)), 0);
    window.top = std::max(static_cast<int>(std::ceil(spot.y - radius)), 0);
    window.width =
        std::min(static_cast<int>(std::floor(spot.x + radius)), m_stack.width - 1) - window.left + 1;
    window.height =
        std::min(static_cast<int>(std::floor(spot.y + radius)), m_stack.height - 1) - window.top + 1;
    if (window.width <= 0 || window.height <= 0) return;
    window.first = m_profile.size();
    const auto pixels = static_cast<std::size_t>(window.width) * static_cast<std::size_t>(window.height);
    m_profile.resize(window.first + pixels);
    profile.sample(spot.x, spot.y, window.left, window.top, window.width, window.height,
                   std::span(m_profile).subspan(window.first));
    const float expected = std::max(m_expected[number], 0.0F);
    for (int j = 0; j < window.height; ++j) {
        float* model = m_model.data() +
                       static_cast<std::size_t>(window.top + j) * static_cast<std::size_t>(m_stack.width) +
                       window.left;
        const float* values = m_profile.data() + window.first +
                              static_cast<std::size_t>(j) * static_cast<std::size_t>(window.width);
        for (int i = 0; i < window.width; ++i)
            model[i] += expected * std::max(values[i], 0.0F);
    }
    m_windows.push_back(window);
}

void FrameFit::weigh(Window& window, std::size_t frame, const FramePose& pose) {
    const PredictedSpot& spot = m_prediction.spots[window.spot];
    const MeasuredSpot& measured = m_measured[window.spot];
    const auto centreX = static_cast<float>(pose.centreX);
    const auto centreY = static_cast<float>(pose.centreY);
    const auto shapeAt = [&](float x, float y) {
        return m_shape.at((x - centreX) * (x - centreX) + (y - centreY) * (y - centreY));
    };
    const float shapeHere = shapeAt(spot.x, spot.y);
    const short* pixels = m_stack.frames[frame].data();
    std::size_t n = window.first;
    for (int j = 0; j < window.height; ++j)
        for (int i = 0; i < window.width; ++i, ++n) {
            m_residual[n] = m_weight[n] = 0;
            const float value = m_profile[n];
            if (value == 0) continue;
            const std::size_t at =
                static_cast<std::size_t>(window.top + j) * static_cast<std::size_t>(m_stack.width) +
                static_cast<std::size_t>(window.left + i);
            const short counts = pixels[at];
            if (counts == FrameStack::kMissing || (!m_stack.dead.empty() && m_stack.dead[at] != 0) ||
                (m_stack.saturation > 0 && counts >= m_stack.saturation))
                continue;
            const auto x = static_cast<float>(window.left + i);
            const auto y = static_cast<float>(window.top + j);
            const float under = measured.background + measured.slopeX * (x - spot.x) +
                                measured.slopeY * (y - spot.y) + shapeAt(x, y) - shapeHere;
            const auto weight = static_cast<float>(1 / m_noise.variance(std::max(under, 0.0F) + m_model[at]));
            m_weight[n] = weight;
            m_residual[n] = static_cast<float>(counts) - under;
            window.square += weight * value * value;
            window.right += weight * value * m_residual[n];
            window.lever += weight * value;
            window.seen += value;
        }
}

double FrameFit::overlap(const Window& a, const Window& b) const {
    const int left = std::max(a.left, b.left);
    const int right = std::min(a.left + a.width, b.left + b.width);
    const int top = std::max(a.top, b.top);
    const int bottom = std::min(a.top + a.height, b.top + b.height);
    double sum = 0;
    for (int y = top; y < bottom; ++y) {
        const std::size_t rowA = a.first + static_cast<std::size_t>((y - a.top) * a.width - a.left);
        const std::size_t rowB = b.first + static_cast<std::size_t>((y - b.top) * b.width - b.left);
        for (int x = left; x < right; ++x)
            sum += static_cast<double>(m_weight[rowA + static_cast<std::size_t>(x)]) *
                   m_profile[rowA + static_cast<std::size_t>(x)] *
                   m_profile[rowB + static_cast<std::size_t>(x)];
    }
    return sum;
}

/// Windows are compared along x, in which they are sorted.
void FrameFit::findNeighbours() {
    std::sort(m_windows.begin(), m_windows.end(),
              [](const Window& a, const Window& b) { return a.left < b.left; });
    m_neighbours.assign(m_windows.size(), {});
    for (std::size_t a = 0; a < m_windows.size(); ++a)
        for (std::size_t b = a + 1;
             b < m_windows.size() && m_windows[b].left < m_windows[a].left + m_windows[a].width; ++b) {
            if (std::abs(m_windows[a].top - m_windows[b].top) >= m_windows[a].height + m_windows[b].height)
                continue;
            const double shared = overlap(m_windows[a], m_windows[b]);
            if (!(shared > kNoOverlap * std::sqrt(m_windows[a].square * m_windows[b].square))) continue;
            m_neighbours[a].emplace_back(b, shared);
            m_neighbours[b].emplace_back(a, shared);
        }
}

void FrameFit::store(const Window& window, double counts, double variance,
                     std::vector<FittedSpot>& result) const {
    if (!std::isfinite(counts) || !(variance > 0)) return;
    result[window.spot] = {static_cast<float>(counts), static_cast<float>(variance), window.seen};
}

void FrameFit::solveAlone(const Window& window, std::vector<FittedSpot>& result) const {
    const double lever = window.lever / window.square;
    store(window, window.right / window.square,
          1 / window.square + lever * lever * m_measured[window.spot].levelVariance, result);
}

void FrameFit::solve(std::span<const std::size_t> group, std::size_t stored,
                     std::vector<FittedSpot>& result) const {
    const auto count = static_cast<Eigen::Index>(group.size());
    Eigen::MatrixXd matrix = Eigen::MatrixXd::Zero(count, count);
    Eigen::VectorXd right(count);
    for (Eigen::Index a = 0; a < count; ++a) {
        const std::size_t one = group[static_cast<std::size_t>(a)];
        matrix(a, a) = m_windows[one].square;
        right(a) = m_windows[one].right;
        for (const auto& [other, shared] : m_neighbours[one])
            for (Eigen::Index b = 0; b < count; ++b)
                if (group[static_cast<std::size_t>(b)] == other) matrix(a, b) = shared;
    }
    // Spots that lie on each other cannot be told apart; a trace of a prior keeps their sum.
    for (Eigen::Index a = 0; a < count; ++a)
        matrix(a, a) *= 1 + 1e-6;
    const Eigen::MatrixXd inverse = SymmetricSystem(matrix).inverse();
    const Eigen::VectorXd counts = inverse * right;
    for (std::size_t a = 0; a < stored; ++a) {
        const Window& window = m_windows[group[a]];
        const auto n = static_cast<Eigen::Index>(a);
        const double lever = window.lever / window.square;
        store(window, counts(n), inverse(n, n) + lever * lever * m_measured[window.spot].levelVariance,
              result);
    }
}

void FrameFit::fit(std::size_t frame, const FramePose& pose, std::vector<FittedSpot>& result) {
    m_windows.clear();
    m_profile.clear();
    for (std::uint32_t n = m_prediction.frameStart[frame]; n < m_prediction.frameStart[frame + 1]; ++n) {
        const std::uint32_t spot = m_prediction.byFrame[n];
        if (m_measured[spot].usable()) open(spot, pose);
    }
    m_residual.resize(m_profile.size());
    m_weight.resize(m_profile.size());
    for (Window& window : m_windows)
        weigh(window, frame, pose);
    for (const Window& window : m_windows)
        for (int j = 0; j < window.height; ++j)
            std::fill_n(
                m_model.begin() + static_cast<std::ptrdiff_t>(window.top + j) * m_stack.width + window.left,
                window.width, 0.0F);
    std::erase_if(m_windows, [](const Window& window) { return window.seen < kLeastSeen; });
    findNeighbours();

    std::vector<bool> done(m_windows.size(), false);
    for (std::size_t start = 0; start < m_windows.size(); ++start) {
        if (done[start]) continue;
        if (m_neighbours[start].empty()) {
            solveAlone(m_windows[start], result);
            continue;
        }
        std::vector<std::size_t> group = {start};
        done[start] = true;
        for (std::size_t n = 0; n < group.size(); ++n)
            for (const auto& [other, shared] : m_neighbours[group[n]])
                if (!done[other]) {
                    done[other] = true;
                    group.push_back(other);
                }
        if (group.size() <= kLargeGroup) {
            solve(group, group.size(), result);
            continue;
        }
        for (const std::size_t one : group) {
            std::vector<std::size_t> around = {one};
            for (const auto& [other, shared] : m_neighbours[one])
                around.push_back(other);
            solve(around, 1, result);
        }
    }
}

}  // namespace

std::vector<FittedSpot> fitProfiles(const FrameStack& stack, const SeriesGeometry& geometry,
                                    const RadialShape& shape, const NoiseModel& noise,
                                    const ProfileSet& profiles, const SpotPrediction& prediction,
                                    std::span<const MeasuredSpot> measured, std::span<const float> expected) {
    std::vector<FittedSpot> result(prediction.spots.size());
    VRK::PerLane<FrameFit> lanes(
        [&] { return FrameFit(stack, shape, noise, profiles, prediction, measured, expected); });
    VRK::shareItems(stack.frames.size(), [&](std::size_t frame, std::size_t lane) {
        lanes[lane].fit(frame, geometry.frames[frame], result);
    });
    return result;
}

}  // namespace vrk
