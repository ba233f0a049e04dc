#include "pipeline/merging/ConsistentIndexing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <utility>

#include "pipeline/integration/MeanIntensity.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;

constexpr std::size_t kPartners = 150;
constexpr std::size_t kStarts = 8;
constexpr int kSweeps = 50;
constexpr int kFewestCommon = 10;
/// Hardly a true intensity is so many times the mean; a single wrong one would decide the correlations.
constexpr double kMostNormalised = 6;
/// Variance of true normalised intensities that no scale explains.
constexpr double kFloor = 0.2;

/// Equal for bases that the Laue group makes equivalent.
std::array<int, 9> classOf(const Matrix3d& base, const LaueRotations& laue) {
    std::array<int, 9> least{};
    least.fill(std::numeric_limits<int>::max());
    for (const IndexRotation& rotation : laue) {
        const Matrix3d turned = base * matrixOf(rotation).transpose();
        std::array<int, 9> key{};
        for (std::size_t i = 0; i < 9; ++i)
            key[i] = static_cast<int>(std::lround(6 * turned(static_cast<Eigen::Index>(i))));
        least = std::min(least, key);
    }
    return least;
}

/// A normalised unique intensity.
struct Value {
    Indices hkl;
    double intensity, variance;
};

/// A crystal's unique intensities in one of its ways, by their indices.
std::vector<Value> valuesOf(const CrystalData& crystal, const MeanIntensity& mean, const Matrix3d& base,
                            const LaueRotations& laue) {
    std::vector<Value> values;
    for (const Observation& one : reindexed(crystal.observations, base)) {
        const double level = mean.at(one.spacing);
        values.push_back({representative(one.hkl, laue), std::min(one.intensity / level, kMostNormalised),
                          one.sigma * one.sigma / (level * level)});
    }
    std::stable_sort(values.begin(), values.end(),
                     [](const Value& a, const Value& b) { return a.hkl < b.hkl; });
    std::size_t end = 0;
    for (std::size_t i = 0; i < values.size();) {
        double top = 0, bottom = 0;
        const Indices hkl = values[i].hkl;
        for (; i < values.size() && values[i].hkl == hkl; ++i) {
            const double weight = 1 / (values[i].variance + 1e-6);
            top += weight * values[i].intensity;
            bottom += weight;
        }
        values[end++] = {hkl, top / bottom, 1 / bottom};
    }
    values.resize(end);
    return values;
}

struct Correlation {
    double value = 0;
    int common = 0;
};

Correlation correlationOf(const std::vector<Value>& a, const std::vector<Value>& b) {
    double w = 0, x = 0, y = 0, xx = 0, yy = 0, xy = 0;
    Correlation result;
    for (auto i = a.begin(), j = b.begin(); i != a.end() && j != b.end();) {
        if (i->hkl < j->hkl) {
            ++i;
        } else if (j->hkl < i->hkl) {
            ++j;
        } else {
            const double weight = 1 / (kFloor + i->variance + j->variance);
            w += weight;
            x += weight * i->intensity;
            y += weight * j->intensity;
            xx += weight * i->intensity * i->intensity;
            yy += weight * j->intensity * j->intensity;
            xy += weight * i->intensity * j->intensity;
            ++result.common;
            ++i;
            ++j;
        }
    }
    if (result.common < kFewestCommon) return {};
    const double spread = (xx - x * x / w) * (yy - y * y / w);
    if (spread > 0) result.value = (xy - x * y / w) / std::sqrt(spread);
    return result;
}

/// The ways of all crystals, numbered through, and how well each goes with each.
class Ways {
public:
    Ways(std::span<const CrystalData> crystals, const ReducedCell& common, const LaueRotations& laue,
         double mostStrain) {
        for (const CrystalData& crystal : crystals) {
            m_first.push_back(m_ways.size());
            std::set<std::array<int, 9>> known;
            for (const ReducedCell::Match& match : common.matches(ReducedCell(crystal.cell), mostStrain))
                if (known.insert(classOf(match.base, laue)).second) m_ways.push_back(match);
        }
        m_first.push_back(m_ways.size());
    }

    void correlate(std::span<const CrystalData> crystals, const LaueRotations& laue, const Session& session) {
        std::vector<std::vector<Value>> values;
        for (std::size_t i = 0; i < crystals.size(); ++i) {
            std::vector<MeanIntensity::Sample> samples;
            for (const Observation& one : crystals[i].observations)
                samples.push_back({one.spacing, one.intensity, one.sigma});
            const MeanIntensity mean(std::move(samples));
            for (std::size_t way = m_first[i]; way < m_first[i + 1]; ++way)
                values.push_back(valuesOf(crystals[i], mean, m_ways[way].base, laue));
        }
        m_correlations.assign(m_ways.size() * m_ways.size(), {});
        std::mt19937 random(1);
        for (std::size_t i = 0; i < crystals.size(); ++i) {
            session.checkCanceled();
            for (const std::size_t j : partners(i, crystals.size(), random))
                for (std::size_t a = m_first[i]; a < m_first[i + 1]; ++a)
                    for (std::size_t b = m_first[j]; b < m_first[j + 1]; ++b)
                        at(a, b) = at(b, a) = correlationOf(values[a], values[b]);
        }
    }

    std::size_t count() const { return m_ways.size(); }
    std::size_t first(std::size_t crystal) const { return m_first[crystal]; }
    std::size_t end(std::size_t crystal) const { return m_first[crystal + 1]; }
    const ReducedCell::Match& operator[](std::size_t way) const { return m_ways[way]; }
    const Correlation& between(std::size_t a, std::size_t b) const {
        return m_correlations[a * m_ways.size() + b];
    }
    double gain(std::size_t a, std::size_t b) const { return between(a, b).value * between(a, b).common; }

private:
    Correlation& at(std::size_t a, std::size_t b) { return m_correlations[a * m_ways.size() + b]; }
    static std::vector<std::size_t> partners(std::size_t crystal, std::size_t count, std::mt19937& random) {
        std::vector<std::size_t> list;
        for (std::size_t other = 0; other < count; ++other)
            if (count <= kPartners ? other < crystal : other != crystal && random() % count < kPartners / 2)
                list.push_back(other);
        return list;
    }

    std::vector<ReducedCell::Match> m_ways;
    std::vector<std::size_t> m_first;  ///< of every crystal; its ways are up to the next crystal's first
    std::vector<Correlation> m_correlations;
};

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

/// A way for every crystal, and how well they go together.
class Assignment {
public:
    Assignment(const Ways& ways, std::size_t crystals)
        : m_ways(&ways), m_chosen(crystals, kNone), m_gains(ways.count(), 0.0) {}

    void choose(std::size_t crystal, std::size_t way) {
        if (m_chosen[crystal] == way) return;
        for (std::size_t other = 0; other < m_ways->count(); ++other) {
            if (m_chosen[crystal] != kNone) m_gains[other] -= m_ways->gain(other, m_chosen[crystal]);
            m_gains[other] += m_ways->gain(other, way);
        }
        m_chosen[crystal] = way;
    }
    /// The way of a crystal that goes best with those chosen so far.
    std::size_t best(std::size_t crystal) const {
        std::size_t best = m_ways->first(crystal);
        for (std::size_t way = best + 1; way < m_ways->end(crystal); ++way)
            if (m_gains[way] > m_gains[best] + 1e-9) best = way;
        return best;
    }
    /// By how much that is better than the next best.
    double margin(std::size_t crystal) const {
        const std::size_t chosen = best(crystal);
        double next = -std::numeric_limits<double>::infinity();
        for (std::size_t way = m_ways->first(crystal); way < m_ways->end(crystal); ++way)
            if (way != chosen) next = std::max(next, m_gains[way]);
        return m_gains[chosen] - next;
    }
    double total() const {
        double sum = 0;
        for (const std::size_t way : m_chosen)
            if (way != kNone) sum += m_gains[way];
        return sum;
    }
    std::size_t operator[](std::size_t crystal) const { return m_chosen[crystal]; }

private:
    const Ways* m_ways;
    std::vector<std::size_t> m_chosen;
    std::vector<double> m_gains;  ///< of every way with what is chosen
};

Assignment assigned(const Ways& ways, std::size_t crystals, std::size_t fixed, std::size_t second) {
    Assignment result(ways, crystals);
    std::vector<std::size_t> open;
    for (std::size_t i = 0; i < crystals; ++i)
        if (ways.first(i) < ways.end(i) && i != fixed && i != second) open.push_back(i);
    const std::vector<std::size_t> movable = open;
    result.choose(fixed, ways.first(fixed));
    if (second != fixed) result.choose(second, result.best(second));
    while (!open.empty()) {
        std::size_t clearest = 0;
        double margin = -1;
        for (std::size_t n = 0; n < open.size(); ++n)
            if (const double one = result.margin(open[n]); one > margin) {
                margin = one;
                clearest = n;
            }
        result.choose(open[clearest], result.best(open[clearest]));
        open.erase(open.begin() + static_cast<std::ptrdiff_t>(clearest));
    }
    for (int sweep = 0; sweep < kSweeps; ++sweep) {
        bool changed = false;
        const auto improve = [&](std::size_t crystal) {
            const std::size_t before = result[crystal];
            result.choose(crystal, result.best(crystal));
            changed = changed || result[crystal] != before;
        };
        for (const std::size_t crystal : movable)
            improve(crystal);
        if (second != fixed) improve(second);
        if (!changed) break;
    }
    return result;
}

/// Crystals with many observations, in whose neighbourhood the assignment starts.
std::vector<std::size_t> starts(std::span<const CrystalData> crystals, const Ways& ways) {
    std::vector<std::size_t> list;
    for (std::size_t i = 0; i < crystals.size(); ++i)
        if (ways.first(i) < ways.end(i)) list.push_back(i);
    std::stable_sort(list.begin(), list.end(), [&](std::size_t a, std::size_t b) {
        return crystals[a].observations.size() > crystals[b].observations.size();
    });
    if (list.size() > kStarts) list.resize(kStarts);
    return list;
}

/// The mean correlation of a way with what is chosen for the others.
Correlation meanCorrelation(const Ways& ways, const Assignment& chosen, std::size_t crystals,
                            std::size_t crystal, std::size_t way) {
    double sum = 0;
    Correlation mean;
    for (std::size_t other = 0; other < crystals; ++other) {
        if (other == crystal || chosen[other] == kNone) continue;
        sum += ways.gain(way, chosen[other]);
        mean.common += ways.between(way, chosen[other]).common;
    }
    if (mean.common > 0) mean.value = sum / mean.common;
    return mean;
}

}  // namespace

std::vector<CrystalIndexing> indexConsistently(std::span<const CrystalData> crystals,
                                               const ReducedCell& common, std::size_t first,
                                               const LaueRotations& laue, double mostStrain,
                                               const Session& session) {
    Ways ways(crystals, common, laue, mostStrain);
    std::vector<CrystalIndexing> result(crystals.size());
    if (ways.first(first) == ways.end(first)) return result;
    ways.correlate(crystals, laue, session);
    Assignment best = assigned(ways, crystals.size(), first, first);
    for (const std::size_t start : starts(crystals, ways)) {
        session.checkCanceled();
        Assignment other = assigned(ways, crystals.size(), first, start);
        if (other.total() > best.total() + 1e-6) best = std::move(other);
    }
    for (std::size_t i = 0; i < crystals.size(); ++i) {
        if (best[i] == kNone) continue;
        CrystalIndexing& one = result[i];
        one.base = ways[best[i]].base;
        one.strain = ways[best[i]].strain;
        one.ways = static_cast<int>(ways.end(i) - ways.first(i));
        const Correlation mean = meanCorrelation(ways, best, crystals.size(), i, best[i]);
        one.correlation = mean.value;
        one.common = mean.common;
        double next = -1;
        for (std::size_t way = ways.first(i); way < ways.end(i); ++way)
            if (way != best[i])
                next = std::max(next, meanCorrelation(ways, best, crystals.size(), i, way).value);
        one.runnerUp = one.ways > 1 ? next : 0;
    }
    return result;
}

}  // namespace vrk
