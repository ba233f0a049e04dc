#include "processing/detail/RadialBackground.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <span>

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

/// The values of a ring, of which the zeros may be left out.
class RingValues {
public:
    RingValues(std::span<const short> values, short guess) : m_values(values), m_guess(guess) {
        const Extremes extremes = extremesOf(values);
        m_lowest = extremes.lowest;
        m_highest = extremes.highest;
        if (m_lowest <= 0 && m_highest >= 0) m_zeros = sumBetween(values, 0, 0).count;
    }
    std::size_t zeros() const { return m_zeros; }
    void leaveZerosOut(bool leaveOut) { m_left = leaveOut ? m_zeros : 0; }

    int highest() const { return m_highest; }

    std::size_t countTo(int limit) const {
        if (limit < m_lowest) return 0;
        const std::size_t count =
            limit >= m_highest ? m_values.size() : countUpTo(m_values, static_cast<short>(limit));
        return limit >= 0 ? count - m_left : count;
    }
    double mean(int from, int to) const {
        const int lowest = std::max(from, m_lowest), highest = std::min(to, m_highest);
        if (lowest > highest) return 0.0;
        RangeSum sum = sumBetween(m_values, static_cast<short>(lowest), static_cast<short>(highest));
        if (lowest <= 0 && highest >= 0) sum.count -= m_left;
        return sum.count > 0 ? static_cast<double>(sum.sum) / static_cast<double>(sum.count) : 0.0;
    }
    /// The value below which a part of the lowest \p count values lies.
    int quantile(double part, std::size_t count) {
        if (count == 0) return m_lowest;
        const auto rank = static_cast<std::size_t>(part * static_cast<double>(count));
        // The zeros that are left out stand before the values above them.
        m_guess = valueOfRank(m_values, rank, m_guess);
        if (m_left > 0 && m_guess >= 0) m_guess = valueOfRank(m_values, rank + m_left, m_guess);
        return m_guess;
    }

private:
    std::span<const short> m_values;
    int m_lowest, m_highest;
    std::size_t m_zeros = 0;
    std::size_t m_left = 0;
    short m_guess;
};

struct Level {
    double mean = 0;
    double sigma = 1;
};

/// Mean of a ring's background: clipped about the median, with the spread of the lower half, which no
/// reflection widens.
Level backgroundOf(RingValues& ring) {
    int limit = ring.highest();
    Level level;
    int median = 0;
    for (int round = 0; round < kClippingRounds; ++round) {
        const std::size_t count = ring.countTo(limit);
        median = ring.quantile(0.5, count);
        level.sigma =
            std::max((median - ring.quantile(0.25, count)) / kQuartile, std::sqrt(std::max(median, 1)) * 0.7);
        const int clipped = static_cast<int>(std::lround(median + kClipAbove * level.sigma));
        if (clipped >= limit) break;
        limit = clipped;
    }
    level.mean = ring.mean(static_cast<int>(std::lround(median - kClipBelow * level.sigma)), limit);
    return level;
}

/// What stands for a dead pixel where units are ranked, before all others.
constexpr short kDeadUnit = std::numeric_limits<short>::min();
constexpr int kMostUnits = std::numeric_limits<short>::max();

/// Units within what is ranked, at its ends where they are beyond.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void limitUnits(const int* units, std::size_t n, short* limited) {
    for (std::size_t i = 0; i < n; ++i)
        limited[i] = static_cast<short>(std::clamp(units[i], -kMostUnits, kMostUnits));
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void subtractLevel(const short* pixels, const float* level, std::size_t n, float* remainder) {
    for (std::size_t i = 0; i < n; ++i)
        remainder[i] = static_cast<float>(pixels[i]) - level[i];
}

/// The units without half of \p twice as whole counts, rounded to the nearest, halves away from 0:
/// symmetric, so that a median of 0 stays one.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void subtractHalf(const int* units, const int* twice, std::size_t n, int bits, short* out) {
    constexpr int kLowest = std::numeric_limits<short>::min(), kHighest = std::numeric_limits<short>::max();
    for (std::size_t i = 0; i < n; ++i) {
        const int rest = 2 * units[i] - twice[i];
        const int counts = (rest + (1 << (bits - 1)) + (rest >> 31)) >> bits;
        out[i] = static_cast<short>(std::clamp(counts, kLowest, kHighest));
    }
}

/// Fills a row from its first half, of which the middle of an odd number is part.
template <typename T>
void mirror(std::vector<T>& row) {
    std::reverse_copy(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(row.size() / 2),
                      row.begin() + static_cast<std::ptrdiff_t>((row.size() + 1) / 2));
}

}  // namespace

RadialBackground::RadialBackground(int width, int height)
    : m_width(width), m_height(height), m_halfWidth((width + 1) / 2) {
    const cv::Point2d centre = centreOf(width, height);
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    for (int y = 0; y < (height + 1) / 2; ++y)
        for (int x = 0; x < m_halfWidth; ++x) {
            const double distance = std::hypot(x - centre.x, y - centre.y);
            const double inner = std::floor(distance);
            m_ringOf.push_back(static_cast<std::uint16_t>(std::floor(distance + 0.5)));
            m_innerRing.push_back(static_cast<std::uint16_t>(inner));
            m_fraction.push_back(static_cast<float>(distance - inner));
        }
    const auto count = static_cast<std::size_t>(std::lround(std::hypot(centre.x, centre.y))) + 1;
    m_ringBegin.assign(count + 1, 0);
    const auto ringAt = [&](std::size_t pixel) {
        const int x = static_cast<int>(pixel % static_cast<std::size_t>(width));
        const int y = static_cast<int>(pixel / static_cast<std::size_t>(width));
        return m_ringOf[quarterRow(y) + static_cast<std::size_t>(std::min(x, width - 1 - x))];
    };
    for (std::size_t i = 0; i < pixels; ++i)
        ++m_ringBegin[ringAt(i) + 1U];
    std::partial_sum(m_ringBegin.begin(), m_ringBegin.end(), m_ringBegin.begin());
    placePixels();
    m_values.resize(pixels);
    m_dead.resize(pixels);
    m_ranked.resize(pixels);
    m_ringLosesSome.resize(count);
    m_profile.resize(count + 1);
    m_zeroIsDead.resize(count);
    m_twiceRingMedian.resize(count);
    m_level.resize(static_cast<std::size_t>(width));
    m_twiceRowMedian.resize(static_cast<std::size_t>(width));
    m_remainder.create(height, width);
}

/// Of a ring, what mirrors each other comes first, four pixels side by side, then those of the middle row and
/// column, which have fewer mirror images.
void RadialBackground::placePixels() {
    m_pixelsByRing.resize(static_cast<std::size_t>(m_width) * static_cast<std::size_t>(m_height));
    std::vector<std::uint32_t> next(m_ringBegin.begin(), m_ringBegin.end() - 1);
    const auto place = [&](int x, int y) {
        const auto pixel = static_cast<std::uint32_t>(y * m_width + x);
        const std::size_t quarter = quarterRow(y) + static_cast<std::size_t>(std::min(x, m_width - 1 - x));
        const std::uint32_t to = next[m_ringOf[quarter]]++;
        m_pixelsByRing[to] = pixel;
        return to;
    };
    m_fourPlaces.reserve(m_pixelsByRing.size() / 4);
    for (int y = 0; y < m_height / 2; ++y)
        for (int x = 0; x < m_width / 2; ++x) {
            m_fourPlaces.push_back(place(x, y));
            place(m_width - 1 - x, y);
            place(x, m_height - 1 - y);
            place(m_width - 1 - x, m_height - 1 - y);
        }
    const auto placeAlone = [&](int x, int y) {
        const std::uint32_t to = place(x, y);
        m_alone.push_back({m_pixelsByRing[to], to});
    };
    for (int y = 0; m_width % 2 == 1 && y < m_height; ++y)
        placeAlone(m_width / 2, y);
    for (int x = 0; m_height % 2 == 1 && x < m_width; ++x)
        if (m_width % 2 == 0 || x != m_width / 2) placeAlone(x, m_height / 2);
}

/// Sorts the pixels of an image into their rings. Written to are about as many cache lines a row as there are
/// rings, over and over; taking one ring's pixels after the other would read a line for every two of them.
void RadialBackground::sortIntoRings(const short* pixels) {
    const std::uint32_t* places = m_fourPlaces.data();
    short* values = m_values.data();
    for (int y = 0; y < m_height / 2; ++y) {
        const short* top = pixels + std::ptrdiff_t{y} * m_width;
        const short* bottom = pixels + std::ptrdiff_t{m_height - 1 - y} * m_width;
        for (int x = 0; x < m_width / 2; ++x) {
            const int opposite = m_width - 1 - x;
            const std::array<short, 4> four = {top[x], top[opposite], bottom[x], bottom[opposite]};
            std::memcpy(values + *places++, four.data(), sizeof four);
        }
    }
    for (const Alone& one : m_alone)
        values[one.place] = pixels[one.pixel];
}

void RadialBackground::subtract(const Frame& in, std::span<const unsigned char> lost, Frame out) {
    sortIntoRings(in[0]);
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

void RadialBackground::markRings(std::span<const unsigned char> lost) {
    std::fill(m_ringLosesSome.begin(), m_ringLosesSome.end(), std::uint8_t{0});
    if (lost.empty()) return;
    for (int y = 0; y < m_height; ++y) {
        const auto row = lost.subspan(static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width),
                                      static_cast<std::size_t>(m_width));
        const std::uint16_t* rings = m_ringOf.data() + quarterRow(y);
        for (auto pixel = std::find(row.begin(), row.end(), 1); pixel != row.end();
             pixel = std::find(pixel + 1, row.end(), 1)) {
            const auto x = static_cast<int>(pixel - row.begin());
            m_ringLosesSome[rings[std::min(x, m_width - 1 - x)]] = 1;
        }
    }
}

std::span<const short> RadialBackground::recordedValues(std::size_t ring,
                                                        std::span<const unsigned char> lost) {
    const std::size_t begin = m_ringBegin[ring];
    const std::size_t end = m_ringBegin[ring + 1];
    if (m_ringLosesSome[ring] == 0) return {m_values.data() + begin, m_values.data() + end};
    m_recorded.clear();
    for (std::size_t i = begin; i < end; ++i)
        if (!lost[m_pixelsByRing[i]]) m_recorded.push_back(m_values[i]);
    return m_recorded;
}

void RadialBackground::estimateProfile(std::span<const unsigned char> lost) {
    markRings(lost);
    short guess = 0;
    for (std::size_t ring = 0; ring < rings(); ++ring) {
        const std::span<const short> values = recordedValues(ring, lost);
        m_zeroIsDead[ring] = false;
        m_profile[ring] = ring > 0 ? m_profile[ring - 1] : 0.0F;
        if (values.empty()) continue;
        RingValues counts(values, guess);
        // Dead pixels must not be taken for background: look at the others first.
        counts.leaveZerosOut(true);
        if (counts.zeros() < values.size()) {
            const Level alive = backgroundOf(counts);
            m_zeroIsDead[ring] = alive.mean > kCertainBackground && alive.mean > 4.0 * alive.sigma;
            m_profile[ring] = static_cast<float>(alive.mean);
        }
        if (!m_zeroIsDead[ring] && counts.zeros() > 0) {
            counts.leaveZerosOut(false);
            m_profile[ring] = static_cast<float>(backgroundOf(counts).mean);
        }
        guess = cv::saturate_cast<short>(m_profile[ring]);
    }
    m_profile[rings()] = m_profile[rings() - 1];
}

void RadialBackground::subtractProfile(const Frame& in, std::span<const unsigned char> lost) {
    // Rows and columns mirror each other.
    for (int y = 0; 2 * y < m_height; ++y) {
        const std::size_t quarter = quarterRow(y);
        for (int x = 0; x < m_halfWidth; ++x) {
            const std::size_t i = quarter + static_cast<std::size_t>(x);
            const float* profile = &m_profile[m_innerRing[i]];
            m_level[static_cast<std::size_t>(x)] = profile[0] + m_fraction[i] * (profile[1] - profile[0]);
        }
        mirror(m_level);
        for (const int row : {y, m_height - 1 - y})
            subtractLevel(in[row], m_level.data(), m_level.size(), m_remainder[row]);
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
            if (sample.empty()) {
                cells(row, column) = 0.0F;
                continue;
            }
            m_cell.assign(sample);
            const float upper = m_cell.upperMedian();
            cells(row, column) =
                sample.size() % 2 == 1 ? upper : 0.5F * (upper + m_cell.valueOfRank(sample.size() / 2 - 1));
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

void RadialBackground::estimateRingMedians() {
    const std::size_t pixels = m_values.size();
    limitUnits(m_units[0], pixels, m_ranked.data());
    if (m_hasDead)
        for (std::size_t i = 0; i < pixels; ++i)
            if (m_dead[i]) m_ranked[i] = kDeadUnit;
    sortIntoRings(m_ranked.data());
    for (std::size_t ring = 0; ring < rings(); ++ring)
        m_twiceRingMedian[ring] = twiceMedianOf(ring, 0);
}

/// The sum of the two middle values (twice the middle one of an odd number); 0 where there is none.
int RadialBackground::twiceMedianOf(std::size_t ring, short guess) {
    const std::span<const short> values(m_values.data() + m_ringBegin[ring],
                                        m_values.data() + m_ringBegin[ring + 1]);
    const std::size_t dead = m_hasDead ? countUpTo(values, kDeadUnit) : 0;
    const std::size_t live = values.size() - dead;
    if (live == 0) return 0;
    const int lower = valueOfRank(values, dead + (live - 1) / 2, guess);
    const int upper = live % 2 == 1 ? lower : valueOfRank(values, dead + live / 2, static_cast<short>(lower));
    return lower > -kMostUnits && upper < kMostUnits ? lower + upper : twiceMedianBySorting(ring);
}

/// The same where half of the values are beyond what is ranked.
int RadialBackground::twiceMedianBySorting(std::size_t ring) {
    const int* units = m_units[0];
    m_scratch.clear();
    for (std::size_t i = m_ringBegin[ring]; i < m_ringBegin[ring + 1]; ++i)
        if (!m_dead[m_pixelsByRing[i]]) m_scratch.push_back(units[m_pixelsByRing[i]]);
    std::sort(m_scratch.begin(), m_scratch.end());
    return m_scratch[(m_scratch.size() - 1) / 2] + m_scratch[m_scratch.size() / 2];
}

void RadialBackground::subtractRingMedians(Frame out) {
    m_remainder.convertTo(m_units, CV_32S, kUnit);
    estimateRingMedians();
    for (int y = 0; 2 * y < m_height; ++y) {
        const std::uint16_t* rings = m_ringOf.data() + quarterRow(y);
        for (int x = 0; x < m_halfWidth; ++x)
            m_twiceRowMedian[static_cast<std::size_t>(x)] = m_twiceRingMedian[rings[x]];
        mirror(m_twiceRowMedian);
        for (const int row : {y, m_height - 1 - y})
            subtractHalf(m_units[row], m_twiceRowMedian.data(), m_twiceRowMedian.size(), kUnitBits + 1,
                         out[row]);
    }
    short* pixels = out[0];
    if (m_hasDead)
        for (std::size_t i = 0; i < m_dead.size(); ++i)
            if (m_dead[i]) pixels[i] = 0;
}

}  // namespace VRK::detail
