/// \file
/// Sums and centroids of predicted spots on the frames.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pipeline/integration/FrameStack.h"
#include "pipeline/integration/RadialShape.h"
#include "pipeline/integration/SpotPrediction.h"

namespace vrk {

/// The areas about a spot, pixels.
struct SpotExtent {
    double sigma = 1.5;  ///< standard deviation of a spot's profile
    double radius = 6;   ///< of the disc that holds the spot
    double outer = 12;   ///< of the ring about the disc that tells the background

    /// The disc reaches to 3.9 deviations, which leaves out 0.05 % of a Gaussian spot; the ring has some 250
    /// pixels.
    static SpotExtent of(double sigma);
};

enum SpotFlag : std::uint8_t {
    kSpotMasked = 1,        ///< pixels of its disc hold no measurement
    kSpotSaturated = 2,     ///< pixels of its disc are saturated
    kSpotOverlapped = 4,    ///< another predicted spot shares its disc
    kSpotNoBackground = 8,  ///< too few pixels around it that no spot covers
    kSpotAtEdge = 16        ///< its disc leaves the frame
};

/// What a frame shows where a spot is predicted.
struct MeasuredSpot {
    float sum = 0;       ///< counts in the disc over background; missing pixels add nothing
    float ground = 0;    ///< variance of the sum of a spot without counts: of the background in and under it
    float variance = 0;  ///< of the sum, its own counts included
    float background = 0;  ///< counts of a pixel at the spot's centre
    float slopeX = 0;      ///< of the background's plane, counts per pixel
    float slopeY = 0;
    float levelVariance = 0;  ///< of the background
    float scatter = 0;        ///< variance of the pixels of the ring about the plane
    std::uint8_t flags = 0;   ///< SpotFlag

    bool usable() const { return (flags & kSpotNoBackground) == 0; }
};

/// A spot's place, found by weighting its counts with a Gaussian of its own width that follows it.
struct SpotCentroid {
    std::uint32_t spot = 0;  ///< in SpotPrediction::spots
    float x = 0;             ///< pixels
    float y = 0;
    float sigmaX = 0;  ///< standard uncertainties by counting statistics, pixels
    float sigmaY = 0;
    float width = 0;  ///< standard deviation of the spot's profile, pixels
};

/// Measures frame after frame.
class SpotMeasurement {
public:
    /// The arguments must live as long as the object.
    SpotMeasurement(const FrameStack& stack, const SeriesGeometry& geometry, const RadialShape& shape,
                    const NoiseModel& noise, const SpotExtent& extent);

    /// One entry a spot, in the order of the prediction.
    /// \param wanted  by reflection: 0 for those that may stay unmeasured (kSpotNoBackground); empty: all
    std::vector<MeasuredSpot> sums(const SpotPrediction& prediction,
                                   std::span<const std::uint8_t> wanted = {}) const;

    /// Places of the spots that stand out by \p significance standard deviations and that nothing disturbs.
    /// \param search  how far from its predicted place a spot may be, pixels
    std::vector<SpotCentroid> centroids(const SpotPrediction& prediction,
                                        std::span<const MeasuredSpot> measured, double significance,
                                        double search) const;

private:
    template <typename Visit>
    void overSpots(const SpotPrediction& prediction, Visit visit) const;

    const FrameStack& m_stack;
    const SeriesGeometry& m_geometry;
    const RadialShape& m_shape;
    const NoiseModel& m_noise;
    SpotExtent m_extent;
};

/// How many predicted spots cover each pixel of a frame with their discs.
class CoverageMap {
public:
    CoverageMap(int width, int height)
        : m_width(width),
          m_height(height),
          m_count(static_cast<std::size_t>(width) * static_cast<std::size_t>(height)) {}

    /// Spots of less than a hundredth of their full brightness do not count.
    void fill(const SpotPrediction& prediction, std::size_t frame, double radius);
    std::uint8_t at(int x, int y) const {
        return m_count[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) +
                       static_cast<std::size_t>(x)];
    }

private:
    int m_width;
    int m_height;
    std::vector<std::uint8_t> m_count;
};

}  // namespace vrk
