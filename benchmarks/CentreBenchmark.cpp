/// Centres of simulated series against the truth: beams in any halo, beams behind stops, crystals on a zone
/// axis. Errors in pixels: "median" and "worst"; "over_0.1" and "over_2": patterns that are off by more, of
/// these "silent" are not flagged as doubtful; "within_2su": share of coordinates within two of their
/// standard uncertainties (interpolated ones do not count).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "pipeline/simulation/Simulation.h"
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
        {"halo +- 50 %",
         [](auto& s) {
             s.background.gradient = 0.5;
             s.background.gradientAzimuth = 25;
         }},
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

SimulationSettings settingsOf(const Case& c) {
    SimulationSettings settings;
    settings.cell = {9.1, 11.7, 14.2, 90, 97.5, 90};
    settings.asymmetry = 0.6;
    settings.centre.offset = {4.3, -2.7};
    settings.centre.drift = 3;
    settings.seed = 11;
    for (int tilt = -60; tilt <= 60; tilt += 3)
        settings.tilts.push_back(tilt);
    settings.frameRotation = 1;
    c.change(settings);
    return settings;
}

void centres(benchmark::State& state) {
    const Case& c = cases()[static_cast<std::size_t>(state.range(0))];
    const vrk::SimulatedSeries simulated = vrk::simulateSeries(settingsOf(c));
    std::vector<PatternCentre> found;
    for (auto _ : state)
        VoxMRCstemProcessing().findCentres(simulated.series.get(), found);
    std::vector<double> errors;
    double tenth = 0, off = 0, silent = 0, measured = 0, within = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
        const PatternCentre& centre = found[i];
        const double dx = centre.x - simulated.truth.centres[i].first;
        const double dy = centre.y - simulated.truth.centres[i].second;
        errors.push_back(std::hypot(dx, dy));
        tenth += errors.back() > 0.1;
        off += errors.back() > 2;
        silent += errors.back() > 2 && !centre.doubtful;
        if (centre.source == PatternCentre::Source::Neighbours) continue;
        measured += 2;
        within += (std::abs(dx) < 2 * centre.error) + (std::abs(dy) < 2 * centre.error);
    }
    std::sort(errors.begin(), errors.end());
    state.SetLabel(c.name);
    state.counters["median"] = errors[errors.size() / 2];
    state.counters["worst"] = errors.back();
    state.counters["over_0.1"] = tenth;
    state.counters["over_2"] = off;
    state.counters["silent"] = silent;
    state.counters["within_2su"] = measured > 0 ? within / measured : 0;
}
BENCHMARK(centres)
    ->DenseRange(0, static_cast<std::int64_t>(cases().size()) - 1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
