/// \file
/// Grey values that show weak spots beside strong ones.
#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

namespace VRK::detail {

/// Grey values along the inverse hyperbolic sine: in proportion to small values, to the logarithm of large
/// ones (R. Lupton et al., Publ. Astron. Soc. Pac. 116 (2004) 133, doi:10.1086/382245). Where each grey
/// begins is worked out once, so that a picture takes no transcendental function a pixel.
class AsinhScale {
public:
    /// \param unit   where the scale turns from one into the other, above 0
    /// \param white  asinh(value / unit) from which on everything is white, above 0
    AsinhScale(float unit, float white);

    /// 255 asinh(value / unit) / white, to the nearest and at most 255; 0 for what is not above 0 or not
    /// finite.
    unsigned char grey(float value) const {
        if (!(value > 0.0F) || !std::isfinite(value)) return 0;
        std::size_t grey = m_greyOfBin[binOf(value)];
        while (value >= m_begins[grey + 1])
            ++grey;
        return static_cast<unsigned char>(grey);
    }

private:
    /// Bins are sixteenths of an octave: hardly any has more than two greys.
    static constexpr unsigned kBitsBelow = 19;
    static std::size_t binOf(float value) { return std::bit_cast<std::uint32_t>(value) >> kBitsBelow; }

    /// The smallest value of each grey; of black 0, and behind white what no value reaches.
    std::array<float, 257> m_begins{};
    std::array<unsigned char, (std::size_t{1} << (31 - kBitsBelow))>
        m_greyOfBin{};  ///< of its smallest value
};

}  // namespace VRK::detail
