#include "VoxCore/DataModel/VoxHistogram.h"

#include "support/PlainVolume.h"
#include "support/Testing.h"

namespace {

ArrayPtr<short> image(const std::vector<short>& values) {
    ArrayPtr<short> a(VoxArray<short>::Create2D(1, static_cast<unsigned>(values.size()), Storage_Auto));
    for (unsigned i = 0; i < values.size(); ++i)
        a->SetValue(values[i], i);
    return a;
}

/// Updates quietly and returns what was said.
std::string update(VoxHistogram<short>& histogram) {
    testing::internal::CaptureStdout();
    histogram.Update();
    return testing::internal::GetCapturedStdout();
}

TEST(VoxHistogram, CountsInEqualRangesAndSaysSo) {
    const ArrayPtr<short> a = image({0, 5, 10, 0});
    VoxHistogram<short> all(a.get(), 256, {});
    EXPECT_EQ(update(all),
              "  VoxHistogram Update\n    Excluded values:\n    Calculating Histogram\n"
              "  VoxHistogram Update complete\n");

    VoxHistogram<short> some(a.get(), 256, {0, -4});
    EXPECT_TRUE(update(some).starts_with("  VoxHistogram Update\n    Excluded values:\n    0\n    -4\n"));
}

TEST(VoxHistogram, HasNothingToCount) {
    const ArrayPtr<short> a = image({0, 0, 0});
    VoxHistogram<short> excluded(a.get(), 4, {0});
    EXPECT_NE(update(excluded).find("(947)\n\nWARNING: __FILE__(__LINE__)\n    Calculating"),
              std::string::npos);
    EXPECT_EQ(excluded.m_Bins, std::vector<unsigned>(4, 0));

    VoxHistogram<short> noBins(a.get(), 0, {});
    update(noBins);
    EXPECT_TRUE(noBins.m_Bins.empty());
}

TEST(VoxHistogram, AgreesWithCountingElementByElement) {
    EXPECT_TRUE(rc::check([] {
        const int spread = *rc::gen::element(1, 5, 300, 32767);
        const auto grey = rc::gen::inRange<int>(*rc::gen::element(-spread, 0), spread + 1);
        const auto values = *rc::gen::nonEmpty(rc::gen::container<std::vector<int>>(grey));
        const auto excluded = *rc::gen::container<std::vector<int>>(grey);
        const auto bins = *rc::gen::element<unsigned short>(1, 2, 256, 65535);
        const ArrayPtr<short> a = image({values.begin(), values.end()});
        VoxHistogram<short> histogram(a.get(), bins, {excluded.begin(), excluded.end()});
        update(histogram);

        std::vector<int> left = values;
        std::erase_if(left, [&](int v) { return std::ranges::count(excluded, v) > 0; });
        if (left.empty()) return;
        const auto [low, high] = std::ranges::minmax(left);
        std::vector<unsigned> expected(bins);
        for (const int v : left)
            ++expected[low == high ? 0 : static_cast<std::size_t>((v - low) * (bins - 1LL) / (high - low))];
        RC_ASSERT(histogram.m_MinValue == low);
        RC_ASSERT(histogram.m_MaxValue == high);
        RC_ASSERT(histogram.m_Bins == expected);
    }));
}

}  // namespace
