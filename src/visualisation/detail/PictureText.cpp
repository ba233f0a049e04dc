#include "visualisation/detail/PictureText.h"

#include <opencv2/imgproc.hpp>

namespace VRK::detail {
namespace {

constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr std::uint32_t kMacron = 0x304;
constexpr std::uint32_t kLetterA = 0xC5;
constexpr std::uint32_t kDegree = 0xB0;
constexpr int kFineBits = 4;

cv::Point fine(double x, double y) {
    return {cvRound(x * 16.0), cvRound(y * 16.0)};
}

/// What the font goes on by with a character, at the scale 1. The library rounds to whole pixels.
double advanceOf(char character) {
    constexpr double kLarge = 50.0;
    int baseline = 0;
    return (cv::getTextSize(std::string(1, character), kFont, kLarge, 1, &baseline).width - 1) / kLarge;
}

/// Takes the first character from a text. Bytes that are no UTF-8 become question marks.
std::uint32_t takeCharacter(std::string_view& text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const std::size_t length = byte(0) < 0x80 ? 1 : byte(0) >> 5 == 6 ? 2 : byte(0) >> 4 == 14 ? 3 : 0;
    std::uint32_t character = length == 1 ? byte(0) : length == 2 ? byte(0) & 0x1FU : byte(0) & 0x0FU;
    bool isWhole = length > 0 && length <= text.size();
    for (std::size_t i = 1; isWhole && i < length; ++i) {
        isWhole = byte(i) >> 6 == 2;
        character = character << 6 | (byte(i) & 0x3FU);
    }
    text.remove_prefix(isWhole ? length : 1);
    return isWhole ? character : '?';
}

}  // namespace

PictureText::PictureText(std::string_view text, double scale) : m_scale(scale) {
    while (!text.empty())
        add(takeCharacter(text));
}

void PictureText::add(std::uint32_t character) {
    if (character == '*' || character == kDegree) {
        const double width = 10.0 * m_scale;
        m_pieces.push_back({character == '*' ? Mark::Asterisk : Mark::Degree, {}, m_width, width});
        m_width += width;
        return;
    }
    if (character == kMacron) {
        if (m_pieces.empty() || m_pieces.back().letters.empty()) return;
        const double width = advanceOf(m_pieces.back().letters.back()) * m_scale;
        m_pieces.push_back({Mark::Bar, {}, m_width - width, width});
        return;
    }
    const bool isPlain = character >= ' ' && character < 0x7F;
    const char letter = isPlain ? static_cast<char>(character) : character == kLetterA ? 'A' : '?';
    if (m_pieces.empty() || m_pieces.back().mark != Mark::Letters)
        m_pieces.push_back({Mark::Letters, {}, m_width, 0.0});
    m_pieces.back().letters += letter;
    const double width = advanceOf(letter) * m_scale;
    m_pieces.back().width += width;
    m_width += width;
    if (character == kLetterA) m_pieces.push_back({Mark::Ring, {}, m_width - width, width});
}

void PictureText::drawOnce(cv::Mat& canvas, double x, double baseline, const cv::Scalar& colour,
                           int thickness) const {
    const double top = baseline - height();
    const auto line = [&](double x0, double y0, double x1, double y1) {
        cv::line(canvas, fine(x0, y0), fine(x1, y1), colour, thickness, cv::LINE_AA, kFineBits);
    };
    const auto circle = [&](double middle, double y, double radius) {
        cv::circle(canvas, fine(middle, y), cvRound(radius * 16.0), colour, thickness, cv::LINE_AA,
                   kFineBits);
    };
    for (const Piece& piece : m_pieces) {
        const double left = x + piece.x;
        const double middle = left + 0.5 * piece.width;
        switch (piece.mark) {
            case Mark::Letters:
                cv::putText(canvas, piece.letters, {cvRound(left), cvRound(baseline)}, kFont, m_scale, colour,
                            thickness, cv::LINE_AA);
                break;
            case Mark::Asterisk: {
                const double arm = 4.5 * m_scale;
                const double y = top + 2.0 * m_scale;
                line(middle, y - arm, middle, y + arm);
                line(middle - 0.87 * arm, y - 0.5 * arm, middle + 0.87 * arm, y + 0.5 * arm);
                line(middle - 0.87 * arm, y + 0.5 * arm, middle + 0.87 * arm, y - 0.5 * arm);
                break;
            }
            case Mark::Degree:
                circle(middle, top + 3.0 * m_scale, 3.5 * m_scale);
                break;
            case Mark::Ring:
                circle(middle, top - 3.5 * m_scale, 3.0 * m_scale);
                break;
            case Mark::Bar:
                line(left + 2.0 * m_scale, top - 5.0 * m_scale, left + piece.width - 2.0 * m_scale,
                     top - 5.0 * m_scale);
                break;
        }
    }
}

void PictureText::draw(cv::Mat& canvas, double x, double baseline, const cv::Scalar& colour) const {
    drawOnce(canvas, x, baseline, cv::Scalar(0, 0, 0), 3);
    drawOnce(canvas, x, baseline, colour, 1);
}

void PictureText::drawUpwards(cv::Mat& canvas, double baseline, double bottom,
                              const cv::Scalar& colour) const {
    cv::Mat turned;
    cv::rotate(canvas, turned, cv::ROTATE_90_CLOCKWISE);
    draw(turned, canvas.rows - bottom, baseline, colour);
    cv::rotate(turned, canvas, cv::ROTATE_90_COUNTERCLOCKWISE);
}

}  // namespace VRK::detail
