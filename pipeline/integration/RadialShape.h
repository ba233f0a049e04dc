/// \file
/// How the background of the patterns falls with the distance from the direct beam.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/FrameStack.h"
#include "pipeline/integration/SeriesGeometry.h"

namespace vrk {

/// The mean background of a series as a function of the distance from the centre. Local fits take it as the
/// shape that they shift and tilt: near the direct beam no plane would follow its halo.
class RadialShape {
public:
    /// Nothing: 0 everywhere.
    RadialShape() = default;
    /// From the medians of rings of one pixel's width in up to sixteen frames.
    RadialShape(const FrameStack& stack, std::span<const FramePose> poses);

    /// Counts at a squared distance from the centre, square pixels.
    float at(float squaredDistance) const {
        const auto index = static_cast<std::size_t>(static_cast<int>(squaredDistance));
        return index < m_bySquare.size() ? m_bySquare[index] : m_outside;
    }
    /// The distance inside which the background is above a level, pixels.
    double radiusAbove(double counts) const;

private:
    std::vector<float> m_bySquare;  ///< by whole squares of the distance
    float m_outside = 0;
};

}  // namespace vrk
