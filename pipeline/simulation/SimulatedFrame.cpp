#include "pipeline/simulation/SimulatedFrame.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vrk {
namespace {

/// Steps of the centre: the frame before which each happens, and where it leads.
struct Jump {
    int frame = 0;
    double x = 0;
    double y = 0;
};

Jump randomJump(SimulationRandom& random, double length, int frames) {
    const double angle = random.uniform(0, 2 * std::numbers::pi);
    return {frames / 4 + random.index(std::max(frames / 2, 1)), length * std::cos(angle),
            length * std::sin(angle)};
}

/// Steps of the centre to frame \p i.
Jump reached(const std::vector<Jump>& jumps, int i) {
    Jump sum;
    for (const Jump& one : jumps)
        if (i >= one.frame) sum = {i, sum.x + one.x, sum.y + one.y};
    return sum;
}

void setTilts(std::vector<SimulatedFrame>& frames, const SimulationSettings& settings) {
    SimulationRandom random = randomFor(settings.seed, RandomPurpose::Tilts);
    const TiltErrors& errors = settings.tiltErrors;
    const double first = settings.tilts.front();
    const double step = frames.size() < 2 ? 1 : (settings.tilts.back() - first) / double(frames.size() - 1);
    const double stretch = settings.stated.tiltStep ? *settings.stated.tiltStep / step : 1;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        frames[i].tilt = errors.scale * settings.tilts[i] + errors.offset + errors.jitter * random.normal();
        frames[i].statedTilt = first + stretch * (settings.tilts[i] - first);
    }
}

void setCentres(std::vector<SimulatedFrame>& frames, const SimulationSettings& settings) {
    const CentreSettings& centre = settings.centre;
    const auto count = static_cast<int>(frames.size());
    SimulationRandom drift = randomFor(settings.seed, RandomPurpose::Drift);
    const double phaseX = drift.uniform(0, 2 * std::numbers::pi);
    const double phaseY = drift.uniform(0, 2 * std::numbers::pi);
    std::vector<Jump> jumps = {randomJump(drift, centre.jump, count)};
    SimulationRandom more = randomFor(settings.seed, RandomPurpose::MoreJumps);
    while (static_cast<int>(jumps.size()) < centre.jumps)
        jumps.push_back(randomJump(more, centre.jump, count));
    jumps.resize(static_cast<std::size_t>(centre.jumps));

    SimulationRandom jitter = randomFor(settings.seed, RandomPurpose::CentreJitter);
    const double middle = (settings.detector.size - 1) * 0.5;
    for (int i = 0; i < count; ++i) {
        const double course = 1.4 * std::numbers::pi * i / std::max(count - 1, 1);
        const Jump jump = reached(jumps, i);
        SimulatedFrame& frame = frames[static_cast<std::size_t>(i)];
        frame.centreX = middle + centre.offset[0] + jump.x +
                        centre.drift * (std::sin(course + phaseX) + 0.05 * drift.normal()) +
                        centre.jitter * jitter.normal();
        frame.centreY = middle + centre.offset[1] + jump.y +
                        centre.drift * (std::sin(course + phaseY) + 0.05 * drift.normal()) +
                        centre.jitter * jitter.normal();
    }
}

void loseFrames(std::vector<SimulatedFrame>& frames, const SimulationSettings& settings) {
    SimulationRandom random = randomFor(settings.seed, RandomPurpose::Frames);
    for (int i = 0; i < settings.missing && frames.size() > 2; ++i)
        frames.erase(frames.begin() + 1 + random.index(static_cast<int>(frames.size()) - 2));
    for (int i = 0; i < settings.blank; ++i)
        frames[static_cast<std::size_t>(random.index(static_cast<int>(frames.size())))].blank = true;
}

}  // namespace

std::vector<SimulatedFrame> placeFrames(const SimulationSettings& settings) {
    std::vector<SimulatedFrame> frames(settings.tilts.size());
    setTilts(frames, settings);
    setCentres(frames, settings);
    loseFrames(frames, settings);
    return frames;
}

}  // namespace vrk
