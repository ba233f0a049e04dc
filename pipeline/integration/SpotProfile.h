/// \file
/// The shape of the spots on the frames, learned from the strong ones.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "pipeline/integration/FrameStack.h"
#include "pipeline/integration/SpotMeasurement.h"

namespace vrk {

/// A smooth shape: cubic splines in x and y on a square lattice of knots. It falls to 0 outside of the disc
/// of the spot's extent and sums to 1 over the pixels of that disc.
class SpotProfile {
public:
    /// A round Gaussian.
    explicit SpotProfile(const SpotExtent& extent);

    /// The values at the pixels (left + i, top + j) of a spot at (x, y), row after row; 0 outside of the
    /// disc.
    void sample(double x, double y, int left, int top, int width, int height, std::span<float> values) const;

    double radius() const { return m_radius; }

private:
    friend class ProfileLearner;

    struct Knots {
        std::array<float, 4> weight;
        int first;
    };
    Knots knotsAt(double offset) const;
    void normalise();

    double m_radius;
    double m_spacing;  ///< of the knots, pixels
    int m_knots;       ///< along each edge
    std::vector<float> m_coefficients;
};

/// The profiles of the regions of a detector: a disc in its middle and eight sectors around it, so that each
/// region has a direction and a range of resolution (compare G. Winter et al., Acta Cryst. D 74 (2018) 85,
/// doi:10.1107/S2059798317017235). Regions with few strong spots lean on the profile of all.
class ProfileSet {
public:
    static constexpr std::size_t kRegions = 9;

    explicit ProfileSet(const SpotExtent& extent) : m_profiles(kRegions, SpotProfile(extent)) {}

    /// \param dx, dy  from the centre of the pattern, relative to half the frame
    static std::size_t regionOf(double dx, double dy);
    const SpotProfile& of(std::size_t region) const { return m_profiles[region]; }
    void set(std::size_t region, SpotProfile profile) { m_profiles[region] = std::move(profile); }
    int spots() const { return m_spots; }
    void setSpots(int spots) { m_spots = spots; }

private:
    std::vector<SpotProfile> m_profiles;
    int m_spots = 0;
};

/// Learns the profiles by least squares from the counts of spots that nothing disturbs and that stand out by
/// twenty standard deviations, each divided by its sum. Gaussians of the measured width where there are fewer
/// than thirty.
ProfileSet learnProfiles(const FrameStack& stack, const SeriesGeometry& geometry, const RadialShape& shape,
                         const NoiseModel& noise, const SpotExtent& extent, const SpotPrediction& prediction,
                         std::span<const MeasuredSpot> measured);

}  // namespace vrk
