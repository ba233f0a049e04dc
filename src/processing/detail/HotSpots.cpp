#include "processing/detail/HotSpots.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace VRK::detail {
namespace {

constexpr std::size_t kLevels = 16;
constexpr double kSigmas = 7.0;
/// From the median absolute deviation to the standard deviation. The median includes the pixel itself, which
/// draws it closer.
constexpr double kSigmaPerDeviation = 1.4826 * 1.15;
constexpr int kSamplingStep = 7;
constexpr std::size_t kPatternsToTellStuckPixels = 5;
constexpr int kColumnBlock = 64;
/// Deviations from here on are counted together.
constexpr int kCounted = 1024;

/// The octave of a background level.
std::size_t levelOf(short median) {
    const auto counts = static_cast<unsigned>(std::max<int>(median, 0));
    return static_cast<std::size_t>(std::bit_width(counts));
}

struct Neighbours {
    std::array<int, 8> sorted{};
    std::size_t count = 0;
    int directSum = 0;  ///< of those that share an edge
    int directCount = 0;

    double median() const { return 0.5 * (sorted[(count - 1) / 2] + sorted[count / 2]); }
    int lowest() const { return sorted[0]; }
    int highest() const { return sorted[count - 1]; }
};

Neighbours neighboursOf(const Frame& frame, int x, int y) {
    Neighbours result;
    for (int v = std::max(y - 1, 0); v <= std::min(y + 1, frame.rows - 1); ++v)
        for (int u = std::max(x - 1, 0); u <= std::min(x + 1, frame.cols - 1); ++u) {
            if (u == x && v == y) continue;
            const int value = frame(v, u);
            result.sorted[result.count++] = value;
            if (u == x || v == y) {
                result.directSum += value;
                ++result.directCount;
            }
        }
    // What is not there sorts behind.
    std::fill(result.sorted.begin() + static_cast<std::ptrdiff_t>(result.count), result.sorted.end(),
              std::numeric_limits<int>::max());
    std::sort(result.sorted.begin(), result.sorted.end());
    return result;
}

/// Whether the neighbours rise with a bright pixel, as they do under a reflection.
bool rises(const Neighbours& around, double excess, double sigma) {
    const double level = around.median();
    const double direct = around.directSum - level * around.directCount;
    return direct > std::max(4.0 * sigma, 0.12 * excess) ||
           around.highest() - level > std::max(5.0 * sigma, 0.1 * excess);
}

bool isOutlier(int value, const Neighbours& around, double limit) {
    const double level = around.median();
    const double excess = value - level;
    if (excess > limit) return !rises(around, excess, limit / kSigmas);
    return excess < -limit && around.lowest() - level > 0.5 * excess;
}

/// Whether one of the values leaves its median by more than a limit: a loop for vector units.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
bool anyLeaves(const short* values, const short* medians, int n, int limit) {
    int largest = 0;
    for (int x = 0; x < n; ++x)
        largest = std::max(largest, std::abs(values[x] - medians[x]));
    return largest > limit;
}

/// Takes the values of one more pattern into the limits and the sums of pixels.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void follow(const short* __restrict values, std::size_t n, short* __restrict lowest, short* __restrict highest,
            float* __restrict sums) {
    for (std::size_t i = 0; i < n; ++i) {
        lowest[i] = std::min(lowest[i], values[i]);
        highest[i] = std::max(highest[i], values[i]);
        sums[i] += static_cast<float>(values[i]);
    }
}

}  // namespace

HotSpotFilter::HotSpotFilter(int width, int height)
    : m_lowest(height, width, std::numeric_limits<short>::max()),
      m_highest(height, width, std::numeric_limits<short>::min()),
      m_sum(height, width, 0.0F),
      m_deviations(kLevels, std::vector<std::uint32_t>(kCounted + 1)),
      m_limits(kLevels) {}

void HotSpotFilter::observe(std::span<const short* const> patterns, int begin, int end) {
    if (begin >= end) return;
    const std::size_t offset = static_cast<std::size_t>(begin) * static_cast<std::size_t>(m_sum.cols);
    const std::size_t count = static_cast<std::size_t>(end - begin) * static_cast<std::size_t>(m_sum.cols);
    for (const short* pattern : patterns)
        follow(pattern + offset, count, m_lowest[begin], m_highest[begin], m_sum[begin]);
}

void HotSpotFilter::finishObservation(std::size_t patterns) {
    m_stuck.clear();
    if (patterns < kPatternsToTellStuckPixels) return;
    cv::Mat constant;
    cv::compare(m_lowest, m_highest, constant, cv::CMP_EQ);
    std::vector<cv::Point> pixels;
    cv::findNonZero(constant, pixels);
    for (const cv::Point& pixel : pixels) {
        const cv::Rect block = cv::Rect(pixel.x - 1, pixel.y - 1, 3, 3) & cv::Rect({0, 0}, m_sum.size());
        if (cv::countNonZero(constant(block)) > 1) continue;
        const cv::Mat_<float> sums = m_sum(block).clone();
        std::vector<float> values(sums.begin(), sums.end());
        std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                         values.end());
        const float expected = values[values.size() / 2];
        const float own = m_sum(pixel);
        if (std::abs(own - expected) > 10.0F * std::sqrt(std::max(expected, 1.0F))) m_stuck.push_back(pixel);
    }
}

HotSpotFilter HotSpotFilter::another() const {
    HotSpotFilter result(0, 0);
    result.m_stuck = m_stuck;
    return result;
}

void HotSpotFilter::measureNoise(const Frame& in) {
    for (std::vector<std::uint32_t>& level : m_deviations)
        std::fill(level.begin(), level.end(), 0U);
    for (int y = 0; y < in.rows; ++y) {
        const short* values = in[y];
        const short* medians = m_median[y];
        for (int x = y % kSamplingStep; x < in.cols; x += kSamplingStep) {
            const int deviation = std::min(std::abs(values[x] - medians[x]), kCounted);
            ++m_deviations[levelOf(medians[x])][static_cast<std::size_t>(deviation)];
        }
    }
    for (std::size_t level = 0; level < kLevels; ++level) {
        // The lowest counts of the octave.
        const double counts = level == 0 ? 0.0 : static_cast<double>(1U << (level - 1));
        const double sigma =
            std::max({1.0, std::sqrt(counts), kSigmaPerDeviation * medianDeviation(in, level)});
        m_limits[level] = static_cast<int>(std::ceil(kSigmas * sigma));
    }
}

/// The larger of the two middle ones; 0 where there is none.
int HotSpotFilter::medianDeviation(const Frame& in, std::size_t level) {
    const std::vector<std::uint32_t>& counts = m_deviations[level];
    const std::uint32_t rank = std::accumulate(counts.begin(), counts.end(), 0U) / 2;
    std::uint32_t upTo = 0;
    for (int deviation = 0; deviation < kCounted; ++deviation)
        if ((upTo += counts[static_cast<std::size_t>(deviation)]) > rank) return deviation;
    if (counts[kCounted] == 0) return 0;
    std::vector<int> large;
    for (int y = 0; y < in.rows; ++y)
        for (int x = y % kSamplingStep; x < in.cols; x += kSamplingStep)
            if (const int deviation = std::abs(in(y, x) - m_median(y, x));
                deviation >= kCounted && levelOf(m_median(y, x)) == level)
                large.push_back(deviation);
    const auto middle = large.begin() + static_cast<std::ptrdiff_t>(rank - upTo);
    std::nth_element(large.begin(), middle, large.end());
    return *middle;
}

void HotSpotFilter::apply(const Frame& in, Frame out, std::vector<ReplacedPixel>& replaced) {
    cv::medianBlur(in, m_median, 3);
    measureNoise(in);
    const int lowestLimit = *std::min_element(m_limits.begin(), m_limits.end());
    replaced.clear();
    const auto replace = [&](int x, int y, const Neighbours& around) {
        replaced.push_back({static_cast<std::uint32_t>(y) * static_cast<std::uint32_t>(in.cols) +
                                static_cast<std::uint32_t>(x),
                            static_cast<short>(std::lround(around.median()))});
    };
    for (int y = 0; y < in.rows; ++y) {
        const short* values = in[y];
        const short* medians = m_median[y];
        for (int begin = 0; begin < in.cols; begin += kColumnBlock) {
            const int end = std::min(begin + kColumnBlock, in.cols);
            if (!anyLeaves(values + begin, medians + begin, end - begin, lowestLimit)) continue;
            for (int x = begin; x < end; ++x) {
                const int deviation = std::abs(values[x] - medians[x]);
                if (deviation <= lowestLimit) continue;
                const int limit = m_limits[levelOf(medians[x])];
                if (deviation <= limit) continue;
                const Neighbours around = neighboursOf(in, x, y);
                if (around.count > 0 && isOutlier(values[x], around, limit)) replace(x, y, around);
            }
        }
    }
    for (const cv::Point& pixel : m_stuck)
        replace(pixel.x, pixel.y, neighboursOf(in, pixel.x, pixel.y));
    // Neighbours count as they were recorded.
    if (out.data != in.data) in.copyTo(out);
    for (const ReplacedPixel& pixel : replaced)
        out[0][pixel.place] = pixel.value;
}

}  // namespace VRK::detail
