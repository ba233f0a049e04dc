#include "processing/detail/ShadowFinder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>

namespace VRK::detail {
namespace {

using Bar = ShadowMask::Bar;
using Disc = ShadowMask::Disc;
using Line = ImageOperations::Line;
using Mask = ShadowFinder::Mask;
using Morphology = ImageOperations::Morphology;

constexpr double kSigma = 1.0;  // of the smoothing, pixels
constexpr int kReducedSize = 128;
constexpr double kFewCounts = 4;
/// Of the foot of strong reflections, pixels.
constexpr int kSpotRadius = 7;
/// A region is dark below this share of what surrounds it ...
const float kDark = std::log(1 / 0.75F);
/// ... when the difference is so many deviations of the noise.
constexpr double kSignificantDifference = 8.0;
/// Share of a shadow's depth that lies in its edge.
constexpr float kSharp = 0.6F;
/// Share of its outline along which the edge is like that.
constexpr double kSharpOutline = 0.75;
/// Share of a disc that has to be dark; the rest may be as bright as the pattern around.
constexpr double kDiscInShadow = 0.5;

cv::Mat_<float> matrixOf(std::vector<float>& pixels, int width) {
    return {static_cast<int>(pixels.size()) / width, width, pixels.data()};
}

template <typename T>
std::vector<T> morphed(const ImageView<T>& image, Morphology operation, int radius) {
    std::vector<T> result(static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height));
    ImageOperations::morphology(image, operation, radius, result.data());
    return result;
}

/// A straight edge: a point, a unit direction, and from where to where along it the edge goes.
struct Edge {
    cv::Point2d point, along;
    double from, to;

    double across(const cv::Point2d& p) const { return along.cross(p - point); }
};

/// The edge through the outline's pixels next to a line.
std::optional<Edge> fitEdge(const std::vector<cv::Point2f>& outline, const Line& line) {
    const cv::Point2d start(line.x0, line.y0);
    const double length = line.length();
    const cv::Point2d along = (cv::Point2d(line.x1, line.y1) - start) / length;
    std::vector<cv::Point2f> near;
    for (const cv::Point2f& pixel : outline) {
        const cv::Point2d d = cv::Point2d(pixel) - start;
        const double place = along.dot(d);
        if (std::abs(along.cross(d)) < 2.0 && place > -2.0 && place < length + 2.0) near.push_back(pixel);
    }
    if (near.size() < 5) return std::nullopt;
    cv::Vec4f fit;
    cv::fitLine(near, fit, cv::DIST_HUBER, 0, 0.01, 0.01);
    Edge edge{{fit[2], fit[3]}, {fit[0], fit[1]}, 0, 0};
    if (edge.along.dot(along) < 0) edge.along = -edge.along;
    for (const cv::Point2f& pixel : near) {
        const double place = edge.along.dot(cv::Point2d(pixel) - edge.point);
        edge.from = std::min(edge.from, place);
        edge.to = std::max(edge.to, place);
    }
    return edge;
}

/// The bar between two edges; nothing when they are not the two sides of one.
std::optional<Bar> barBetween(const Edge& a, const Edge& b, double widest) {
    const double turn = a.along.cross(b.along);
    if (std::abs(turn) > std::sin(3 * std::numbers::pi / 180)) return std::nullopt;
    const double sense = a.along.dot(b.along) < 0 ? -1 : 1;
    const double shift = a.along.dot(b.point - a.point);
    const double first = shift + sense * (sense > 0 ? b.from : b.to);
    const double last = shift + sense * (sense > 0 ? b.to : b.from);
    const double from = std::max(a.from, first);
    const double to = std::min(a.to, last);
    const cv::Point2d middle = a.point + 0.5 * (from + to) * a.along;
    const double width = b.across(middle) * -sense;
    constexpr double kNarrowest = 3.0;
    if (std::abs(width) < kNarrowest || std::abs(width) > widest || to - from < 1.5 * std::abs(width))
        return std::nullopt;
    cv::Point2d along = a.along + sense * b.along;
    along /= cv::norm(along);
    const cv::Point2d centre = middle + 0.5 * width * cv::Point2d(-along.y, along.x);
    const double before = 0.5 * (from + to) - std::min(a.from, first);
    const double after = std::max(a.to, last) - 0.5 * (from + to);
    // An outline runs through the middles of the region's outermost pixels.
    return Bar{centre.x - before * along.x, centre.y - before * along.y, centre.x + after * along.x,
               centre.y + after * along.y, std::abs(width) + 1};
}

double lengthOf(const Bar& bar) {
    return std::hypot(bar.x1 - bar.x0, bar.y1 - bar.y0);
}

/// Places of a bar's ends along another one, from its beginning.
std::array<double, 2> placesAlong(const Bar& bar, const Bar& other) {
    const double x = (bar.x1 - bar.x0) / lengthOf(bar);
    const double y = (bar.y1 - bar.y0) / lengthOf(bar);
    return {(other.x0 - bar.x0) * x + (other.y0 - bar.y0) * y,
            (other.x1 - bar.x0) * x + (other.y1 - bar.y0) * y};
}

/// Whether both ends of a bar lie on the line of another one.
bool continues(const Bar& bar, const Bar& other, double margin) {
    const double x = (bar.x1 - bar.x0) / lengthOf(bar);
    const double y = (bar.y1 - bar.y0) / lengthOf(bar);
    const auto across = [&](double px, double py) { return std::abs((px - bar.x0) * y - (py - bar.y0) * x); };
    const double most = 0.5 * bar.width + margin;
    return across(other.x0, other.y0) < most && across(other.x1, other.y1) < most;
}

/// Makes a bar reach as far as another one that continues it.
void lengthen(Bar& bar, const Bar& other) {
    const double length = lengthOf(bar);
    const double x = (bar.x1 - bar.x0) / length;
    const double y = (bar.y1 - bar.y0) / length;
    const auto [first, last] = placesAlong(bar, other);
    const double from = std::min({0.0, first, last});
    const double to = std::max({length, first, last});
    bar = {bar.x0 + from * x, bar.y0 + from * y, bar.x0 + to * x, bar.y0 + to * y, bar.width};
}

}  // namespace

ShadowFinder::ShadowFinder(const SeriesMean& mean)
    : m_mean(mean), m_unit(std::max(1, std::min(mean.width, mean.height) / 100)) {}

ShadowFinder::Mask ShadowFinder::find() {
    constexpr int kSmallestFrame = 32;
    constexpr int kMargin = 2;
    if (m_mean.counts <= 0 || std::min(m_mean.width, m_mean.height) < kSmallestFrame) return {};
    measureLevel();
    measureSurroundings();
    const std::vector<Shadow> shadows = darkRegions();
    if (shadows.empty()) return {};
    findEdges();
    Mask result;
    for (const Shadow& shadow : shadows) {
        if (!isSharp(shadow, result)) continue;
        result.resize(shadow.pixels.size());
        std::transform(result.begin(), result.end(), shadow.pixels.begin(), result.begin(),
                       [](unsigned char a, unsigned char b) { return std::max(a, b); });
        findBars(shadow);
        findDisc(shadow);
        paintShapes(result);
    }
    fillHoles(result);
    return result.empty() ? result : morphed(view(result), Morphology::Dilate, kMargin);
}

void ShadowFinder::measureLevel() {
    m_level = m_mean.values;
    cv::Mat level = matrixOf(m_level, m_mean.width);
    cv::GaussianBlur(level, level, cv::Size(), kSigma, kSigma, cv::BORDER_REPLICATE);
    m_counts = m_mean.counts * 4 * std::numbers::pi * kSigma * kSigma;
    m_withSpots = std::move(m_level);
    m_level = morphed(view(m_withSpots), Morphology::Open, std::max(kSpotRadius, m_unit));
}

void ShadowFinder::findEdges() {
    // The logarithm falls by at most 0.1 a pixel in the halo's flanks, and by 0.4 of its height in an edge.
    constexpr double kLow = 0.08;
    constexpr double kHigh = 0.15;
    const auto floor = static_cast<float>(300 / m_counts);  // keeps the noise of its gradient below 0.02
    std::vector<float> logs(m_withSpots.size());
    std::transform(m_withSpots.begin(), m_withSpots.end(), logs.begin(),
                   [floor](float level) { return std::log(level + floor); });
    m_edges.resize(logs.size());
    ImageOperations::edges(view(logs), 0, kLow, kHigh, m_edges.data());
    m_edges = morphed(view(m_edges), Morphology::Dilate, 1);
}

void ShadowFinder::measureSurroundings() {
    const int step = std::max(1, std::min(m_mean.width, m_mean.height) / kReducedSize);
    cv::Mat_<float> reduced;
    cv::resize(matrixOf(m_level, m_mean.width), reduced, {m_mean.width / step, m_mean.height / step}, 0, 0,
               cv::INTER_AREA);
    // Nothing lies beyond the frame: the halo's contours, cut by the border, stay convex.
    constexpr int kRadius = kReducedSize / 6;
    constexpr int kBorder = 2 * kRadius;
    cv::Mat_<float> padded;
    cv::copyMakeBorder(reduced, padded, kBorder, kBorder, kBorder, kBorder, cv::BORDER_CONSTANT,
                       cv::Scalar(0));
    ImageOperations::morphology(ImageView<float>{padded[0], padded.cols, padded.rows}, Morphology::Close,
                                kRadius, padded[0]);
    m_depths.resize(m_level.size());
    cv::Mat around = matrixOf(m_depths, m_mean.width);
    cv::resize(padded(cv::Rect({kBorder, kBorder}, reduced.size())), around, around.size(), 0, 0,
               cv::INTER_LINEAR);
    // Levels of a few counts are not told apart.
    const auto floor = static_cast<float>(kFewCounts / m_counts);
    m_logs.resize(m_level.size());
    for (std::size_t i = 0; i < m_level.size(); ++i) {
        m_logs[i] = std::log(m_level[i] + floor);
        m_depths[i] = std::log(m_depths[i] + floor) - m_logs[i];
    }
}

std::vector<ShadowFinder::Shadow> ShadowFinder::darkRegions() const {
    Mask dark(m_level.size());
    for (std::size_t i = 0; i < dark.size(); ++i) {
        if (!(m_depths[i] > kDark)) continue;
        const double rise = std::sqrt(std::exp(double{m_depths[i]})) - 1;
        const double difference = 2 * std::sqrt(m_counts * double{m_level[i]} + kFewCounts) * rise;
        dark[i] = difference > kSignificantDifference ? 255 : 0;
    }
    dark = morphed(view(dark), Morphology::Open, 1);
    std::vector<int> labels(dark.size());
    std::vector<Shadow> shadows;
    for (const ImageOperations::Region& region :
         ImageOperations::connectedComponents(view(dark), labels.data())) {
        constexpr int kSmallestArea = 6;  // squared units
        if (region.area < kSmallestArea * m_unit * m_unit) continue;
        Shadow shadow{Mask(dark.size()), {}, 0};
        for (std::size_t i = 0; i < dark.size(); ++i) {
            if (labels[i] != region.label) continue;
            shadow.pixels[i] = 255;
            shadow.depth = std::max(shadow.depth, m_depths[i]);
        }
        shadow.outline = morphed(view(shadow.pixels), Morphology::Erode, 1);
        for (std::size_t i = 0; i < dark.size(); ++i)
            shadow.outline[i] = shadow.pixels[i] && !shadow.outline[i] ? 255 : 0;
        shadows.push_back(std::move(shadow));
    }
    std::sort(shadows.begin(), shadows.end(),
              [](const Shadow& a, const Shadow& b) { return a.depth > b.depth; });
    return shadows;
}

bool ShadowFinder::isSharp(const Shadow& shadow, const Mask& known) const {
    // Where the region touches a shadow that is known, the edge is that one's.
    const Mask touched =
        known.empty() ? Mask(shadow.pixels.size()) : morphed(view(known), Morphology::Dilate, 4);
    const std::vector<float> high = morphed(view(m_logs), Morphology::Dilate, 3);
    const std::vector<float> low = morphed(view(m_logs), Morphology::Erode, 3);
    const std::vector<float> deepest = morphed(view(m_depths), Morphology::Dilate, 5);
    std::size_t length = 0, own = 0, sharp = 0;
    for (std::size_t i = 0; i < shadow.outline.size(); ++i) {
        if (!shadow.outline[i]) continue;
        ++length;
        if (touched[i]) continue;
        ++own;
        if (high[i] - low[i] > kSharp * deepest[i]) ++sharp;
    }
    return own > length / 2 && static_cast<double>(sharp) > kSharpOutline * static_cast<double>(own);
}

void ShadowFinder::findBars(const Shadow& shadow) {
    ImageOperations::LineSearch search;
    search.shortest = std::max(20, 4 * m_unit);
    search.votes = static_cast<int>(0.6 * search.shortest);
    std::vector<cv::Point2f> outline;
    const auto width = static_cast<std::size_t>(m_mean.width);
    for (std::size_t i = 0; i < shadow.outline.size(); ++i) {
        const std::size_t row = i / width;
        if (shadow.outline[i]) outline.emplace_back(static_cast<float>(i % width), static_cast<float>(row));
    }
    std::vector<Edge> edges;
    for (const Line& line : ImageOperations::lines(view(shadow.outline), search))
        if (const auto edge = fitEdge(outline, line)) edges.push_back(*edge);

    std::vector<Bar> candidates;
    for (std::size_t i = 0; i < edges.size(); ++i)
        for (std::size_t j = i + 1; j < edges.size(); ++j)
            if (const auto bar = barBetween(edges[i], edges[j], 25.0 * m_unit)) candidates.push_back(*bar);
    std::sort(candidates.begin(), candidates.end(),
              [](const Bar& a, const Bar& b) { return lengthOf(a) > lengthOf(b); });
    for (Bar bar : candidates) {
        const auto same = std::find_if(m_bars.begin(), m_bars.end(),
                                       [&](const Bar& known) { return continues(known, bar, 2.0 * m_unit); });
        if (same == m_bars.end()) {
            follow(bar);
            m_bars.push_back(bar);
        } else {
            lengthen(*same, bar);
        }
    }
}

bool ShadowFinder::hasSides(double x, double y, double alongX, double alongY, double width) const {
    constexpr double kSupported = 0.7;
    const int reach = std::max(3, static_cast<int>(0.3 * width));
    std::array<int, 2> edges{};
    for (int along = -reach; along <= reach; ++along)
        for (const int side : {0, 1}) {
            const double across = (side - 0.5) * width;
            const int px = cvRound(x + along * alongX - across * alongY);
            const int py = cvRound(y + along * alongY + across * alongX);
            const bool inside = px >= 0 && py >= 0 && px < m_mean.width && py < m_mean.height;
            if (inside && m_edges[indexOf(px, py)]) ++edges[static_cast<std::size_t>(side)];
        }
    return std::min(edges[0], edges[1]) >= kSupported * (2 * reach + 1);
}

void ShadowFinder::follow(Bar& bar) const {
    const double length = lengthOf(bar);
    const double alongX = (bar.x1 - bar.x0) / length;
    const double alongY = (bar.y1 - bar.y0) / length;
    // Where the shadow is as bright as the pattern around, it has no sides.
    const double longestGap = 20.0 * m_unit;
    const double step = std::max(4.0, 0.5 * bar.width);
    const auto extend = [&](double& x, double& y, double sense) {
        double px = x, py = y;
        for (double gap = 0; gap <= longestGap; gap += step) {
            px += sense * step * alongX;
            py += sense * step * alongY;
            const bool beyond = px < 0 || py < 0 || px > m_mean.width - 1 || py > m_mean.height - 1;
            if (beyond || hasSides(px, py, alongX, alongY, bar.width)) {
                x = px;
                y = py;
                gap = 0;
            }
            if (beyond) return;
        }
    };
    extend(bar.x0, bar.y0, -1);
    extend(bar.x1, bar.y1, 1);
}

void ShadowFinder::findDisc(const Shadow& shadow) {
    const auto regions = ImageOperations::connectedComponents(view(shadow.pixels), nullptr);
    if (regions.empty()) return;
    const ImageOperations::Region& region = regions.front();
    const int margin = std::max(region.width, region.height) / 2 + 8;
    const cv::Rect box = cv::Rect(region.left - margin, region.top - margin, region.width + 2 * margin,
                                  region.height + 2 * margin) &
                         cv::Rect(0, 0, m_mean.width, m_mean.height);
    // What the shadow leaves of the level: an edge lies where half of it is gone.
    cv::Mat_<uchar> left(box.size());
    for (int y = 0; y < box.height; ++y)
        for (int x = 0; x < box.width; ++x)
            left(y, x) = cv::saturate_cast<uchar>(255 * std::exp(-m_depths[indexOf(x + box.x, y + box.y)]));
    ImageOperations::CircleSearch search;
    search.smallest = std::max(3.0, 0.3 * std::min(region.width, region.height));
    search.largest = std::max(region.width, region.height);
    search.apart = search.smallest;
    for (const ImageOperations::Circle& circle :
         ImageOperations::circles(ImageView<unsigned char>{left.data, left.cols, left.rows}, search)) {
        const Disc disc{circle.x + box.x, circle.y + box.y, circle.radius};
        if (shareOf(disc, shadow.pixels) > kDiscInShadow) {
            m_discs.push_back(disc);
            return;
        }
    }
}

double ShadowFinder::shareOf(const Disc& disc, const Mask& mask) const {
    int pixels = 0;
    int set = 0;
    const int reach = static_cast<int>(std::ceil(disc.radius));
    for (int y = cvRound(disc.y) - reach; y <= cvRound(disc.y) + reach; ++y)
        for (int x = cvRound(disc.x) - reach; x <= cvRound(disc.x) + reach; ++x) {
            if (x < 0 || y < 0 || x >= m_mean.width || y >= m_mean.height) continue;
            if (std::hypot(x - disc.x, y - disc.y) > disc.radius) continue;
            ++pixels;
            set += mask[indexOf(x, y)] ? 1 : 0;
        }
    return pixels > 0 ? static_cast<double>(set) / pixels : 0;
}

void ShadowFinder::fillHoles(Mask& mask) const {
    if (mask.empty()) return;
    Mask open(mask.size());
    std::transform(mask.begin(), mask.end(), open.begin(), [](unsigned char set) { return set ? 0 : 255; });
    std::vector<int> labels(mask.size());
    for (const ImageOperations::Region& region :
         ImageOperations::connectedComponents(view(open), labels.data())) {
        const bool enclosed = region.left > 0 && region.top > 0 &&
                              region.left + region.width < m_mean.width &&
                              region.top + region.height < m_mean.height;
        for (std::size_t i = 0; enclosed && i < mask.size(); ++i)
            if (labels[i] == region.label) mask[i] = 255;
    }
}

void ShadowFinder::paintShapes(Mask& mask) const {
    cv::Mat image(m_mean.height, m_mean.width, CV_8U, mask.data());
    for (const Bar& bar : m_bars) {
        const double length = lengthOf(bar);
        const cv::Point2d side(-0.5 * bar.width * (bar.y1 - bar.y0) / length,
                               0.5 * bar.width * (bar.x1 - bar.x0) / length);
        const cv::Point2d a(bar.x0, bar.y0), b(bar.x1, bar.y1);
        const std::vector<cv::Point> corners = {a + side, b + side, b - side, a - side};
        cv::fillConvexPoly(image, corners, cv::Scalar(255));
    }
    for (const Disc& disc : m_discs)
        cv::circle(image, {cvRound(disc.x), cvRound(disc.y)}, cvRound(disc.radius), cv::Scalar(255),
                   cv::FILLED);
}

}  // namespace VRK::detail
