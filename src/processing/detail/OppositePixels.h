/// \file
/// How well the opposite pixels of a disc agree, and where they would agree best.
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <vector>

#include "foundation/detail/Selection.h"

namespace VRK::detail {

/// Added to counts before their root is taken: keeps read-out noise at low counts from being blown up.
inline constexpr float kRootOffset = 16.0F;

/// Normal equations of the displacement that makes pairs of opposite pixels equal.
struct SymmetryEquations {
    double xx = 0, xy = 0, yy = 0, bx = 0, by = 0;
    double weights = 0;  ///< their sum
    double scale = 0;    ///< robust standard deviation of the differences
    double inliers = 0;  ///< part of the pairs that have weight
    /// Derivatives with respect to the slope of the halo: with the centre's, with one another, with the
    /// differences. 0 where it is no unknown.
    cv::Matx22d crossed = cv::Matx22d::zeros();
    cv::Matx22d slopes = cv::Matx22d::zeros();
    cv::Vec2d sloped;

    double determinant() const { return xx * yy - xy * xy; }
    /// Standard uncertainty of a coordinate.
    /// \param smoothing  standard deviation of the Gaussian that went before, pixels
    double error(double smoothing) const;
    /// Leaves the equations of the centre alone, whatever the slope of the halo is: one of \p deviation (1 /
    /// pixel) is as likely as that.
    void removeSlope(double deviation, double smoothing);
    cv::Point2d step() const;
};

/// The pairs of opposite pixels of a disc about any point of an image.
class OppositePixels {
public:
    struct Disc {
        cv::Point whole;   ///< the pixel of its centre, at least 2 pixels from the border
        cv::Point2d rest;  ///< from there to the centre, 0 to 1
        int radius;        ///< whole pixels
        bool roots;        ///< the image holds roots of counts (kRootOffset), whose noise is known
        bool sloping;      ///< the slope of the halo is an unknown, too
    };

    /// Of an image that is displaced by linear interpolation so that the centre falls on a pixel.
    /// \param dead  not 0 where pixels take no part; empty when all do
    void collect(const cv::Mat_<float>& image, const cv::Mat_<uchar>& dead, const Disc& disc);
    std::size_t count() const { return m_count; }
    /// With weights (Tukey's) that fall to 0 for pairs that do not match. There is a pair at least.
    SymmetryEquations equations();

    /// Of every fourth pair a sum is formed, and the four are added at the end: vector units give the same as
    /// one sum after the other.
    static constexpr std::size_t kLanes = 4;
    /// Arrays of one length, longer than the number of pairs. The last two hold something where the slope is
    /// an unknown.
    struct Pairs {
        std::vector<float> difference, gradientX, gradientY;
        std::vector<float> precision;       ///< inverse variance of the difference, on an arbitrary scale
        std::vector<float> slopeX, slopeY;  ///< by which the difference grows with the halo's relative slope

        void resize(std::size_t size);
    };
    const Pairs& pairs() const { return m_pairs; }

private:
    void displace(const cv::Mat_<float>& image, const Disc& disc);
    void addRow(int v, int from, int to, const Disc& disc);
    void removeDead(const cv::Mat_<uchar>& dead, const Disc& disc, int v, int from, int to);
    void pad();

    int m_reachX = 0, m_reachY = 0;  ///< of the disc within the image
    cv::Mat_<float> m_displaced;     ///< one more pixel on all sides
    std::vector<float> m_line, m_before, m_across, m_means;
    Pairs m_pairs;
    std::size_t m_count = 0;
    bool m_sloping = false;
    std::vector<float> m_sizes;
    RankedFloats m_ranked;
};

}  // namespace VRK::detail
