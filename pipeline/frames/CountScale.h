/// \file
/// The factor that brings counts into 16 bits.
#pragma once

#include <span>
#include <vector>

namespace vrk {

/// Collects what decides on the factor: the range of the pixels, whether they are whole numbers, and the
/// noise in the quiet parts of the patterns.
class CountScale {
public:
    /// \param pixels  of one slice, before any factor
    void add(std::span<const float> pixels);

    double smallest() const { return m_smallest; }
    double largest() const { return m_largest; }
    bool whole() const { return m_whole; }

    /// 1 for whole numbers that fit. A range that does not fit is scaled down until it does, but only as far
    /// as one unit stays below the noise, so that weak reflections do not drown in the rounding; what is
    /// still too bright is clipped. Fractions are scaled up or down until the noise has ten units, or the
    /// brightest pixel has reached the limit.
    double choice() const;
    /// The largest factor of two digits with which nothing is clipped.
    double keepingAll() const;

private:
    /// Standard deviation of neighbouring pixels in the quietest tenth of the patterns; 0 when there is none.
    double noise() const;
    double limit() const;

    double m_smallest = 0;
    double m_largest = 0;
    bool m_whole = true;
    std::vector<double> m_noises;  ///< of short rows of pixels
};

/// Sets pixels to 0 that hold no count: what is not finite, and values beyond 1e30, with which programs fill
/// masked pixels and which no sum of counts reaches.
/// \returns how many there were
long long clearInvalid(std::span<float> counts);

/// Counts times a scale as whole numbers of 16 bits, of which what does not fit is clipped.
/// \param slice  as long as the counts
/// \returns how many were clipped
long long storeScaled(std::span<const float> counts, double scale, std::span<short> slice);

}  // namespace vrk
