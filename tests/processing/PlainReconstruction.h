/// \file
/// The reconstruction written down as plainly as its definition: slow, one voxel after the other, with no
/// shared helpers. The library's fast way must give the same voxels.
#pragma once

#include <rapidcheck.h>

#include "support/Testing.h"

namespace plain {

/// A series: patterns of width x height pixels, x fastest, and their tilts in degrees.
struct Series {
    int width = 0;
    int height = 0;
    std::vector<float> tilts;
    std::vector<std::vector<short>> patterns;
};

inline rc::Gen<std::vector<float>> ascendingTilts() {
    const auto tenths = rc::gen::container<std::vector<float>>(
        rc::gen::map(rc::gen::inRange(-1000, 1001), [](int i) { return static_cast<float>(i) * 0.1F; }));
    return rc::gen::map(rc::gen::nonEmpty(tenths), [](std::vector<float> tilts) {
        std::sort(tilts.begin(), tilts.end());
        return tilts;
    });
}

struct Sources {
    int lower = -1, upper = -1, inner = 0, outer = -1, innerColumn = -1, outerColumn = -1;
    bool inside = false;
};

inline unsigned depthOf(int width, const std::vector<float>& tilts) {
    const float first = std::fabs(tilts.front());
    const float last = std::fabs(tilts.back());
    const float maxTilt = last > first ? last : first;
    const float maxTiltRad = maxTilt / 180 * 3.1415927f;
    return static_cast<unsigned>(std::ceil(std::fabs(std::sin(maxTiltRad) * static_cast<float>(width))));
}

inline Sources sourcesOf(int width, unsigned depth, const std::vector<float>& tilts, int x, int layer) {
    Sources s;
    const int count = static_cast<int>(tilts.size());
    const float cx = static_cast<float>((width - 1) * 0.5);
    const float cz = static_cast<float>((static_cast<double>(depth) - 1) * 0.5);
    const float dx = static_cast<float>(x) - cx;
    const float dz = static_cast<float>(layer) - cz;
    const float angle = std::atan(dz / dx);
    const float degrees = static_cast<float>(angle * 180.0 / 3.14159265358979323846);

    if (tilts[0] > degrees) {
        s.lower = -1;
        s.upper = 0;
    } else if (tilts[static_cast<std::size_t>(count - 1)] < degrees) {
        s.lower = count;
        s.upper = -1;
    } else {
        int i = 0;
        while (i < count - 1 && !(tilts[static_cast<std::size_t>(i)] >= degrees))
            ++i;
        s.lower = i - 1;
        s.upper = i;
    }

    const int offset = static_cast<int>(dx);
    const float r = std::floor(static_cast<float>(std::abs(offset)) / std::cos(std::fabs(angle)));
    if (static_cast<float>(width / 2) >= r + 1) {
        s.inner = static_cast<int>(r);
        s.outer = s.inner + 1;
    } else {
        s.inner = width / 2;
        s.outer = -1;
    }
    if (s.lower == -1 || s.upper == -1 || s.outer == -1 || std::isnan(angle)) return s;

    const float sign = std::fabs(dx) / dx;
    const float in = std::trunc(sign * static_cast<float>(s.inner) + cx);
    const float out = std::trunc(sign * static_cast<float>(s.outer) + cx);
    // Columns that are not in the frame, or on the axis where the sign is not a number, hold nothing.
    if (!(in >= 0 && in < static_cast<float>(width) && out >= 0 && out < static_cast<float>(width))) return s;
    s.innerColumn = static_cast<int>(in);
    s.outerColumn = static_cast<int>(out);
    s.inside = true;
    return s;
}

/// Voxels [layer][x * height + y]; \p clear tells whether negative values become 0.
inline std::vector<std::vector<short>> reconstruct(const Series& series, bool clear = true) {
    const unsigned depth = depthOf(series.width, series.tilts);
    const auto w = static_cast<std::size_t>(series.width);
    const auto h = static_cast<std::size_t>(series.height);
    std::vector<std::vector<short>> volume(depth, std::vector<short>(w * h));
    for (unsigned layer = 0; layer < depth; ++layer)
        for (std::size_t x = 0; x < w; ++x) {
            const Sources s =
                sourcesOf(series.width, depth, series.tilts, static_cast<int>(x), static_cast<int>(layer));
            for (std::size_t y = 0; y < h; ++y) {
                int value = -10;
                if (s.inside) {
                    const std::vector<short>& upper = series.patterns[static_cast<std::size_t>(s.upper)];
                    const std::vector<short>& lower = series.patterns[static_cast<std::size_t>(s.lower)];
                    const std::size_t in = static_cast<std::size_t>(s.innerColumn) + y * w;
                    const std::size_t out = static_cast<std::size_t>(s.outerColumn) + y * w;
                    value = (upper[in] + lower[in] + upper[out] + lower[out]) / 4;
                }
                if (clear && value < 0) value = 0;
                volume[layer][x * h + y] = static_cast<short>(value);
            }
        }
    return volume;
}

}  // namespace plain
