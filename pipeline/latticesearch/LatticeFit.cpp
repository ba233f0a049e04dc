#include "pipeline/latticesearch/LatticeFit.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>

#include "pipeline/base/Median.h"
#include "pipeline/base/NearestWhole.h"
#include "pipeline/base/SymmetricSystem.h"

namespace vrk {
namespace {

using Matrix4 = Eigen::Matrix4d;

/// Standard deviations of directCellAndVolume(basis * toReciprocalConventional) from the covariance of the
/// basis.
Vector7 directCellDeviations(const Eigen::Matrix3d& basis, const Eigen::Matrix3d& toReciprocalConventional,
                             const Matrix12& covariance) {
    Eigen::MatrixXd derivatives(7, 9);
    const double step = 1e-6 * basis.cwiseAbs().maxCoeff();
    for (Eigen::Index i = 0; i < 9; ++i) {
        Eigen::Matrix3d up = basis, down = basis;
        up(i % 3, i / 3) += step;
        down(i % 3, i / 3) -= step;
        derivatives.col(i) = (directCellAndVolume(up * toReciprocalConventional) -
                              directCellAndVolume(down * toReciprocalConventional)) /
                             (2.0 * step);
    }
    return propagated(derivatives, covariance.topLeftCorner<9, 9>()).diagonal().cwiseMax(0.0).cwiseSqrt();
}

/// Median length of a vector of three independent standard normal numbers.
constexpr double kMedianOfChi3 = 1.5381722544550522;
/// Where the weights begin to fall (Huber) and reach zero (Tukey), in standard deviations of one coordinate.
/// Both keep about 95 % of the efficiency of plain least squares in three dimensions.
constexpr double kHuberLimit = 2.0;
constexpr double kTukeyLimit = 6.3;
/// Below this spread (voxels) positions count as exact.
constexpr double kSmallestSigma = 1e-7;
/// Points needed to begin a fit of twelve numbers.
constexpr int kFewestFitted = 6;
/// In the search, where some of the points are indexed by chance, a few more.
constexpr int kFewestInSearch = 8;

enum class Weighting { Huber, Tukey };

/// Positions and indices of the points that take part in a fit.
struct Selection {
    std::vector<Eigen::Vector3d> position;
    std::vector<Eigen::Vector4d> node;  ///< h, k, l, 1
    std::vector<double> prior;
};

Selection select(std::span<const FitPoint> points, const std::vector<Indices>& indices,
                 const std::vector<bool>& within) {
    Selection chosen;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const auto [h, k, l] = indices[i];
        // What is left of the direct beam's halo at 000 says little about the origin.
        const bool beam = h == 0 && k == 0 && l == 0;
        if (h == kNotIndexed || beam || !within[i] || !(points[i].weight > 0.0)) continue;
        chosen.position.push_back(points[i].position);
        chosen.node.emplace_back(h, k, l, 1.0);
        chosen.prior.push_back(points[i].weight);
    }
    return chosen;
}

Matrix34 asMatrix(const Lattice& lattice) {
    Matrix34 m;
    m << lattice.basis, lattice.origin;
    return m;
}

Lattice asLattice(const Matrix34& m, double pixelSize) {
    return {m.leftCols<3>(), m.col(3), pixelSize};
}

/// Lengths of the residuals in units of their expected spread (the prior weights' square roots applied).
std::vector<double> residualLengths(const Selection& chosen, const Matrix34& model) {
    std::vector<double> lengths(chosen.position.size());
    for (std::size_t i = 0; i < lengths.size(); ++i)
        lengths[i] = (chosen.position[i] - model * chosen.node[i]).norm() * std::sqrt(chosen.prior[i]);
    return lengths;
}

double robustSigma(const std::vector<double>& lengths) {
    return std::max(medianOf(lengths) / kMedianOfChi3, kSmallestSigma);
}

double weightOf(double length, double sigma, Weighting weighting) {
    const double x = length / sigma;
    if (weighting == Weighting::Huber) return x <= kHuberLimit ? 1.0 : kHuberLimit / x;
    const double u = x / kTukeyLimit;
    return u < 1.0 ? (1.0 - u * u) * (1.0 - u * u) : 0.0;
}

/// Sums of a weighted linear fit position = model * node.
struct NormalSums {
    Matrix4 nodes = Matrix4::Zero();
    Matrix34 mixed = Matrix34::Zero();

    void add(const Eigen::Vector3d& position, const Eigen::Vector4d& node, double weight) {
        const Eigen::Vector4d weighted = weight * node;
        nodes.noalias() += weighted * node.transpose();
        mixed.noalias() += position * weighted.transpose();
    }
};

/// The model without ties that has the least sum of squares.
Matrix34 solved(const NormalSums& sums) {
    const SymmetricSystem system(sums.nodes);
    Matrix34 model;
    for (Eigen::Index i = 0; i < 3; ++i)
        model.row(i) = system.solve(sums.mixed.row(i));
    return model;
}

NormalSums normalSums(const Selection& chosen, const std::vector<double>& weights) {
    NormalSums sums;
    for (std::size_t i = 0; i < weights.size(); ++i)
        sums.add(chosen.position[i], chosen.node[i], weights[i]);
    return sums;
}

/// False when the nodes lie in a plane or are too few, so that the fit has no single answer.
bool determined(const Matrix4& nodes) {
    const Eigen::Vector4d diagonal = nodes.diagonal();
    if (!(diagonal.minCoeff() > 0.0)) return false;
    const Eigen::Vector4d scale = diagonal.cwiseSqrt().cwiseInverse();
    const Matrix4 scaled = scale.asDiagonal() * nodes * scale.asDiagonal();
    return smallestEigenvalue(scaled) > 1e-9;
}

/// The weight matrix of the twelve numbers that goes with the sums over the nodes.
Eigen::MatrixXd expand(const Matrix4& nodes) {
    Eigen::MatrixXd full = Eigen::MatrixXd::Zero(12, 12);
    for (Eigen::Index i = 0; i < 4; ++i)
        for (Eigen::Index j = 0; j < 4; ++j)
            full.block<3, 3>(3 * i, 3 * j).diagonal().setConstant(nodes(i, j));
    return full;
}

/// The lattice under the ties that is nearest to the free solution in the metric of the fit: the same as
/// least squares under the ties, since the fit is linear in the free lattice.
Matrix34 applyTies(const CellTies& ties, const Matrix34& freeModel, const Matrix4& nodes) {
    TiedLattice tied(ties, freeModel);
    const Eigen::MatrixXd weight = expand(nodes);
    for (int round = 0; round < 25; ++round) {
        const Eigen::MatrixXd d = tied.derivatives();
        const Eigen::VectorXd off = flattened(freeModel) - flattened(tied.model());
        const Eigen::VectorXd pull = weight * off;
        const Eigen::VectorXd step =
            scaledInverse(propagated(d.transpose(), weight)) * Eigen::VectorXd(d.transpose() * pull);
        if (!step.allFinite()) break;
        tied.move(step);
        if ((d * step).cwiseAbs().maxCoeff() < 1e-12 * freeModel.cwiseAbs().maxCoeff()) break;
    }
    return tied.model();
}

/// One weighted least-squares step. \returns false when the points do not determine a lattice.
bool solveOnce(const Selection& chosen, const std::vector<double>& weights, const CellTies& ties,
               Matrix34& model) {
    const NormalSums sums = normalSums(chosen, weights);
    if (!determined(sums.nodes)) return false;
    Matrix34 fitted = solved(sums);
    if (ties.any) fitted = applyTies(ties, fitted, sums.nodes);
    if (!fitted.allFinite()) return false;
    model = fitted;
    return true;
}

/// Robust fit with fixed indices: reweighted least squares, first with weights that keep every point, then
/// with ones that drop outliers.
bool solveRobust(const Selection& chosen, const CellTies& ties, Matrix34& model) {
    if (chosen.position.size() < kFewestFitted) return false;
    for (const Weighting weighting : {Weighting::Huber, Weighting::Tukey}) {
        for (int round = 0; round < 30; ++round) {
            std::vector<double> weights = residualLengths(chosen, model);
            const double sigma = robustSigma(weights);
            for (std::size_t i = 0; i < weights.size(); ++i)
                weights[i] = chosen.prior[i] * weightOf(weights[i], sigma, weighting);
            const Matrix34 before = model;
            if (!solveOnce(chosen, weights, ties, model)) return false;
            // A change that moves no node by a thousandth of the spread is none.
            double change = 0.0;
            for (std::size_t i = 0; i < chosen.node.size(); i += 1 + chosen.node.size() / 64)
                change = std::max(change, ((model - before) * chosen.node[i]).norm());
            if (change < 1e-3 * sigma) break;
        }
    }
    return true;
}

/// Rounds of indexing and fitting over the points within a radius of the origin.
struct Rounds {
    int done = 0;
    bool stable = false;
    bool solved = false;
};

Rounds refineWithin(std::span<const FitPoint> points, double radius, int most, double tolerance,
                    const CellTies& ties, Lattice& lattice, std::vector<Indices>& indices) {
    Rounds rounds;
    std::vector<bool> within(points.size());
    for (std::size_t i = 0; i < points.size(); ++i)
        within[i] = (points[i].position - lattice.origin).norm() <= radius;
    while (rounds.done < most) {
        ++rounds.done;
        const int changed = indexPoints(points, lattice, tolerance, indices);
        if (changed == 0 && rounds.solved) {
            rounds.stable = true;
            break;
        }
        Matrix34 model = asMatrix(lattice);
        if (!solveRobust(select(points, indices, within), ties, model)) {
            rounds.solved = false;
            break;
        }
        rounds.solved = true;
        lattice = asLattice(model, lattice.pixelSize);
    }
    return rounds;
}

double farthest(std::span<const FitPoint> points, const Eigen::Vector3d& origin) {
    double radius = 0.0;
    for (const FitPoint& point : points) {
        const double distance = (point.position - origin).norm();
        if (std::isfinite(distance)) radius = std::max(radius, distance);
    }
    return radius;
}

int countIndexed(const std::vector<Indices>& indices) {
    return static_cast<int>(std::count_if(indices.begin(), indices.end(),
                                          [](const Indices& hkl) { return hkl[0] != kNotIndexed; }));
}

double rmsDisplacement(std::span<const FitPoint> points, const LatticeFit& fit) {
    double sum = 0.0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (fit.indices[i][0] == kNotIndexed) continue;
        sum += (points[i].position - fit.lattice.node(fit.indices[i])).squaredNorm();
    }
    return fit.indexed > 0 ? std::sqrt(sum / fit.indexed) : 0.0;
}

/// Covariance of an M-estimate (Huber, Robust Statistics, 1981, ch. 7.6) for residuals of three equal,
/// independent coordinates: mean |psi|^2 / 3 over the square of the mean divergence of psi / 3, times the
/// inverse of the unweighted normal matrix.
void addCovariance(std::span<const FitPoint> points, const CellTies& ties, LatticeFit& fit) {
    const Selection chosen = select(points, fit.indices, std::vector<bool>(points.size(), true));
    const Matrix34 model = asMatrix(fit.lattice);
    const std::vector<double> lengths = residualLengths(chosen, model);
    fit.sigma = robustSigma(lengths);
    double psi2 = 0.0, divergence = 0.0;
    for (const double length : lengths) {
        const double w = weightOf(length, fit.sigma, Weighting::Tukey);
        const double u2 = std::pow(std::min(length / (fit.sigma * kTukeyLimit), 1.0), 2);
        psi2 += w * w * length * length / 3.0;
        divergence += w - 4.0 / 3.0 * u2 * (1.0 - u2);
    }
    const Eigen::MatrixXd weight = expand(normalSums(chosen, chosen.prior).nodes);
    Eigen::MatrixXd derivatives = Eigen::MatrixXd::Identity(12, 12);
    if (ties.any) derivatives = TiedLattice(ties, model).derivatives();
    const double count = static_cast<double>(lengths.size());
    const double freedom = 3.0 * count - static_cast<double>(derivatives.cols());
    if (!(divergence > 0.0) || !(freedom > 0.0)) {
        fit.covariance.setConstant(std::numeric_limits<double>::quiet_NaN());
        return;
    }
    const double variance = (psi2 / count) / std::pow(divergence / count, 2) * (3.0 * count / freedom);
    fit.covariance =
        variance * propagated(derivatives, scaledInverse(propagated(derivatives.transpose(), weight)));
}

LatticeFit fitFrom(std::span<const FitPoint> points, Lattice lattice, std::span<const double> radii,
                   double tolerance, const CellTies& ties) {
    constexpr int kRoundsOnTheWay = 3;
    constexpr int kMostRounds = 30;
    LatticeFit fit;
    fit.indices.assign(points.size(), Indices{kNotIndexed, kNotIndexed, kNotIndexed});
    for (const double radius : radii) {
        Lattice trial = lattice;
        const Rounds rounds =
            refineWithin(points, radius, kRoundsOnTheWay, tolerance, ties, trial, fit.indices);
        fit.rounds += rounds.done;
        if (rounds.solved) lattice = trial;
    }
    const Rounds rounds = refineWithin(points, std::numeric_limits<double>::infinity(), kMostRounds,
                                       tolerance, ties, lattice, fit.indices);
    fit.rounds += rounds.done;
    fit.stable = rounds.stable;
    fit.valid = rounds.solved;
    fit.lattice = lattice;
    if (!fit.stable) indexPoints(points, lattice, tolerance, fit.indices);
    fit.indexed = countIndexed(fit.indices);
    fit.rms = rmsDisplacement(points, fit);
    return fit;
}

}  // namespace

std::vector<FitPoint> fitPointsAt(std::span<const Eigen::Vector3d> positions) {
    std::vector<FitPoint> points;
    points.reserve(positions.size());
    for (const Eigen::Vector3d& position : positions)
        points.push_back({position});
    return points;
}

Indices indexPosition(const Eigen::Vector3d& fractional, double tolerance) {
    constexpr Indices kNone = {kNotIndexed, kNotIndexed, kNotIndexed};
    constexpr double kLargest = kNotIndexed - 1.0;
    Indices result{};
    for (std::size_t i = 0; i < 3; ++i) {
        const double q = fractional(static_cast<Eigen::Index>(i));
        if (!(std::abs(q) < kLargest)) return kNone;
        const double n = std::floor(q + 0.5);
        if (!(std::abs(q - n) <= tolerance)) return kNone;
        result[i] = static_cast<int>(n);
    }
    return result;
}

int indexPoints(std::span<const FitPoint> points, const Lattice& lattice, double tolerance,
                std::vector<Indices>& indices) {
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    int changed = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Indices hkl = indexPosition(inverse * (points[i].position - lattice.origin), tolerance);
        if (hkl == indices[i]) continue;
        indices[i] = hkl;
        ++changed;
    }
    return changed;
}

LatticeFit fitLattice(std::span<const FitPoint> points, const Lattice& start, double tolerance,
                      const CellTies& ties) {
    const double radius = farthest(points, start.origin);
    const std::array<double, 4> radii = {0.25 * radius, 0.4 * radius, 0.6 * radius, 0.8 * radius};
    LatticeFit outward = fitFrom(points, start, radii, tolerance, ties);
    // Hardly any point is left for another way to find.
    const bool done =
        outward.valid && outward.stable &&
        20 * static_cast<long long>(outward.indexed) >= 19 * static_cast<long long>(points.size());
    LatticeFit direct = done ? LatticeFit() : fitFrom(points, start, {}, tolerance, ties);
    const bool better = !outward.valid || direct.indexed > outward.indexed ||
                        (direct.indexed == outward.indexed && direct.rms < outward.rms);
    LatticeFit& best = direct.valid && better ? direct : outward;
    if (best.valid) addCovariance(points, ties, best);
    return std::move(best);
}

Lattice fitWithin(std::span<const Eigen::Vector3d> points, const Lattice& start, double radius) {
    std::vector<std::pair<double, Eigen::Vector3d>> sorted;
    sorted.reserve(points.size());
    for (const Eigen::Vector3d& point : points)
        sorted.emplace_back((point - start.origin).norm(), point);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    if (sorted.empty()) return start;

    Lattice lattice = start;
    const double reach = std::min(radius, 0.4 * start.shortestEdge());
    double limit = 2.5 * start.basis.colwise().norm().maxCoeff();
    for (int rounds = 0; rounds < 60; ++rounds) {
        const Eigen::Matrix3d inverse = lattice.basis.inverse();
        NormalSums sums;
        int count = 0;
        for (const auto& [distance, point] : sorted) {
            if (distance > limit) break;
            const Eigen::Vector3d place = point - lattice.origin;
            const Eigen::Vector3d hkl = (inverse * place).unaryExpr([](double q) { return nearestWhole(q); });
            if ((place - lattice.basis * hkl).norm() > reach) continue;
            sums.add(point, hkl.homogeneous(), 1.0);
            ++count;
        }
        if (count >= kFewestInSearch && determined(sums.nodes)) {
            const Matrix34 model = solved(sums);
            // A fit that runs away has lost the lattice.
            if (model.allFinite() && (model.col(3) - start.origin).norm() < 0.3 * start.shortestEdge())
                lattice = asLattice(model, start.pixelSize);
        }
        if (limit > sorted.back().first && rounds >= 3) break;
        limit = std::max(limit * 1.25, limit + 2.0);
    }
    const double change = lattice.cellVolume() / start.cellVolume();
    return change > 0.8 && change < 1.25 ? lattice : start;
}

RefinedLattice describe(const LatticeFit& fit, const CellTies& ties) {
    RefinedLattice result;
    result.lattice = fit.lattice;
    const double pixelSize = fit.lattice.pixelSize;
    const double perVoxel = pixelSize > 0.0 ? pixelSize * 1e-10 : 1.0;
    const Eigen::Matrix3d toConventional = ties.toConventional.inverse().transpose();
    const Vector7 cell = directCellAndVolume(fit.lattice.basis * toConventional);
    const Vector7 cellSigma = directCellDeviations(fit.lattice.basis, toConventional, fit.covariance);
    result.originSigma = fit.covariance.diagonal().tail<3>().cwiseMax(0.0).cwiseSqrt();
    for (std::size_t i = 0; i < 3; ++i) {
        const auto row = static_cast<Eigen::Index>(i);
        result.cell[i] = cell(row) / perVoxel;
        result.cellSigma[i] = cellSigma(row) / perVoxel;
        // A fixed angle is free of the rounding of the way through the vectors.
        const bool fixed = ties.any && ties.angle[i] != 0.0;
        result.cell[i + 3] = fixed ? ties.angle[i] : cell(row + 3);
        result.cellSigma[i + 3] = fixed ? 0.0 : cellSigma(row + 3);
    }
    const double cube = perVoxel * perVoxel * perVoxel;
    result.volume = cell(6) / cube;
    result.volumeSigma = cellSigma(6) / cube;
    result.sigma = fit.sigma;
    result.rms = fit.rms;
    result.reflections = static_cast<int>(fit.indices.size());
    result.indexed = fit.indexed;
    result.rounds = fit.rounds;
    result.stable = fit.stable;
    return result;
}

}  // namespace vrk
