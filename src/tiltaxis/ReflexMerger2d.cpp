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

/// The spots of a pattern by rising u, so that those near a place are found without looking at all of them.
class SpotsAlongU {
public:
    explicit SpotsAlongU(const Spots& spots) {
        m_places.reserve(spots.size());
        for (std::size_t i = 0; i < spots.size(); ++i)
            if (!std::isnan(spots[i]->getU())) m_places.push_back({spots[i]->getU(), spots[i]->getV(), i});
        std::sort(m_places.begin(), m_places.end(),
                  [](const Place& a, const Place& b) { return a.u != b.u ? a.u < b.u : a.spot < b.spot; });
    }

    /// Adds the pairs of a chain with the spots near the end of it, by the order of the spots.
    void addPairs(std::size_t chain, const Reflex2d& last, double limit, std::vector<Pair>& pairs) const {
        // A little more than the limit, which the distance itself decides about.
        const double reach = limit * (1.0 + 1e-9);
        const std::size_t before = pairs.size();
        auto place = std::lower_bound(m_places.begin(), m_places.end(), -reach,
                                      [&](const Place& p, double from) { return p.u - last.getU() < from; });
        for (; place != m_places.end() && place->u - last.getU() <= reach; ++place) {
            if (std::abs(place->v - last.getV()) > reach) continue;
            const double distance = std::hypot(place->u - last.getU(), place->v - last.getV());
            if (distance <= limit) pairs.push_back({distance, chain, place->spot});
        }
        std::sort(pairs.begin() + static_cast<std::ptrdiff_t>(before), pairs.end(),
                  [](const Pair& a, const Pair& b) { return a.spot < b.spot; });
    }

private:
    struct Place {
        double u, v;
        std::size_t spot;
    };
    std::vector<Place> m_places;
};

/// Pairs of open chains and spots of the next pattern, the nearest first.
std::vector<Pair> neighbours(const std::vector<Chain>& chains, const std::vector<std::size_t>& open,
                             const Spots& spots, double limit) {
    std::vector<Pair> pairs;
    const SpotsAlongU sorted(spots);
    for (const std::size_t chain : open)
        sorted.addPairs(chain, *chains[chain].last, limit, pairs);
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
