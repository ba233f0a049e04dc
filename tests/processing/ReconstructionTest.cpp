#include "processing/PlainReconstruction.h"
#include "processing/SeriesFactory.h"
#include "processing/VoxMRCstemProcessing.h"

namespace {

std::unique_ptr<VoxMRCData> toData(const plain::Series& series) {
    auto data =
        makeSeries(static_cast<unsigned>(series.width), static_cast<unsigned>(series.height), series.tilts);
    for (unsigned i = 0; i < data->GetDepth(); ++i)
        setPixels(*data, i, series.patterns[i]);
    return data;
}

/// Random patterns over the whole 16-bit range, or around 0.
plain::Series randomSeries(int width, int height, std::vector<float> tilts, unsigned seed, bool wide) {
    plain::Series series{width, height, std::move(tilts), {}};
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> value(wide ? -32768 : -12, wide ? 32767 : 30);
    const auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    for (std::size_t i = 0; i < series.tilts.size(); ++i) {
        std::vector<short>& pattern = series.patterns.emplace_back(size);
        std::generate(pattern.begin(), pattern.end(), [&] { return static_cast<short>(value(random)); });
    }
    return series;
}

std::unique_ptr<VoxMRCData> reconstruct(VoxMRCData* series, double pixelSize = 0, int verbosity = 0) {
    return std::unique_ptr<VoxMRCData>(
        VoxMRCstemProcessing().recoByAngle(series, pixelSize, verbosity, true));
}

}  // namespace

TEST(Reconstruction, EqualsThePlainOneBitForBit) {
    EXPECT_TRUE(rc::check("random series", [] {
        const int width = *rc::gen::oneOf(rc::gen::inRange(1, 34), rc::gen::element(64, 65, 140));
        const int height = *rc::gen::inRange(1, 40);
        const plain::Series series =
            randomSeries(width, height, *plain::ascendingTilts(), *rc::gen::arbitrary<unsigned>(),
                         *rc::gen::arbitrary<bool>());
        const auto input = toData(series);
        const auto expected = plain::reconstruct(series);
        if (expected.empty()) {
            RC_ASSERT_THROWS(reconstruct(input.get()));
            return;
        }
        const auto volume = reconstruct(input.get());
        RC_ASSERT(volume->GetDims() ==
                  (std::vector{static_cast<unsigned>(width), static_cast<unsigned>(height),
                               static_cast<unsigned>(expected.size())}));
        RC_ASSERT(hasItsHistogram(*volume));
        for (unsigned layer = 0; layer < volume->GetDepth(); ++layer)
            RC_ASSERT(pixelsOf(*volume, layer) == expected[layer]);
        for (unsigned i = 0; i < input->GetDepth(); ++i)
            RC_ASSERT(pixelsOf(*input, i) == series.patterns[i]);
    }));
}

TEST(Reconstruction, GivesTheVolumeItsHeader) {
    const plain::Series series = randomSeries(16, 12, range(-60, 60, 10), 3, true);
    const auto input = toData(series);
    RecordingLogObserver log;
    const std::unique_ptr<VoxMRCData> coarse(VoxMRCstemProcessing().recoByAngle(input.get(), 0, 0, false));
    EXPECT_TRUE(log.has(" input tilts from -60 to  60", VRK::Normal));
    EXPECT_TRUE(log.has("No fine calibration useable.", VRK::Warning));
    EXPECT_FLOAT_EQ(coarse->m_Header.m_pixelsize, 1e8F);
    EXPECT_EQ(coarse->m_Header.type, MRCType::MRCVOLUME);
    const mrcH& header = coarse->m_Header;
    EXPECT_EQ((std::array{header.nx, header.nz, header.mz, header.next}), (std::array{16, 14, 14, 0}));
    EXPECT_FALSE(log.has("MinValue", VRK::Normal));

    const std::unique_ptr<VoxMRCData> fine(VoxMRCstemProcessing().recoByAngle(input.get(), 2.5e7, 3, false));
    EXPECT_TRUE(log.has("Fine calibration used.", VRK::Normal));
    EXPECT_FLOAT_EQ(fine->m_Header.m_pixelsize, 2.5e7F);
    EXPECT_TRUE(*coarse == *fine);

    // Limits before and after the clearing, and one line per column.
    short lowest = std::numeric_limits<short>::max(), highest = 0;
    for (const auto& layer : plain::reconstruct(series, false)) {
        lowest = std::min(lowest, *std::min_element(layer.begin(), layer.end()));
        highest = std::max(highest, *std::max_element(layer.begin(), layer.end()));
    }
    const auto limits = [](int low, int high) {
        return "output (mrcVol)   MinValue " + std::to_string(low) + " MaxValue " + std::to_string(high);
    };
    EXPECT_LT(lowest, -10);
    EXPECT_EQ(log.count(limits(lowest, highest), VRK::Normal), 1);
    EXPECT_EQ(log.count(limits(0, highest), VRK::Normal), 1);
    EXPECT_EQ(log.count(" Pix ", VRK::Debug), 14 * 16);
    for (const char* text : {" max_tilt 60", " volsize_z 14", " new Volsize: 16 12 14",
                             "Volume layer processing: ", "negative Werte immer auf null",
                             " Create histogram on data ... ", " ... done."})
        EXPECT_TRUE(log.has(text, VRK::Normal)) << text;
}

TEST(Reconstruction, RefusesWhatItCannotTake) {
    const std::vector<std::pair<std::vector<float>, const char*>> cases = {
        {{10, 0, -10}, "pattern 1 has 0 after 10"},
        {{-10, 0, 5, 4}, "pattern 3 has 4 after 5"},
        {{-10, std::numeric_limits<float>::quiet_NaN(), 10}, "pattern 1 is not a number"},
        {std::vector<float>(301, 1.0F), "301 patterns"},
    };
    for (const auto& [tilts, message] : cases) {
        RecordingLogObserver log;
        const auto series = makeSeries(4, 4, tilts);
        EXPECT_EQ(reconstruct(series.get()), nullptr);
        EXPECT_TRUE(log.has(message, VRK::Error)) << message;
    }
    RecordingLogObserver log;
    const auto untilted = makeSeries(4, 4, {0, 0, 0});
    EXPECT_THROW(reconstruct(untilted.get()), std::exception);
    EXPECT_EQ(log.count("All tilt angles are 0", VRK::Error), 1);
    EXPECT_EQ(reconstruct(nullptr), nullptr);
    VoxMRCData empty;
    EXPECT_EQ(reconstruct(&empty), nullptr);
    EXPECT_EQ(log.count("recoByAngle()", VRK::Error), 2);

    const auto single = makeSeries(8, 8, {20});
    EXPECT_NE(reconstruct(single.get()), nullptr);
    EXPECT_TRUE(log.has("one pattern", VRK::Warning));
    for (const float most : {90.0F, 100.0F}) {
        const auto steep = makeSeries(8, 8, {-most, 0, 90});
        EXPECT_NE(reconstruct(steep.get()), nullptr);
        EXPECT_EQ(log.has("beyond +-90 degrees", VRK::Warning), most > 90) << most;
    }
    EXPECT_EQ(VoxMRCstemProcessing().reco_oldMatlab(single.get()), nullptr);
}
