#include "pipeline/integration/SpaceGroups.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <gemmi/symmetry.hpp>
#include <numbers>
#include <tuple>

#include "pipeline/integration/MeanIntensity.h"
#include "pipeline/integration/SpaceGroupTable.h"
#include "pipeline/integration/WilsonPosterior.h"

namespace vrk {
namespace {

/// Shares of an ordinary intensity that multiple scattering may give forbidden reflections, and what each
/// costs: thick crystals reach a quarter.
struct Leak {
    double share;
    double price;
};
constexpr std::array<Leak, 5> kLeaks = {{{0.03, 0}, {0.06, 0.5}, {0.12, 1}, {0.2, 1.5}, {0.3, 2}}};
constexpr double kMostEvidence = 4;
/// Between the means of |E^2 - 1| of the two kinds of crystals.
constexpr double kCentricLimit = 0.855;
/// Evidence that passes for the same.
constexpr double kSameEvidence = 0.5;

/// Groups that are common among known structures, the most common first; breaks ties.
constexpr std::array<int, 40> kCommonGroups = {
    14, 2,  15, 19,  4,  61, 62,  33, 9,   60,  225, 227, 194, 166, 221, 5,   29,  1,  139, 63,
    12, 11, 13, 148, 18, 56, 230, 88, 167, 129, 136, 176, 193, 141, 205, 216, 223, 52, 7,   96};

int rarity(int number) {
    return static_cast<int>(std::find(kCommonGroups.begin(), kCommonGroups.end(), number) -
                            kCommonGroups.begin());
}

struct Condition {
    const char* reflections;
    const char* text;
    bool (*inClass)(int h, int k, int l);
    bool (*obeys)(int h, int k, int l);
};

bool is0kl(int h, int, int) {
    return h == 0;
}
bool ish0l(int, int k, int) {
    return k == 0;
}
bool ishk0(int, int, int l) {
    return l == 0;
}
bool ish00(int, int k, int l) {
    return k == 0 && l == 0;
}
bool is0k0(int h, int, int l) {
    return h == 0 && l == 0;
}
bool is00l(int h, int k, int) {
    return h == 0 && k == 0;
}
bool ishhl(int h, int k, int) {
    return h == k;
}
bool ishmhl(int h, int k, int) {
    return h == -k;
}

template <int n>
bool h(int hh, int, int) {
    return hh % n == 0;
}
template <int n>
bool k(int, int kk, int) {
    return kk % n == 0;
}
template <int n>
bool l(int, int, int ll) {
    return ll % n == 0;
}

const std::vector<Condition>& conditions() {
    static const std::vector<Condition> list = {
        {"h00", "h = 2n", ish00, h<2>},
        {"h00", "h = 4n", ish00, h<4>},
        {"0k0", "k = 2n", is0k0, k<2>},
        {"0k0", "k = 4n", is0k0, k<4>},
        {"00l", "l = 2n", is00l, l<2>},
        {"00l", "l = 3n", is00l, l<3>},
        {"00l", "l = 4n", is00l, l<4>},
        {"00l", "l = 6n", is00l, l<6>},
        {"0kl", "k = 2n", is0kl, k<2>},
        {"0kl", "l = 2n", is0kl, l<2>},
        {"0kl", "k + l = 2n", is0kl, [](int, int kk, int ll) { return (kk + ll) % 2 == 0; }},
        {"0kl", "k + l = 4n", is0kl, [](int, int kk, int ll) { return (kk + ll) % 4 == 0; }},
        {"h0l", "h = 2n", ish0l, h<2>},
        {"h0l", "l = 2n", ish0l, l<2>},
        {"h0l", "h + l = 2n", ish0l, [](int hh, int, int ll) { return (hh + ll) % 2 == 0; }},
        {"h0l", "h + l = 4n", ish0l, [](int hh, int, int ll) { return (hh + ll) % 4 == 0; }},
        {"hk0", "h = 2n", ishk0, h<2>},
        {"hk0", "k = 2n", ishk0, k<2>},
        {"hk0", "h + k = 2n", ishk0, [](int hh, int kk, int) { return (hh + kk) % 2 == 0; }},
        {"hk0", "h + k = 4n", ishk0, [](int hh, int kk, int) { return (hh + kk) % 4 == 0; }},
        {"hhl", "l = 2n", ishhl, l<2>},
        {"hhl", "2h + l = 4n", ishhl, [](int hh, int, int ll) { return (2 * hh + ll) % 4 == 0; }},
        {"h-hl", "l = 2n", ishmhl, l<2>},
    };
    return list;
}

MeanIntensity meansOf(std::span<const MergedReflection> merged) {
    std::vector<MeanIntensity::Sample> samples;
    for (const MergedReflection& one : merged)
        samples.push_back({one.spacing, one.intensity, one.sigma});
    return MeanIntensity(std::move(samples));
}

/// Logarithm of the density of a measured intensity whose true value is exponentially distributed.
double lnWilson(double intensity, double sigma, double mean) {
    const double x = (sigma / mean - intensity / sigma) / std::sqrt(2.0);
    // ln(erfc(x) exp(x^2)), by its asymptotes where the factors leave the range of numbers.
    double lnScaled = 0;
    if (x > 20)
        lnScaled = -std::log(x * std::sqrt(std::numbers::pi));
    else if (x < -20)
        lnScaled = std::numbers::ln2 + x * x;
    else
        lnScaled = x * x + std::log(std::erfc(x));
    return lnScaled - std::log(2 * mean) - intensity * intensity / (2 * sigma * sigma);
}

/// Evidence for being absent, by the share that leaks into it. Adds up over reflections.
class Absence {
public:
    Absence() = default;
    Absence(const MergedReflection& one, double mean) {
        if (!(one.sigma > 0) || !(mean > 0)) return;
        const double ordinary = lnWilson(one.intensity, one.sigma, mean);
        for (std::size_t i = 0; i < kLeaks.size(); ++i) {
            const double difference = lnWilson(one.intensity, one.sigma, kLeaks[i].share * mean) - ordinary;
            m_evidence[i] = std::isfinite(difference) ? std::clamp(difference, -kMostEvidence, kMostEvidence)
                                                      : -kMostEvidence;
        }
    }
    Absence& operator+=(const Absence& other) {
        for (std::size_t i = 0; i < kLeaks.size(); ++i)
            m_evidence[i] += other.m_evidence[i];
        return *this;
    }
    /// With the share that explains most.
    double evidence() const {
        double best = m_evidence[0];
        for (std::size_t i = 1; i < kLeaks.size(); ++i)
            best = std::max(best, m_evidence[i] - kLeaks[i].price);
        return best;
    }

private:
    std::array<double, kLeaks.size()> m_evidence{};
};

ReflectionCondition judged(const Condition& condition, std::span<const MergedReflection> merged,
                           const MeanIntensity& means, const std::vector<Absence>& absences) {
    ReflectionCondition result;
    Absence absence;
    result.reflections = condition.reflections;
    result.condition = condition.text;
    for (std::size_t i = 0; i < merged.size(); ++i) {
        const MergedReflection& one = merged[i];
        const auto [hh, kk, ll] = one.hkl;
        if (!condition.inClass(hh, kk, ll)) continue;
        const double significance = one.sigma > 0 ? one.intensity / one.sigma : 0;
        if (condition.obeys(hh, kk, ll)) {
            ++result.obeying;
            result.obeyingISigma += significance;
        } else {
            ++result.violating;
            result.violatingISigma += significance;
            result.ratio += one.intensity / means.at(one.spacing);
            absence += absences[i];
        }
    }
    if (result.obeying > 0) result.obeyingISigma /= result.obeying;
    if (result.violating > 0) {
        result.evidence = absence.evidence();
        result.violatingISigma /= result.violating;
        result.ratio /= result.violating;
    }
    return result;
}

/// Whether a group forbids what a condition forbids, and whether the centring does not do so already.
bool imposes(const gemmi::GroupOps& operations, const gemmi::GroupOps& lattice, const Condition& condition) {
    bool more = false;
    for (int hh = -8; hh <= 8; ++hh)
        for (int kk = -8; kk <= 8; ++kk)
            for (int ll = -8; ll <= 8; ++ll) {
                if (!condition.inClass(hh, kk, ll) || condition.obeys(hh, kk, ll)) continue;
                const gemmi::Op::Miller hkl = {hh, kk, ll};
                if (!operations.is_systematically_absent(hkl)) return false;
                more = more || !lattice.is_systematically_absent(hkl);
            }
    return more;
}

double meanESquareMinusOne(std::span<const MergedReflection> merged, const MeanIntensity& means) {
    double sum = 0;
    int count = 0;
    for (const MergedReflection& one : merged) {
        const double mean = means.at(one.spacing);
        // Noise broadens the distribution.
        if (!(mean > 3 * one.sigma)) continue;
        sum += std::abs(one.intensity / mean - 1);
        ++count;
    }
    return count > 0 ? sum / count : 0;
}

}  // namespace

SpaceGroupAnalysis analyseSpaceGroups(std::span<const MergedReflection> merged,
                                      const LaueRotations& rotations, char centring) {
    SpaceGroupAnalysis result;
    const MeanIntensity means = meansOf(merged);
    std::vector<Absence> absences;
    for (const MergedReflection& one : merged)
        absences.emplace_back(one, means.at(one.spacing));
    result.eSquareMinusOne = meanESquareMinusOne(merged, means);
    result.centricByStatistics = result.eSquareMinusOne > kCentricLimit;

    const std::vector<const gemmi::SpaceGroup*> groups = spaceGroupsOf(rotations, centring);
    gemmi::GroupOps lattice;
    lattice.sym_ops.push_back(gemmi::Op::identity());
    lattice.cen_ops = gemmi::centring_vectors(centring);
    std::vector<bool> imposed(conditions().size(), false);
    for (const gemmi::SpaceGroup* group : groups) {
        const gemmi::GroupOps operations = group->operations();
        SpaceGroupCandidate candidate;
        Absence absence;
        candidate.number = group->number;
        candidate.symbol = group->xhm();
        candidate.hall = group->hall;
        candidate.centrosymmetric = operations.is_centrosymmetric();
        for (std::size_t i = 0; i < merged.size(); ++i) {
            const gemmi::Op::Miller hkl = {merged[i].hkl[0], merged[i].hkl[1], merged[i].hkl[2]};
            if (!operations.is_systematically_absent(hkl)) continue;
            ++candidate.extinguished;
            absence += absences[i];
        }
        if (candidate.extinguished > 0) candidate.evidence = absence.evidence();
        for (std::size_t c = 0; c < imposed.size(); ++c)
            if (!imposed[c]) imposed[c] = imposes(operations, lattice, conditions()[c]);
        // Other origins of the same group forbid the same.
        const bool known = std::any_of(
            result.candidates.begin(), result.candidates.end(), [&](const SpaceGroupCandidate& other) {
                return other.number == candidate.number && other.extinguished == candidate.extinguished &&
                       other.evidence == candidate.evidence;
            });
        if (!known) result.candidates.push_back(candidate);
    }
    for (std::size_t c = 0; c < imposed.size(); ++c)
        if (imposed[c]) result.conditions.push_back(judged(conditions()[c], merged, means, absences));
    const bool centric = result.centricByStatistics;
    std::sort(result.candidates.begin(), result.candidates.end(),
              [centric](const SpaceGroupCandidate& a, const SpaceGroupCandidate& b) {
                  const double stepA = std::round(a.evidence / kSameEvidence);
                  const double stepB = std::round(b.evidence / kSameEvidence);
                  const bool fitsA = a.centrosymmetric == centric;
                  const bool fitsB = b.centrosymmetric == centric;
                  return std::make_tuple(-stepA, !fitsA, rarity(a.number), a.number) <
                         std::make_tuple(-stepB, !fitsB, rarity(b.number), b.number);
              });
    return result;
}

void estimateAmplitudes(std::span<MergedReflection> merged, const SpaceGroupAnalysis& analysis) {
    const gemmi::GroupOps operations = gemmi::symops_from_hall(
        analysis.candidates.empty() ? "P 1" : analysis.candidates.front().hall.c_str());
    const auto indices = [](const MergedReflection& one) {
        return gemmi::Op::Miller{one.hkl[0], one.hkl[1], one.hkl[2]};
    };
    std::vector<MeanIntensity::Sample> samples;
    for (const MergedReflection& one : merged) {
        if (operations.is_systematically_absent(indices(one))) continue;
        const int multiple = operations.epsilon_factor_without_centering(indices(one));
        samples.push_back({one.spacing, one.intensity / multiple, one.sigma / multiple});
    }
    const MeanIntensity means(std::move(samples));
    for (MergedReflection& one : merged) {
        const gemmi::Op::Miller hkl = indices(one);
        const double mean = operations.epsilon_factor_without_centering(hkl) * means.at(one.spacing);
        one.amplitude =
            expectedAmplitude(one.intensity, one.sigma, mean, operations.is_reflection_centric(hkl));
    }
}

}  // namespace vrk
