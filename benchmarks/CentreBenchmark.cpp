/// Centres of simulated series against the truth: beams in any halo, beams behind stops, crystals on a zone
/// axis. Errors in pixels: "median" and "worst"; "over_0.1" and "over_2": patterns that are off by more, of
/// these "silent" are not flagged as doubtful; "within_2su": share of coordinates within two of their
/// standard uncertainties, and "pull": root mean square error over uncertainty (interpolated ones do not
/// count). Every case is a handful of series whose stops, halos, axes and centres lie as a seed has them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <utility>
#include <vector>

#include "pipeline/simulation/Simulation.h"
#include "pipeline/simulation/SimulationRandom.h"
#include "processing/VoxMRCstemProcessing.h"

namespace {

using vrk::SimulationSettings;

struct Case {
    const char* name;
    std::function<void(SimulationSettings&)> change;
};

void stop(SimulationSettings& s, double transmission, double pedestal) {
    s.beamStop.emplace();
    s.beamStop->width = 18;
    s.beamStop->disc = 0;
    s.beamStop->direction = 200;
    s.beamStop->transmission = transmission;
    s.beamStop->pedestal = pedestal;
}

void zoneAxis(SimulationSettings& s) {
    s.cell = {8.5, 10.2, 13.1, 90, 90, 90};
    s.orientation.beamAlong = {1, 0, 0};
    s.orientation.axisAlong = {0, 1, 0};
}

const std::vector<Case>& cases() {
    static const std::vector<Case> all = {
        {"beam and halo", [](auto&) {}},
        {"halo +- 50 %", [](auto& s) { s.background.gradient = 0.5; }},
        {"halo +- 30 %, low dose",
         [](auto& s) {
             s.background.gradient = 0.3;
             s.dose = 0.05;
         }},
        {"no halo", [](auto& s) { s.background.halo = 0; }},
        {"stop", [](auto& s) { stop(s, 0, 0); }},
        {"stop, halo +- 30 %",
         [](auto& s) {
             stop(s, 0, 0);
             s.background.gradient = 0.3;
         }},
        {"stop of 20 %", [](auto& s) { stop(s, 0.2, 0); }},
        {"stop, pedestal 50", [](auto& s) { stop(s, 0, 50); }},
        {"stop, low dose",
         [](auto& s) {
             stop(s, 0, 0);
             s.dose = 0.05;
         }},
        {"disc off centre",
         [](auto& s) {
             stop(s, 0, 0);
             s.beamStop->disc = 22;
             s.beamStop->offset = {6, -4};
         }},
        {"stop and ice",
         [](auto& s) {
             stop(s, 0, 0);
             s.background.ice = 300;
         }},
        {"zone axis", [](auto& s) { zoneAxis(s); }},
        {"zone axis, halo +- 30 %",
         [](auto& s) {
             zoneAxis(s);
             s.background.gradient = 0.3;
         }},
        {"zone axis, stop",
         [](auto& s) {
             zoneAxis(s);
             stop(s, 0, 0);
         }},
        {"zone axis, no halo, no beam",
         [](auto& s) {
             zoneAxis(s);
             s.background.halo = 0;
             s.background.directBeam = 0;
         }},
        {"cross and jumps",
         [](auto& s) {
             s.detector.cross = true;
             s.centre.jump = 6;
             s.centre.jumps = 2;
         }},
    };
    return all;
}

constexpr std::uint64_t kSeries = 4;

SimulationSettings settingsOf(const Case& c, std::uint64_t seed) {
    SimulationSettings settings;
    settings.cell = {9.1, 11.7, 14.2, 90, 97.5, 90};
    settings.asymmetry = 0.6;
    settings.centre.drift = 3;
    settings.seed = seed;
    for (int tilt = -60; tilt <= 60; tilt += 3)
        settings.tilts.push_back(tilt);
    settings.frameRotation = 1;
    c.change(settings);
    vrk::SimulationRandom random(1000 + seed);
    settings.centre.offset = {random.uniform(-8, 8), random.uniform(-8, 8)};
    settings.axis = random.uniform(-90, 90);
    settings.background.gradientAzimuth = random.uniform(0, 360);
    if (settings.beamStop) settings.beamStop->direction = random.uniform(0, 360);
    return settings;
}

struct Errors {
    std::vector<double> sizes;
    double tenth = 0, off = 0, silent = 0, measured = 0, within = 0, pulls = 0;

    void add(const PatternCentre& centre, const std::pair<double, double>& truth) {
        const std::array<double, 2> d = {centre.x - truth.first, centre.y - truth.second};
        sizes.push_back(std::hypot(d[0], d[1]));
        tenth += sizes.back() > 0.1;
        off += sizes.back() > 2;
        silent += sizes.back() > 2 && !centre.doubtful;
        if (centre.source == PatternCentre::Source::Neighbours) return;
        for (const double one : d) {
            const double pull = one / std::max(centre.error, 1e-9);
            ++measured;
            within += std::abs(pull) < 2;
            pulls += pull * pull;
        }
    }
};

void centres(benchmark::State& state) {
    const Case& c = cases()[static_cast<std::size_t>(state.range(0))];
    Errors errors;
    for (auto _ : state)
        for (std::uint64_t seed = 11; seed < 11 + kSeries; ++seed) {
            state.PauseTiming();
            const vrk::SimulatedSeries simulated = vrk::simulateSeries(settingsOf(c, seed));
            std::vector<PatternCentre> found;
            state.ResumeTiming();
            VoxMRCstemProcessing().findCentres(simulated.series.get(), found);
            for (std::size_t i = 0; i < found.size(); ++i)
                errors.add(found[i], simulated.truth.centres[i]);
        }
    std::sort(errors.sizes.begin(), errors.sizes.end());
    state.SetLabel(c.name);
    state.counters["median"] = errors.sizes[errors.sizes.size() / 2];
    state.counters["worst"] = errors.sizes.back();
    state.counters["over_0.1"] = errors.tenth;
    state.counters["over_2"] = errors.off;
    state.counters["silent"] = errors.silent;
    state.counters["within_2su"] = errors.within / std::max(errors.measured, 1.0);
    state.counters["pull"] = std::sqrt(errors.pulls / std::max(errors.measured, 1.0));
}
BENCHMARK(centres)
    ->DenseRange(0, static_cast<std::int64_t>(cases().size()) - 1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
