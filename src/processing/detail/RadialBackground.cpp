#include "processing/detail/RadialBackground.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <span>
#include <utility>

namespace VRK::detail {
namespace {

constexpr int kCellSize = 32;
constexpr int kCellSampling = 3;
constexpr int kClippingRounds = 3;
constexpr double kClipAbove = 2.5;  ///< in standard deviations: reflections lie above
constexpr double kClipBelow = 3.5;
/// A background from which a count of 0 is as good as impossible.
constexpr double kCertainBackground = 10.0;
/// Of a normal distribution, in standard deviations: how far the quartiles lie from the median.
constexpr double kQuartile = 0.6745;

/// How often each value of a ring occurs.
class Counter {
public:
    void count(std::span<const short> values) {
        const auto [lowest, highest] = std::minmax_element(values.begin(), values.end());
        m_lowest = *lowest;
        const auto range = static_cast<std::size_t>(*highest - *lowest) + 1;
        m_counts.assign(range, 0);
        for (const short v : values)
            ++m_counts[static_cast<std::size_t>(v - m_lowest)];
    }
    /// Takes all of a value out, and returns how many there were.
    std::uint32_t take(short value) {
        return has(value) ? std::exchange(m_counts[static_cast<std::size_t>(value - m_lowest)], 0U) : 0U;
    }
    void give(short value, std::uint32_t count) {
        if (has(value)) m_counts[static_cast<std::size_t>(value - m_lowest)] += count;
    }
    bool has(short value) const { return value >= lowest() && value <= highest(); }

    int lowest() const { return m_lowest; }
    int highest() const { return m_lowest + static_cast<int>(m_counts.size()) - 1; }

    /// The number of values in [from, to] and their mean.
    std::pair<std::uint32_t, double> mean(int from, int to) const {
        std::uint32_t n = 0;
        double sum = 0;
        for (int v = std::max(from, lowest()); v <= std::min(to, highest()); ++v) {
            const std::uint32_t count = m_counts[static_cast<std::size_t>(v - m_lowest)];
            n += count;
            sum += static_cast<double>(count) * v;
        }
        return {n, n > 0 ? sum / n : 0.0};
    }

    /// The value below which a part of those in [lowest, to] lies.
    int quantile(double part, int to) const {
        const std::uint32_t n = mean(lowest(), to).first;
        const auto rank = static_cast<std::uint32_t>(part * n);
        std::uint32_t below = 0;
        for (int v = lowest(); v <= std::min(to, highest()); ++v) {
            below += m_counts[static_cast<std::size_t>(v - m_lowest)];
            if (below > rank) return v;
        }
        return lowest();
    }

private:
    int m_lowest = 0;
    std::vector<std::uint32_t> m_counts;
};

struct Level {
    double mean = 0;
    double sigma = 1;
};

/// Mean of a ring's background: clipped about the median, with the spread of the lower half, which no
/// reflection widens.
Level backgroundOf(const Counter& ring) {
    int limit = ring.highest();
    Level level;
    int median = 0;
    for (int round = 0; round < kClippingRounds; ++round) {
        median = ring.quantile(0.5, limit);
        level.sigma =
            std::max((median - ring.quantile(0.25, limit)) / kQuartile, std::sqrt(std::max(median, 1)) * 0.7);
        const int clipped = static_cast<int>(std::lround(median + kClipAbove * level.sigma));
        if (clipped >= limit) break;
        limit = clipped;
    }
    level.mean = ring.mean(static_cast<int>(std::lround(median - kClipBelow * level.sigma)), limit).second;
    return level;
}

/// Middle of the values, the mean of the two middle ones of an even number. Reorders them.
float medianOf(std::vector<float>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) return *middle;
    return 0.5F * (*middle + *std::max_element(values.begin(), middle));
}

/// The sum of the two middle values (twice the middle one of an odd number).
int twiceMedianOf(std::span<const int> values, std::vector<std::uint32_t>& counts,
                  std::vector<int>& scratch) {
    // Background values lie around 0 once the background was subtracted.
    constexpr int kRange = 2048;
    counts.assign(2 * kRange + 1, 0);
    for (const int v : values)
        ++counts[static_cast<std::size_t>(std::clamp(v, -kRange, kRange) + kRange)];
    const std::size_t lower = (values.size() - 1) / 2;
    const std::size_t upper = values.size() / 2;
    std::size_t below = 0;
    int sum = 0;
    for (int i = 0, found = 0; found < 2; ++i) {
        const std::size_t before = below;
        below += counts[static_cast<std::size_t>(i)];
        for (const std::size_t rank : {lower, upper})
            if (rank >= before && rank < below) {
                if (i == 0 || i == 2 * kRange) {
                    scratch.assign(values.begin(), values.end());
                    std::sort(scratch.begin(), scratch.end());
                    return scratch[lower] + scratch[upper];
                }
                sum += i - kRange;
                ++found;
            }
    }
    return sum;
}

/// n / 2^bits, rounded to the nearest, halves away from 0: symmetric, so that a median of 0 stays one.
int shiftRounded(int n, int bits) {
    return (n + (1 << (bits - 1)) + (n >> 31)) >> bits;
}

}  // namespace

RadialBackground::RadialBackground(int width, int height) : m_width(width), m_height(height) {
    const cv::Point2d centre = centreOf(width, height);
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    m_ringOf.resize(pixels);
    m_innerRing.resize(pixels);
    m_fraction.resize(pixels);
    const auto count = static_cast<std::size_t>(std::lround(std::hypot(centre.x, centre.y))) + 1;
    m_ringBegin.assign(count + 1, 0);
    for (std::size_t i = 0; i < pixels; ++i) {
        const auto x = static_cast<double>(i % static_cast<std::size_t>(width));
        const auto y = static_cast<double>(i / static_cast<std::size_t>(width));
        const double distance = std::hypot(x - centre.x, y - centre.y);
        const double inner = std::floor(distance);
        m_ringOf[i] = static_cast<std::uint16_t>(std::floor(distance + 0.5));
        m_innerRing[i] = static_cast<std::uint16_t>(inner);
        m_fraction[i] = static_cast<float>(distance - inner);
        ++m_ringBegin[m_ringOf[i] + 1U];
    }
    for (std::size_t ring = 0; ring < count; ++ring)
        m_ringBegin[ring + 1] += m_ringBegin[ring];
    std::vector<std::uint32_t> next(m_ringBegin.begin(), m_ringBegin.end() - 1);
    m_pixelsByRing.resize(pixels);
    for (std::size_t i = 0; i < pixels; ++i)
        m_pixelsByRing[next[m_ringOf[i]]++] = static_cast<std::uint32_t>(i);
    m_values.resize(pixels);
    m_dead.resize(pixels);
    m_profile.resize(count + 1);
    m_zeroIsDead.resize(count);
    m_twiceRingMedian.resize(count);
    m_remainder.create(height, width);
}

void RadialBackground::subtract(const Frame& in, std::span<const unsigned char> lost, Frame out) {
    collectRings(in);
    estimateProfile(lost);
    subtractProfile(in, lost);
    subtractLocalRemainder();
    subtractRingMedians(out);
}

RadialBackground RadialBackground::another() const {
    RadialBackground result = *this;
    // Copies of matrices share their memory.
    result.m_remainder = m_remainder.clone();
    result.m_units = m_units.clone();
    return result;
}

void RadialBackground::collectRings(const Frame& in) {
    const short* pixels = in[0];
    for (std::size_t i = 0; i < m_values.size(); ++i)
        m_values[i] = pixels[m_pixelsByRing[i]];
}

std::span<const short> RadialBackground::recordedValues(std::size_t ring,
                                                        std::span<const unsigned char> lost) {
    const std::size_t begin = m_ringBegin[ring];
    const std::size_t end = m_ringBegin[ring + 1];
    if (lost.empty()) return {m_values.data() + begin, m_values.data() + end};
    m_recorded.clear();
    for (std::size_t i = begin; i < end; ++i)
        if (!lost[m_pixelsByRing[i]]) m_recorded.push_back(m_values[i]);
    return m_recorded;
}

void RadialBackground::estimateProfile(std::span<const unsigned char> lost) {
    Counter counter;
    for (std::size_t ring = 0; ring < rings(); ++ring) {
        const std::span<const short> values = recordedValues(ring, lost);
        m_zeroIsDead[ring] = false;
        m_profile[ring] = ring > 0 ? m_profile[ring - 1] : 0.0F;
        if (values.empty()) continue;
        counter.count(values);
        // Dead pixels must not be taken for background: look at the others first.
        const std::uint32_t zeros = counter.take(0);
        if (zeros < values.size()) {
            const Level alive = backgroundOf(counter);
            m_zeroIsDead[ring] = alive.mean > kCertainBackground && alive.mean > 4.0 * alive.sigma;
            m_profile[ring] = static_cast<float>(alive.mean);
            if (m_zeroIsDead[ring] || zeros == 0) continue;
        }
        counter.give(0, zeros);
        m_profile[ring] = static_cast<float>(backgroundOf(counter).mean);
    }
    m_profile[rings()] = m_profile[rings() - 1];
}

void RadialBackground::subtractProfile(const Frame& in, std::span<const unsigned char> lost) {
    const short* pixels = in[0];
    float* remainder = m_remainder[0];
    for (std::size_t i = 0; i < m_values.size(); ++i) {
        const float* profile = &m_profile[m_innerRing[i]];
        remainder[i] =
            static_cast<float>(pixels[i]) - (profile[0] + m_fraction[i] * (profile[1] - profile[0]));
    }
    if (m_hasDead) std::fill(m_dead.begin(), m_dead.end(), std::uint8_t{0});
    m_hasDead = !lost.empty();
    std::copy(lost.begin(), lost.end(), m_dead.begin());
    for (std::size_t ring = 0; ring < rings(); ++ring) {
        if (!m_zeroIsDead[ring]) continue;
        for (std::size_t i = m_ringBegin[ring]; i < m_ringBegin[ring + 1]; ++i) {
            if (m_values[i] != 0) continue;
            m_dead[m_pixelsByRing[i]] = 1;
            m_hasDead = true;
        }
    }
}

void RadialBackground::subtractLocalRemainder() {
    const int columns = std::max((m_width + kCellSize / 2) / kCellSize, 1);
    const int rows = std::max((m_height + kCellSize / 2) / kCellSize, 1);
    if (columns < 3 || rows < 3) return;
    cv::Mat_<float> cells(rows, columns);
    std::vector<float> sample;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column) {
            sample.clear();
            for (int y = row * m_height / rows; y < (row + 1) * m_height / rows; y += kCellSampling)
                for (int x = column * m_width / columns; x < (column + 1) * m_width / columns;
                     x += kCellSampling)
                    if (!m_dead[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) +
                                static_cast<std::size_t>(x)])
                        sample.push_back(m_remainder(y, x));
            cells(row, column) = sample.empty() ? 0.0F : medianOf(sample);
        }
    cv::medianBlur(cells, cells, 3);
    subtractBetween(cells);
}

/// Linear between the middles of the cells, level beyond the outermost ones. In the order in which it is
/// written, so that every machine rounds alike.
void RadialBackground::subtractBetween(const cv::Mat_<float>& cells) {
    struct Place {
        int cell;
        float share;  ///< of the way to the next cell
    };
    const auto placeOf = [](int pixel, int size, int count) {
        const double place = std::clamp((pixel + 0.5) * count / size - 0.5, 0.0, count - 1.0);
        return Place{static_cast<int>(place), static_cast<float>(place - std::floor(place))};
    };
    std::vector<float> share(static_cast<std::size_t>(m_width));
    std::vector<int> end(static_cast<std::size_t>(cells.cols),
                         0);  // of the pixels between a cell and the next
    for (int x = 0; x < m_width; ++x) {
        const Place place = placeOf(x, m_width, cells.cols);
        share[static_cast<std::size_t>(x)] = place.share;
        end[static_cast<std::size_t>(place.cell)] = x + 1;
    }
    for (int y = 0; y < m_height; ++y) {
        const Place down = placeOf(y, m_height, cells.rows);
        const float* above = cells[down.cell];
        const float* below = cells[std::min(down.cell + 1, cells.rows - 1)];
        const auto levelAt = [&](int column) {
            return above[column] + down.share * (below[column] - above[column]);
        };
        float* remainder = m_remainder[y];
        int x = 0;
        for (int cell = 0; cell < cells.cols; ++cell) {
            const float level = levelAt(cell);
            const float slope = levelAt(std::min(cell + 1, cells.cols - 1)) - level;
            for (const int last = end[static_cast<std::size_t>(cell)]; x < last; ++x)
                remainder[x] -= level + share[static_cast<std::size_t>(x)] * slope;
        }
    }
}

void RadialBackground::subtractRingMedians(Frame out) {
    m_remainder.convertTo(m_units, CV_32S, kUnit);
    const int* units = m_units[0];
    short* pixels = out[0];
    for (std::size_t ring = 0; ring < rings(); ++ring) {
        const std::span<const std::uint32_t> ringPixels(m_pixelsByRing.data() + m_ringBegin[ring],
                                                        m_pixelsByRing.data() + m_ringBegin[ring + 1]);
        m_ringValues.resize(ringPixels.size());
        std::size_t live = 0;
        for (const std::uint32_t pixel : ringPixels) {
            m_ringValues[live] = units[pixel];
            live += m_dead[pixel] ? 0 : 1;
        }
        const std::span<const int> values(m_ringValues.data(), live);
        m_twiceRingMedian[ring] = values.empty() ? 0 : twiceMedianOf(values, m_counts, m_scratch);
    }
    for (std::size_t i = 0; i < m_ringOf.size(); ++i)
        pixels[i] = cv::saturate_cast<short>(
            shiftRounded(2 * units[i] - m_twiceRingMedian[m_ringOf[i]], kUnitBits + 1));
    if (m_hasDead)
        for (std::size_t i = 0; i < m_dead.size(); ++i)
            if (m_dead[i]) pixels[i] = 0;
}

}  // namespace VRK::detail
