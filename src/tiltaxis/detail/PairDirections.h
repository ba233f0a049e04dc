/// \file
/// The directions of the vectors between all pairs of points, many at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace VRK::detail {

/// Bins of equal intervals of azimuth and polar angle, as VRKSphericalProjection defines them.
struct DirectionBins {
    int phi;
    int theta;
};

/// The bin of a vector by its angles, azimuth fastest.
struct DirectionAddress {
    double phi, theta;  ///< angles
    int phiAddress, thetaAddress;

    DirectionAddress(const DirectionBins& bins, double x, double y, double z);
    /// Angles out of range by less than a bin count as in it.
    bool isInRange(const DirectionBins& bins) const;
    std::size_t bin(const DirectionBins& bins) const;
};

/// Counts the directions of the vectors between points.
///
/// An arctangent costs more than everything else about a pair, and few vectors lie so close to the border of
/// a bin that more than seven digits of it matter. So the angles are approximated in single precision, which
/// fills the vector registers, and the few that are not certain are formed as those of single vectors are.
/// The counts are the same.
class PairDirections {
public:
    /// Vectors longer than \p minLength and shorter than \p maxLength count.
    PairDirections(DirectionBins bins, double minLength, double maxLength);

    void reserve(std::size_t points);
    void addPoint(const std::array<double, 3>& point);
    /// Adds one to the bin of the direction of each pair, folded into the half space x > 0. Vectors along the
    /// pole are left out.
    /// \return the number of vectors, those along the pole included
    std::int64_t count(std::span<int> counts) const;

private:
    void countExactly(std::size_t i, std::size_t j, std::span<int> counts) const;

    DirectionBins m_bins;
    double m_aboveSquare;   ///< lengths whose square is above it are long enough
    double m_withinSquare;  ///< those whose square is not above it short enough
    std::vector<double> m_x, m_y, m_z;
};

}  // namespace VRK::detail
