#include "pipeline/frames/CountScale.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vrk {
namespace {

constexpr std::size_t kRow = 64;  // pixels
constexpr std::size_t kRowsASlice = 200;

/// Cut, not rounded, so that what just fitted still does.
double twoDigits(double value) {
    const double unit = std::pow(10, std::floor(std::log10(value)) - 1);
    return std::floor(value / unit + 1e-9) * unit;
}

/// Standard deviation from the median difference of neighbours, which reflections hardly touch. Where most
/// pixels count nothing, the size of the counts takes its place; 0 when there are no more than a spike.
double noiseOf(std::span<const float> row) {
    std::array<double, kRow> differences{};
    auto first = differences.begin();
    auto last = first;
    for (std::size_t i = 0; i + 1 < row.size(); ++i)
        *last++ = std::abs(static_cast<double>(row[i + 1]) - row[i]);
    std::sort(first, last);
    if (const auto different = std::upper_bound(first, last, 0.0); different - first > (last - first) / 2)
        first = different;
    constexpr std::ptrdiff_t ofTwoSpikes = 4;
    if (last - first <= ofTwoSpikes) return 0;
    constexpr double deviationOfMedian = 1.4826;
    return deviationOfMedian * *(first + (last - first) / 2) / std::sqrt(2.0);
}

}  // namespace

void CountScale::add(std::span<const float> pixels) {
    for (const float value : pixels) {
        m_smallest = std::min(m_smallest, static_cast<double>(value));
        m_largest = std::max(m_largest, static_cast<double>(value));
        m_whole = m_whole && value == std::floor(value);
    }
    const std::size_t row = std::min(kRow, pixels.size());
    const std::size_t step = std::max(row, pixels.size() / kRowsASlice);
    for (std::size_t start = 0; row > 1 && start + row <= pixels.size(); start += step)
        if (const double noise = noiseOf(pixels.subspan(start, row)); noise > 0) m_noises.push_back(noise);
}

double CountScale::noise() const {
    if (m_noises.empty()) return 0;
    std::vector<double> noises = m_noises;
    const auto quiet = noises.begin() + static_cast<std::ptrdiff_t>(noises.size() / 10);
    std::nth_element(noises.begin(), quiet, noises.end());
    return *quiet;
}

double CountScale::limit() const {
    const double above = m_largest > 0 ? 32767 / m_largest : 1e30;
    const double below = m_smallest < 0 ? -32768 / m_smallest : 1e30;
    return std::min(above, below);
}

double CountScale::keepingAll() const {
    return twoDigits(limit());
}

double CountScale::choice() const {
    if (m_largest == 0 && m_smallest == 0) return 1;
    if (m_whole && limit() >= 1) return 1;
    const double deviation = noise();
    if (m_whole) return 1 / std::min(std::ceil(1 / limit()), std::max(std::floor(deviation), 1.0));
    if (deviation == 0) return keepingAll();
    return twoDigits(std::max(std::min(10 / deviation, limit()), 1 / deviation));
}

long long clearInvalid(std::span<float> counts) {
    constexpr float kLargest = 1e30F;
    long long invalid = 0;
    for (float& value : counts)
        if (!(std::abs(value) <= kLargest)) {
            value = 0.0F;
            ++invalid;
        }
    return invalid;
}

long long storeScaled(std::span<const float> counts, double scale, std::span<short> slice) {
    constexpr double kLowest = -32768.0;
    constexpr double kHighest = 32767.0;
    long long clipped = 0;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const double rounded = std::floor(counts[i] * scale + 0.5);
        if (rounded < kLowest || rounded > kHighest) ++clipped;
        slice[i] = static_cast<short>(std::clamp(rounded, kLowest, kHighest));
    }
    return clipped;
}

}  // namespace vrk
