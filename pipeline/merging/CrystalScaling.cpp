#include "pipeline/merging/CrystalScaling.h"

#include <Eigen/Core>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <utility>

#include "pipeline/base/Median.h"
#include "pipeline/integration/Equivalents.h"
#include "pipeline/integration/MeanIntensity.h"

namespace vrk {
namespace {

constexpr int kRounds = 60;
constexpr double kSettled = 1e-4;
/// Relative error of an observation that no scale explains; keeps strong ones from deciding alone.
constexpr double kScaleFloor = 0.1;
/// The limit of the biweight in standard deviations, at first and in the end.
constexpr double kFirstTukey = 20;
constexpr double kTukey = 6;
constexpr double kDecaySpread = 5;

class Scaler {
public:
    Scaler(std::span<const Observation> observations, std::size_t crystals, const LaueRotations& rotations)
        : m_observations(observations),
          m_groups(equivalents(observations, rotations)),
          m_scales(crystals),
          m_normal(crystals),
          m_right(crystals),
          m_own(crystals, Eigen::Vector2d::Zero()) {
        // Groups within one crystal say nothing about its scale.
        std::erase_if(m_groups, [&](const auto& group) {
            return std::all_of(group.begin(), group.end(), [&](std::uint32_t i) {
                return observations[i].source == observations[group.front()].source;
            });
        });
        for (const auto& group : m_groups)
            for (const std::uint32_t i : group)
                ++m_scales[observations[i].source].common;
    }

    std::vector<CrystalScale> fit() {
        start();
        double tukey = kFirstTukey;
        for (int round = 0; round < kRounds; ++round) {
            const double change = improve(tukey);
            normalise();
            if (tukey == kTukey && change < kSettled) break;
            tukey = std::max(kTukey, 0.7 * tukey);
        }
        return std::move(m_scales);
    }

private:
    struct Term {
        std::uint32_t crystal;
        double factor, top, bottom;
    };

    /// By the mean intensities at the resolutions that a crystal shares with the brightest others.
    void start() {
        std::vector<std::vector<MeanIntensity::Sample>> samples(m_scales.size());
        std::vector<MeanIntensity::Sample> all;
        for (const Observation& one : m_observations)
            if (!one.outlier) {
                samples[one.source].push_back({one.spacing, one.intensity, one.sigma});
                all.push_back(samples[one.source].back());
            }
        const MeanIntensity common(std::move(all));
        for (std::size_t c = 0; c < m_scales.size(); ++c) {
            if (samples[c].empty()) continue;
            const MeanIntensity own(samples[c]);
            std::vector<double> ratios;
            for (const MeanIntensity::Sample& one : samples[c])
                ratios.push_back(std::log(own.at(one.spacing) / common.at(one.spacing)));
            m_scales[c].k = medianOf(std::move(ratios));
        }
        normalise();
    }

    /// A step of every crystal towards the means of the others. \returns the largest
    double improve(double tukey) {
        for (std::size_t c = 0; c < m_scales.size(); ++c) {
            m_normal[c] = Eigen::Matrix2d::Zero();
            m_normal[c](1, 1) = 1 / (kDecaySpread * kDecaySpread);
            m_right[c] = {0, -m_scales[c].b / (kDecaySpread * kDecaySpread)};
        }
        for (const auto& group : m_groups)
            addGroup(group, tukey);
        double largest = 0;
        for (std::size_t c = 0; c < m_scales.size(); ++c) {
            CrystalScale& scale = m_scales[c];
            if (!(m_normal[c](0, 0) > 0)) continue;
            const Eigen::Matrix2d inverse = m_normal[c].inverse();
            const Eigen::Vector2d step = inverse * m_right[c];
            if (!step.allFinite()) continue;
            const double k = std::clamp(step[0], -1.0, 1.0), b = std::clamp(step[1], -2.0, 2.0);
            scale.k += k;
            scale.b += b;
            scale.sigmaOfK = std::sqrt(inverse(0, 0));
            scale.sigmaOfB = std::sqrt(inverse(1, 1));
            largest = std::max({largest, std::abs(k), 0.1 * std::abs(b)});
        }
        return largest;
    }

    /// Deviations of a unique reflection's observations from the mean in other crystals.
    void addGroup(const std::vector<std::uint32_t>& group, double tukey) {
        std::vector<Term>& terms = m_terms;
        terms.clear();
        double top = 0, bottom = 0;
        for (const std::uint32_t i : group) {
            const Observation& one = m_observations[i];
            const double factor = m_scales[one.source].factor(one.spacing);
            const double variance = one.sigma * one.sigma + std::pow(kScaleFloor * one.intensity, 2);
            terms.push_back(
                {one.source, factor, factor * one.intensity / variance, factor * factor / variance});
            top += terms.back().top;
            bottom += terms.back().bottom;
            m_own[one.source] += Eigen::Vector2d(terms.back().top, terms.back().bottom);
        }
        for (std::size_t n = 0; n < group.size(); ++n) {
            const std::uint32_t crystal = terms[n].crystal;
            const double othersTop = top - m_own[crystal][0];
            const double othersBottom = bottom - m_own[crystal][1];
            // Nothing but rounding is left when there are no others.
            if (!(othersBottom > 1e-9 * bottom)) continue;
            const Observation& one = m_observations[group[n]];
            const double expected = terms[n].factor * othersTop / othersBottom;
            const double variance = one.sigma * one.sigma + terms[n].factor * terms[n].factor / othersBottom +
                                    std::pow(kScaleFloor * expected, 2);
            const double residual = one.intensity - expected;
            const double part = 1 - residual * residual / (variance * tukey * tukey);
            if (part <= 0) continue;
            const double weight = part * part / variance;
            const Eigen::Vector2d derivative(expected, -0.5 * expected / (one.spacing * one.spacing));
            m_normal[one.source] += weight * derivative * derivative.transpose();
            m_right[one.source] += weight * residual * derivative;
        }
        for (const Term& term : terms)
            m_own[term.crystal].setZero();
    }

    void normalise() {
        double k = 0, b = 0, count = 0;
        for (const CrystalScale& scale : m_scales) {
            if (scale.common == 0) continue;
            k += scale.k;
            b += scale.b;
            ++count;
        }
        if (count == 0) return;
        for (CrystalScale& scale : m_scales) {
            scale.k -= k / count;
            if (scale.common > 0) scale.b -= b / count;
        }
    }

    std::span<const Observation> m_observations;
    std::vector<std::vector<std::uint32_t>> m_groups;
    std::vector<CrystalScale> m_scales;
    std::vector<Eigen::Matrix2d> m_normal;
    std::vector<Eigen::Vector2d> m_right;
    std::vector<Eigen::Vector2d> m_own;  ///< sums of the present group by crystal, otherwise 0
    std::vector<Term> m_terms;           ///< of the present group
};

}  // namespace

double CrystalScale::factor(double spacing) const {
    return std::exp(k - 0.5 * b / (spacing * spacing));
}

std::vector<CrystalScale> scaleCrystals(std::span<const Observation> observations, std::size_t crystals,
                                        const LaueRotations& rotations) {
    return Scaler(observations, crystals, rotations).fit();
}

void applyScales(std::span<Observation> observations, std::span<const CrystalScale> scales) {
    for (Observation& one : observations) {
        const double factor = scales[one.source].factor(one.spacing);
        one.intensity /= factor;
        one.sigma /= factor;
        one.scale *= factor;
    }
}

}  // namespace vrk
