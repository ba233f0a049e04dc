/// \file
/// Patterns moved, turned, binned, padded and cropped.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "processing/FrameDistortion.h"
#include "processing/detail/Frame.h"

namespace VRK::detail {

/// Moves patterns by (dx, dy) pixels, to the right and down. Pixels from beyond the frame are 0. The result
/// may be written over the pattern.
class FrameShift {
public:
    void apply(const Frame& in, double dx, double dy, Frame out);

private:
    void interpolate(const Frame& in, const std::array<float, 4>& wx, const std::array<float, 4>& wy);

    cv::Mat_<float> m_across;  ///< interpolated along the rows
    cv::Mat_<float> m_moved;
    cv::Mat m_rounded;
    cv::Mat m_bound;
};

/// Turns patterns of one size about their centre, so that an axis along (-sin t, cos t) comes to lie along y,
/// and takes a distortion out, in one interpolation.
class FrameRotation {
public:
    FrameRotation(int width, int height, double angleDegrees, const FrameDistortion& distortion = {});
    /// The same rotation with scratch memory of its own.
    FrameRotation another() const;
    void apply(const Frame& in, Frame out);

private:
    static constexpr int kSteps = 32;  ///< positions between two pixels
    static constexpr int kBorder = 2;

    /// Where a pixel comes from.
    struct Source {
        std::int32_t offset =
            -1;                   ///< first of the 4 x 4 pixels in the padded frame; -1 from beyond the frame
        std::uint16_t stepX = 0;  ///< position behind the second of them
        std::uint16_t stepY = 0;
    };
    Source sourceOf(double x, double y, int width, int height) const;
    struct Columns;
    Columns columnsOf(const Source& source) const;
    short interpolate(const Source& source) const;
    void interpolateFour(const Source* sources, short* target) const;

    std::array<std::array<float, 4>, kSteps> m_weights;
    std::vector<Source> m_sources;
    cv::Mat_<float> m_padded;
};

/// Half the size of a frame along one axis.
inline int halfSize(int size) {
    return size / 2;
}

/// Averages or sums 2 x 2 pixels into a frame of half the size; along an axis of odd size three pixels with
/// the weights 1/2, 1, 1/2 (relative). Returns how many sums exceeded 16 bits.
std::size_t halveFrame(const Frame& in, bool sum, Frame out);

/// Copies a pattern into a frame of another size about the common centre; new pixels are 0.
void reframe(const Frame& in, Frame out);

}  // namespace VRK::detail
