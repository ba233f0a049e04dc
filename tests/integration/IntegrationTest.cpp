#include "pipeline/integration/Integration.h"

#include "SimulatedInput.h"
#include "pipeline/integration/DataReduction.h"
#include "support/FailureOf.h"
#include "support/SoFar.h"

namespace {

using namespace vrk;
using test::simulatedInput;
using test::SimulatedInput;
using test::tiltRange;

SimulationSettings smallCrystal() {
    SimulationSettings settings;
    settings.cell = {6.3, 7.1, 8.4, 90, 103, 90};
    settings.detector.size = 256;
    settings.spotWidth = 1.0;
    settings.tilts = tiltRange(-50, 50, 1);
    settings.axis = -35;
    settings.centre.drift = 1.5;
    settings.seed = 12;
    return settings;
}

struct Agreement {
    double rFactor = 0;  ///< of the amplitudes
    double worstMeanPull = 0;
    double leastWidth = 10;
    double largestWidth = 0;
};

/// Intensities against the truth; pulls in fifths by true intensity.
Agreement agreementOf(const IntegrationResult& result, const SimulatedInput& simulated) {
    struct Pair {
        double truth, value, sigma;
    };
    // The curve's height goes down as its width goes up.
    const SimulationSettings& settings = simulated.simulated.truth.settings;
    const double scale = frameExposure(settings) * 0.0025 / settings.rockingWidth;
    std::vector<Pair> pairs;
    for (const IntegratedReflection& r : result.reflections) {
        const auto truth = simulated.intensities.find({r.h, r.k, r.l});
        if (r.good() && truth != simulated.intensities.end())
            pairs.push_back({scale * truth->second, r.intensity, r.sigma});
    }
    Agreement agreement;
    std::sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.truth < b.truth; });
    double difference = 0, total = 0;
    for (std::size_t fifth = 0; fifth < 5; ++fifth) {
        double sum = 0, squares = 0, count = 0;
        for (std::size_t i = pairs.size() * fifth / 5; i < pairs.size() * (fifth + 1) / 5; ++i) {
            const double pull = (pairs[i].value - pairs[i].truth) / pairs[i].sigma;
            sum += pull;
            squares += pull * pull;
            count += 1;
            difference += std::abs(std::sqrt(std::max(pairs[i].value, 0.0)) - std::sqrt(pairs[i].truth));
            total += std::sqrt(pairs[i].truth);
        }
        const double mean = sum / count;
        const double width = std::sqrt(squares / count - mean * mean);
        agreement.worstMeanPull = std::max(agreement.worstMeanPull, std::abs(mean));
        agreement.leastWidth = std::min(agreement.leastWidth, width);
        agreement.largestWidth = std::max(agreement.largestWidth, width);
    }
    agreement.rFactor = difference / total;
    return agreement;
}

void expectCell(const GeometryFit& fit, const SeriesGeometry& truth, double sigmas) {
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(fit.cell[i], truth.cell()[i], sigmas * fit.cellSigma[i] + 1e-9) << "parameter " << i;
}

double soFar(const IntegrationResult& result) {
    SoFar numbers;
    for (const IntegratedReflection& r : result.reflections)
        numbers.add(r.flags, r.intensity, r.sigma, r.sumIntensity, r.sumSigma, r.observedTilt,
                    r.observedTiltSigma, r.frame, r.coverage, r.curveChi, r.x, r.y, r.tilt, r.spacing,
                    1 / r.lorentz);
    return numbers.sum() / static_cast<double>(result.reflections.size());
}

TEST(IntegrationTest, measuresTheTrueIntensities) {
    using Settings = SimulationSettings;
    const std::tuple<const char*, void (*)(Settings&), double, double> rows[] = {
        {"continuous", [](Settings&) {}, 0.035, 6254.40370},
        {"wrong tilts", [](Settings& s) { s.tiltErrors.jitter = 0.12; }, 0.037, 6366.66547},
        {"stepwise", [](Settings& s) { s.mode = RotationMode::Stepwise; }, 0.04, 6836.27207},
        {"precessed",
         [](Settings& s) { std::tie(s.mode, s.precessionAngle) = std::pair(RotationMode::Precession, 0.9); },
         0.045, 6459.91409},
        {"spots six pixels apart",
         [](Settings& s) {
             s.cell = {5.9, 8.3, 10.4, 90, 104, 90};
             s.detector.size = 160;
             s.axis = 33;
             s.seed = 7;
         },
         0.04, 4850.23760},
        {"lost frames", [](Settings& s) { std::tie(s.rockingWidth, s.missing) = std::pair(0.005, 12); }, 0.04,
         3433.29539},
        {"noisy camera", [](Settings& s) { std::tie(s.detector.noise, s.background.halo) = std::pair(2, 4); },
         0.12, 6770.04202}};
    for (const auto& [name, change, rFactor, expected] : rows) {
        SCOPED_TRACE(name);
        SimulationSettings settings = smallCrystal();
        change(settings);
        const SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
        const IntegrationResult result = integrate(simulated.input);
        EXPECT_EQ(result.fit.rocking.mode, settings.mode);
        EXPECT_EQ(result.fit.terms.empty() ? "" : result.fit.terms.back(),
                  settings.tiltErrors.jitter > 0 ? "tilts" : "");
        EXPECT_NEAR(result.dMin, settings.dmin, 0.015);
        EXPECT_NEAR(result.extent.sigma, settings.spotWidth, 0.03);
        EXPECT_NEAR(result.noise.gain, settings.detector.noise * settings.detector.noise,
                    0.06 * settings.detector.noise * settings.detector.noise);
        expectCell(result.fit, simulated.truth, 3.5);
        const Agreement agreement = agreementOf(result, simulated);
        EXPECT_LT(agreement.rFactor, rFactor);
        EXPECT_LT(agreement.worstMeanPull, 0.2);
        EXPECT_GT(agreement.leastWidth, 0.85);
        EXPECT_LT(agreement.largestWidth, 1.15);
        EXPECT_NEAR(soFar(result), expected, 1e-4);
    }
}

TEST(IntegrationTest, believesTheHeaderUnlessTheCurvesContradictIt) {
    struct Row {
        const char* name;
        std::optional<StatedMode> stated;
        double rotation;  ///< of the simulated frames, degrees
        ModeSource source;
        const char* remark;  ///< empty: none
        std::optional<RotationMode> chosen = {};
    };
    const char* contradiction = "the rocking curves say continuous";
    const char* gaps = "by the rocking curves frames turn by 0.6 of every 1 degrees";
    const std::array<Row, 8> rows = {
        {{"as it was", StatedMode{RotationMode::Continuous, 1.0 * kDegree}, 1.0, ModeSource::Header, ""},
         {"half of the time", StatedMode{RotationMode::Continuous, 0.5 * kDegree}, 0.5, ModeSource::Header,
          ""},
         {"said to stand still", StatedMode{RotationMode::Stepwise}, 1.0, ModeSource::Curves, contradiction},
         {"said to precess", StatedMode{RotationMode::Precession, 0, 1.0 * kDegree}, 1.0, ModeSource::Curves,
          contradiction},
         {"gaps of which nobody says anything", std::nullopt, 0.6, ModeSource::Curves, gaps},
         {"short turns of which nobody says anything", std::nullopt, 0.3, ModeSource::Curves,
          "by the rocking curves frames turn by 0.3"},
         {"gaps where continuous was chosen", std::nullopt, 0.6, ModeSource::Option, gaps,
          RotationMode::Continuous},
         {"said to have no gaps", StatedMode{RotationMode::Continuous, 1.0 * kDegree}, 0.6,
          ModeSource::Curves, "the rocking curves say continuous over 0.6"}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SimulationSettings settings = smallCrystal();
        settings.frameRotation = row.rotation;
        settings.tilts = tiltRange(-30, 30, 1);
        SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
        for (FramePose& pose : simulated.input.geometry.frames)
            pose.rotation = 1.0 * kDegree;
        simulated.input.stated = row.stated;
        IntegrationOptions options;
        options.mode = row.chosen;
        const IntegrationResult result = integrate(simulated.input, options);
        EXPECT_EQ(result.modeSource, row.source);
        EXPECT_EQ(result.fit.rocking.mode, RotationMode::Continuous);
        EXPECT_NEAR(result.fit.geometry.frames[3].rotation, row.rotation * kDegree,
                    row.rotation == 0.6 || row.rotation == 0.3 ? 0.02 * kDegree : 1e-9);
        EXPECT_NEAR(result.fit.rocking.width, settings.rockingWidth, 0.02 * settings.rockingWidth);
        if (*row.remark == '\0') {
            EXPECT_EQ(result.remarks, std::vector<std::string>{});
        } else {
            ASSERT_FALSE(result.remarks.empty());
            EXPECT_TRUE(says(result.remarks[0], row.remark));
        }
        EXPECT_LT(agreementOf(result, simulated).rFactor, 0.05);
    }
}

TEST(IntegrationTest, refinesWhatTheStartDoesNotKnowForGood) {
    // An ellipse that is nearly right is too little to be noticed, and enough to bend the cell.
    SimulationSettings settings = smallCrystal();
    settings.orientation.axisAlong = {1, 1, 1};
    settings.distortion.ellipse = 0.014;
    SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
    const double twice = 2 * (simulated.truth.axisAngle - settings.distortion.ellipseAzimuth * kDegree);
    simulated.input.geometry.distortion.stretch = 0.014 * std::cos(twice) + 1e-4;
    simulated.input.geometry.distortion.shear = -0.014 * std::sin(twice) - 1e-4;
    IntegrationOptions options;
    options.terms = {"stretch", "shear"};
    const IntegrationResult result = integrate(simulated.input, options);
    EXPECT_EQ(result.fit.terms, options.terms);
    expectCell(result.fit, simulated.truth, 3);
    EXPECT_NEAR(result.fit.geometry.distortion.stretch, 0.014 * std::cos(twice),
                3 * result.fit.sigma(FrameView::Stretch));
    EXPECT_NEAR(result.fit.geometry.distortion.shear, -0.014 * std::sin(twice),
                3 * result.fit.sigma(FrameView::Shear));
}

TEST(IntegrationTest, refinesOnSpotsOfAZoneThatNearlyTouch) {
    SimulationSettings settings = smallCrystal();
    settings.cell = {9.7, 6.4, 11.9, 90, 104.5, 90};
    settings.orientation.beamAlong = {0, 1, 0};
    settings.orientation.offZone = 1;
    settings.spotWidth = 1.2;
    settings.tilts = tiltRange(-16, 16, 0.5);
    const SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
    const IntegrationResult result = integrate(simulated.input);
    EXPECT_NEAR(soFar(result), 3082.38120, 1e-4);
    EXPECT_LT(agreementOf(result, simulated).rFactor, 0.04);
}

TEST(IntegrationTest, saysWhenAllReflectionsLieAlongTheAxis) {
    SimulationSettings settings = smallCrystal();
    settings.cell = {3.1, 40, 3.2, 90, 95, 90};
    settings.dmin = 1.6;
    settings.orientation.axisAlong = {0, 1, 0};
    settings.axis = 0;
    const SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
    IntegrationOptions options;
    options.dMin = 3.4;
    const Refusal refusal = failureOf([&] {
        const IntegrationResult result = integrate(simulated.input, options);
        reduceData(result.reflections, settings.tilts.size(), result.fit.geometry.reciprocal, 'P', 3.4);
    });
    EXPECT_EQ(refusal.kind, FailureKind::NothingFound);
    EXPECT_TRUE(refusal.says("lie along the tilt axis")) << refusal.text;
}

TEST(IntegrationTest, tellsWhereReflectionsCrossedAsFarAsCountsTell) {
    SimulationSettings settings = smallCrystal();
    settings.dose = 0.1;
    const SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
    const IntegrationResult result = integrate(simulated.input);
    int told = 0, near = 0;
    for (const IntegratedReflection& r : result.reflections) {
        if (r.intensity < r.sigma) {
            EXPECT_EQ(r.observedTiltSigma, 0);
        }
        if (!r.good() || !(r.observedTiltSigma > 0) || r.coverage < 0.95) continue;
        ++told;
        near += std::abs(r.observedTilt - r.tilt) < 3 * r.observedTiltSigma ? 1 : 0;
    }
    EXPECT_GT(near, 0.98 * told);
    EXPECT_NEAR(soFar(result), 953.462510, 1e-5);
}

TEST(IntegrationTest, flagsWhatTheDetectorDidNotMeasure) {
    SimulationSettings settings = smallCrystal();
    settings.detector.cross = true;
    settings.detector.saturation = 4000;
    const SimulatedInput simulated = simulatedInput(settings, LATTICE::mP);
    const IntegrationResult result = integrate(simulated.input);
    EXPECT_EQ(result.saturation, 4000);
    EXPECT_GT(result.deadPixels, 3U * 2 * 240);
    int saturated = 0;
    for (const IntegratedReflection& r : result.reflections) {
        saturated += (r.flags & kReflectionSaturated) != 0 ? 1 : 0;
        EXPECT_FALSE((r.flags & kReflectionSaturated) != 0 && r.good());
    }
    ASSERT_EQ(result.remarks.size(), 1U);
    EXPECT_EQ(result.remarks[0].find(std::to_string(saturated) + " of "), 0U) << result.remarks[0];
    const Agreement agreement = agreementOf(result, simulated);
    EXPECT_LT(agreement.rFactor, 0.04);
    EXPECT_NEAR(soFar(result), 5375.062703, 1e-4);
}

TEST(IntegrationTest, keepsToTheLimitsThatAreGiven) {
    const SimulatedInput simulated = simulatedInput(smallCrystal(), LATTICE::mP);
    IntegrationOptions options;
    options.dMin = 1.1;
    options.gain = 2.0;
    options.mode = RotationMode::Stepwise;
    const IntegrationResult result = integrate(simulated.input, options);
    EXPECT_EQ(result.dMin, 1.1);
    EXPECT_EQ(result.noise.gain, 2.0);
    EXPECT_EQ(result.fit.rocking.mode, RotationMode::Stepwise);
    EXPECT_EQ(result.modeSource, ModeSource::Option);
    for (const IntegratedReflection& r : result.reflections)
        EXPECT_GE(r.spacing, 1.1);
}

TEST(IntegrationTest, refusesWhatCannotBeIntegrated) {
    struct Row {
        const char* words;
        void (*spoil)(IntegrationInput&);
        IntegrationOptions options = {};
    };
    IntegrationOptions coarse, wrongGain;
    coarse.dMin = 30;
    wrongGain.gain = 1e6;
    const auto nothing = [](IntegrationInput&) {};
    const std::array<Row, 8> rows = {
        {{"fewer than three frames",
          [](IntegrationInput& in) {
              in.frames.frames.resize(2);
              in.geometry.frames.resize(2);
          }},
         {"wavelength", [](IntegrationInput& in) { in.geometry.wavelength = 0; }},
         {"tilts do not ascend", [](IntegrationInput& in) { in.geometry.frames[4].tilt = 1; }},
         {"differ in size", [](IntegrationInput& in) { in.frames.width = 200; }},
         {"no volume", [](IntegrationInput& in) { in.geometry.reciprocal.setZero(); }},
         {"check the tilt axis",
          [](IntegrationInput& in) {
              static const std::vector<short> dark(256 * 256, 0);
              std::fill(in.frames.frames.begin(), in.frames.frames.end(), std::span<const short>(dark));
          }},
         {"smaller --d-min", nothing, coarse},
         {"no gain of 1e+06 explains", nothing, wrongGain}}};
    const SimulatedInput simulated = simulatedInput(smallCrystal(), LATTICE::mP);
    for (const Row& row : rows) {
        IntegrationInput input = simulated.input;
        row.spoil(input);
        const Refusal refusal = failureOf([&] { integrate(input, row.options); });
        EXPECT_TRUE(refusal.says(row.words)) << row.words << refusal.text;
    }
}

}  // namespace
