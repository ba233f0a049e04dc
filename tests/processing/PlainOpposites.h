/// \file
/// The equations of opposite pixels, pair after pair: slow, with no shared helpers. The library's fast way
/// must give the same numbers.
#pragma once

#include "processing/detail/OppositePixels.h"
#include "support/Testing.h"

namespace plain {

/// Four sums, each of every fourth value.
struct FourSums {
    std::array<double, 4> sums{};
    void add(std::size_t i, double value) { sums[i % 4] += value; }
    double total() const { return (sums[0] + sums[1]) + (sums[2] + sums[3]); }
};

struct OppositePair {
    float difference, gradientX, gradientY, precision, slopeX, slopeY;
};

class Opposites {
public:
    Opposites(const cv::Mat_<float>& image, const cv::Mat_<uchar>& dead,
              const VRK::detail::OppositePixels::Disc& disc)
        : m_image(image), m_disc(disc) {
        const auto takesPart = [&](int u, int v) {
            const cv::Point place = disc.whole + cv::Point(u, v);
            return cv::Rect({0, 0}, image.size()).contains(place) && (dead.empty() || !dead(place));
        };
        for (int v = 0; v <= disc.radius; ++v)
            for (int u = -disc.radius; u <= disc.radius; ++u)
                if (u * u + v * v <= disc.radius * disc.radius && (v > 0 || u > 0) && takesPart(u, v) &&
                    takesPart(-u, -v))
                    pairs.push_back(pairAt(u, v));
    }

    VRK::detail::SymmetryEquations equations() const {
        std::vector<float> sizes;
        for (const OppositePair& p : pairs)
            sizes.push_back(p.difference * p.difference * p.precision);
        std::sort(sizes.begin(), sizes.end());
        VRK::detail::SymmetryEquations e;
        e.scale = std::max(1.4826 * std::sqrt(double{sizes[sizes.size() / 2]}), 1e-3);
        const double limit = 4.685 * e.scale;
        std::array<FourSums, 15> sums;
        double inliers = 0;
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            const double d = pairs[i].difference, p = pairs[i].precision;
            const double rest = 1 - d * d * p * (1 / (limit * limit));
            if (!(rest > 0)) continue;
            ++inliers;
            const double w = rest * rest * p;
            const double gx = pairs[i].gradientX, gy = pairs[i].gradientY;
            const double hx = pairs[i].slopeX, hy = pairs[i].slopeY;
            const std::array<double, 15> terms = {rest * rest, w * gx * gx, w * gx * gy, w * gy * gy,
                                                  w * gx * d,  w * gy * d,  w * gx * hx, w * gx * hy,
                                                  w * gy * hx, w * gy * hy, w * hx * hx, w * hx * hy,
                                                  w * hy * hy, w * d * hx,  w * d * hy};
            for (std::size_t t = 0; t < terms.size(); ++t)
                sums[t].add(i, terms[t]);
        }
        const auto sum = [&](std::size_t t) { return sums[t].total(); };
        e.weights = sum(0);
        e.xx = sum(1), e.xy = sum(2), e.yy = sum(3), e.bx = sum(4), e.by = sum(5);
        e.inliers = inliers / static_cast<double>(pairs.size());
        if (!m_disc.sloping) return e;
        e.crossed = {sum(6), sum(7), sum(8), sum(9)};
        e.slopes = {sum(10), sum(11), sum(11), sum(12)};
        e.sloped = {sum(13), sum(14)};
        return e;
    }

    std::vector<OppositePair> pairs;

private:
    /// Between four pixels; the border goes on beyond the border.
    float at(int u, int v) const {
        const auto pixel = [&](int i, int j) {
            return m_image(std::clamp(m_disc.whole.y + v + j, 0, m_image.rows - 1),
                           std::clamp(m_disc.whole.x + u + i, 0, m_image.cols - 1));
        };
        const auto x = static_cast<float>(m_disc.rest.x), y = static_cast<float>(m_disc.rest.y);
        const float above = (1 - x) * pixel(0, 0) + x * pixel(1, 0);
        const float below = (1 - x) * pixel(0, 1) + x * pixel(1, 1);
        return (1 - y) * above + y * below;
    }
    float slope(int u, int v, int alongX, int alongY) const {
        return 0.5F * (at(u + alongX, v + alongY) - at(u - alongX, v - alongY));
    }
    OppositePair pairAt(int u, int v) const {
        const float a = at(u, v), b = at(-u, -v);
        OppositePair p{
            a - b, slope(u, v, 1, 0) - slope(-u, -v, 1, 0), slope(u, v, 0, 1) - slope(-u, -v, 0, 1), 1, 0, 0};
        // Roots of counts and an offset of 16.
        const float root = std::max(0.5F * (a + b), 0.0F) + 4;
        if (m_disc.roots) p.precision = 1 / std::max(1 - 16 / (root * root), 0.02F);
        p.slopeX = (root - 16 / root) * static_cast<float>(u);
        p.slopeY = (root - 16 / root) * static_cast<float>(v);
        return p;
    }

    const cv::Mat_<float>& m_image;
    VRK::detail::OppositePixels::Disc m_disc;
};

}  // namespace plain
