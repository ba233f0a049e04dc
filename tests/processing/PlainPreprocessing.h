/// \file
/// Steps of the preprocessing written down as plainly as their definitions: slow, one pixel after the other,
/// with no shared helpers. The library's fast ways must give the same pixels.
#pragma once

#include "support/Testing.h"

namespace plain {

/// x fastest.
template <typename T>
struct Image {
    int width;
    int height;
    std::vector<T> pixels;

    Image(int w, int h, T value = T())
        : width(w), height(h), pixels(static_cast<std::size_t>(w * h), value) {}
    T& at(int x, int y) { return pixels[static_cast<std::size_t>(y * width + x)]; }
    T at(int x, int y) const { return pixels[static_cast<std::size_t>(y * width + x)]; }
    /// The edge goes on beyond the edge.
    T beyond(int x, int y) const { return at(std::clamp(x, 0, width - 1), std::clamp(y, 0, height - 1)); }
};
using Pattern = Image<short>;

inline short limited(double value) {
    return static_cast<short>(std::clamp(std::nearbyint(value), -32768.0, 32767.0));
}

template <typename T>
std::vector<T> sorted(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values;
}

/// The 3 x 3 pixels about one, sorted.
template <typename T>
std::vector<T> nine(const Image<T>& image, int x, int y) {
    std::vector<T> values;
    for (int i = 0; i < 9; ++i)
        values.push_back(image.beyond(x + i % 3 - 1, y + i / 3 - 1));
    return sorted(values);
}

// ---- hot spots --------------------------------------------------------------------------------------

struct Neighbours {
    std::vector<int> all;
    double median = 0, directExcess = 0;

    Neighbours(const Pattern& p, int x, int y) {
        std::vector<int> direct;
        for (int v = y - 1; v <= y + 1; ++v)
            for (int u = x - 1; u <= x + 1; ++u) {
                if (u < 0 || v < 0 || u >= p.width || v >= p.height || (u == x && v == y)) continue;
                all.push_back(p.at(u, v));
                if (u == x || v == y) direct.push_back(p.at(u, v));
            }
        if (all.empty()) return;
        all = sorted(all);
        median = (all[(all.size() - 1) / 2] + all[all.size() / 2]) / 2.0;
        for (const int value : direct)
            directExcess += value - median;
    }
};

inline int octaveOf(int median) {
    int octave = 0;
    for (int rest = std::max(median, 0); rest > 0; rest /= 2)
        ++octave;
    return octave;
}

/// By how much a pixel has to leave the median around it, by the octave of that median.
inline std::array<int, 16> limitsOf(const Pattern& p) {
    std::array<std::vector<int>, 16> deviations;
    for (int y = 0; y < p.height; ++y)
        for (int x = y % 7; x < p.width; x += 7) {
            const int median = nine(p, x, y)[4];
            deviations[static_cast<std::size_t>(octaveOf(median))].push_back(std::abs(p.at(x, y) - median));
        }
    std::array<int, 16> limits{};
    for (std::size_t i = 0; i < limits.size(); ++i) {
        double sigma = i == 0 ? 1.0 : std::sqrt(std::pow(2.0, static_cast<double>(i) - 1));
        if (!deviations[i].empty())
            sigma = std::max(sigma, 1.4826 * 1.15 * sorted(deviations[i])[deviations[i].size() / 2]);
        limits[i] = static_cast<int>(std::ceil(7 * sigma));
    }
    return limits;
}

inline bool isHotOrDead(int value, const Neighbours& around, int limit) {
    const double excess = value - around.median;
    const double sigma = limit / 7.0;
    if (excess > limit)
        return around.directExcess <= std::max(4 * sigma, 0.12 * excess) &&
               around.all.back() - around.median <= std::max(5 * sigma, 0.1 * excess);
    return excess < -limit && around.all.front() - around.median > 0.5 * excess;
}

inline bool isConstant(const std::vector<Pattern>& series, int x, int y) {
    return std::all_of(series.begin(), series.end(),
                       [&](const Pattern& p) { return p.at(x, y) == series[0].at(x, y); });
}

/// Never changes through five or more patterns, alone of its neighbourhood, and should.
inline bool isStuck(const std::vector<Pattern>& series, int x, int y) {
    if (series.size() < 5 || !isConstant(series, x, y)) return false;
    std::vector<double> sums;
    int constant = 0;
    for (int v = std::max(y - 1, 0); v <= std::min(y + 1, series[0].height - 1); ++v)
        for (int u = std::max(x - 1, 0); u <= std::min(x + 1, series[0].width - 1); ++u) {
            constant += isConstant(series, u, v) ? 1 : 0;
            sums.push_back(0);
            for (const Pattern& p : series)
                sums.back() += p.at(u, v);
        }
    const double expected = sorted(sums)[sums.size() / 2];
    const double own = static_cast<double>(series.size()) * series[0].at(x, y);
    return constant == 1 && std::abs(own - expected) > 10 * std::sqrt(std::max(expected, 1.0));
}

inline std::vector<Pattern> withoutHotSpots(const std::vector<Pattern>& series) {
    std::vector<Pattern> result = series;
    for (std::size_t i = 0; i < series.size(); ++i) {
        const Pattern& p = series[i];
        const std::array<int, 16> limits = limitsOf(p);
        forEachPixel(p.width, p.height, [&](int x, int y) {
            const int median = nine(p, x, y)[4];
            const int limit = limits[static_cast<std::size_t>(octaveOf(median))];
            const Neighbours around(p, x, y);
            const bool leaves = std::abs(p.at(x, y) - median) > limit && !around.all.empty();
            if ((leaves && isHotOrDead(p.at(x, y), around, limit)) || isStuck(series, x, y))
                result[i].at(x, y) = static_cast<short>(std::round(around.median));
        });
    }
    return result;
}

// ---- background -------------------------------------------------------------------------------------

struct RingLevel {
    double mean = 0, sigma = 1;
};

/// Clipped about the median three times; values above the highest one of the ring do not exist.
inline RingLevel ringLevel(const std::vector<int>& ascending, int highest) {
    int limit = highest, median = 0;
    RingLevel level;
    const auto quantile = [&](double part) {
        const auto count = std::upper_bound(ascending.begin(), ascending.end(), limit) - ascending.begin();
        return ascending[static_cast<std::size_t>(part * static_cast<double>(count))];
    };
    for (int round = 0; round < 3; ++round) {
        median = quantile(0.5);
        level.sigma = std::max((median - quantile(0.25)) / 0.6745,
                               0.7 * std::sqrt(static_cast<double>(std::max(median, 1))));
        const int clipped = static_cast<int>(std::lround(median + 2.5 * level.sigma));
        if (clipped >= limit) break;
        limit = clipped;
    }
    const long from = std::lround(median - 3.5 * level.sigma);
    double sum = 0, count = 0;
    for (const int value : ascending)
        if (value >= from && value <= limit) sum += value, ++count;
    level.mean = count > 0 ? sum / count : 0;
    return level;
}

/// Medians of cells of about 32 pixels, smoothed, linear between the cells' middles.
inline void subtractCells(Image<float>& rest, const Image<char>& dead) {
    const int columns = (rest.width + 16) / 32, rows = (rest.height + 16) / 32;
    if (columns < 3 || rows < 3) return;
    Image<float> cells(columns, rows), smooth(columns, rows);
    forEachPixel(columns, rows, [&](int column, int row) {
        std::vector<float> sample;
        for (int y = row * rest.height / rows; y < (row + 1) * rest.height / rows; y += 3)
            for (int x = column * rest.width / columns; x < (column + 1) * rest.width / columns; x += 3)
                if (!dead.at(x, y)) sample.push_back(rest.at(x, y));
        sample = sorted(sample);
        const std::size_t n = sample.size();
        if (n > 0) cells.at(column, row) = 0.5F * (sample[n / 2] + sample[(n - 1) / 2]);
    });
    forEachPixel(columns, rows,
                 [&](int column, int row) { smooth.at(column, row) = nine(cells, column, row)[4]; });
    forEachPixel(rest.width, rest.height, [&](int x, int y) {
        const double u = std::clamp((x + 0.5) * columns / rest.width - 0.5, 0.0, columns - 1.0);
        const double v = std::clamp((y + 0.5) * rows / rest.height - 0.5, 0.0, rows - 1.0);
        const auto du = static_cast<float>(u - std::floor(u)), dv = static_cast<float>(v - std::floor(v));
        const auto level = [&](int column) {
            const float above = smooth.beyond(column, static_cast<int>(v));
            return above + dv * (smooth.beyond(column, static_cast<int>(v) + 1) - above);
        };
        const float left = level(static_cast<int>(u));
        rest.at(x, y) -= left + du * (level(static_cast<int>(u) + 1) - left);
    });
}

/// \param lost  1 where nothing was recorded; empty when all was
inline Pattern withoutBackground(const Pattern& p, const std::vector<unsigned char>& lost = {}) {
    const auto isLost = [&](int x, int y) {
        return !lost.empty() && lost[static_cast<std::size_t>(y * p.width + x)] != 0;
    };
    const auto distance = [&](int x, int y) {
        return std::hypot(x - (p.width - 1) / 2.0, y - (p.height - 1) / 2.0);
    };
    const auto ringAt = [&](int x, int y) { return static_cast<std::size_t>(distance(x, y) + 0.5); };
    const std::size_t rings = static_cast<std::size_t>(std::lround(distance(0, 0))) + 1;
    std::vector<std::vector<int>> values(rings);
    forEachPixel(p.width, p.height, [&](int x, int y) {
        if (!isLost(x, y)) values[ringAt(x, y)].push_back(p.at(x, y));
    });

    std::vector<float> profile(rings + 1);
    std::vector<bool> zeroIsDead(rings);
    for (std::size_t ring = 0; ring < rings; ++ring) {
        profile[ring] = ring > 0 ? profile[ring - 1] : 0;
        const std::vector<int> all = sorted(values[ring]);
        if (all.empty()) continue;
        std::vector<int> live = all;
        std::erase(live, 0);
        const RingLevel level = ringLevel(live.empty() ? all : live, all.back());
        zeroIsDead[ring] = !live.empty() && level.mean > 10 && level.mean > 4 * level.sigma;
        profile[ring] = static_cast<float>(zeroIsDead[ring] ? level.mean : ringLevel(all, all.back()).mean);
    }
    profile[rings] = profile[rings - 1];

    Image<float> rest(p.width, p.height);
    Image<char> dead(p.width, p.height);
    forEachPixel(p.width, p.height, [&](int x, int y) {
        const auto inner = static_cast<std::size_t>(distance(x, y));
        const auto f = static_cast<float>(distance(x, y) - static_cast<double>(inner));
        rest.at(x, y) = p.at(x, y) - (profile[inner] + f * (profile[inner + 1] - profile[inner]));
        dead.at(x, y) = isLost(x, y) || (zeroIsDead[ringAt(x, y)] && p.at(x, y) == 0);
    });
    subtractCells(rest, dead);

    // What is left, in sixteenths of a count, without the ring's median.
    std::vector<std::vector<double>> left(rings);
    forEachPixel(p.width, p.height, [&](int x, int y) {
        if (!dead.at(x, y)) left[ringAt(x, y)].push_back(std::nearbyint(16 * rest.at(x, y)));
    });
    for (std::vector<double>& ring : left)
        ring = sorted(ring);
    Pattern result(p.width, p.height);
    forEachPixel(p.width, p.height, [&](int x, int y) {
        if (dead.at(x, y)) return;
        const std::vector<double>& ring = left[ringAt(x, y)];
        const double median = (ring[(ring.size() - 1) / 2] + ring[ring.size() / 2]) / 2;
        result.at(x, y) = limited(std::round((std::nearbyint(16 * rest.at(x, y)) - median) / 16));
    });
    return result;
}

// ---- moving -----------------------------------------------------------------------------------------

/// Cubic convolution with a = -3/5 at a place between the second and the third of four pixels.
inline std::array<float, 4> weightsAt(double f) {
    const double a = -0.6;
    const double first = ((a * (1 + f) - 5 * a) * (1 + f) + 8 * a) * (1 + f) - 4 * a;
    const double second = ((a + 2) * f - (a + 3)) * f * f + 1;
    const double third = ((a + 2) * (1 - f) - (a + 3)) * (1 - f) * (1 - f) + 1;
    return {static_cast<float>(first), static_cast<float>(second), static_cast<float>(third),
            static_cast<float>(1 - first - second - third)};
}

inline Pattern moved(const Pattern& p, double dx, double dy) {
    const int wholeX = static_cast<int>(std::floor(-dx)), wholeY = static_cast<int>(std::floor(-dy));
    const double fx = -dx - wholeX, fy = -dy - wholeY;
    const std::array<float, 4> wx = weightsAt(fx), wy = weightsAt(fy);
    Pattern result(p.width, p.height);
    forEachPixel(p.width, p.height, [&](int x, int y) {
        const int u = x + wholeX, v = y + wholeY;
        if (u < 0 || v < 0 || u + fx > p.width - 1 || v + fy > p.height - 1) return;
        const auto across = [&](int row) {
            return wx[0] * p.beyond(u - 1, row) + wx[1] * p.beyond(u, row) + wx[2] * p.beyond(u + 1, row) +
                   wx[3] * p.beyond(u + 2, row);
        };
        const float value =
            wy[0] * across(v - 1) + wy[1] * across(v) + wy[2] * across(v + 1) + wy[3] * across(v + 2);
        const short lowest = nine(p, u + (fx >= 0.5 ? 1 : 0), v + (fy >= 0.5 ? 1 : 0))[0];
        result.at(x, y) = fx == 0 && fy == 0 ? p.at(u, v) : std::max(limited(value), lowest);
    });
    return result;
}

/// What lenses do: places move outwards by `radial` of themselves at a distance of one pixel, with its
/// square, then along the azimuth by the strength of the ellipse, and inwards across it.
struct Lenses {
    double strength = 0, azimuth = 0, radial = 0;  // azimuth in degrees from x towards y

    std::array<double, 2> recorded(double x, double y) const {
        const double a = azimuth * std::numbers::pi / 180;
        const double outwards = 1 + radial * (x * x + y * y);
        const double along = (x * std::cos(a) + y * std::sin(a)) * outwards * (1 + strength);
        const double across = (y * std::cos(a) - x * std::sin(a)) * outwards * (1 - strength);
        return {along * std::cos(a) - across * std::sin(a), along * std::sin(a) + across * std::cos(a)};
    }
};

inline Pattern turned(const Pattern& p, double degrees, const Lenses& lenses = {}) {
    const double t = std::remainder(degrees, 360.0) * std::numbers::pi / 180;
    const double cx = (p.width - 1) * 0.5, cy = (p.height - 1) * 0.5;
    Pattern result(p.width, p.height);
    forEachPixel(p.width, p.height, [&](int x, int y) {
        // Places are told to 1/32 pixel.
        const auto [fromX, fromY] = lenses.recorded(std::cos(t) * (x - cx) - std::sin(t) * (y - cy),
                                                    std::sin(t) * (x - cx) + std::cos(t) * (y - cy));
        const double u = std::nearbyint(32 * (cx + fromX));
        const double v = std::nearbyint(32 * (cy + fromY));
        if (u < 0 || v < 0 || u > 32 * (p.width - 1) || v > 32 * (p.height - 1)) return;
        const int column = static_cast<int>(u / 32), row = static_cast<int>(v / 32);
        const std::array<float, 4> wx = weightsAt(u / 32 - column), wy = weightsAt(v / 32 - row);
        std::array<float, 4> sums{};
        short lowest = 32767;
        for (int i = 0; i < 4; ++i) {
            const auto pixel = [&](int j) { return p.beyond(column + i - 1, row + j - 1); };
            const std::size_t n = static_cast<std::size_t>(i);
            sums[n] = wx[n] * (pixel(0) * wy[0] + pixel(1) * wy[1] + pixel(2) * wy[2] + pixel(3) * wy[3]);
            lowest = std::min({lowest, pixel(0), pixel(1), pixel(2), pixel(3)});
        }
        result.at(x, y) = std::max(limited((sums[0] + sums[2]) + (sums[1] + sums[3])), lowest);
    });
    return result;
}

}  // namespace plain
