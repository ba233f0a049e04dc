#include "processing/PlainPreprocessing.h"
#include "processing/RecordedPixels.h"
#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"
#include "processing/VoxMRCstemProcessing.h"
#include "processing/detail/Resampling.h"

namespace {

using Data = std::unique_ptr<VoxMRCData>;
using Operation = VoxMRCData* (*)(VoxMRCstemProcessing&, VoxMRCData*);

Data apply(Operation operation, VoxMRCData* series) {
    VoxMRCstemProcessing processing;
    return Data(operation(processing, series));
}

/// A series of one size from functions of (x, y).
template <typename Value>
Data seriesOf(unsigned width, unsigned height, Value value, unsigned patterns = 1) {
    Data series = makeSeries(width, height, std::vector<float>(patterns, 10.0F));
    for (unsigned i = 0; i < patterns; ++i)
        forEachPixel(width, height, [&](unsigned x, unsigned y) {
            series->GetChunkPointer(i)[y * width + x] = static_cast<short>(std::lround(value(x, y)));
        });
    return series;
}

short pixel(const VoxMRCData& data, unsigned x, unsigned y, unsigned pattern = 0) {
    return data.GetChunkPointer(pattern)[y * data.GetWidth() + x];
}

/// A sharp spot of unit height.
double spot(double x, double y, double cx, double cy, double sigma = 1.5) {
    return std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / (2 * sigma * sigma));
}

/// A pattern of anything: halo, noise, reflections, outliers of every height, values that never change, dead
/// patches.
plain::Pattern anyPattern(int width, int height, std::mt19937& random) {
    const auto upTo = [&random](double most) { return std::uniform_real_distribution<>(0, most)(random); };
    plain::Pattern pattern(width, height);
    const double cx = upTo(width), cy = upTo(height), halo = std::pow(10.0, upTo(4)), reach = 1 + upTo(30);
    const double background = upTo(4) < 1 ? upTo(300) : upTo(12), noise = std::pow(10.0, upTo(2));
    forEachPixel(width, height, [&](int x, int y) {
        const double r = std::hypot(x - cx, y - cy);
        const double u = std::remainder(x + 0.3 * y, 17.0), v = std::remainder(y - 0.2 * x, 13.0);
        const double value = background + halo * std::exp(-r / reach) + 0.02 * x +
                             200 * std::exp(-u * u - v * v) + noise * (upTo(1) + upTo(1) - 1);
        pattern.at(x, y) = plain::limited(value);
    });
    for (int i = 0; i < width * height / 50; ++i)
        pattern.at(static_cast<int>(upTo(width)), static_cast<int>(upTo(height))) =
            plain::limited((upTo(4) < 1 ? -1 : 1) * std::pow(10.0, upTo(4.6)));
    const int patch = static_cast<int>(upTo(width));
    for (int y = static_cast<int>(upTo(height)); y < height; ++y)
        for (int x = patch; x < std::min(patch + 9, width); ++x)
            pattern.at(x, y) = 0;
    return pattern;
}

std::vector<plain::Pattern> anySeries(int width, int height, int count, std::mt19937& random) {
    std::vector<plain::Pattern> series;
    for (int i = 0; i < count; ++i)
        series.push_back(anyPattern(width, height, random));
    // Pixels that do not change, some of them side by side.
    for (int i = 0; i < width * height / 30; ++i) {
        const std::size_t pixel = random() % series[0].pixels.size();
        for (plain::Pattern& pattern : series)
            pattern.pixels[pixel] = series[0].pixels[pixel];
    }
    return series;
}

Data toData(const std::vector<plain::Pattern>& series) {
    Data data = makeSeries(static_cast<unsigned>(series[0].width), static_cast<unsigned>(series[0].height),
                           std::vector<float>(series.size(), 10.0F));
    for (unsigned i = 0; i < data->GetDepth(); ++i)
        setPixels(*data, i, series[i].pixels);
    return data;
}

void expectEqual(const VoxMRCData& data, const std::vector<plain::Pattern>& expected) {
    double lowest = 32767, highest = -32768, sum = 0;
    for (unsigned i = 0; i < data.GetDepth(); ++i) {
        const std::vector<short> pixels = pixelsOf(data, i);
        ASSERT_EQ(pixels, expected[i].pixels) << "pattern " << i;
        lowest = std::min<double>(lowest, *std::min_element(pixels.begin(), pixels.end()));
        highest = std::max<double>(highest, *std::max_element(pixels.begin(), pixels.end()));
        sum = std::accumulate(pixels.begin(), pixels.end(), sum);
    }
    EXPECT_EQ(data.m_Header.amin, static_cast<float>(lowest));
    EXPECT_EQ(data.m_Header.amax, static_cast<float>(highest));
    EXPECT_EQ(data.m_Header.amean, static_cast<float>(sum / data.GetDataSize()));
}

const std::vector<Operation> kAll = {
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.HotSpotFilterImageStack(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.step1_BackgroundSubstraction(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.smooth(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.step2_CenterShift(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.step3_Rotation2TiltAxis(s, true, 30, 0); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.DownsampleImageStack(s, true, 0); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.RebinImageStack(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.PadToSquare(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.CropToSquare(s); },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) {
        return p.turnUndistorted(s, 30, {0.01, 0.01, 0});
    },
    [](VoxMRCstemProcessing& p, VoxMRCData* s) { return p.recoByAngle(s, 0, 0, true); },
};

}  // namespace

TEST(Preprocessing, EveryOperationKeepsItsInputRefusesNoDataAndCanBeCanceled) {
    simulated::PatternSettings settings;
    settings.size = 64;
    const Data series = makeSeries(64, 64, {-10, 0, 10});
    for (unsigned i = 0; i < 3; ++i)
        setPixels(*series, i, simulated::pattern(settings, 32, 31, i));
    for (const Operation operation : kAll) {
        const Data before(VoxMRCData::Create3D(64, 64, 3));
        *before = *series;
        const Data result = apply(operation, series.get());
        ASSERT_NE(result, nullptr);
        EXPECT_TRUE(*before == *series);
        EXPECT_EQ(result->m_Header.tilt(2), 10);
        EXPECT_EQ(result->m_Header.nx, static_cast<int>(result->GetWidth()));

        RecordingLogObserver log;
        VoxMRCstemProcessing processing;
        VoxMRCData empty;
        EXPECT_EQ(operation(processing, nullptr), nullptr);
        EXPECT_EQ(operation(processing, &empty), nullptr);
        EXPECT_EQ(log.count("(): ", VRK::Error), 2);

        RecordingProgressObserver watching;
        processing.registerObserver(&watching);
        Data(operation(processing, series.get()));
        EXPECT_EQ(watching.updates.size(), static_cast<std::size_t>(watching.steps()));
        for (std::size_t step = 1; step <= watching.updates.size(); ++step) {
            RecordingProgressObserver canceling(step);
            processing.registerObserver(&canceling);
            EXPECT_EQ(operation(processing, series.get()), nullptr);
        }
        EXPECT_EQ(log.count("canceled ...", VRK::Normal), watching.steps());
    }
}

TEST(Preprocessing, EqualsThePlainStepsBitForBit) {
    std::mt19937 random(11);
    const auto edge = [&](int most) { return 1 + static_cast<int>(random() % static_cast<unsigned>(most)); };
    for (int run = 0; run < 60; ++run) {
        SCOPED_TRACE(run);
        const int large = run % 3 == 0 ? 70 : 0;  // so large that cells are taken between the rings
        const auto series = anySeries(large + edge(60), large + edge(60), edge(7), random);
        const Data data = toData(series);
        const double angle = std::uniform_real_distribution<>(-400, 400)(random);
        const plain::Lenses lenses{0.03, 0.7 * angle, run % 2 == 0 ? 2e-5 : -2e-5};
        const double doubled = 2 * lenses.azimuth * std::numbers::pi / 180;
        const FrameDistortion distortion{lenses.strength * std::cos(doubled),
                                         lenses.strength * std::sin(doubled), lenses.radial};
        // What was not recorded: beside an area, and what centring brought in.
        std::vector<PatternCentre> centres;
        for (std::size_t i = 0; i < series.size(); ++i)
            centres.push_back({.x = 1.0 * edge(series[0].width),
                               .y = 1.0 * edge(series[0].height),
                               .source = PatternCentre::Source::Beam});
        const RecordedPixels recorded(series[0].width, series[0].height,
                                      {edge(9) - 5, edge(9) - 5, edge(130), edge(130)}, {}, centres);
        std::vector<plain::Pattern> flat, flatRecorded, turned, straight;
        for (const plain::Pattern& pattern : series) {
            std::vector<unsigned char> lost(pattern.pixels.size());
            recorded.notRecorded(static_cast<unsigned>(flat.size()), lost.data());
            flat.push_back(plain::withoutBackground(pattern));
            flatRecorded.push_back(plain::withoutBackground(pattern, lost));
            turned.push_back(plain::turned(pattern, angle));
            straight.push_back(plain::turned(pattern, angle, lenses));
        }
        VoxMRCstemProcessing processing;
        const std::vector<plain::Pattern> clean = plain::withoutHotSpots(series);
        expectEqual(*Data(processing.HotSpotFilterImageStack(data.get())), clean);
        expectEqual(*Data(processing.step1_BackgroundSubstraction(data.get())), flat);
        std::vector<std::vector<ReplacedPixel>> replaced;
        expectEqual(*Data(processing.removeHotSpots(toData(series), &replaced)), clean);
        expectEqual(*Data(processing.subtractBackground(toData(series), {})), flat);
        expectEqual(*Data(processing.subtractBackground(toData(series), recorded)), flatRecorded);
        RecordingLogObserver log;
        EXPECT_EQ(processing.subtractBackground(makeSeries(150, 64, {0}), recorded), nullptr);
        EXPECT_TRUE(log.has("another series", VRK::Error));
        for (std::size_t i = 0; i < series.size(); ++i) {
            std::vector<short> pixels = series[i].pixels;
            for (const ReplacedPixel& pixel : replaced[i])
                pixels[pixel.place] = pixel.value;
            EXPECT_EQ(pixels, clean[i].pixels);
        }
        expectEqual(*Data(processing.step3_Rotation2TiltAxis(data.get(), true, angle, 0)), turned);
        expectEqual(*Data(processing.turnUndistorted(data.get(), angle, distortion)), straight);
        if (HasFatalFailure()) return;
    }
}

TEST(Preprocessing, MovesAsThePlainShiftBitForBit) {
    std::mt19937 random(12);
    VRK::detail::FrameShift shift;
    for (int run = 0; run < 300; ++run) {
        const auto pattern =
            anyPattern(1 + static_cast<int>(random() % 30), 1 + static_cast<int>(random() % 30), random);
        // Whole and half pixels as well as any others, also beyond the frame.
        const auto distance = [&] {
            const double any = std::uniform_real_distribution<>(-20, 20)(random);
            return run % 4 == 0 ? std::round(any) : run % 4 == 1 ? std::round(2 * any) / 2 : any;
        };
        const double dx = distance(), dy = run % 5 == 0 ? 0 : distance();
        VRK::detail::Frame moved(pattern.height, pattern.width, short{-1});
        const auto frame = VRK::detail::readOnly(pattern.pixels.data(), pattern.width, pattern.height);
        VRK::detail::Frame inPlace = frame.clone();
        shift.apply(frame, dx, dy, moved);
        shift.apply(inPlace, dx, dy, inPlace);
        const std::vector<short> expected = plain::moved(pattern, dx, dy).pixels;
        for (const VRK::detail::Frame& result : {moved, inPlace})
            ASSERT_EQ(std::vector<short>(result.begin(), result.end()), expected)
                << pattern.width << " x " << pattern.height << " by " << dx << ", " << dy;
    }
}

TEST(Preprocessing, TurnsTheAxisToY) {
    const Data series =
        seriesOf(121, 121, [](double x, double y) { return std::fmod(79 * x + 104 * y, 1000); });
    series->m_Header.setValue(SliceValue::TiltAxis, 0, 37);
    VoxMRCstemProcessing processing;
    RecordingLogObserver log;
    const Data turned(processing.step3_Rotation2TiltAxis(series.get(), false, 37, 1));
    EXPECT_TRUE(log.has("tilt axis at 37 degrees", VRK::Normal) &&
                log.has("rotating pattern 0", VRK::Normal));
    EXPECT_EQ(turned->m_Header.value(SliceValue::TiltAxis, 0), 0);

    // Quarter turns move whole pixels: the axis along -x comes to +y.
    const Data quarter(processing.step3_Rotation2TiltAxis(series.get(), true, 90, 0));
    forEachPixel(121, 121, [&](unsigned x, unsigned y) {
        ASSERT_EQ(pixel(*quarter, x, y), pixel(*series, 120 - y, x));
    });
    EXPECT_TRUE(*Data(processing.step3_Rotation2TiltAxis(series.get(), true, 0, 0)) == *series);
    EXPECT_EQ(log.count("rotating pattern", VRK::Normal) + log.count("to the y axis", VRK::Normal), 2);
    EXPECT_TRUE(*Data(processing.turnUndistorted(series.get(), 0, {})) == *series);
    EXPECT_FALSE(log.has("An ellipse of", VRK::Normal));
    EXPECT_NE(Data(processing.turnUndistorted(series.get(), 7, {0.03, 0.04, 0})), nullptr);
    EXPECT_TRUE(log.has("An ellipse of 0.05 is", VRK::Normal) && log.has("at 7 degrees", VRK::Normal));
    for (const FrameDistortion& nonsense : {FrameDistortion{0.6, 0, 0}, FrameDistortion{0, 0, 1}})
        EXPECT_EQ(processing.turnUndistorted(series.get(), 10, nonsense), nullptr);
    EXPECT_EQ(
        processing.step3_Rotation2TiltAxis(series.get(), true, std::numeric_limits<double>::quiet_NaN(), 0),
        nullptr);
}

TEST(Preprocessing, HalvesAboutTheCentre) {
    // A ramp is told exactly at its new places: the centre keeps its value, a pixel becomes two wide.
    for (const unsigned width : {12U, 13U})
        for (const unsigned height : {10U, 11U}) {
            const auto ramp = [&](double x, double y) {
                return 1000 + 80 * (x - (width - 1) / 2.0) - 160 * (y - (height - 1) / 2.0);
            };
            const Data series = seriesOf(width, height, ramp);
            const Data half = apply(kAll[5], series.get());
            const Data sum = apply(kAll[6], series.get());
            ASSERT_EQ(half->GetWidth(), width / 2);
            ASSERT_EQ(half->GetHeight(), height / 2);
            forEachPixel(width / 2, height / 2, [&](unsigned x, unsigned y) {
                const double dx = x - (width / 2 - 1) / 2.0, dy = y - (height / 2 - 1) / 2.0;
                EXPECT_EQ(pixel(*half, x, y), 1000 + 160 * dx - 320 * dy);
                EXPECT_EQ(pixel(*sum, x, y), 4 * (1000 + 160 * dx - 320 * dy));
            });
            EXPECT_FLOAT_EQ(half->m_Header.m_pixelsize, 2e8F);
            EXPECT_FLOAT_EQ(half->m_Header.value(SliceValue::PixelSize, 0), 2e8F);
        }
    // Halves are rounded away from 0, sums are limited.
    const Data small = makeSeries(2, 2, {0, 1, 2, 3});
    setPixels(*small, 0, {1, 1, 0, 0});
    setPixels(*small, 1, {-1, -1, 0, 0});
    setPixels(*small, 2, {30000, 30000, 5, 5});
    setPixels(*small, 3, {-30000, -30000, -5, 5});
    RecordingLogObserver log;
    const Data half = apply(kAll[5], small.get());
    const Data sum = apply(kAll[6], small.get());
    EXPECT_EQ((std::vector<short>{pixel(*half, 0, 0, 0), pixel(*half, 0, 0, 1), pixel(*sum, 0, 0, 2),
                                  pixel(*sum, 0, 0, 3)}),
              (std::vector<short>{1, -1, 32767, -32768}));
    EXPECT_TRUE(log.has("2 pixels reached the limits", VRK::Warning));
    log.messages.clear();
    for (const bool quiet : {true, false})
        Data(VoxMRCstemProcessing().DownsampleImageStack(small.get(), quiet, quiet ? 0 : 1));
    EXPECT_TRUE(log.has("Patterns binned from 2 x 2 to 1 x 1 pixels.", VRK::Normal));
    EXPECT_EQ(log.count("Patterns binned", VRK::Normal) + log.count("binning pattern", VRK::Normal), 5);
    EXPECT_EQ(apply(kAll[5], makeSeries(1, 4, {0}).get()), nullptr);
}

TEST(Preprocessing, PadsAndCropsAboutTheCentre) {
    for (const auto& [width, height] :
         {std::pair{30U, 20U}, {20U, 30U}, {29U, 20U}, {20U, 31U}, {31U, 21U}}) {
        const auto centred = [&, w = width, h = height](double x, double y) {
            return 1000 * spot(x, y, (w - 1) / 2.0, (h - 1) / 2.0, 2);
        };
        const Data series = seriesOf(width, height, centred);
        for (const Operation operation : {kAll[7], kAll[8]}) {
            const Data square = apply(operation, series.get());
            const unsigned size = operation == kAll[7] ? std::max(width, height) : std::min(width, height);
            ASSERT_EQ(square->GetWidth(), size);
            ASSERT_EQ(square->GetHeight(), size);
            double sum = 0, sumX = 0, sumY = 0;
            forEachPixel(size, size, [&](unsigned x, unsigned y) {
                sum += pixel(*square, x, y);
                sumX += x * pixel(*square, x, y);
                sumY += y * pixel(*square, x, y);
            });
            EXPECT_NEAR(sumX / sum, (size - 1) / 2.0, 0.02) << width << " x " << height;
            EXPECT_NEAR(sumY / sum, (size - 1) / 2.0, 0.02) << width << " x " << height;
        }
    }
}

TEST(Preprocessing, SmoothsByAGaussian) {
    const Data series =
        seriesOf(41, 41, [](unsigned x, unsigned y) { return x == 20 && y == 20 ? 10000 : 0; });
    VoxMRCstemProcessing processing;
    const Data smooth(processing.smooth(series.get(), 2));
    const double peak = 10000 / (2 * std::acos(-1.0) * 4);
    EXPECT_NEAR(pixel(*smooth, 20, 20), peak, 10);
    EXPECT_NEAR(pixel(*smooth, 22, 20), peak * std::exp(-0.5), 10);
    EXPECT_TRUE(*Data(processing.smooth(series.get(), 0)) == *series);
    for (const double sigma : {-1.0, 50.0, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(processing.smooth(series.get(), sigma), nullptr);
}

TEST(RecordedPixels, AreThoseThatAMovedPatternTakesFromTheFrame) {
    constexpr int kSize = 40;
    ShadowMask none;
    const auto centreAt = [](double x, double y) {
        return PatternCentre{.x = x, .y = y, .source = PatternCentre::Source::Beam};
    };
    // Moved by (+4, -2), by (-0.5, +3.25), not worth moving, without a centre.
    const std::vector<PatternCentre> centres = {centreAt(15.5, 21.5), centreAt(20, 16.25),
                                                centreAt(19.52, 19.5), PatternCentre{}};
    const RecordedPixels recorded(kSize, kSize, {3, 0, kSize - 6, kSize}, none, centres);
    const std::vector<std::array<int, 4>> kept = {// first and last column, first and last row
                                                  {7, 40, 0, 37},
                                                  {3, 35, 4, 39},
                                                  {3, 36, 0, 39},
                                                  {3, 36, 0, 39}};
    std::vector<unsigned char> mask(kSize * kSize);
    for (unsigned i = 0; i < kept.size(); ++i) {
        recorded.notRecorded(i, mask.data());
        forEachPixel(kSize, kSize, [&](int x, int y) {
            const bool inside = x >= kept[i][0] && x <= kept[i][1] && y >= kept[i][2] && y <= kept[i][3];
            ASSERT_EQ(mask[static_cast<std::size_t>(y * kSize + x)], inside ? 0 : 1)
                << i << ": " << x << ' ' << y;
        });
        EXPECT_FALSE(recorded.isCut(i, 20, 20, 3));
        EXPECT_FALSE(recorded.isCut(i, kept[i][0] + 3.0, 20, 2.5)) << i;
        EXPECT_TRUE(recorded.isCut(i, kept[i][0] + 2.0, 20, 3.0)) << i;
        EXPECT_TRUE(recorded.isCut(i, std::nan(""), 20, 1)) << i;
    }
    EXPECT_FALSE(RecordedPixels().isCut(0, -5, 9e99, 3));
}

TEST(RecordedPixels, MasksAreThoseOfSinglePixels) {
    // A stop with a bar, in frames of the whole area and of a part of it.
    constexpr int kSize = 96;
    const Data series = seriesOf(kSize, kSize, [](unsigned x, unsigned y) {
        const bool stop = std::hypot(x - 50.0, y - 45.0) < 9 || (x < 50 && y > 42 && y < 48);
        return stop ? 0.0 : 100.0 + (x * 7 + y * 3) % 11;
    });
    const ShadowMask shadows(series.get());
    ASSERT_FALSE(shadows.empty());
    std::vector<PatternCentre> centres;
    for (const double move : {-7.25, -0.5, 0.0, 1e-17, 3.0, 60.75})
        centres.push_back({.x = 47.5 - move, .y = 47.5 + 0.7 * move, .source = PatternCentre::Source::Beam});
    std::vector<unsigned char> mask(kSize * kSize);
    for (const auto& [left, width, mayBeDark] :
         {std::tuple(0, kSize, true), {5, 80, true}, {0, kSize, false}}) {
        const RecordedPixels recorded(kSize, kSize, {left, 0, width, kSize},
                                      mayBeDark ? shadows : ShadowMask(), centres);
        for (unsigned i = 0; i <= centres.size(); ++i) {
            recorded.notRecorded(i, mask.data());
            for (int pixel = 0; pixel < kSize * kSize; ++pixel)
                ASSERT_EQ(mask[static_cast<std::size_t>(pixel)],
                          recorded.isCut(i, pixel % kSize, pixel / kSize, 0) ? 1 : 0)
                    << i << ": " << pixel;
        }
    }
}
