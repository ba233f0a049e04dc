#include "pipeline/geometry/InstrumentRefinement.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <optional>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/NormalEquations.h"
#include "pipeline/base/SymmetricSystem.h"

namespace vrk {
namespace {

using Eigen::MatrixXd;
using Eigen::Vector3d;
using Eigen::VectorXd;
using Terms = std::array<bool, kInstrumentTerms>;

constexpr double kTukeyLimit = 6.3;  // standard deviations of one coordinate
constexpr double kMedianOfChi3 = 1.5381722544550522;
constexpr double kSmallestSigma = 1e-4;    // voxels
constexpr std::size_t kFewestPoints = 60;  // for a term to be tried
constexpr std::size_t kEnoughPoints = 2500;
constexpr double kLeastShift = 0.05;  // voxels that a term must move reflections
/// By which the variance of a term may grow since the cell and other terms are refined with it.
constexpr double kMostInflation = 30.0;
/// Standard deviation of a component of the ellipses that instruments have.
constexpr double kUsualEllipse = 0.01;
/// Weight that keeps a direction in place, over that of the reflections.
constexpr double kFirm = 1e3;
/// Steps of the numerical derivatives: far below what matters, far above rounding.
constexpr double kStep = 1e-6;

InstrumentTerm termOf(std::size_t i) {
    return static_cast<InstrumentTerm>(i);
}

/// Which of the used terms one is.
std::ptrdiff_t columnOf(const Terms& used, InstrumentTerm term) {
    return std::count(used.begin(), used.begin() + static_cast<std::ptrdiff_t>(term), true);
}

/// The state of the fit: an instrument and the lattice of the places that it gives.
struct State {
    InstrumentModel model;
    TiedLattice lattice;
    double cost = std::numeric_limits<double>::infinity();  ///< robust, in squared voxels per coordinate
    double sigma = 0.0;
    std::size_t count = 0;
    /// Direction in the plane of the ellipse's two numbers that is not refined, since the cell can take it
    /// over; 0 for none.
    Eigen::Vector2d held = Eigen::Vector2d::Zero();
};

/// The points of one refinement.
class Fit {
public:
    Fit(std::span<const Vector3d> positions, std::span<const double> tilts, const Vector3d& centre,
        const InstrumentSettings& settings)
        : m_centre(centre), m_settings(settings) {
        for (std::size_t i = 0; i < positions.size(); ++i)
            m_places.push_back(PatternPlace::of(positions[i] - centre, tilts[i]));
        for (const PatternPlace& place : m_places)
            if (const double distance = std::hypot(place.u, place.v); std::isfinite(distance))
                m_farthest = std::max(m_farthest, distance);
        m_indices.resize(m_places.size());
    }

    /// Refines from the inside out with a choice of terms.
    State refined(const State& start, const Terms& used) {
        State state = start;
        for (const double share : {0.35, 0.5, 0.7, 0.85, 1.0})
            for (int round = 0; round < (share < 1.0 ? 2 : 5); ++round) {
                State trial = state;
                if (improve(trial, used, share * m_farthest))
                    state = trial;
                else if (share == 1.0)
                    return start;
            }
        assess(state);
        return state;
    }

    /// Robust cost of a state over all points that it indexes.
    void assess(State& state) {
        index(state, m_farthest);
        std::vector<double> lengths = residuals(state, usedPlaces(state));
        state.count = lengths.size();
        state.sigma = sigmaOf(lengths);
        // Points that lose their node pay the full price, so that fewer indices are no gain.
        const double limit = kTukeyLimit * referenceSigma(state);
        double sum = limit * limit * static_cast<double>(m_places.size() - lengths.size());
        for (const double length : lengths)
            sum += std::min(length * length, limit * limit);
        state.cost = sum;
    }

    /// Fixes the spread that costs are compared in.
    void setReference(double sigma) { m_reference = sigma; }
    double reference() const { return m_reference; }
    std::size_t size() const { return m_places.size(); }

    /// How far a term moves the indexed points, root mean square in voxels.
    double shiftOf(const State& state, InstrumentTerm term) const {
        InstrumentModel without = state.model;
        without[term] = 0.0;
        const InstrumentModel::Mapping toReciprocal(state.model), otherwise(without);
        double sum = 0.0;
        for (std::size_t i : m_used)
            sum += (toReciprocal(m_places[i]) - otherwise(m_places[i])).squaredNorm();
        return m_used.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(m_used.size()));
    }

    /// Normal matrix of terms and lattice, terms first, at the state; weights of its residuals.
    MatrixXd normalMatrix(const State& state, const Terms& used) {
        VectorXd right;
        return normal(state, used, right);
    }

private:
    double referenceSigma(const State& state) const { return m_reference > 0.0 ? m_reference : state.sigma; }

    void index(const State& state, double radius) {
        const Matrix34 model = state.lattice.model();
        const Eigen::Matrix3d inverse = model.leftCols<3>().inverse();
        const InstrumentModel::Mapping toReciprocal(state.model);
        m_used.clear();
        for (std::size_t i = 0; i < m_places.size(); ++i) {
            if (!(std::hypot(m_places[i].u, m_places[i].v) <= radius)) continue;
            const Vector3d q = inverse * (toReciprocal(m_places[i]) + m_centre - model.col(3));
            m_indices[i] = indexPosition(q, m_settings.tolerance);
            if (m_indices[i][0] != kNotIndexed && m_indices[i] != Indices{0, 0, 0}) m_used.push_back(i);
        }
    }

    Eigen::Vector4d node(std::size_t i) const {
        return Vector3d(m_indices[i][0], m_indices[i][1], m_indices[i][2]).homogeneous();
    }

    /// Of the points that are used, in reciprocal space.
    std::vector<Vector3d> usedPlaces(const State& state) const {
        const InstrumentModel::Mapping toReciprocal(state.model);
        std::vector<Vector3d> places;
        places.reserve(m_used.size());
        for (std::size_t i : m_used)
            places.emplace_back(toReciprocal(m_places[i]) + m_centre);
        return places;
    }

    std::vector<double> residuals(const State& state, const std::vector<Vector3d>& places) const {
        const Matrix34 model = state.lattice.model();
        std::vector<double> lengths;
        lengths.reserve(m_used.size());
        for (std::size_t n = 0; n < m_used.size(); ++n)
            lengths.push_back((places[n] - model * node(m_used[n])).norm());
        return lengths;
    }

    static double sigmaOf(std::vector<double> lengths) {
        return std::max(medianOf(std::move(lengths)) / kMedianOfChi3, kSmallestSigma);
    }

    /// With each of the terms larger by a step.
    static std::vector<InstrumentModel::Mapping> movedMappings(const InstrumentModel& model,
                                                               const Terms& used) {
        std::vector<InstrumentModel::Mapping> mappings;
        for (std::size_t t = 0; t < kInstrumentTerms; ++t) {
            if (!used[t]) continue;
            InstrumentModel moved = model;
            moved[termOf(t)] += kStep;
            mappings.emplace_back(moved);
        }
        return mappings;
    }

    MatrixXd normal(const State& state, const Terms& used, VectorXd& right) {
        const Matrix34 model = state.lattice.model();
        const Eigen::MatrixXd chain = state.lattice.derivatives().transpose();
        const std::vector<Vector3d> places = usedPlaces(state);
        const double limit = kTukeyLimit * sigmaOf(residuals(state, places));
        const auto terms = static_cast<Eigen::Index>(std::count(used.begin(), used.end(), true));
        NormalEquations equations(terms + state.lattice.size());
        NormalEquations::Derivatives derivatives(terms + state.lattice.size(), 3);
        const std::vector<InstrumentModel::Mapping> moved = movedMappings(state.model, used);
        for (std::size_t n = 0; n < m_used.size(); ++n) {
            const std::size_t i = m_used[n];
            const Vector3d off = places[n] - model * node(i);
            const double ratio = off.norm() / limit;
            if (ratio >= 1.0) continue;
            const double weight = (1.0 - ratio * ratio) * (1.0 - ratio * ratio);
            Eigen::Index term = 0;
            for (const InstrumentModel::Mapping& toReciprocal : moved)
                derivatives.row(term++) = (toReciprocal(m_places[i]) + m_centre - places[n]) / kStep;
            const Eigen::Vector4d hkl = node(i);
            auto ofLattice = derivatives.bottomRows(state.lattice.size());
            ofLattice.setZero();
            for (Eigen::Index part = 0; part < 4; ++part)
                ofLattice -= hkl(part) * chain.middleCols<3>(3 * part);
            equations.add(derivatives, -off, weight);
        }
        MatrixXd matrix = equations.matrix();
        right = equations.right();
        if (!state.held.isZero()) hold(state, used, matrix, right);
        return matrix;
    }

    static void hold(const State& state, const Terms& used, MatrixXd& matrix, VectorXd& right) {
        using enum InstrumentTerm;
        if (!used[static_cast<std::size_t>(EllipseCosine)]) return;
        const auto column = static_cast<Eigen::Index>(columnOf(used, EllipseCosine));
        const Eigen::Vector2d direction = state.held;
        const Eigen::Vector2d value(state.model[EllipseCosine], state.model[EllipseSine]);
        const double weight = kFirm * matrix.diagonal().segment<2>(column).sum();
        matrix.block<2, 2>(column, column) += weight * direction * direction.transpose();
        right.segment<2>(column) -= weight * direction.dot(value) * direction;
    }

    /// One step over the points within a radius. False when they do not determine one.
    bool improve(State& state, const Terms& used, double radius) {
        index(state, radius);
        VectorXd right;
        const MatrixXd matrix = normal(state, used, right);
        if (m_used.size() < kFewestPoints || !(matrix.diagonal().minCoeff() > 0.0)) return false;
        const VectorXd scale = matrix.diagonal().cwiseSqrt().cwiseInverse();
        const SymmetricSystem system(scale.asDiagonal() * matrix * scale.asDiagonal());
        if (!(system.smallestPivot() > 1e-7)) return false;
        const VectorXd step = scale.asDiagonal() * system.solve(scale.asDiagonal() * right);
        if (!step.allFinite()) return false;
        Eigen::Index column = 0;
        for (std::size_t t = 0; t < kInstrumentTerms; ++t)
            if (used[t]) state.model[termOf(t)] += step(column++);
        state.lattice.move(step.tail(state.lattice.size()));
        return isSane(state.model);
    }

    /// Instruments that a fit ran away with.
    static bool isSane(const InstrumentModel& model) {
        return std::abs(model[InstrumentTerm::AxisTurn]) < 0.5 &&
               std::abs(model[InstrumentTerm::AxisTilt]) < 0.5 &&
               std::abs(model[InstrumentTerm::TiltScale]) < 0.3 &&
               std::abs(model[InstrumentTerm::Radial]) < 0.2 &&
               std::hypot(model[InstrumentTerm::EllipseCosine], model[InstrumentTerm::EllipseSine]) < 0.1;
    }

    Vector3d m_centre;
    const InstrumentSettings& m_settings;
    std::vector<PatternPlace> m_places;
    std::vector<Indices> m_indices;
    std::vector<std::size_t> m_used;
    double m_farthest = 0.0;
    double m_reference = 0.0;
};

/// Terms that stand or fall together, without those that are known.
std::vector<std::vector<InstrumentTerm>> candidates(const InstrumentSettings& settings) {
    using enum InstrumentTerm;
    std::vector<std::vector<InstrumentTerm>> groups = {{AxisTurn}, {Radial}, {TiltScale}, {AxisTilt}};
    if (settings.ties.any) groups.push_back({EllipseCosine, EllipseSine});
    std::erase_if(groups, [&](const std::vector<InstrumentTerm>& group) {
        return settings.known[static_cast<std::size_t>(group.front())].has_value();
    });
    return groups;
}

Terms withTerms(Terms terms, const std::vector<InstrumentTerm>& more) {
    for (const InstrumentTerm term : more)
        terms[static_cast<std::size_t>(term)] = true;
    return terms;
}

/// Whether the reflections tell the terms from all else that is refined, the cell above all. In a narrow
/// wedge a scale of the tilts is nearly a change of the cell: what little tells them apart then is the error
/// of the positions, and the cell is bent to it.
bool areDistinct(Fit& fit, State state, const Terms& used) {
    fit.assess(state);
    const MatrixXd matrix = fit.normalMatrix(state, used);
    state.held.setZero();
    const VectorXd scale =
        fit.normalMatrix(state, used).diagonal().cwiseMax(1e-300).cwiseSqrt().cwiseInverse();
    const MatrixXd scaled = scale.asDiagonal() * matrix * scale.asDiagonal();
    const auto terms = static_cast<Eigen::Index>(std::count(used.begin(), used.end(), true));
    const MatrixXd inverse = SymmetricSystem(scaled).inverse();
    return inverse.allFinite() && inverse.diagonal().head(terms).maxCoeff() < kMostInflation;
}

/// The direction of the ellipse's two numbers that reflections determine least.
Eigen::Vector2d leastDetermined(Fit& fit, State state, const Terms& used) {
    fit.assess(state);
    const auto column = static_cast<Eigen::Index>(columnOf(used, InstrumentTerm::EllipseCosine));
    const Eigen::Matrix2d covariance =
        scaledInverse(fit.normalMatrix(state, used)).block<2, 2>(column, column);
    const double angle = 0.5 * std::atan2(2 * covariance(0, 1), covariance(0, 0) - covariance(1, 1));
    return {std::cos(angle), std::sin(angle)};
}

/// Half of the information criterion's gain of a trial over a state, with as many more numbers.
double gainOf(const Fit& fit, const State& state, const State& trial, std::size_t numbers) {
    const double count = 3.0 * static_cast<double>(fit.size());
    return 0.5 * count * std::log(state.cost / trial.cost) -
           0.5 * static_cast<double>(numbers) * std::log(count);
}

/// A state with more terms, and what they gain; 0 where they are not to be told from the rest, or move
/// nothing.
struct Trial {
    State state;
    double gain = 0.0;
};

Trial trialWith(Fit fit, const State& state, const Terms& terms, const std::vector<InstrumentTerm>& more) {
    Trial trial{fit.refined(state, terms)};
    std::size_t numbers = more.size();
    if (more.front() == InstrumentTerm::EllipseCosine && !areDistinct(fit, trial.state, terms)) {
        // An ellipse along a direction of the crystal stretches the cell within its ties.
        State held = state;
        held.held = leastDetermined(fit, trial.state, terms);
        trial.state = fit.refined(held, terms);
        numbers = 1;
    }
    const double gain = gainOf(fit, state, trial.state, numbers);
    const bool matters = std::any_of(more.begin(), more.end(), [&](InstrumentTerm term) {
        return fit.shiftOf(trial.state, term) > kLeastShift;
    });
    if (matters && gain > 0.0 && areDistinct(fit, trial.state, terms)) trial.gain = gain;
    return trial;
}

/// Takes in the terms that earn it, the best first; then, where all are wanted, the others that can be told
/// from the rest.
State select(Fit& fit, State state, const InstrumentSettings& settings, Terms& used) {
    std::vector<std::vector<InstrumentTerm>> left = candidates(settings);
    while (!left.empty()) {
        std::vector<std::optional<Trial>> trials(left.size());
        // The ellipse, which comes last, takes longest.
        VRK::shareItems(left.size(), [&](std::size_t item, std::size_t) {
            const std::size_t i = left.size() - 1 - item;
            trials[i] = trialWith(fit, state, withTerms(used, left[i]), left[i]);
        });
        const auto best =
            std::max_element(trials.begin(), trials.end(),
                             [](const auto& one, const auto& other) { return one->gain < other->gain; });
        if (!((*best)->gain > 0.0)) break;
        const auto chosen = left.begin() + (best - trials.begin());
        used = withTerms(used, *chosen);
        left.erase(chosen);
        state = (*best)->state;
    }
    for (const std::vector<InstrumentTerm>& group : left) {
        if (!settings.allTerms) break;
        const Terms trialTerms = withTerms(used, group);
        const State trial = fit.refined(state, trialTerms);
        if (!areDistinct(fit, trial, trialTerms)) continue;
        used = trialTerms;
        state = trial;
    }
    return state;
}

/// Covariance of terms and lattice, terms first.
MatrixXd covarianceOf(Fit& fit, State& state, const Terms& used) {
    fit.assess(state);
    const MatrixXd normal = fit.normalMatrix(state, used);
    const MatrixXd inverse = scaledInverse(normal);
    MatrixXd covariance = state.sigma * state.sigma * inverse;
    if (state.held.isZero() || !used[static_cast<std::size_t>(InstrumentTerm::EllipseCosine)])
        return covariance;
    // What an ellipse of the usual strength in the held direction would do to all that is refined.
    State open = state;
    open.held.setZero();
    VectorXd direction = VectorXd::Zero(normal.rows());
    direction.segment<2>(columnOf(used, InstrumentTerm::EllipseCosine)) = state.held;
    const VectorXd response =
        kUsualEllipse * (inverse * ((normal - fit.normalMatrix(open, used)) * direction));
    covariance += response * response.transpose();
    return covariance;
}

/// Covariance of the twelve numbers of the lattice with what the terms may do to them.
Eigen::Matrix<double, 12, 12> latticeCovariance(Fit& fit, State& state, const Terms& used) {
    const MatrixXd covariance = covarianceOf(fit, state, used);
    const Eigen::Index size = state.lattice.size();
    const auto chain = state.lattice.derivatives();
    return propagated(chain, covariance.bottomRightCorner(size, size));
}

/// By how much the axis of a fit that left out a component of an ellipse is turned, over the component.
double turnByEllipse(Fit& fit, const State& state, const Terms& terms, InstrumentTerm component) {
    const Terms all = withTerms(terms, {component});
    const MatrixXd normal = fit.normalMatrix(state, all);
    const auto before = all.begin() + static_cast<std::ptrdiff_t>(component);
    const auto column = static_cast<Eigen::Index>(std::count(all.begin(), before, true));
    std::vector<Eigen::Index> fitted;
    for (Eigen::Index i = 0; i < normal.rows(); ++i)
        if (i != column) fitted.push_back(i);
    return scaledInverse(normal(fitted, fitted)).row(0).dot(VectorXd(normal(fitted, column)));
}

/// Uncertainties of the direction of the axis, which is the first term.
void addAxisSigma(Fit& fit, State& state, const InstrumentSettings& settings, RefinedInstrument& result) {
    using enum InstrumentTerm;
    const Terms terms = withTerms(result.used, {AxisTurn});
    result.axisTurnSigma = std::sqrt(std::max(covarianceOf(fit, state, terms)(0, 0), 0.0));
    result.axisSigma = result.axisTurnSigma;
    if (result.uses(EllipseCosine) || settings.known[static_cast<std::size_t>(EllipseCosine)]) return;
    if (settings.ties.any) {
        // It was looked for, and is not larger than its uncertainty.
        const MatrixXd covariance = covarianceOf(fit, state, withTerms(terms, {EllipseCosine, EllipseSine}));
        result.axisSigma = std::sqrt(std::max(covariance(0, 0), 0.0));
        return;
    }
    for (const InstrumentTerm component : {EllipseCosine, EllipseSine})
        result.axisSigma =
            std::hypot(result.axisSigma, kUsualEllipse * turnByEllipse(fit, state, terms, component));
}

void addUncertainties(Fit& fit, State& state, const InstrumentSettings& settings, RefinedInstrument& result) {
    const MatrixXd covariance = covarianceOf(fit, state, result.used);
    const auto deviation = [&](Eigen::Index i) { return std::sqrt(std::max(covariance(i, i), 0.0)); };
    Eigen::Index row = 0;
    std::vector<std::size_t> terms;
    for (std::size_t t = 0; t < kInstrumentTerms; ++t) {
        if (!result.used[t]) continue;
        terms.push_back(t);
        result.sigma[t] = deviation(row);
        for (Eigen::Index other = 0; other < covariance.rows(); ++other)
            if (other != row)
                result.correlation[t] =
                    std::max(result.correlation[t],
                             std::abs(covariance(row, other)) / (deviation(row) * deviation(other)));
        ++row;
    }
    for (std::size_t i = 0; i < terms.size(); ++i)
        for (std::size_t j = 0; j < terms.size(); ++j)
            result.covariance(static_cast<Eigen::Index>(terms[i]), static_cast<Eigen::Index>(terms[j])) =
                covariance(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j));
    addAxisSigma(fit, state, settings, result);
}

}  // namespace

double RefinedInstrument::ellipse() const {
    return std::hypot(model[InstrumentTerm::EllipseCosine], model[InstrumentTerm::EllipseSine]);
}

double RefinedInstrument::ellipseAzimuth() const {
    return 0.5 * std::atan2(model[InstrumentTerm::EllipseSine], model[InstrumentTerm::EllipseCosine]) *
           180.0 / std::numbers::pi;
}

RefinedInstrument refineInstrument(std::span<const Vector3d> positions, std::span<const double> tilts,
                                   const Lattice& start, const Vector3d& centre,
                                   const InstrumentSettings& settings) {
    const double curvature = settings.sense * 0.5 * settings.wavelength * start.pixelSize * 1e-10;
    RefinedInstrument result;
    result.model = InstrumentModel(settings.halfWidth, curvature, settings.known);
    if (positions.size() != tilts.size() || positions.size() < kFewestPoints || !start.basis.allFinite())
        return result;
    // A part of a long list determines a handful of numbers as well.
    const std::size_t stride = 1 + positions.size() / kEnoughPoints;
    std::vector<Vector3d> part;
    std::vector<double> partTilts;
    for (std::size_t i = 0; i < positions.size(); i += stride) {
        part.push_back(positions[i]);
        partTilts.push_back(tilts[i]);
    }
    Fit fit(part, partTilts, centre, settings);
    Matrix34 from;
    from << start.basis, start.origin;
    State plain{result.model, TiedLattice(settings.ties, from)};
    plain = fit.refined(plain, {});
    if (!std::isfinite(plain.cost)) return result;
    fit.setReference(plain.sigma);
    fit.assess(plain);
    State state = select(fit, plain, settings, result.used);
    // The spread of the better model decides what is an outlier.
    addUncertainties(fit, state, settings, result);

    const InstrumentModel::Mapping toReciprocal(state.model);
    std::vector<FitPoint> points;
    for (std::size_t i = 0; i < positions.size(); ++i)
        points.push_back({toReciprocal(PatternPlace::of(positions[i] - centre, tilts[i])) + centre});
    const Matrix34 model = state.lattice.model();
    LatticeFit final = fitLattice(points, {model.leftCols<3>(), model.col(3), start.pixelSize},
                                  settings.tolerance, settings.ties);
    if (!final.valid) return result;
    if (std::count(result.used.begin(), result.used.end(), true) > 0)
        final.covariance = latticeCovariance(fit, state, result.used);
    result.valid = true;
    result.model = state.model;
    result.lattice = describe(final, settings.ties);
    result.indices = final.indices;
    for (const FitPoint& point : points)
        result.positions.push_back(point.position);
    result.rmsBefore = std::sqrt(plain.cost / static_cast<double>(std::max<std::size_t>(fit.size(), 1)));
    return result;
}

}  // namespace vrk
