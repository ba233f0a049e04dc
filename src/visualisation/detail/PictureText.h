/// \file
/// Text in pictures, with what the stroke font of the image library lacks.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace VRK::detail {

/// A line of text in UTF-8. Drawn are ASCII, a raised asterisk (a*), bars over characters (the combining
/// macron U+0304 behind them, as in indices below zero), the letter A with a ring and the degree sign; other
/// characters become question marks.
class PictureText {
public:
    explicit PictureText(std::string_view text, double scale = 0.5);

    /// Pixels.
    double width() const { return m_width; }
    /// Of a capital letter, pixels.
    double height() const { return kCapital * m_scale; }

    /// Draws with a dark rim, so that it can be read on any ground.
    /// \param x         left end
    /// \param baseline  of the letters
    void draw(cv::Mat& canvas, double x, double baseline, const cv::Scalar& colour) const;
    /// The same from the bottom to the top, the baseline to the right.
    void drawUpwards(cv::Mat& canvas, double baseline, double bottom, const cv::Scalar& colour) const;

private:
    enum class Mark { Letters, Asterisk, Degree, Ring, Bar };
    /// Letters that are drawn at once, or a mark over or behind them.
    struct Piece {
        Mark mark;
        std::string letters;
        double x;
        double width;
    };

    static constexpr double kCapital = 21.0;  ///< of the font at the scale 1

    void add(std::uint32_t character);
    void drawOnce(cv::Mat& canvas, double x, double baseline, const cv::Scalar& colour, int thickness) const;

    double m_scale;
    double m_width = 0.0;
    std::vector<Piece> m_pieces;
};

}  // namespace VRK::detail
