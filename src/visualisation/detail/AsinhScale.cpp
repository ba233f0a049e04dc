#include "visualisation/detail/AsinhScale.h"

#include <algorithm>

namespace VRK::detail {

AsinhScale::AsinhScale(float unit, float white) {
    const auto greyOf = [&](float value) {
        return std::lround(std::min(255.0F * std::asinh(value / unit) / white, 255.0F));
    };
    // Positive floating-point numbers have the order of their bits.
    constexpr auto kInfinity = std::bit_cast<std::uint32_t>(std::numeric_limits<float>::infinity());
    std::uint32_t begin = 0;
    for (std::size_t grey = 1; grey <= 255; ++grey) {
        std::uint32_t end = kInfinity;
        while (begin < end) {
            const std::uint32_t middle = begin + (end - begin) / 2;
            if (greyOf(std::bit_cast<float>(middle)) >= static_cast<long>(grey))
                end = middle;
            else
                begin = middle + 1;
        }
        m_begins[grey] = std::bit_cast<float>(begin);
    }
    m_begins[256] = std::numeric_limits<float>::infinity();
    for (std::size_t bin = 0; bin < m_greyOfBin.size(); ++bin) {
        const auto first = std::bit_cast<float>(static_cast<std::uint32_t>(bin) << kBitsBelow);
        const auto next = std::upper_bound(m_begins.begin() + 1, m_begins.begin() + 256, first);
        m_greyOfBin[bin] = static_cast<unsigned char>(next - m_begins.begin() - 1);
    }
}

}  // namespace VRK::detail
