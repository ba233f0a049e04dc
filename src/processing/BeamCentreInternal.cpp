#include "processing/BeamCentreInternal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <vector>

namespace VRK::detail {
namespace {

constexpr int kCoarseSize = 64;
constexpr int kCandidates = 5;
/// Added to the counts: keeps read-out noise at low counts from being blown up by the root.
constexpr float kRootOffset = 16.0F;
constexpr int kMostIterations = 25;
constexpr double kConverged = 0.002;
constexpr double kLargestError = 0.1;
constexpr double kFewestInliers = 0.35;

struct Symmetry {
    double correlation = -1;
    cv::Point2d centre;
};

/// Correlation of the opposite pixels of a disc about (sx / 2, sy / 2).
double inversionCorrelation(const cv::Mat_<float>& image, int sx, int sy, int radius) {
    double n = 0, sum = 0, squares = 0, products = 0;
    for (int y = (sy + 1) / 2; y < image.rows && 2 * y - sy <= 2 * radius; ++y) {
        const int oppositeY = sy - y;
        if (oppositeY < 0 || oppositeY >= image.rows) continue;
        const int reach =
            static_cast<int>(std::sqrt(std::max(0.0, radius * radius - 0.25 * (2 * y - sy) * (2 * y - sy))));
        const int from = std::max({sx / 2 - reach, 0, sx - image.cols + 1});
        const int to = std::min({(sx + 1) / 2 + reach, image.cols - 1, sx});
        for (int x = from; x <= to; ++x) {
            const double a = image(y, x);
            const double b = image(oppositeY, sx - x);
            n += 2;
            sum += a + b;
            squares += a * a + b * b;
            products += 2 * a * b;
        }
    }
    if (n < 0.6 * radius * radius) return -1;
    const double mean = sum / n;
    const double variance = squares / n - mean * mean;
    return variance > 1e-9 ? (products / n - mean * mean) / variance : -1;
}

Symmetry bestSymmetry(const cv::Mat_<float>& image, cv::Point candidate, int reach, int radius) {
    Symmetry best;
    for (int sy = 2 * (candidate.y - reach); sy <= 2 * (candidate.y + reach); ++sy)
        for (int sx = 2 * (candidate.x - reach); sx <= 2 * (candidate.x + reach); ++sx) {
            const double correlation = inversionCorrelation(image, sx, sy, radius);
            if (correlation > best.correlation) best = {correlation, {sx * 0.5, sy * 0.5}};
        }
    return best;
}

/// The brightest places, apart from each other.
std::vector<cv::Point> brightest(cv::Mat_<float> image, int count, int apart) {
    std::vector<cv::Point> places;
    for (int i = 0; i < count; ++i) {
        cv::Point place;
        double value = 0;
        cv::minMaxLoc(image, nullptr, &value, nullptr, &place);
        if (value <= 0) break;
        places.push_back(place);
        cv::circle(image, place, apart, cv::Scalar(-1), cv::FILLED);
    }
    return places;
}

/// Linear interpolation at a fixed displacement (0 to 1 pixel).
cv::Mat_<float> displaced(const cv::Mat& image, double fx, double fy) {
    const std::array<float, 2> wx = {static_cast<float>(1 - fx), static_cast<float>(fx)};
    const std::array<float, 2> wy = {static_cast<float>(1 - fy), static_cast<float>(fy)};
    cv::Mat_<float> result;
    cv::sepFilter2D(image, result, CV_32F, cv::Mat(1, 2, CV_32F, const_cast<float*>(wx.data())),
                    cv::Mat(1, 2, CV_32F, const_cast<float*>(wy.data())), cv::Point(0, 0), 0,
                    cv::BORDER_REPLICATE);
    return result;
}

/// Normal equations of the displacement that makes pairs of opposite pixels equal.
struct NormalEquations {
    double xx = 0, xy = 0, yy = 0, bx = 0, by = 0;
    double scale = 0;    ///< robust standard deviation of the differences
    double inliers = 0;  ///< part of the pairs that have weight

    double determinant() const { return xx * yy - xy * xy; }
    cv::Point2d step() const {
        const double d = determinant();
        return {-(yy * bx - xy * by) / d, -(xx * by - xy * bx) / d};
    }
};

struct Pair {
    float difference, gradientX, gradientY;
};

NormalEquations solve(const std::vector<Pair>& pairs, std::vector<float>& scratch) {
    NormalEquations e;
    scratch.clear();
    for (const Pair& p : pairs)
        scratch.push_back(std::abs(p.difference));
    const auto middle = scratch.begin() + static_cast<std::ptrdiff_t>(scratch.size() / 2);
    std::nth_element(scratch.begin(), middle, scratch.end());
    e.scale = std::max(1.4826 * *middle, 1e-3);
    const double limit = 4.685 * e.scale;
    std::size_t inliers = 0;
    for (const Pair& p : pairs) {
        const double r = p.difference / limit;
        if (std::abs(r) >= 1) continue;
        const double weight = (1 - r * r) * (1 - r * r);
        const double gx = p.gradientX, gy = p.gradientY;
        e.xx += weight * gx * gx;
        e.xy += weight * gx * gy;
        e.yy += weight * gy * gy;
        e.bx += weight * gx * p.difference;
        e.by += weight * gy * p.difference;
        ++inliers;
    }
    e.inliers = static_cast<double>(inliers) / static_cast<double>(pairs.size());
    return e;
}

/// The pairs of opposite pixels of a disc about the whole pixel (cx, cy) of images that were displaced by the
/// rest.
void collectPairs(const cv::Mat_<float>& image, const cv::Mat_<float>& gx, const cv::Mat_<float>& gy,
                  const cv::Mat& dead, cv::Point c, int radius, std::vector<Pair>& pairs) {
    pairs.clear();
    for (int v = 0; v <= radius; ++v) {
        const int up = c.y - v;
        const int down = c.y + v;
        if (up < 0 || down >= image.rows) break;
        const int reach = static_cast<int>(std::sqrt(radius * radius - v * v));
        const int from = std::max({v == 0 ? 1 : -reach, -c.x, c.x - image.cols + 1});
        const int to = std::min({reach, image.cols - 1 - c.x, c.x});
        for (int u = from; u <= to; ++u) {
            if (!dead.empty() && (dead.at<uchar>(down, c.x + u) || dead.at<uchar>(up, c.x - u))) continue;
            pairs.push_back({image(down, c.x + u) - image(up, c.x - u), gx(down, c.x + u) - gx(up, c.x - u),
                             gy(down, c.x + u) - gy(up, c.x - u)});
        }
    }
}

double distance(const BeamCentre& a, double x, double y) {
    return std::hypot(a.x - x, a.y - y);
}

/// The centre between the nearest patterns with one; those at the ends take over the nearest.
std::optional<cv::Point2d> interpolated(std::span<const BeamCentre> centres, std::size_t i) {
    std::optional<std::size_t> before, after;
    for (std::size_t j = i; j-- > 0 && !before;)
        if (centres[j].found()) before = j;
    for (std::size_t j = i + 1; j < centres.size() && !after; ++j)
        if (centres[j].found()) after = j;
    if (!before && !after) return std::nullopt;
    const BeamCentre& a = centres[before ? *before : *after];
    const BeamCentre& b = centres[after ? *after : *before];
    const double t =
        before && after ? static_cast<double>(i - *before) / static_cast<double>(*after - *before) : 0.0;
    return cv::Point2d(a.x + t * (b.x - a.x), a.y + t * (b.y - a.y));
}

}  // namespace

BeamCentreFinder::BeamCentreFinder(int width, int height)
    : m_width(width), m_height(height), m_step(std::max(1, std::min(width, height) / kCoarseSize)) {}

BeamCentre BeamCentreFinder::find(const Frame& frame) {
    compress(frame);
    const double shorter = std::min(m_width, m_height);
    double symmetry = -1;
    const cv::Point2d coarse = coarseCentre(symmetry);
    BeamCentre centre;
    if (symmetry > 0) {
        centre = refine(m_roots, coarse, {std::max(shorter / 8, 8.0), 3.0});
        if (centre.found())
            centre = refine(m_roots, {centre.x, centre.y}, {std::max(shorter / 12, 6.0), 1.0});
        if (centre.found()) {
            centre.symmetry = symmetry;
            return centre;
        }
    }
    cv::Point2d friedel;
    if (!friedelCentre(friedel)) return {};
    const cv::Mat pattern = withoutBackground();
    centre = refine(pattern, friedel, {0.45 * shorter, 2.0});
    if (centre.found()) centre = refine(pattern, {centre.x, centre.y}, {0.45 * shorter, 1.0});
    if (!centre.found()) return {};
    centre.source = BeamCentre::Source::Pattern;
    centre.symmetry = symmetry;
    return centre;
}

void BeamCentreFinder::compress(const Frame& frame) {
    frame.convertTo(m_roots, CV_32F);
    cv::max(m_roots, 0.0F, m_roots);
    m_roots += kRootOffset;
    cv::sqrt(m_roots, m_roots);
    m_roots -= std::sqrt(kRootOffset);
    cv::resize(m_roots, m_coarse, cv::Size(m_width / m_step, m_height / m_step), 0, 0, cv::INTER_AREA);

    // Where the mean over some pixels is a small part of the mean over many, something stands before the
    // detector or pixels are dead.
    m_dead.release();
}

cv::Point2d BeamCentreFinder::coarseCentre(double& symmetry) {
    cv::Mat_<float> blurred;
    cv::GaussianBlur(m_coarse, blurred, cv::Size(), 1.5);
    const int radius = std::min(m_coarse.cols, m_coarse.rows) / 3;
    Symmetry best;
    for (const cv::Point& place : brightest(blurred, kCandidates, 4)) {
        const Symmetry here = bestSymmetry(m_coarse, place, 2, radius);
        if (here.correlation > best.correlation) best = here;
    }
    symmetry = best.correlation;
    // From the middle of a coarse pixel to the frame.
    return {(best.centre.x + 0.5) * m_width / m_coarse.cols - 0.5,
            (best.centre.y + 0.5) * m_height / m_coarse.rows - 0.5};
}

cv::Mat_<float> BeamCentreFinder::withoutBackground() const {
    cv::Mat_<float> background;
    cv::GaussianBlur(m_roots, background, cv::Size(), std::max(std::min(m_width, m_height) / 40.0, 2.0));
    cv::subtract(m_roots, background, background);
    return background;
}

bool BeamCentreFinder::friedelCentre(cv::Point2d& centre) {
    const int step = std::max(1, std::min(m_width, m_height) / 256);
    cv::Mat_<float> pattern = withoutBackground();
    cv::resize(pattern, pattern, cv::Size(m_width / step, m_height / step), 0, 0, cv::INTER_AREA);
    // The strongest reflections must not outvote the others.
    cv::Scalar mean, deviation;
    cv::meanStdDev(pattern, mean, deviation);
    if (deviation[0] <= 0) return false;
    cv::min(pattern, 6 * deviation[0], pattern);
    cv::max(pattern, -2 * deviation[0], pattern);

    cv::Mat_<float> padded(cv::getOptimalDFTSize(2 * pattern.rows), cv::getOptimalDFTSize(2 * pattern.cols),
                           0.0F);
    pattern.copyTo(padded(cv::Rect({0, 0}, pattern.size())));
    cv::Mat spectrum;
    cv::dft(padded, spectrum);
    cv::mulSpectrums(spectrum, spectrum, spectrum, 0);
    cv::Mat_<float> correlation;
    cv::dft(spectrum, correlation, cv::DFT_INVERSE | cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
    // Position s holds the sum over all pairs of pixels whose positions add up to s; centres lie in the inner
    // half.
    const cv::Rect inner(pattern.cols / 2, pattern.rows / 2, pattern.cols, pattern.rows);
    cv::Point peak;
    double height = 0;
    cv::GaussianBlur(correlation, correlation, cv::Size(), 1.0);
    cv::minMaxLoc(correlation(inner), nullptr, &height, nullptr, &peak);
    cv::meanStdDev(correlation(inner), mean, deviation);
    if (height - mean[0] < 7 * deviation[0]) return false;
    centre = {(0.5 * (peak.x + inner.x) + 0.5) * m_width / pattern.cols - 0.5,
              (0.5 * (peak.y + inner.y) + 0.5) * m_height / pattern.rows - 0.5};
    return true;
}

BeamCentre BeamCentreFinder::refine(const cv::Mat& image, cv::Point2d start, const Disc& disc) const {
    // Only the surroundings are looked at; the margin lets the centre wander.
    const int margin =
        static_cast<int>(std::ceil(4 * disc.smoothing + std::min(m_width, m_height) / 16.0)) + 2;
    const int reach = static_cast<int>(std::ceil(disc.radius)) + margin;
    const cv::Rect frame(0, 0, m_width, m_height);
    const cv::Point nearest(cvRound(start.x), cvRound(start.y));
    const cv::Rect box = cv::Rect(nearest.x - reach, nearest.y - reach, 2 * reach + 1, 2 * reach + 1) & frame;
    if (box.width < 5 || box.height < 5) return {};

    cv::Mat smooth, gradientX, gradientY;
    cv::GaussianBlur(image(box), smooth, cv::Size(), disc.smoothing);
    const cv::Mat central = (cv::Mat_<float>(1, 3) << -0.5F, 0.0F, 0.5F);
    const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
    cv::sepFilter2D(smooth, gradientX, CV_32F, central, one, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
    cv::sepFilter2D(smooth, gradientY, CV_32F, one, central, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);

    cv::Point2d c = start - cv::Point2d(box.tl());
    std::vector<Pair> pairs;
    std::vector<float> scratch;
    for (int iteration = 0; iteration < kMostIterations; ++iteration) {
        const cv::Point whole(cvFloor(c.x), cvFloor(c.y));
        if (!cv::Rect(2, 2, box.width - 4, box.height - 4).contains(whole)) return {};
        const double fx = c.x - whole.x;
        const double fy = c.y - whole.y;
        collectPairs(displaced(smooth, fx, fy), displaced(gradientX, fx, fy), displaced(gradientY, fx, fy),
                     m_dead, whole, static_cast<int>(disc.radius), pairs);
        if (pairs.size() < 30) return {};
        const NormalEquations equations = solve(pairs, scratch);
        if (!(equations.determinant() > 1e-9)) return {};
        cv::Point2d step = equations.step();
        const double length = std::hypot(step.x, step.y);
        const double longest = std::max(disc.smoothing, 1.0);
        if (length > longest) step *= longest / length;
        c += step;
        if (length > kConverged) continue;

        // Neighbouring pixels of a smoothed image share their noise.
        const double shared = std::max(1.0, 4 * std::numbers::pi * disc.smoothing * disc.smoothing);
        BeamCentre centre;
        centre.error =
            equations.scale * std::sqrt(shared * (equations.xx + equations.yy) / equations.determinant() / 2);
        centre.x = c.x + box.x;
        centre.y = c.y + box.y;
        if (centre.error < kLargestError && equations.inliers > kFewestInliers)
            centre.source = BeamCentre::Source::Beam;
        return centre;
    }
    return {};
}

bool completeFromNeighbours(std::span<BeamCentre> centres) {
    std::vector<double> symmetries;
    for (const BeamCentre& c : centres)
        if (c.found()) symmetries.push_back(c.symmetry);
    if (symmetries.empty()) return false;
    const auto middle = symmetries.begin() + static_cast<std::ptrdiff_t>(symmetries.size() / 2);
    std::nth_element(symmetries.begin(), middle, symmetries.end());

    constexpr double kContradiction = 3.0;  // pixels; a beam that really jumps keeps its symmetry
    for (std::size_t i = 0; i < centres.size(); ++i) {
        if (!centres[i].found() || centres[i].symmetry > 0.5 * *middle) continue;
        const auto expected = interpolated(centres, i);
        if (expected && distance(centres[i], expected->x, expected->y) > kContradiction)
            centres[i].source = BeamCentre::Source::None;
    }
    for (std::size_t i = 0; i < centres.size(); ++i) {
        if (centres[i].found()) continue;
        const auto expected = interpolated(centres, i);
        if (!expected) continue;
        centres[i] = {expected->x, expected->y, 0, 0, BeamCentre::Source::Neighbours};
    }
    return true;
}

}  // namespace VRK::detail
