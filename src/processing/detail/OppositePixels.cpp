#include "processing/detail/OppositePixels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>

namespace VRK::detail {
namespace {

constexpr std::size_t kLanes = OppositePixels::kLanes;
using Lanes [[gnu::vector_size(kLanes * sizeof(double))]] = double;
using LaneMask [[gnu::vector_size(kLanes * sizeof(double))]] = std::int64_t;
using Floats [[gnu::vector_size(kLanes * sizeof(float))]] = float;

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void mix(const float* a, const float* b, float shareOfA, float shareOfB, std::size_t n,
         float* __restrict out) {
    for (std::size_t i = 0; i < n; ++i)
        out[i] = shareOfA * a[i] + shareOfB * b[i];
}

/// Five rows around a pixel and its opposite: those themselves, above and below them. Of the first, \p u
/// counts forward, of the opposite ones backward.
struct Neighbourhood {
    const float *row, *above, *below;
    const float *opposite, *aboveOpposite, *belowOpposite;
};

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void subtractOpposites(const Neighbourhood& near, std::ptrdiff_t from, std::ptrdiff_t to,
                       float* __restrict difference, float* __restrict gradientX,
                       float* __restrict gradientY, float* __restrict mean) {
    for (std::ptrdiff_t u = from; u <= to; ++u) {
        const std::ptrdiff_t i = u - from;
        difference[i] = near.row[u] - near.opposite[-u];
        mean[i] = 0.5F * (near.row[u] + near.opposite[-u]);
        gradientX[i] = 0.5F * (near.row[u + 1] - near.row[u - 1]) -
                       0.5F * (near.opposite[1 - u] - near.opposite[-1 - u]);
        gradientY[i] =
            0.5F * (near.below[u] - near.above[u]) - 0.5F * (near.belowOpposite[-u] - near.aboveOpposite[-u]);
    }
}

/// From roots to the precision of counting noise in them, relative to that at high counts: the offset makes
/// roots of few counts differ less.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void findPrecisions(const float* roots, std::size_t n, float* __restrict precision) {
    constexpr float kLowest = 0.02F;
    for (std::size_t i = 0; i < n; ++i) {
        const float shifted = std::max(roots[i], 0.0F) + 4.0F;
        precision[i] = 1.0F / std::max(1.0F - kRootOffset / (shifted * shifted), kLowest);
    }
}

/// From roots to what a relative change of the counts by one does to a pair of them, a pixel from the centre.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void findSlopes(const float* roots, std::size_t n, float from, float v, float* __restrict slopeX,
 float* __restrict slopeY) {
    for (std::size_t i = 0; i < n; ++i) {
        const float shifted = std::max(roots[i], 0.0F) + 4.0F;
        const float change = shifted - kRootOffset / shifted;
        slopeX[i] = change * (from + static_cast<float>(static_cast<int>(i)));
        slopeY[i] = change * v;
    }
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void findSizes(const float* difference, const float* precision, std::size_t n, float* __restrict sizes) {
    for (std::size_t i = 0; i < n; ++i)
        sizes[i] = difference[i] * difference[i] * precision[i];
}

/// Some floats as doubles. Vectors are never passed by value, which would depend on the machine.
struct Loaded {
    [[gnu::always_inline]] explicit Loaded(const std::vector<float>& values, std::size_t place) {
        Floats floats;
        std::memcpy(&floats, values.data() + place, sizeof floats);
        lanes = __builtin_convertvector(floats, Lanes);
    }
    Lanes lanes;
};

[[gnu::always_inline]] inline double total(const Lanes& lanes) {
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

/// Tukey's weights of some pairs, and the precision times them.
struct Weights {
    [[gnu::always_inline]] Weights(const OppositePixels::Pairs& pairs, std::size_t place,
                                   double inverseLimit2) {
        const Loaded d(pairs.difference, place), p(pairs.precision, place);
        const Lanes rest = 1.0 - d.lanes * d.lanes * p.lanes * inverseLimit2;
        inlier = rest > 0.0;
        robust = reinterpret_cast<Lanes>(reinterpret_cast<LaneMask>(rest * rest) & inlier);
        whole = robust * p.lanes;
    }
    Lanes robust, whole;
    LaneMask inlier;
};

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void addCentre(const OppositePixels::Pairs& pairs, std::size_t n, double inverseLimit2,
               SymmetryEquations& e) {
    Lanes xx{}, xy{}, yy{}, bx{}, by{}, weights{};
    LaneMask inliers{};
    for (std::size_t i = 0; i < n; i += kLanes) {
        const Weights w(pairs, i, inverseLimit2);
        const Loaded d(pairs.difference, i), gx(pairs.gradientX, i), gy(pairs.gradientY, i);
        inliers -= w.inlier;
        weights += w.robust;
        xx += w.whole * gx.lanes * gx.lanes;
        xy += w.whole * gx.lanes * gy.lanes;
        yy += w.whole * gy.lanes * gy.lanes;
        bx += w.whole * gx.lanes * d.lanes;
        by += w.whole * gy.lanes * d.lanes;
    }
    e.inliers = static_cast<double>(inliers[0] + inliers[1] + inliers[2] + inliers[3]);
    e.weights = total(weights);
    e.xx = total(xx);
    e.xy = total(xy);
    e.yy = total(yy);
    e.bx = total(bx);
    e.by = total(by);
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void addSlope(const OppositePixels::Pairs& pairs, std::size_t n, double inverseLimit2, SymmetryEquations& e) {
    Lanes xhx{}, xhy{}, yhx{}, yhy{}, hxx{}, hxy{}, hyy{}, bhx{}, bhy{};
    for (std::size_t i = 0; i < n; i += kLanes) {
        const Lanes w = Weights(pairs, i, inverseLimit2).whole;
        const Loaded d(pairs.difference, i), gx(pairs.gradientX, i), gy(pairs.gradientY, i);
        const Loaded hx(pairs.slopeX, i), hy(pairs.slopeY, i);
        xhx += w * gx.lanes * hx.lanes;
        xhy += w * gx.lanes * hy.lanes;
        yhx += w * gy.lanes * hx.lanes;
        yhy += w * gy.lanes * hy.lanes;
        hxx += w * hx.lanes * hx.lanes;
        hxy += w * hx.lanes * hy.lanes;
        hyy += w * hy.lanes * hy.lanes;
        bhx += w * d.lanes * hx.lanes;
        bhy += w * d.lanes * hy.lanes;
    }
    e.crossed = {total(xhx), total(xhy), total(yhx), total(yhy)};
    e.slopes = {total(hxx), total(hxy), total(hxy), total(hyy)};
    e.sloped = {total(bhx), total(bhy)};
}

}  // namespace

double SymmetryEquations::error(double smoothing) const {
    // The neighbouring pixels of a smoothed image share their noise, and the gradients of the noise tell
    // nothing.
    const double shared = std::max(1.0, 4 * std::numbers::pi * smoothing * smoothing);
    const double noise =
        0.5 * weights * scale * scale * (1 - std::exp(-1 / std::max(smoothing * smoothing, 0.25)));
    const double signalX = xx - noise;
    const double signalY = yy - noise;
    const double signal = signalX * signalY - xy * xy;
    if (!(signalX > 0) || !(signal > 0)) return std::numeric_limits<double>::infinity();
    return scale * std::sqrt(shared * (signalX + signalY) / signal / 2);
}

void SymmetryEquations::removeSlope(double deviation, double smoothing) {
    const double shared = std::max(1.0, 4 * std::numbers::pi * smoothing * smoothing);
    const double known = shared * scale * scale / (deviation * deviation);
    const cv::Matx22d part = crossed * (slopes + known * cv::Matx22d::eye()).inv();
    const cv::Matx22d taken = part * crossed.t();
    const cv::Vec2d side = part * sloped;
    xx -= taken(0, 0);
    xy -= taken(0, 1);
    yy -= taken(1, 1);
    bx -= side[0];
    by -= side[1];
}

cv::Point2d SymmetryEquations::step() const {
    const double d = determinant();
    return {-(yy * bx - xy * by) / d, -(xx * by - xy * bx) / d};
}

void OppositePixels::Pairs::resize(std::size_t size) {
    for (std::vector<float>* values : {&difference, &gradientX, &gradientY, &precision, &slopeX, &slopeY})
        values->resize(size);
}

void OppositePixels::displace(const cv::Mat_<float>& image, const Disc& disc) {
    const int width = 2 * m_reachX + 3;
    const int height = 2 * m_reachY + 3;
    const int left = disc.whole.x - m_reachX - 1;
    const int top = disc.whole.y - m_reachY - 1;
    const auto shareX = static_cast<float>(disc.rest.x), shareY = static_cast<float>(disc.rest.y);
    const auto n = static_cast<std::size_t>(width);
    m_displaced.create(height, width);
    m_line.resize(n + 1);
    m_before.resize(n);
    m_across.resize(n);
    // The border goes on beyond the border.
    const int first = std::max(left, 0), end = std::min(left + width + 1, image.cols);
    for (int y = 0; y <= height; ++y) {
        const float* row = image[std::clamp(top + y, 0, image.rows - 1)];
        std::fill(m_line.begin(), m_line.begin() + (first - left), row[0]);
        std::copy(row + first, row + end, m_line.begin() + (first - left));
        std::fill(m_line.begin() + (end - left), m_line.end(), row[image.cols - 1]);
        std::swap(m_before, m_across);
        mix(m_line.data(), m_line.data() + 1, 1.0F - shareX, shareX, n, m_across.data());
        if (y > 0) mix(m_before.data(), m_across.data(), 1.0F - shareY, shareY, n, m_displaced[y - 1]);
    }
}

void OppositePixels::addRow(int v, int from, int to, const Disc& disc) {
    const auto at = [&](int row) { return m_displaced[m_reachY + 1 + row] + m_reachX + 1; };
    const auto n = static_cast<std::size_t>(to - from + 1);
    m_means.resize(std::max(m_means.size(), n));
    subtractOpposites({at(v), at(v - 1), at(v + 1), at(-v), at(-v - 1), at(1 - v)}, from, to,
                      &m_pairs.difference[m_count], &m_pairs.gradientX[m_count], &m_pairs.gradientY[m_count],
                      m_means.data());
    if (disc.roots)
        findPrecisions(m_means.data(), n, &m_pairs.precision[m_count]);
    else
        std::fill_n(&m_pairs.precision[m_count], n, 1.0F);
    if (disc.sloping)
        findSlopes(m_means.data(), n, static_cast<float>(from), static_cast<float>(v),
                   &m_pairs.slopeX[m_count], &m_pairs.slopeY[m_count]);
    m_count += n;
}

/// Takes out of the row that was added last what is not to take part.
void OppositePixels::removeDead(const cv::Mat_<uchar>& dead, const Disc& disc, int v, int from, int to) {
    const uchar* row = dead[disc.whole.y + v] + disc.whole.x;
    const uchar* opposite = dead[disc.whole.y - v] + disc.whole.x;
    std::size_t next = m_count - static_cast<std::size_t>(to - from + 1);
    std::size_t kept = next;
    for (int u = from; u <= to; ++u, ++next) {
        if (row[u] || opposite[-u]) continue;
        for (std::vector<float>* values : {&m_pairs.difference, &m_pairs.gradientX, &m_pairs.gradientY,
                                           &m_pairs.precision, &m_pairs.slopeX, &m_pairs.slopeY})
            (*values)[kept] = (*values)[next];
        ++kept;
    }
    m_count = kept;
}

/// Fills the last lanes with pairs that have no weight.
void OppositePixels::pad() {
    for (std::size_t i = m_count; i < m_count + kLanes; ++i) {
        m_pairs.difference[i] = 1e30F;
        m_pairs.precision[i] = 1.0F;
        m_pairs.gradientX[i] = m_pairs.gradientY[i] = m_pairs.slopeX[i] = m_pairs.slopeY[i] = 0.0F;
    }
}

void OppositePixels::collect(const cv::Mat_<float>& image, const cv::Mat_<uchar>& dead, const Disc& disc) {
    m_reachX = std::min({disc.radius, disc.whole.x, image.cols - 1 - disc.whole.x});
    m_reachY = std::min({disc.radius, disc.whole.y, image.rows - 1 - disc.whole.y});
    m_sloping = disc.sloping;
    displace(image, disc);
    m_pairs.resize(static_cast<std::size_t>(2 * m_reachX + 1) * static_cast<std::size_t>(m_reachY + 1) +
                   kLanes);
    m_count = 0;
    for (int v = 0; v <= m_reachY; ++v) {
        const int to = std::min(
            static_cast<int>(std::sqrt(static_cast<double>(disc.radius * disc.radius - v * v))), m_reachX);
        const int from = v == 0 ? 1 : -to;
        if (from > to) continue;
        addRow(v, from, to, disc);
        if (!dead.empty()) removeDead(dead, disc, v, from, to);
    }
    pad();
}

SymmetryEquations OppositePixels::equations() {
    SymmetryEquations e;
    m_sizes.resize(m_count);
    findSizes(m_pairs.difference.data(), m_pairs.precision.data(), m_count, m_sizes.data());
    m_ranked.assign(m_sizes);
    e.scale = std::max(1.4826 * std::sqrt(double{m_ranked.upperMedian()}), 1e-3);
    const double limit = 4.685 * e.scale;
    const std::size_t n = (m_count + kLanes - 1) / kLanes * kLanes;
    addCentre(m_pairs, n, 1 / (limit * limit), e);
    if (m_sloping) addSlope(m_pairs, n, 1 / (limit * limit), e);
    e.inliers /= static_cast<double>(m_count);
    return e;
}

}  // namespace VRK::detail
