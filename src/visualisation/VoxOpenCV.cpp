#include "visualisation/VoxOpenCV.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <utility>
#include <vector>

#include "foundation/VRKLogger.h"
#include "foundation/detail/SingleThreadedOpenCV.h"
#include "visualisation/PictureFile.h"
#include "visualisation/detail/AsinhScale.h"
#include "visualisation/detail/PictureText.h"

namespace {

bool fail(const std::string& path, const std::string& reason) {
    VRKLogger::getInstance()->log("The image " + path + " could not be written: " + reason, VRK::Error,
                                  VRK::Information);
    return false;
}

/// The reason for which nearly all files fail.
constexpr const char* kNotWritten = "check that its folder exists and may be written to, and the free space";

bool save(const cv::Mat& image, const std::string& path) {
    if (!PictureFile::IsNamedSo(path))
        return fail(path, "no image format goes by the ending of that name; use .png");
    const auto pixel = image.channels() == 1 ? PictureFile::Pixel::Grey : PictureFile::Pixel::BlueGreenRed;
    return PictureFile::Write(image.data, image.cols, image.rows, pixel, path) || fail(path, kNotWritten);
}

bool isEmpty(const PlaneImage& image) {
    return image.width <= 0 || image.height <= 0 ||
           image.values.size() !=
               static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
}

/// The value below which the given share of the values lies; reorders them.
float quantile(std::vector<float>& values, double share) {
    const auto last = static_cast<double>(values.size() - 1);
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(share * last);
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

cv::Mat greyScaled(const PlaneImage& image) {
    std::vector<float> positive;
    for (float value : image.values)
        if (value > 0.0F && std::isfinite(value)) positive.push_back(value);
    cv::Mat grey(image.height, image.width, CV_8U, cv::Scalar(0));
    if (positive.empty()) return grey;
    const float unit = std::max(quantile(positive, 0.5), 1e-30F);
    const float white = std::max(std::asinh(quantile(positive, 0.9998) / unit), 1e-6F);
    const VRK::detail::AsinhScale scale(unit, white);
    std::transform(image.values.begin(), image.values.end(), grey.data,
                   [&](float value) { return scale.grey(value); });
    return grey;
}

/// Positions in 1/16 pixel, as OpenCV's drawing takes them.
cv::Point fine(double x, double y) {
    return {cvRound(x * 16.0), cvRound(y * 16.0)};
}
constexpr int kFineBits = 4;

const cv::Scalar kRingColour(115, 95, 85);
const cv::Scalar kRingTextColour(190, 170, 160);

void putLabel(cv::Mat& canvas, const std::string& text, double x, double y, const cv::Scalar& colour) {
    const VRK::detail::PictureText label(text);
    label.draw(canvas, std::clamp(x, 2.0, std::max(2.0, canvas.cols - label.width() - 2.0)),
               std::clamp(y, label.height() + 4.0, std::max(label.height() + 4.0, canvas.rows - 4.0)),
               colour);
}

void drawArrowHead(cv::Mat& canvas, const ImageOverlay::Line& line, const cv::Scalar& colour) {
    const double dx = line.x1 - line.x0;
    const double dy = line.y1 - line.y0;
    const double length = std::hypot(dx, dy);
    if (length < 1.0) return;
    for (const double side : {-0.4, 0.4}) {
        const double x = line.x1 - 9.0 * (dx - side * dy) / length;
        const double y = line.y1 - 9.0 * (dy + side * dx) / length;
        cv::line(canvas, fine(line.x1, line.y1), fine(x, y), colour, 1, cv::LINE_AA, kFineBits);
    }
}

/// The name stands on the ring, where that is far enough inside.
void drawRing(cv::Mat& canvas, const ImageOverlay::Ring& ring) {
    cv::circle(canvas, fine(ring.x, ring.y), cvRound(ring.radius * 16.0), kRingColour, 1, cv::LINE_AA,
               kFineBits);
    const VRK::detail::PictureText label(ring.label, 0.45);
    for (const double degrees : {52.0, 128.0, 232.0, 308.0, 20.0, 160.0}) {
        const double angle = degrees * CV_PI / 180.0;
        const double x = ring.x + ring.radius * std::cos(angle) - 0.5 * label.width();
        const double y = ring.y - ring.radius * std::sin(angle) + 0.5 * label.height();
        if (x < 4.0 || y < 4.0 + label.height() || x + label.width() > canvas.cols - 4.0 ||
            y > canvas.rows - 4.0)
            continue;
        label.draw(canvas, x, y, kRingTextColour);
        return;
    }
}

void drawBar(cv::Mat& canvas, const ImageOverlay::Bar& bar) {
    const VRK::detail::PictureText label(bar.label);
    const double right = canvas.cols - 16.0;
    const double left = right - bar.length;
    const double y = canvas.rows - 16.0;
    const cv::Scalar white(255, 255, 255);
    for (const auto& [colour, thickness] : {std::pair(cv::Scalar(0, 0, 0), 5), std::pair(white, 2)})
        cv::line(canvas, fine(left, y), fine(right, y), colour, thickness, cv::LINE_AA, kFineBits);
    label.draw(canvas, std::min(0.5 * (left + right - label.width()), right - label.width()), y - 8.0, white);
}

void drawBorder(cv::Mat& canvas, const cv::Rect& picture, const ImageOverlay::Border& border) {
    using VRK::detail::PictureText;
    const cv::Scalar white(230, 230, 230);
    double baseline = 20.0;
    for (const std::string& caption : border.captions) {
        // Small pictures get small letters.
        const double fits = (picture.width + ImageOverlay::Border::kRight) / PictureText(caption).width();
        PictureText(caption, 0.5 * std::clamp(fits, 0.6, 1.0)).draw(canvas, picture.x, baseline, white);
        baseline += 23.0;
    }
    cv::rectangle(canvas, {picture.x - 1, picture.y - 1, picture.width + 2, picture.height + 2}, kRingColour);
    const double below = picture.y + picture.height;
    const double before = picture.x;
    for (const ImageOverlay::Tick& tick : border.bottom) {
        const double x = picture.x + tick.position;
        const PictureText label(tick.label, 0.45);
        cv::line(canvas, fine(x, below), fine(x, below + 5.0), white, 1, cv::LINE_AA, kFineBits);
        label.draw(canvas, x - 0.5 * label.width(), below + 10.0 + label.height(), white);
    }
    for (const ImageOverlay::Tick& tick : border.left) {
        const double y = picture.y + tick.position;
        const PictureText label(tick.label, 0.45);
        cv::line(canvas, fine(before - 6.0, y), fine(before - 1.0, y), white, 1, cv::LINE_AA, kFineBits);
        label.draw(canvas, before - 9.0 - label.width(), y + 0.5 * label.height(), white);
    }
    const PictureText bottom(border.bottomName), left(border.leftName);
    bottom.draw(canvas, picture.x + 0.5 * (picture.width - bottom.width()), canvas.rows - 12.0, white);
    left.drawUpwards(canvas, 16.0, picture.y + 0.5 * (picture.height + left.width()), white);
}

void draw(cv::Mat& canvas, const ImageOverlay& overlay) {
    const cv::Scalar nodeColour(90, 200, 90);
    const cv::Scalar lineColour(80, 170, 255);
    const cv::Scalar crossColour(200, 110, 240);
    for (const ImageOverlay::Ring& ring : overlay.rings)
        drawRing(canvas, ring);
    for (const ImageOverlay::Node& node : overlay.nodes)
        cv::circle(canvas, fine(node.x, node.y), cvRound(node.radius * 16.0), nodeColour, 1, cv::LINE_AA,
                   kFineBits);
    for (const ImageOverlay::Cross& cross : overlay.crosses) {
        constexpr double kArm = 3.0;
        cv::line(canvas, fine(cross.x - kArm, cross.y), fine(cross.x + kArm, cross.y), crossColour, 1,
                 cv::LINE_AA, kFineBits);
        cv::line(canvas, fine(cross.x, cross.y - kArm), fine(cross.x, cross.y + kArm), crossColour, 1,
                 cv::LINE_AA, kFineBits);
    }
    for (const ImageOverlay::Line& line : overlay.lines) {
        cv::line(canvas, fine(line.x0, line.y0), fine(line.x1, line.y1),
                 line.faint ? kRingTextColour : lineColour, 1, cv::LINE_AA, kFineBits);
        if (line.arrow) drawArrowHead(canvas, line, lineColour);
        if (!line.label.empty()) putLabel(canvas, line.label, line.x1 + 6.0, line.y1 - 4.0, lineColour);
    }
    for (const ImageOverlay::Text& text : overlay.texts)
        putLabel(canvas, text.text, text.x, text.y, cv::Scalar(255, 255, 255));
    if (!overlay.title.empty()) putLabel(canvas, overlay.title, 8.0, 20.0, cv::Scalar(255, 255, 255));
    if (overlay.bar) drawBar(canvas, *overlay.bar);
}

bool isPlain(const ImageOverlay& overlay) {
    return overlay.title.empty() && overlay.lines.empty() && overlay.nodes.empty() &&
           overlay.crosses.empty() && overlay.rings.empty() && overlay.texts.empty() && !overlay.bar &&
           !overlay.border;
}

}  // namespace

bool VoxOpenCV::SaveImageWithEqualizeHist(const int* pixels, int width, int height, const std::string& path) {
    if (!pixels || width <= 0 || height <= 0) return fail(path, "the image is empty");
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    cv::Mat grey(height, width, CV_8U);
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::transform(pixels, pixels + count, grey.data,
                   [](int value) { return static_cast<unsigned char>(std::clamp(value, 0, 255)); });
    cv::equalizeHist(grey, grey);
    return save(grey, path);
}

bool VoxOpenCV::SaveImage(const PlaneImage& image, const std::string& path, const ImageOverlay& overlay) {
    if (isEmpty(image)) return fail(path, "the image is empty");
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    const cv::Mat grey = greyScaled(image);
    if (isPlain(overlay)) return save(grey, path);
    cv::Mat picture;
    cv::cvtColor(grey, picture, cv::COLOR_GRAY2BGR);
    draw(picture, overlay);
    if (!overlay.border) return save(picture, path);
    using Border = ImageOverlay::Border;
    cv::Mat canvas;
    cv::copyMakeBorder(picture, canvas, Border::kTop, Border::kBottom, Border::kLeft, Border::kRight,
                       cv::BORDER_CONSTANT, cv::Scalar(28, 28, 28));
    drawBorder(canvas, {Border::kLeft, Border::kTop, picture.cols, picture.rows}, *overlay.border);
    return save(canvas, path);
}

bool VoxOpenCV::SaveTGA(const PlaneImage& image, const std::string& path) {
    if (isEmpty(image)) return fail(path, "the image is empty");
    if (image.width > 0xFFFF || image.height > 0xFFFF)
        return fail(path, "TGA files hold at most 65535 x 65535 pixels");
    const auto low = [](int value) { return static_cast<char>(value & 0xFF); };
    const auto high = [](int value) { return static_cast<char>((value >> 8) & 0xFF); };
    std::array<char, 18> header{};
    header[2] = 3;  // uncompressed grey values
    header[12] = low(image.width);
    header[13] = high(image.width);
    header[14] = low(image.height);
    header[15] = high(image.height);
    header[16] = 8;     // bits a pixel
    header[17] = 0x20;  // first row on top
    const cv::Mat grey = greyScaled(image);
    std::ofstream file(path, std::ios::binary);
    file.write(header.data(), header.size());
    file.write(reinterpret_cast<const char*>(grey.data), static_cast<std::streamsize>(grey.total()));
    file.close();
    return file ? true : fail(path, kNotWritten);
}
