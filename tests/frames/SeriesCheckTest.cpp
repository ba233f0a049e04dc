// What is odd about a series, and what is none.
#include "pipeline/frames/SeriesCheck.h"

#include "pipeline/base/Attempt.h"
#include "pipeline/frames/SeriesHeader.h"
#include "support/FailureOf.h"

namespace {

using Value = std::function<int(unsigned, int)>;  ///< of a frame's pixel

/// The first pixels of the first frame are at the limit.
Value saturated(int pixels) {
    return [=](unsigned frame, int i) { return frame == 0 && i < pixels ? 32767 : i; };
}

TEST(SeriesCheck, WarnsOfOddSeriesAndRefusesWhatIsNone) {
    const Value usual = saturated(0), zeros = [](auto...) { return 0; }, flat = [](auto...) { return 7; };
    const Value blank = [](unsigned frame, int i) { return frame < 2 ? 0 : i; };
    using Case = std::tuple<std::vector<double>, Value, std::vector<float>, const char*>;
    for (const auto& [tilts, value, kept, text] : {
             Case{{-2, 0, 1.2}, usual, {-2, 0, 1.2F}, ""},
             {{-90, 0, 90}, usual, {-90, 0, 90}, ""},
             {{6, 4, 2, 0}, usual, {0, 2, 4, 6}, "the tilt angles descend"},
             {{6, 2, 4, 0}, usual, {0, 2, 4, 6}, "the tilt angles are not in order"},
             {{0, 2, 2, 2, 4}, usual, {0, 2, 4}, "2 frames repeat the tilt angle"},
             {{0, 2, 4, 6, 8}, blank, {4, 6, 8}, "2 frames hold nothing but zeros"},
             {{0, 1, 2, 3, 4, 5, 30}, usual, {0, 1, 2, 3, 4, 5, 30}, ""},
             {{0, 1, 2, 3, 4, 5, 31}, usual, {0, 1, 2, 3, 4, 5, 31}, "there is a gap of 26"},
             {{0, 2, 4}, saturated(2), {0, 2, 4}, ""},
             {{0, 2, 4}, saturated(3), {0, 2, 4}, "1 frames have more than 1 %"},
             {{0, NAN, 4}, usual, {}, "the tilt angle of slice 1 is not a number"},
             {{0, 2, 90.5}, usual, {}, "the tilt angle of slice 2 is 90.5"},
             {{0, 5}, usual, {}, "the series has 2 frames that can be used; a volume needs three"},
             {{5, 5, 5}, usual, {}, "1 frame that can be used or one tilt angle for all frames;"},
             {{0, 0.1, 0.3},
              usual,
              {},
              "the tilts cover 0.3 degrees; that is no volume. Check the angles with "
              "'vrk info --slices'"},
             {{-1, 0, 2.1}, usual, {}, "they may be radians, which would be 177.6"},
             {{0, 2, 4}, zeros, {}, "every frame of the series holds nothing but zeros"},
             {{0, 2, 4}, flat, {}, "the same value in all its pixels"},
         }) {
        SCOPED_TRACE(text);
        std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(20, 10, static_cast<unsigned>(tilts.size())));
        series->m_Header = vrk::tiltSeriesHeader(20, 10, tilts, 5e7, "made");
        for (unsigned z = 0; z < tilts.size(); ++z)
            for (int i = 0; i < 200; ++i)
                series->GetChunkPointer(z)[i] = static_cast<short>(value(z, i));
        vrk::Session session(vrk::silence());
        const Refusal refusal = failureOf([&] { series = vrk::checkedSeries(std::move(series), session); });
        if (kept.empty()) {
            EXPECT_TRUE(refusal.says(text)) << refusal.text;
            continue;
        }
        ASSERT_EQ(refusal.text, "");
        ASSERT_EQ(session.warnings().size(), *text ? 1U : 0U);
        EXPECT_TRUE(says(*text ? session.warnings()[0] : "", text));
        ASSERT_EQ(series->GetDepth(), kept.size());
        for (unsigned z = 0; z < kept.size(); ++z)
            EXPECT_EQ(series->m_Header.tilt(static_cast<int>(z)), kept[z]);
    }
}

}  // namespace
