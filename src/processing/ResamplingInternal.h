/// \file
/// Patterns moved, turned, binned, padded and cropped.
#pragma once

#include "processing/FrameInternal.h"

namespace VRK::detail {

/// Moves patterns by (dx, dy) pixels, to the right and down. Pixels from beyond the frame are 0.
class FrameShift {
public:
    void apply(const Frame& in, double dx, double dy, Frame out);

private:
    cv::Mat m_moved;
    cv::Mat m_rounded;
    cv::Mat m_bound;
};

/// Turns patterns of one size about their centre, so that an axis along (-sin t, cos t) comes to lie along y.
class FrameRotation {
public:
    FrameRotation(int width, int height, double angleDegrees);
    void apply(const Frame& in, Frame out);

private:
    cv::Mat m_positions;
    cv::Mat m_fractions;
    cv::Mat m_exact;
    cv::Mat m_turned;
    cv::Mat m_floor;
    cv::Mat m_floorTurned;
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
