/// \file
/// The background of a pattern: rings about the centre, and what varies slowly beside them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "foundation/detail/Selection.h"
#include "processing/detail/Frame.h"

namespace VRK::detail {

/// Subtracts backgrounds from patterns of one size. The description of the steps is that of
/// VoxMRCstemProcessing::step1_BackgroundSubstraction().
class RadialBackground {
public:
    RadialBackground(int width, int height);
    /// One for patterns of the same size, with scratch memory of its own.
    RadialBackground another() const;

    /// \param lost  1 for pixels that were not recorded, which do not take part and become 0; may be empty
    void subtract(const Frame& in, std::span<const unsigned char> lost, Frame out);

private:
    /// Counts in sixteenths: fine enough for every median, and whole numbers are counted faster than sorted.
    static constexpr int kUnitBits = 4;
    static constexpr int kUnit = 1 << kUnitBits;

    void placePixels();
    void sortIntoRings(const short* pixels);
    void estimateProfile(std::span<const unsigned char> lost);
    void markRings(std::span<const unsigned char> lost);
    std::span<const short> recordedValues(std::size_t ring, std::span<const unsigned char> lost);
    void subtractProfile(const Frame& in, std::span<const unsigned char> lost);
    void subtractLocalRemainder();
    void subtractBetween(const cv::Mat_<float>& cells);
    void subtractRingMedians(Frame out);
    void estimateRingMedians();
    int twiceMedianOf(std::size_t ring, short guess);
    int twiceMedianBySorting(std::size_t ring);

    std::size_t rings() const { return m_ringBegin.size() - 1; }
    /// Where what is known of a quarter of the pixels begins for a row.
    std::size_t quarterRow(int row) const {
        return static_cast<std::size_t>(std::min(row, m_height - 1 - row)) *
               static_cast<std::size_t>(m_halfWidth);
    }

    /// A pixel, and where in its ring it comes.
    struct Alone {
        std::uint32_t pixel, place;
    };

    int m_width;
    int m_height;
    int m_halfWidth;                            ///< the middle column included
    std::vector<std::uint32_t> m_pixelsByRing;  ///< positions of the pixels, ring after ring
    std::vector<std::uint32_t> m_ringBegin;     ///< where a ring begins in it; one more for the end

    std::vector<std::uint32_t> m_fourPlaces;  ///< of a pixel of the first quarter and what mirrors it
    std::vector<Alone> m_alone;               ///< pixels of a middle row and column

    // Of the pixels of the first quarter. Those that mirror them have the same distance.
    std::vector<std::uint16_t> m_ringOf;
    std::vector<std::uint16_t> m_innerRing;  ///< the ring below its distance
    std::vector<float> m_fraction;           ///< how far it is on the way to the next ring

    std::vector<short> m_values;                ///< ring after ring
    std::vector<short> m_recorded;              ///< of one ring
    std::vector<std::uint8_t> m_ringLosesSome;  ///< whether a ring has pixels that were not recorded
    std::vector<float> m_profile;               ///< background of every ring
    std::vector<bool> m_zeroIsDead;             ///< whether a ring's background makes a 0 impossible
    std::vector<std::uint8_t> m_dead;           ///< of every pixel
    bool m_hasDead = false;
    std::vector<float> m_level;  ///< of one row
    cv::Mat_<float> m_remainder;
    cv::Mat_<int> m_units;
    std::vector<short> m_ranked;  ///< units that fit, or what marks a dead pixel
    std::vector<int> m_twiceRingMedian;
    std::vector<int> m_twiceRowMedian;  ///< of the pixels of one row
    RankedFloats m_cell;
    std::vector<int> m_scratch;
};

}  // namespace VRK::detail
