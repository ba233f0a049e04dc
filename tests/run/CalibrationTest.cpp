// The geometry of instruments: found on crystals, combined, kept in a file.
#include "pipeline/run/Calibration.h"

#include "pipeline/formats/CellInput.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "pipeline/latticesearch/KnownCell.h"
#include "support/FailureOf.h"
#include "support/RecordedReflections.h"
#include "support/SoFar.h"

namespace {

using vrk::InstrumentTerm;
using vrk::kDegree;

const std::array<double, 6> kCell = {6.3, 8.1, 9.9, 82.0, 97.0, 104.0};

/// A series whose lenses have an ellipse of 1.2 % along 50 degrees in the frame.
vrk::CalibrationInput inputWithAxisAt(double axis, unsigned seed) {
    const vrk::test::Recorded data(
        kCell,
        {.axisTurn = 0.3, .ellipse = 0.012, .azimuth = 50.0 - axis, .radial = 0.005, .tiltScale = 1.004},
        {.noise = 0.3, .seed = seed});
    vrk::CalibrationInput input;
    input.name = "series " + std::to_string(seed);
    input.positions = data.positions;
    input.tilts = data.tilts;
    input.lattice = vrk::Lattice::of(reciprocalCell(data.truth, vrk::test::kPixelSize), data.centre);
    input.centre = data.centre;
    input.width = static_cast<int>(2.0 * vrk::test::kHalfWidth);
    input.wavelength = EwaldCurvature::wavelength(200.0);
    input.sense = 1;
    input.axisAngle = axis;
    return input;
}

TEST(Calibration, TellsTheInstrumentInTheFrameWhereverTheAxisLies) {
    std::array<double, 6> longer = kCell;
    for (std::size_t i = 0; i < 3; ++i)
        longer[i] *= 1.02;
    std::vector<vrk::SeriesCalibration> series;
    for (const unsigned seed : {1U, 2U, 3U})
        series.push_back(vrk::calibrate(inputWithAxisAt(seed == 3 ? 213.0 : 33.0, seed), longer));
    const vrk::CombinedCalibration all = vrk::combined(series);
    const vrk::InstrumentCalibration& found = all.calibration;
    for (const auto& [one, truth, within] : {std::tuple(found.ellipse, 0.012, 2e-4),
                                             {found.ellipseAzimuth, 50.0, 0.7},
                                             {found.radial, 0.005, 1e-3},
                                             {found.tiltScale, 1.004, 5e-4},
                                             {found.axisAngle, 33.3, 0.02},
                                             {found.axisTilt, 0.0, 0.05},
                                             {found.pixelScale, 1 / 1.02, 5e-4}}) {
        ASSERT_TRUE(one);
        EXPECT_NEAR(one->value, truth, within);
        EXPECT_GT(one->sigma, 0.0);
        EXPECT_LT(one->sigma, within);
        EXPECT_LT(one->correlation, 1.0);
    }
    SoFar soFar;
    soFar.addText(vrk::instrumentText(found));
    for (const auto& one : all.scatters)
        soFar.add(one.series, one.scatter);
    EXPECT_NEAR(soFar.sum(), 813.5059, 1e-3);
    ASSERT_EQ(found.notDetermined.size(), 1U);
    EXPECT_EQ(found.notDetermined.front().first, "tilt_offset");

    const vrk::CombinedCalibration without =
        vrk::combined(std::vector{vrk::calibrate(inputWithAxisAt(10.0, 4), std::nullopt)});
    EXPECT_FALSE(without.calibration.ellipse || without.calibration.pixelScale);
    EXPECT_EQ(without.calibration.notDetermined.front().first, "ellipse");
    EXPECT_THROW(vrk::calibrate(inputWithAxisAt(10.0, 4), std::array{6.3, 8.1, 11.5, 82.0, 97.0, 104.0}),
                 vrk::Failure);
}

/// What a series says of tilts and axis.
vrk::SeriesCalibration saying(double tiltScale, double sigma, double axis) {
    vrk::SeriesCalibration one;
    one.width = 512;
    one.pixelSize = 5e7;
    one.axisAngle = axis;
    one.instrument.used[static_cast<std::size_t>(InstrumentTerm::TiltScale)] = true;
    one.instrument.model[InstrumentTerm::TiltScale] = tiltScale - 1.0;
    one.instrument.sigma[static_cast<std::size_t>(InstrumentTerm::TiltScale)] = sigma;
    one.instrument.axisSigma = 0.01 * kDegree;
    return one;
}

TEST(Calibration, WeighsSeriesAndTellsTheirScatter) {
    using Series = std::vector<vrk::SeriesCalibration>;
    const auto agreeing = vrk::combined(Series{saying(1.010, 0.003, 10.0), saying(1.011, 0.001, 190.0)});
    EXPECT_NEAR(agreeing.calibration.tiltScale->value, 1.0109, 1e-6) << "weights 1 and 9";
    EXPECT_NEAR(agreeing.calibration.tiltScale->sigma, 0.003 / std::sqrt(10.0), 1e-6);
    EXPECT_NEAR(agreeing.calibration.axisAngle->value, 10.0, 1e-9) << "the same line";
    const auto differing = vrk::combined(Series{saying(1.000, 0.001, 10.0), saying(1.010, 0.001, 20.0)});
    EXPECT_NEAR(differing.calibration.tiltScale->value, 1.005, 1e-6);
    EXPECT_NEAR(differing.calibration.tiltScale->sigma, 0.005, 1e-5) << "by the scatter";
    EXPECT_NEAR(differing.scatters.front().scatter, 0.01 / std::sqrt(2.0), 1e-6);
    EXPECT_FALSE(differing.calibration.axisAngle);
    Series lengths = {saying(1.0, 0.001, 10.0), saying(1.0, 0.001, 10.0)};
    lengths[1].pixelSize = 1e8;  // binned
    EXPECT_NO_THROW(vrk::combined(lengths));
    lengths[1].pixelSize = 7e7;
    EXPECT_THROW(vrk::combined(lengths), vrk::Failure);
}

TEST(KnownCell, IsRecognisedInAnyPrimitiveBaseScaledAndStrained) {
    const std::pair<std::array<double, 6>, char> cases[] = {
        {{11.9, 11.9, 11.9, 90, 90, 90}, 'I'}, {{5.6, 5.6, 5.6, 90, 90, 90}, 'F'},
        {{8.2, 8.2, 22, 90, 90, 120}, 'R'},    {{26.3, 11.2, 17.5, 90, 115, 90}, 'C'},
        {{6.3, 8.4, 11.2, 75, 82, 68}, 'P'},   {{9.2, 13.1, 41, 90, 90, 90}, 'P'}};
    Eigen::Matrix3d strain, other;
    strain << 1.062, 0.006, 0, 0.006, 1.048, 0, 0, 0, 1.055;
    other << 0, 1, 0, -1, 0, 0, 0, 0, 1;
    for (const auto& [known, centring] : cases) {
        SCOPED_TRACE(centring);
        UnitCell primitive = vrk::cellFromNumbers({known.begin(), known.end()}, centring).primitive;
        Eigen::Matrix3d base;
        primitive.getBase(base.col(0).data(), base.col(1).data(), base.col(2).data());
        const auto found = vrk::toKnownCell(strain * base * other, known);
        ASSERT_TRUE(found);
        const Eigen::Matrix3d cell = base * other * *found;
        const std::array<double, 6> numbers = vrk::directCell(cell.inverse().transpose());
        for (std::size_t i = 0; i < 6; ++i)
            EXPECT_NEAR(numbers[i], known[i], i < 3 ? 1e-6 : 1e-5);
        EXPECT_GT((base * other).determinant() * cell.determinant(), 0.0);
        auto wrong = known;
        wrong[2] *= 1.07;
        EXPECT_FALSE(vrk::toKnownCell(strain * base * other, wrong));
    }
}

vrk::InstrumentCalibration example() {
    vrk::InstrumentCalibration one;
    one.width = 516;
    one.pixelSize = 8e7;
    one.ellipse = {0.014, 0.0002, 0.3};
    one.ellipseAzimuth = {-64.0, 0.5, 0.2};
    one.radial = {-0.004, 0.001, 0.9};
    one.axisAngle = {49.5, 0.02, 0.1};
    one.pixelScale = {1.006, 0.0001, 0.0};
    one.notDetermined = {{"tilt_scale", "narrow"}};
    one.madeFrom = {"a.mrc", "b"};
    return one;
}

TEST(InstrumentFile, ComesBackAsItWasWrittenAndKnowsBinnedFrames) {
    const TemporaryFolder folder;
    const vrk::InstrumentCalibration before = example();
    vrk::writeInstrumentFile(folder / "d.json", before);
    const vrk::InstrumentCalibration after = vrk::readInstrumentFile(folder / "d.json");
    EXPECT_EQ(vrk::instrumentText(after), vrk::instrumentText(before));
    EXPECT_EQ(vrk::valuesOf(after).size(), 5U);
    EXPECT_FALSE(after.tiltScale || after.axisTilt);
    EXPECT_EQ(after.notDetermined, before.notDetermined);
    const FrameDistortion distortion = after.distortionAt(8e7);
    EXPECT_NEAR(distortion.ellipseCosine, 0.014 * std::cos(128 * kDegree), 1e-12);
    EXPECT_NEAR(distortion.ellipseSine, -0.014 * std::sin(128 * kDegree), 1e-12);
    EXPECT_NEAR(distortion.radial * 258 * 258, -0.004, 1e-12) << "at half the width";
    const auto [x, y] = distortion.recorded(20, -30);
    const auto [binnedX, binnedY] = after.distortionAt(16e7).recorded(10, -15);
    EXPECT_NEAR(2 * binnedX, x, 1e-9);
    EXPECT_NEAR(2 * binnedY, y, 1e-9);
    EXPECT_TRUE(after.hasCameraLengthOf(2e7) && after.hasCameraLengthOf(8.002e7));
    EXPECT_FALSE(after.hasCameraLengthOf(8.4e7));
}

TEST(InstrumentFile, RefusesWhatItDoesNotUnderstand) {
    const TemporaryFolder folder;
    constexpr std::size_t kDeep = 100000;
    const std::string deep = "\"version\": " + std::string(kDeep, '[') + std::string(kDeep, ']');
    const std::array<std::string, 3> cases[] = {
        {"{", "[", "no JSON"},
        {"\"version\": 1", deep, "no JSON"},
        {"vrk instrument geometry", "cell", "vrk calibrate"},
        {"\"version\": 1", "\"version\": 2", "version 2"},
        {"\"down\"", "\"up\"", "frame.y"},
        {"516", "0", "width_px"},
        {"80000000.0", "null", "pixel_size"},
        {"\"value\": 0.014", "\"value\": 1.4", "1.4 % are 0.014"},
        {"\"value\": 0.014", "\"value\": \"large\"", "ellipse.value"},
        {"\"su\": 0.0002", "\"su\": -1", "ellipse.su"},
        {"\"su\": 0.0002", "\"esd\": 1", "ellipse.su"},
        {"\"tilt_offset\": null", "\"tilt_offset\": 1", "turns the crystal"},
        {"\"radial\": {", "\"radail\": {", "radail"},
        {"\"ellipse_azimuth_deg\": {", "\"tilt_scale\": null, \"x\": {", "'x'"},
        {"\"value\": 1.006", "\"value\": 1e400", "no JSON"}};
    for (const auto& [from, to, message] : cases) {
        SCOPED_TRACE(to.substr(0, 50));
        std::string text = vrk::instrumentText(example());
        const std::size_t place = text.find(from);
        ASSERT_NE(place, std::string::npos);
        folder.write("d.json", text.replace(place, from.size(), to));
        const Refusal refusal = failureOf([&] { vrk::readInstrumentFile(folder / "d.json"); });
        EXPECT_TRUE(refusal.says(message) && refusal.says("d.json")) << refusal.text;
    }
    EXPECT_THROW(vrk::readInstrumentFile(folder / "none.json"), vrk::Failure);
}

}  // namespace
