#include "processing/detail/CountRoots.h"

#include "support/Testing.h"

namespace {

using VRK::detail::RootAround;

float middleOf(const std::vector<RootAround>& pixels, std::size_t begin, std::size_t end) {
    std::vector<float> roots;
    for (std::size_t i = begin; i < end; ++i)
        roots.push_back(pixels[i].root);
    std::sort(roots.begin(), roots.end());
    return roots[roots.size() / 2];
}

TEST(CountRoots, EqualThePlainStepsBitForBit) {
    std::mt19937 random(5);
    for (std::size_t n = 1; n < 300; ++n) {
        std::vector<short> counts(n);
        for (short& count : counts)
            count = static_cast<short>(random() % 3 == 0 ? random() : random() % 20);
        std::vector<float> roots(n);
        VRK::detail::rootsOf(counts.data(), n, roots.data());
        std::vector<RootAround> pixels(n);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(roots[i], std::sqrt(std::max<float>(counts[i], 0.0F) + 16.0F) - 4.0F) << counts[i];
            // Places on a grid, many of them at one distance, or anywhere.
            pixels[i].distance = n % 3 == 0 ? static_cast<double>(random() % 40)
                                            : std::uniform_real_distribution<>(0, 40)(random);
            pixels[i].root = roots[i];
        }
        std::vector<RootAround> sorted = pixels;
        std::sort(sorted.begin(), sorted.end(),
                  [](const RootAround& a, const RootAround& b) { return a.distance < b.distance; });
        const double expected =
            n < 54 ? 0.0 : double{middleOf(sorted, 0, n / 9)} - double{middleOf(sorted, n / 2, n)};
        ASSERT_EQ(VRK::detail::riseAmong(pixels), expected) << n;
    }
}

}  // namespace
