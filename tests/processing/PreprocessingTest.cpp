#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>

#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"
#include "processing/VoxMRCstemProcessing.h"
#include "support/RecordingLogObserver.h"
#include "support/RecordingProgressObserver.h"

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
        for (unsigned y = 0; y < height; ++y)
            for (unsigned x = 0; x < width; ++x)
                series->GetChunkPointer(i)[y * width + x] = static_cast<short>(std::lround(value(x, y)));
    return series;
}

short pixel(const VoxMRCData& data, unsigned x, unsigned y, unsigned pattern = 0) {
    return data.GetChunkPointer(pattern)[y * data.GetWidth() + x];
}

/// A sharp spot of unit height.
double spot(double x, double y, double cx, double cy, double sigma = 1.5) {
    return std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / (2 * sigma * sigma));
}

/// The median of every ring of one pixel's width about the frame's centre, of rings with at least that many
/// pixels.
std::vector<double> ringMedians(const VoxMRCData& data, std::size_t fewest) {
    const double cx = (data.GetWidth() - 1) / 2.0, cy = (data.GetHeight() - 1) / 2.0;
    std::vector<std::vector<short>> rings(data.GetWidth() + data.GetHeight());
    for (unsigned y = 0; y < data.GetHeight(); ++y)
        for (unsigned x = 0; x < data.GetWidth(); ++x)
            rings[static_cast<std::size_t>(std::floor(std::hypot(x - cx, y - cy) + 0.5))].push_back(
                pixel(data, x, y));
    std::vector<double> medians;
    for (auto& ring : rings) {
        if (ring.size() < fewest) continue;
        std::sort(ring.begin(), ring.end());
        medians.push_back(0.5 * (ring[(ring.size() - 1) / 2] + ring[ring.size() / 2]));
    }
    return medians;
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
};

Operation rotationBy37 = [](VoxMRCstemProcessing& p, VoxMRCData* s) {
    return p.step3_Rotation2TiltAxis(s, true, 37, 0);
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
        const std::vector<short> first = pixelsOf(*result, 0);
        EXPECT_LE(result->m_Header.amin, *std::min_element(first.begin(), first.end()));
        EXPECT_GE(result->m_Header.amax, *std::max_element(first.begin(), first.end()));

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

TEST(Preprocessing, ReplacesSinglePixelsAndKeepsReflections) {
    std::mt19937 random(5);
    std::poisson_distribution<int> noise(20);
    Data series = seriesOf(
        96, 96, [&](unsigned, unsigned) { return noise(random); }, 6);
    const auto set = [&](unsigned x, unsigned y, int value, unsigned i = 0) {
        series->GetChunkPointer(i)[y * 96 + x] = static_cast<short>(value);
    };
    set(10, 10, 3000);
    set(0, 0, 400);
    set(95, 40, 30000);
    // A sharp reflection, half of which falls on one pixel, and a weak one.
    set(50, 50, 520);
    for (const auto& [x, y] : {std::pair{49U, 50U}, {51U, 50U}, {50U, 49U}, {50U, 51U}})
        set(x, y, 120);
    set(70, 20, 75);
    set(71, 20, 55);
    for (unsigned i = 0; i < 6; ++i)
        set(30, 60, 0, i);  // dead in all patterns
    const Data result = apply(kAll[0], series.get());
    for (const auto& [x, y] : {std::pair{10U, 10U}, {0U, 0U}, {95U, 40U}, {30U, 60U}})
        EXPECT_NEAR(pixel(*result, x, y), 20, 9) << x << ' ' << y;
    EXPECT_EQ(pixel(*result, 50, 50), 520);
    EXPECT_EQ(pixel(*result, 49, 50), 120);
    EXPECT_EQ(pixel(*result, 70, 20), 75);
    int changed = 0;
    for (unsigned i = 0; i < 6; ++i)
        for (unsigned p = 0; p < 96 * 96; ++p)
            changed += result->GetChunkPointer(i)[p] != series->GetChunkPointer(i)[p] ? 1 : 0;
    EXPECT_LE(changed, 3 + 6 + 3);

    // A dead pixel in a bright region, in one pattern alone.
    Data bright = seriesOf(32, 32, [](unsigned x, unsigned y) { return 900 + x + y; });
    bright->GetChunkPointer(0)[15 * 32 + 15] = 0;
    EXPECT_NEAR(pixel(*apply(kAll[0], bright.get()), 15, 15), 930, 2);
}

TEST(Preprocessing, SubtractsTheBackgroundAndKeepsReflections) {
    for (const int beamStop : {0, 20}) {
        simulated::PatternSettings settings;
        settings.size = 201;
        settings.background = 30;
        settings.spots = 0;
        settings.beamStopWidth = beamStop;
        Data series = makeSeries(201, 201, {0});
        std::vector<short> pixels = simulated::pattern(settings, 100, 100, 3);
        for (unsigned y = 0; y < 201; ++y)
            for (unsigned x = 0; x < 201; ++x) {
                short& value = pixels[y * 201 + x];
                // A slow slope beside the radial part, and reflections.
                if (value > 0)
                    value = static_cast<short>(value + 0.1 * x + std::round(400 * spot(x, y, 40, 60)));
            }
        setPixels(*series, 0, pixels);
        const Data result = apply(kAll[1], series.get());
        for (const double median : ringMedians(*result, 1))
            EXPECT_EQ(median, 0.0);
        EXPECT_NEAR(pixel(*result, 40, 60), 400, 60);
        EXPECT_EQ(pixel(*result, 150, 100) == 0, beamStop > 0);
        // The slope is gone: left and right are level, and noise goes both ways.
        double left = 0, right = 0, negative = 0;
        for (unsigned y = 120; y < 180; ++y)
            for (unsigned x = 0; x < 60; ++x) {
                left += pixel(*result, x, y) / 3600.0;
                right += pixel(*result, 200 - x, y) / 3600.0;
                negative += pixel(*result, x, y) < 0 ? 1 / 3600.0 : 0;
            }
        EXPECT_NEAR(left, 0, 1);
        EXPECT_NEAR(right, 0, 1);
        EXPECT_NEAR(negative, 0.5, 0.1);
    }
}

TEST(Preprocessing, TurnsTheAxisToY) {
    // Spots on the axis at 37 degrees, one on its positive and one on its negative side.
    const double t = 37 * std::acos(-1.0) / 180;
    const auto onAxis = [&](double x, double y) {
        return 1000 * spot(x, y, 60 - 40 * std::sin(t), 60 + 40 * std::cos(t)) +
               500 * spot(x, y, 60 + 30 * std::sin(t), 60 - 30 * std::cos(t));
    };
    const Data series = seriesOf(121, 121, onAxis);
    series->m_Header.setValue(SliceValue::TiltAxis, 0, 37);
    const Data turned = apply(rotationBy37, series.get());
    EXPECT_NEAR(pixel(*turned, 60, 100), 1000, 15);
    EXPECT_NEAR(pixel(*turned, 60, 30), 500, 8);
    EXPECT_EQ(turned->m_Header.value(SliceValue::TiltAxis, 0), 0);

    VoxMRCstemProcessing processing;
    const Data back(processing.step3_Rotation2TiltAxis(turned.get(), false, -37, 1));
    for (unsigned y = 20; y < 101; ++y)
        for (unsigned x = 20; x < 101; ++x)
            EXPECT_NEAR(pixel(*back, x, y), pixel(*series, x, y), 15);
    for (const short value : pixelsOf(*turned, 0))
        EXPECT_GE(value, 0);  // no undershoot beside the spots

    // Quarter turns move whole pixels: the axis along -x comes to +y.
    const Data quarter(processing.step3_Rotation2TiltAxis(series.get(), true, 90, 0));
    for (unsigned y = 0; y < 121; ++y)
        for (unsigned x = 0; x < 121; ++x)
            ASSERT_EQ(pixel(*quarter, x, y), pixel(*series, 120 - y, x));
    EXPECT_TRUE(*Data(processing.step3_Rotation2TiltAxis(series.get(), true, 0, 0)) == *series);
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
            for (unsigned y = 0; y < height / 2; ++y)
                for (unsigned x = 0; x < width / 2; ++x) {
                    const double dx = x - (width / 2 - 1) / 2.0, dy = y - (height / 2 - 1) / 2.0;
                    EXPECT_EQ(pixel(*half, x, y), 1000 + 160 * dx - 320 * dy);
                    EXPECT_EQ(pixel(*sum, x, y), 4 * (1000 + 160 * dx - 320 * dy));
                }
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
    EXPECT_EQ(apply(kAll[5], makeSeries(1, 4, {0}).get()), nullptr);
}

TEST(Preprocessing, PadsAndCropsAboutTheCentre) {
    for (const auto& [width, height] :
         {std::pair{30U, 20U}, {20U, 30U}, {31U, 20U}, {20U, 31U}, {31U, 21U}}) {
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
            for (unsigned y = 0; y < size; ++y)
                for (unsigned x = 0; x < size; ++x) {
                    sum += pixel(*square, x, y);
                    sumX += x * pixel(*square, x, y);
                    sumY += y * pixel(*square, x, y);
                }
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
