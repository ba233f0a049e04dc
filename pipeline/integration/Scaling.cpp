#include "pipeline/integration/Scaling.h"

#include <Eigen/Core>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>

#include "pipeline/base/Median.h"
#include "pipeline/base/SymmetricSystem.h"
#include "pipeline/integration/Equivalents.h"

namespace vrk {
namespace {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;

constexpr int kScalingRounds = 20;
constexpr double kDecayKnots = 3;  ///< knots of the scale to one of the decay
/// Restraints on the knots at first: standard deviations of k and of b (square Angstrom); and how much
/// smaller the bend at a knot is. They are then estimated from the knots themselves.
constexpr double kFirstSpread = 0.3;
constexpr double kFirstDecaySpread = 0.3;
constexpr double kBend = 0.3;
constexpr double kLeastSpread = 1e-3;
/// Relative error of an observation that no scale explains; keeps strong ones from deciding alone.
constexpr double kFloor = 0.03;
constexpr double kScalingTukey = 6;
constexpr int kFewestDeviations = 60;
constexpr std::size_t kClasses = 10;
constexpr double kScalingOutlier = 6;

/// The two knots around a place, and the weight of the second.
struct Between {
    Index low;
    double part;
};

Between between(const std::vector<double>& knots, double place) {
    if (knots.size() < 2) return {0, 0};
    const auto after = std::upper_bound(knots.begin() + 1, knots.end() - 1, place);
    const auto low = static_cast<std::size_t>(after - knots.begin()) - 1;
    return {static_cast<Index>(low),
            std::clamp((place - knots[low]) / (knots[low + 1] - knots[low]), 0.0, 1.0)};
}

std::vector<double> knotsOver(double first, double last, double spacing) {
    const int intervals = std::max(1, static_cast<int>(std::lround((last - first) / spacing)));
    std::vector<double> knots;
    for (int i = 0; i <= intervals; ++i)
        knots.push_back(first + (last - first) * i / intervals);
    return knots;
}

double valueAt(const std::vector<double>& knots, const std::vector<double>& values, double place) {
    if (values.empty()) return 0;
    if (values.size() == 1) return values[0];
    const Between at = between(knots, place);
    const auto low = static_cast<std::size_t>(at.low);
    return values[low] + at.part * (values[low + 1] - values[low]);
}

/// Adds the restraints of a row of knots.
void restrain(MatrixXd& normal, VectorXd& right, const std::vector<double>& values, Index first, double far) {
    const double rough = kBend * far;
    const auto count = static_cast<Index>(values.size());
    for (Index i = 0; i < count; ++i) {
        normal(first + i, first + i) += 1 / (far * far);
        right(first + i) -= values[static_cast<std::size_t>(i)] / (far * far);
    }
    for (Index i = 1; i + 1 < count; ++i) {
        const std::array<double, 3> c = {-0.5, 1, -0.5};
        double bend = 0;
        for (Index j = 0; j < 3; ++j)
            bend += c[static_cast<std::size_t>(j)] * values[static_cast<std::size_t>(i + j - 1)];
        for (Index j = 0; j < 3; ++j) {
            right(first + i + j - 1) -= c[static_cast<std::size_t>(j)] * bend / (rough * rough);
            for (Index l = 0; l < 3; ++l)
                normal(first + i + j - 1, first + i + l - 1) +=
                    c[static_cast<std::size_t>(j)] * c[static_cast<std::size_t>(l)] / (rough * rough);
        }
    }
}

class Scaler {
public:
    Scaler(std::span<const Observation> observations, const LaueRotations& rotations, ScaleModel model)
        : m_observations(observations),
          m_groups(equivalents(observations, rotations)),
          m_model(std::move(model)),
          m_knots(static_cast<Index>(m_model.k.size())),
          m_size(m_knots + static_cast<Index>(m_model.b.size())) {}

    ScaleModel fit();

private:
    void addGroup(const std::vector<std::uint32_t>& group, MatrixXd& normal, VectorXd& right);
    double misfit() const;
    void normalise();

    std::span<const Observation> m_observations;
    std::vector<std::vector<std::uint32_t>> m_groups;
    ScaleModel m_model;
    Index m_knots;
    Index m_size;
};

/// Deviations of the observations from their common intensity times the scale, by the parameters; the
/// intensity is eliminated.
void Scaler::addGroup(const std::vector<std::uint32_t>& group, MatrixXd& normal, VectorXd& right) {
    const auto count = static_cast<Index>(group.size());
    VectorXd factor(count), sigma(count);
    double top = 0, bottom = 0;
    for (Index i = 0; i < count; ++i) {
        const Observation& one = m_observations[group[static_cast<std::size_t>(i)]];
        factor(i) = m_model.factor(one.frame, one.spacing);
        sigma(i) = std::hypot(one.sigma, kFloor * one.intensity);
        top += factor(i) * one.intensity / (sigma(i) * sigma(i));
        bottom += factor(i) * factor(i) / (sigma(i) * sigma(i));
    }
    const double intensity = top / bottom;
    if (!(intensity > 3 / std::sqrt(bottom))) return;
    MatrixXd slopes = MatrixXd::Zero(m_size, count);
    VectorXd residual(count), direction(count);
    for (Index i = 0; i < count; ++i) {
        const Observation& one = m_observations[group[static_cast<std::size_t>(i)]];
        const double expected = factor(i) * intensity;
        const Between k = between(m_model.frames, one.frame);
        const Between b = between(m_model.decayFrames, one.frame);
        const double decay = -0.5 / (one.spacing * one.spacing);
        const double byLogarithm = expected / sigma(i);
        slopes(k.low, i) += byLogarithm * (1 - k.part);
        slopes(std::min(k.low + 1, m_knots - 1), i) += byLogarithm * k.part;
        slopes(m_knots + b.low, i) += byLogarithm * decay * (1 - b.part);
        slopes(std::min(m_knots + b.low + 1, m_size - 1), i) += byLogarithm * decay * b.part;
        residual(i) = (one.intensity - expected) / sigma(i);
        direction(i) = factor(i) / sigma(i);
    }
    const double freedom = std::max<double>(static_cast<double>(count) - 1, 1);
    const double part = 1 - residual.squaredNorm() / freedom / (kScalingTukey * kScalingTukey);
    if (part <= 0) return;
    m_model.pairs += static_cast<int>(count);
    direction.normalize();
    const VectorXd along = slopes.lazyProduct(direction);
    for (Index i = 0; i < count; ++i) {
        slopes.col(i) -= direction(i) * along;
        const VectorXd weighted = part * part * slopes.col(i);
        normal.noalias() += weighted * slopes.col(i).transpose();
        right += residual(i) * weighted;
    }
}

/// Keeps the mean intensity.
void Scaler::normalise() {
    double sum = 0, scaled = 0;
    for (const Observation& one : m_observations) {
        if (one.outlier || !(one.intensity > 0)) continue;
        sum += one.intensity;
        scaled += one.intensity / m_model.factor(one.frame, one.spacing);
    }
    if (!(sum > 0 && scaled > 0)) return;
    for (double& k : m_model.k)
        k += std::log(scaled / sum);
}

/// Sum of the squared deviations of the equivalents, each group's limited.
double Scaler::misfit() const {
    double sum = 0;
    for (const auto& group : m_groups) {
        double top = 0, bottom = 0, squares = 0;
        for (const std::uint32_t i : group) {
            const Observation& one = m_observations[i];
            const double factor = m_model.factor(one.frame, one.spacing);
            const double weight = 1 / (one.sigma * one.sigma + std::pow(kFloor * one.intensity, 2));
            top += weight * factor * one.intensity;
            bottom += weight * factor * factor;
            squares += weight * one.intensity * one.intensity;
        }
        const double freedom = static_cast<double>(group.size()) - 1;
        sum += std::min(squares - top * top / bottom, kScalingTukey * kScalingTukey * freedom);
    }
    return sum;
}

ScaleModel Scaler::fit() {
    std::erase_if(m_groups, [](const auto& group) { return group.size() < 2; });
    ScaleModel none = m_model;
    const double before = misfit();
    double spread = kFirstSpread;
    double decaySpread = kFirstDecaySpread;
    double freedom = 0;
    for (m_model.rounds = 0; m_model.rounds < kScalingRounds; ++m_model.rounds) {
        MatrixXd normal = MatrixXd::Zero(m_size, m_size);
        VectorXd right = VectorXd::Zero(m_size);
        m_model.pairs = 0;
        for (const auto& group : m_groups)
            addGroup(group, normal, right);
        const MatrixXd data = normal;
        restrain(normal, right, m_model.k, 0, spread);
        restrain(normal, right, m_model.b, m_knots, decaySpread);
        const MatrixXd inverse = SymmetricSystem(normal).inverse();
        const VectorXd step = inverse * right;
        if (!step.allFinite()) return none;
        freedom = (data * inverse).trace();
        double squares = 0, decaySquares = 0;
        for (Index i = 0; i < m_size; ++i) {
            double& value = i < m_knots ? m_model.k[static_cast<std::size_t>(i)]
                                        : m_model.b[static_cast<std::size_t>(i - m_knots)];
            value += std::clamp(step(i), -1.0, 1.0);
            (i < m_knots ? squares : decaySquares) += value * value + inverse(i, i);
        }
        const double knots = static_cast<double>(m_knots);
        const double decayKnots = static_cast<double>(m_size - m_knots);
        const double spreadBefore = spread;
        spread = std::max(std::sqrt(squares / knots), kLeastSpread);
        decaySpread = std::max(std::sqrt(decaySquares / decayKnots), kLeastSpread);
        if (step.cwiseAbs().maxCoeff() < 1e-3 && std::abs(spread / spreadBefore - 1) < 0.05) break;
    }
    // A scale must explain more than that many free numbers explain by chance.
    if (before - misfit() < freedom + 4 * std::sqrt(2 * freedom)) return none;
    normalise();
    return m_model;
}

}  // namespace

double ScaleModel::factor(double frame, double spacing) const {
    return std::exp(valueAt(frames, k, frame) - 0.5 * valueAt(decayFrames, b, frame) / (spacing * spacing));
}

ScaleModel fitScales(std::span<const Observation> observations, const LaueRotations& rotations,
                     double firstFrame, double lastFrame, double spacingOfKnots) {
    ScaleModel model;
    model.frames = knotsOver(firstFrame, lastFrame, spacingOfKnots);
    model.decayFrames = knotsOver(firstFrame, lastFrame, kDecayKnots * spacingOfKnots);
    model.k.assign(model.frames.size(), 0);
    model.b.assign(model.decayFrames.size(), 0);
    return Scaler(observations, rotations, std::move(model)).fit();
}

void applyScales(std::span<Observation> observations, const ScaleModel& model) {
    for (Observation& one : observations) {
        const double factor = model.factor(one.frame, one.spacing);
        one.intensity /= factor;
        one.sigma /= factor;
        one.scale *= factor;
    }
}

double ErrorModel::sigma(double sigma, double intensity) const {
    return std::sqrt(a) * std::hypot(sigma, b * intensity);
}

ErrorModel fitErrors(std::span<const Observation> observations, const LaueRotations& rotations) {
    struct Deviation {
        double intensity, square, variance;
    };
    std::vector<Deviation> deviations;
    for (const auto& group : equivalents(observations, rotations)) {
        if (group.size() < 2) continue;
        const WeightedMean mean = weightedMean(observations, group);
        for (const std::uint32_t i : group) {
            const Observation& one = observations[i];
            // The mean contains the observation itself.
            const double left = 1 - mean.sigma * mean.sigma / (one.sigma * one.sigma);
            if (left < 0.05) continue;
            deviations.push_back({std::max(mean.intensity, 0.0),
                                  std::pow(one.intensity - mean.intensity, 2) / left, one.sigma * one.sigma});
        }
    }
    ErrorModel model;
    model.pairs = static_cast<int>(deviations.size());
    if (model.pairs < kFewestDeviations) return model;
    std::sort(deviations.begin(), deviations.end(),
              [](const Deviation& x, const Deviation& y) { return x.intensity < y.intensity; });
    // Class by class the typical square over the variance, which should be a (1 + b^2 I^2 / sigma^2).
    Eigen::Matrix2d normal = Eigen::Matrix2d::Zero();
    Eigen::Vector2d right = Eigen::Vector2d::Zero();
    for (std::size_t c = 0; c < kClasses; ++c) {
        std::vector<double> ratios, strengths;
        for (std::size_t i = deviations.size() * c / kClasses; i < deviations.size() * (c + 1) / kClasses;
             ++i) {
            ratios.push_back(deviations[i].square / deviations[i].variance);
            strengths.push_back(deviations[i].intensity * deviations[i].intensity / deviations[i].variance);
        }
        // Between the median, which is blind for tails, and the mean, which single outliers spoil.
        const double ratio = trimmedMeanSquare(ratios);
        const Eigen::Vector2d basis(1, medianOf(strengths));
        const double weight = static_cast<double>(ratios.size()) / (ratio * ratio);
        normal += weight * basis * basis.transpose();
        right += weight * ratio * basis;
    }
    const Eigen::Vector2d solution = normal.inverse() * right;
    if (solution.allFinite() && solution(0) >= 1 && solution(1) > 0) {
        model.a = solution(0);
        model.b = std::sqrt(solution(1) / model.a);
        return model;
    }
    // What one of the two cannot take is the other's, and nothing is left of it where that has enough.
    const double withoutA = (right(1) - normal(0, 1)) / normal(1, 1);
    if (solution.allFinite() && solution(1) > 0 && withoutA > 0)
        model.b = std::sqrt(withoutA);
    else if (!(solution(1) > 0))
        model.a = std::max(right(0) / normal(0, 0), 1.0);
    return model;
}

void applyErrors(std::span<Observation> observations, const LaueRotations& rotations,
                 const ErrorModel& model) {
    for (const auto& group : equivalents(observations, rotations)) {
        const double intensity = std::max(weightedMean(observations, group).intensity, 0.0);
        for (const std::uint32_t i : group)
            observations[i].sigma = model.sigma(observations[i].sigma, intensity);
    }
}

int markOutliers(std::span<Observation> observations, const LaueRotations& rotations) {
    int marked = 0;
    for (auto group : equivalents(observations, rotations)) {
        while (group.size() > 2) {
            double farthest = kScalingOutlier;
            std::size_t worst = group.size();
            double top = 0, bottom = 0;
            for (const std::uint32_t i : group) {
                const double weight = 1 / (observations[i].sigma * observations[i].sigma);
                top += weight * observations[i].intensity;
                bottom += weight;
            }
            for (std::size_t n = 0; n < group.size(); ++n) {
                const Observation& one = observations[group[n]];
                const double weight = 1 / (one.sigma * one.sigma);
                const double left = bottom - weight;
                // What is left by rounding is no weight.
                if (!(left > 1e-9 * bottom)) continue;
                const double others = (top - weight * one.intensity) / left;
                const double deviation =
                    std::abs(one.intensity - others) / std::sqrt(one.sigma * one.sigma + 1 / left);
                if (deviation <= farthest) continue;
                farthest = deviation;
                worst = n;
            }
            if (worst == group.size()) break;
            observations[group[worst]].outlier = true;
            group.erase(group.begin() + static_cast<std::ptrdiff_t>(worst));
            ++marked;
        }
    }
    return marked;
}

}  // namespace vrk
