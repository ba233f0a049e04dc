#include "processing/ResamplingInternal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace VRK::detail {
namespace {

/// Weights of the pixels -1, 0, 1, 2 at the position f between 0 and 1: cubic convolution with a = -3/4, the
/// kernel that the rotation uses too. It passes a wave of four pixels by 97 %, linear interpolation by 71 %.
std::array<float, 4> cubicWeights(double f) {
    constexpr double a = -0.75;
    const auto near = [](double d) { return ((a + 2) * d - (a + 3)) * d * d + 1; };
    const auto far = [](double d) { return ((a * d - 5 * a) * d + 8 * a) * d - 4 * a; };
    const double first = far(1 + f), second = near(f), third = near(1 - f);
    return {static_cast<float>(first), static_cast<float>(second), static_cast<float>(third),
            static_cast<float>(1 - first - second - third)};
}

/// Copies the part of a frame that lies at an offset inside of another one, and zeros around it.
template <typename From>
void copyMoved(const cv::Mat_<From>& in, int dx, int dy, Frame out) {
    out.setTo(0);
    const cv::Rect target = cv::Rect(dx, dy, in.cols, in.rows) & cv::Rect(0, 0, out.cols, out.rows);
    if (target.empty()) return;
    in(target - cv::Point(dx, dy)).copyTo(out(target));
}

struct Displacement {
    int whole;
    double fraction;  ///< in [0, 1), of the source position behind a pixel
};

Displacement split(double shift) {
    const double source = -shift;
    const double whole = std::floor(source);
    return {static_cast<int>(whole), source - whole};
}

/// The smallest of the 3 x 3 pixels around each: what an interpolation may fall to beside a sharp reflection.
cv::Mat lowerBound(const Frame& in) {
    cv::Mat result;
    cv::erode(in, result, cv::Mat(), cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    return result;
}

/// Offsets at which a pixel of half the size begins and its three weights in quarters.
struct Halving {
    int count;
    std::array<int, 3> weights;
};

Halving halvingOf(int size) {
    return {halfSize(size), size % 2 == 0 ? std::array{2, 2, 0} : std::array{1, 2, 1}};
}

}  // namespace

void shiftFrame(const Frame& in, double dx, double dy, Frame out) {
    const Displacement x = split(dx);
    const Displacement y = split(dy);
    if (x.fraction == 0.0 && y.fraction == 0.0) {
        copyMoved(in, -x.whole, -y.whole, out);
        return;
    }
    const std::array<float, 4> wx = cubicWeights(x.fraction);
    const std::array<float, 4> wy = cubicWeights(y.fraction);
    cv::Mat moved;
    cv::sepFilter2D(in, moved, CV_32F, cv::Mat(1, 4, CV_32F, const_cast<float*>(wx.data())),
                    cv::Mat(1, 4, CV_32F, const_cast<float*>(wy.data())), cv::Point(1, 1), 0,
                    cv::BORDER_REPLICATE);
    Frame rounded;
    moved.convertTo(rounded, CV_16S);
    // The nearest pixel's surroundings limit the undershoot.
    const int nearX = x.fraction >= 0.5 ? 1 : 0;
    const int nearY = y.fraction >= 0.5 ? 1 : 0;
    Frame bound(in.size());
    copyMoved<short>(lowerBound(in), -nearX, -nearY, bound);
    if (nearX > 0) rounded.col(in.cols - 1).copyTo(bound.col(in.cols - 1));
    if (nearY > 0) rounded.row(in.rows - 1).copyTo(bound.row(in.rows - 1));
    cv::max(cv::InputArray(rounded), bound, rounded);
    copyMoved(rounded, -x.whole, -y.whole, out);
    // A source position beyond the last pixel's half is outside of the frame.
    if (nearX > 0 && in.cols - 1 - x.whole >= 0 && in.cols - 1 - x.whole < out.cols)
        out.col(in.cols - 1 - x.whole).setTo(0);
    if (nearY > 0 && in.rows - 1 - y.whole >= 0 && in.rows - 1 - y.whole < out.rows)
        out.row(in.rows - 1 - y.whole).setTo(0);
}

FrameRotation::FrameRotation(int width, int height, double angleDegrees) {
    const cv::Point2d centre = centreOf(width, height);
    const double radians = std::remainder(angleDegrees, 360.0) * std::numbers::pi / 180.0;
    const double c = std::cos(radians);
    const double s = std::sin(radians);
    cv::Mat_<float> x(height, width), y(height, width);
    for (int row = 0; row < height; ++row)
        for (int column = 0; column < width; ++column) {
            const double u = column - centre.x;
            const double v = row - centre.y;
            x(row, column) = static_cast<float>(centre.x + c * u - s * v);
            y(row, column) = static_cast<float>(centre.y + s * u + c * v);
        }
    cv::convertMaps(x, y, m_positions, m_fractions, CV_16SC2);
}

void FrameRotation::apply(const Frame& in, Frame out) {
    cv::remap(in, out, m_positions, m_fractions, cv::INTER_CUBIC, cv::BORDER_CONSTANT, 0);
    m_floor = lowerBound(in);
    cv::remap(m_floor, m_floorTurned, m_positions, cv::Mat(), cv::INTER_NEAREST, cv::BORDER_CONSTANT,
              std::numeric_limits<short>::min());
    cv::max(out, m_floorTurned, out);
}

std::size_t halveFrame(const Frame& in, bool sum, Frame out) {
    const Halving across = halvingOf(in.cols);
    const Halving down = halvingOf(in.rows);
    const int divisor = sum ? 4 : 16;
    const bool third = in.cols % 2 == 1;
    std::size_t limited = 0;
    std::vector<int> column(static_cast<std::size_t>(in.cols));
    for (int row = 0; row < down.count; ++row) {
        const short* first = in[2 * row];
        const short* second = in[2 * row + 1];
        const short* last = in[std::min(2 * row + 2, in.rows - 1)];
        for (int x = 0; x < in.cols; ++x)
            column[static_cast<std::size_t>(x)] =
                down.weights[0] * first[x] + down.weights[1] * second[x] + down.weights[2] * last[x];
        for (int x = 0; x < across.count; ++x) {
            const int* c = &column[static_cast<std::size_t>(2 * x)];
            const int total =
                across.weights[0] * c[0] + across.weights[1] * c[1] + (third ? across.weights[2] * c[2] : 0);
            const int value =
                total >= 0 ? (total + divisor / 2) / divisor : -((divisor / 2 - total) / divisor);
            out(row, x) = cv::saturate_cast<short>(value);
            if (value != out(row, x)) ++limited;
        }
    }
    return limited;
}

void reframe(const Frame& in, Frame out) {
    const int byX = out.cols - in.cols;
    const int byY = out.rows - in.rows;
    if (byX % 2 == 0 && byY % 2 == 0) {
        copyMoved(in, byX / 2, byY / 2, out);
        return;
    }
    // A frame larger by one pixel on the right and below, then half a pixel towards there.
    const cv::Size size(std::max(in.cols, out.cols) + 1, std::max(in.rows, out.rows) + 1);
    const int left = static_cast<int>(std::floor(byX / 2.0));
    const int top = static_cast<int>(std::floor(byY / 2.0));
    Frame placed(size);
    copyMoved(in, std::max(left, 0), std::max(top, 0), placed);
    Frame moved(size);
    shiftFrame(placed, byX % 2 == 0 ? 0.0 : 0.5, byY % 2 == 0 ? 0.0 : 0.5, moved);
    copyMoved(moved, std::min(left, 0), std::min(top, 0), out);
}

}  // namespace VRK::detail
