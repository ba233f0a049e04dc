/// \file
/// Sums over the pixels around a spot.
#pragma once

#include <cstddef>
#include <vector>

namespace vrk {

/// Pixels around a spot that no predicted spot covers: the first size() numbers of each list.
struct BackgroundPixels {
    std::vector<float> dx;  ///< from the spot's centre, pixels
    std::vector<float> dy;
    std::vector<float> counts;
    std::vector<float> shape;  ///< what the background of all frames has here more than at the spot

    /// The lists keep their room: a spot has about as many pixels as the one before.
    void clear() { m_size = 0; }
    void add(float x, float y, float value, float expected) {
        if (m_size == counts.size()) makeRoom();
        dx[m_size] = x;
        dy[m_size] = y;
        counts[m_size] = value;
        shape[m_size] = expected;
        ++m_size;
    }
    std::size_t size() const { return m_size; }

private:
    void makeRoom();

    std::size_t m_size = 0;
};

/// What counts are compared with: a plane, and how far they scatter about it.
struct BackgroundModel {
    float level, slopeX, slopeY;
    float gain, floor, least;  ///< variance = gain * counts + floor, and not below the least
    float expected;            ///< Huber's function of a background pixel on average
    float limit;               ///< where Huber's function bends, in standard deviations
    float farthest;            ///< squares count up to here, in standard deviations
    float outlier;             ///< what is higher takes no part, in standard deviations
};

struct BackgroundSums {
    float pull = 0, pullX = 0, pullY = 0;  ///< of Huber's function less its mean, over the deviation
    float w = 0, wx = 0, wy = 0, wxx = 0, wxy = 0, wyy = 0;  ///< of one over the variance
    float squares = 0;                                       ///< of the deviations, counts squared
    float inside = 0;                                        ///< pixels within the limit
    float used = 0;                                          ///< pixels that take part

    /// Pixel i is added to lane i % kLanes, and the lanes to each other in their order at last, so that eight
    /// pixels are worked on at once with the same result on every processor.
    static constexpr std::size_t kLanes = 8;
    static BackgroundSums of(const BackgroundPixels& pixels, const BackgroundModel& model);
};

}  // namespace vrk
