#include "tiltaxis/ReflexMerger2d.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <vector>

#include "tiltaxis/ReflectionTransformation.h"
#include "tiltaxis/Reflex2d.h"

namespace {

/// Successive spots of one reflection.
struct Chain {
    explicit Chain(const Reflex2d& spot) : last(&spot) { add(spot); }
    void add(const Reflex2d& spot) {
        const double weight = spot.getIntensity();
        u += weight * spot.getU();
        v += weight * spot.getV();
        tilt += weight * spot.getTilt();
        intensity += weight;
        if (spot.getPeakHeight() > peak) {
            peak = spot.getPeakHeight();
            threshold = spot.getThreshold();
        }
        last = &spot;
    }
    std::unique_ptr<Reflex2d> merged() const {
        const double weight = intensity > 0.0 ? intensity : 1.0;
        auto result = std::make_unique<Reflex2d>(last->getPattern(), tilt / weight, u / weight, v / weight);
        result->setIntensity(intensity);
        result->setPeakHeight(peak);
        result->setThreshold(threshold);
        return result;
    }

    const Reflex2d* last;
    double u = 0.0, v = 0.0, tilt = 0.0, intensity = 0.0, peak = 0.0, threshold = 0.0;
};

struct Pair {
    double distance;
    std::size_t chain;
    std::size_t spot;
};

using Spots = std::vector<const Reflex2d*>;

/// Pairs of open chains and spots of the next pattern, the nearest first.
std::vector<Pair> neighbours(const std::vector<Chain>& chains, const std::vector<std::size_t>& open,
                             const Spots& spots, double limit) {
    std::vector<Pair> pairs;
    for (const std::size_t chain : open)
        for (std::size_t i = 0; i < spots.size(); ++i) {
            const Reflex2d& last = *chains[chain].last;
            const double distance =
                std::hypot(spots[i]->getU() - last.getU(), spots[i]->getV() - last.getV());
            if (distance <= limit) pairs.push_back({distance, chain, i});
        }
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const Pair& a, const Pair& b) { return a.distance < b.distance; });
    return pairs;
}

/// Continues the open chains with the spots of the next pattern; returns the chains that end in it.
std::vector<std::size_t> extend(std::vector<Chain>& chains, const std::vector<std::size_t>& open,
                                const Spots& spots, double limit) {
    std::vector<std::size_t> chainOf(spots.size(), static_cast<std::size_t>(-1));
    std::vector<bool> continued(chains.size());
    for (const Pair& pair : neighbours(chains, open, spots, limit)) {
        if (continued[pair.chain] || chainOf[pair.spot] != static_cast<std::size_t>(-1)) continue;
        continued[pair.chain] = true;
        chainOf[pair.spot] = pair.chain;
        chains[pair.chain].add(*spots[pair.spot]);
    }
    for (std::size_t i = 0; i < spots.size(); ++i)
        if (chainOf[i] == static_cast<std::size_t>(-1)) {
            chainOf[i] = chains.size();
            chains.emplace_back(*spots[i]);
        }
    return chainOf;
}

}  // namespace

ReflexVector* ReflexMerger2d::mergeReflexes(const ReflexVector* spots, double distance) {
    if (!spots) return nullptr;
    std::vector<Chain> chains;
    std::vector<std::size_t> open;
    int previous = 0;
    for (auto it = spots->begin(); it != spots->end();) {
        Spots pattern;
        int number = previous;
        for (; it != spots->end(); ++it) {
            const auto* spot = dynamic_cast<const Reflex2d*>(*it);
            if (!spot) continue;
            if (!pattern.empty() && spot->getPattern() != number) break;
            number = spot->getPattern();
            pattern.push_back(spot);
        }
        if (number != previous + 1) open.clear();
        open = extend(chains, open, pattern, distance);
        previous = number;
    }
    ReflexVectorPtr merged(new ReflexVector);
    merged->reserve(chains.size());
    for (const Chain& chain : chains)
        merged->append(ReflexPtr(chain.merged().release()));
    ReflectionTransformation::transformTo3DPositions(merged.get());
    return merged.release();
}
