#include "pipeline/integration/GeometryRefinement.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <numbers>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/SymmetricSystem.h"

namespace vrk {
namespace {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::Vector3d;
using Eigen::VectorXd;

constexpr int kCommon = FrameView::CentreX;
constexpr int kWidth = kCommon;
constexpr int kMosaicity = kCommon + 1;
constexpr int kGlobals = kCommon + 2;

constexpr std::size_t kFewestPlaces = 12;
constexpr int kMostRounds = 30;
/// Tukey's limit in standard deviations, and from where on a spot is named an outlier.
constexpr double kTukey = 6.0;
constexpr double kNamed = 6.0;
/// Reflections whose counts are that many times their uncertainty take part with their curves.
constexpr double kCurveSignificance = 8.0;
/// Improvement of the sum of squares that an optional parameter must promise, and its share of that sum.
constexpr double kSignificantTerm = 25.0;
constexpr double kWorthwhileTerm = 0.002;
/// The median square of a normal deviate.
constexpr double kMedianSquare = 0.4549;

/// Curves are added up in so many groups, whoever works on them: sums depend on their order.
constexpr std::size_t kGroups = 32;
/// Fewer where their sums would take more than this, bytes.
constexpr std::size_t kMostOfGroups = std::size_t{64} << 20;

/// The part of a list that is a group of several.
struct Group {
    std::size_t begin, end;
    Group(std::size_t group, std::size_t groups, std::size_t count)
        : begin(group * count / groups), end((group + 1) * count / groups) {}
};

std::size_t groupsOf(const MatrixXd& sum) {
    const std::size_t bytes = static_cast<std::size_t>(sum.size()) * sizeof(double);
    return std::clamp<std::size_t>(kMostOfGroups / bytes, 1, kGroups);
}

struct Term {
    int column;
    const char* name;
};
constexpr const char* kTilts = "tilts";
constexpr std::array<Term, 7> kOptional = {{{FrameView::AxisPitch, "axis pitch"},
                                            {FrameView::TiltScale, "tilt scale"},
                                            {FrameView::Stretch, "stretch"},
                                            {FrameView::Shear, "shear"},
                                            {FrameView::Radial, "radial"},
                                            {FrameView::Spiral, "spiral"},
                                            {kMosaicity, "mosaicity"}}};

/// How far each parameter may plausibly be from its start: keeps what the data do not determine in place.
VectorXd priorDeviations(double longest) {
    VectorXd prior(kGlobals);
    prior.head<3>().setConstant(0.1);
    prior.segment<6>(FrameView::Strain).setConstant(0.05);
    prior(FrameView::AxisAngle) = 0.05;
    prior(FrameView::AxisPitch) = 0.03;
    prior(FrameView::TiltScale) = 0.01;
    prior(FrameView::Stretch) = prior(FrameView::Shear) = 0.02;
    prior(FrameView::Radial) = prior(FrameView::Spiral) = 0.03 / (longest * longest);
    prior(kWidth) = 1.0;  // of its logarithm
    prior(kMosaicity) = 0.005;
    return prior;
}

double tukey(double square) {
    const double part = 1 - square / (kTukey * kTukey);
    return part > 0 ? part * part : 0;
}

/// The variance that must be added to the known ones to bring the median square of the deviates to that of
/// normal ones. \p leverage multiplies it for each deviation.
double extraVariance(const std::vector<double>& squares, const std::vector<double>& variances,
                     const std::vector<double>& leverages) {
    if (squares.empty()) return 0;
    double low = 0, high = 0;
    for (std::size_t i = 0; i < squares.size(); ++i)
        if (leverages[i] > 0) high = std::max(high, squares[i] / leverages[i]);
    for (int step = 0; step < 40; ++step) {
        const double middle = step == 0 ? 0 : 0.5 * (low + high);
        std::size_t small = 0;
        for (std::size_t i = 0; i < squares.size(); ++i)
            small += squares[i] / (variances[i] + middle * leverages[i]) <= kMedianSquare ? 1U : 0U;
        // Whether the median is one of them.
        const bool enough = small > squares.size() / 2;
        if (step == 0 && enough) return 0;
        (enough ? high : low) = middle;
    }
    return high;
}

/// A reflection that nothing disturbs and that stands out.
bool isStrongCurve(const PredictedReflection& reflection, std::span<const MeasuredSpot> measured) {
    if (reflection.blind) return false;
    double sum = 0, variance = 0;
    bool clean = true;
    for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
        const MeasuredSpot& spot = measured[reflection.firstSpot + n];
        sum += spot.sum;
        variance += spot.variance;
        clean = clean && spot.flags == 0;
    }
    return clean && sum > kCurveSignificance * std::sqrt(variance);
}

class Refiner {
public:
    Refiner(const SeriesGeometry& start, const RockingModel& rocking, const SpotPrediction& prediction,
            std::span<const MeasuredSpot> measured, std::span<const SpotCentroid> centroids,
            const GeometryOptions& options);

    GeometryFit fit();

private:
    /// The linearised problem: common parameters, then the tilts of the frames where they are asked for.
    /// Centres are eliminated.
    struct Normal {
        MatrixXd matrix;
        VectorXd right;
        double squares = 0;  ///< weighted, both kinds of observations

        explicit Normal(Index size) : matrix(MatrixXd::Zero(size, size)), right(VectorXd::Zero(size)) {}
        bool hasTilts() const { return matrix.rows() > kGlobals; }
    };
    struct CentreBlock {
        Eigen::Matrix2d matrix;
        Eigen::Vector2d right;
        Eigen::Matrix<double, kGlobals, 2> mixed;
    };

    Index size() const { return kGlobals + static_cast<Index>(m_frames); }
    Normal linearise();
    void addPlaces(Normal& normal);
    void addCurves(Normal& normal);
    void addCurve(std::size_t curve, Normal& normal) const;
    struct PlaceSums;
    PlaceSums placesOf(std::size_t first, std::size_t last);
    void estimateScatter();
    void estimateCurveError();
    void placeCurves();
    double curveResiduals(std::size_t curve, std::vector<double>* squares, std::vector<double>* variances,
                          std::vector<double>* leverages) const;
    std::vector<Index> activeColumns() const;
    double iterate();
    void apply(const VectorXd& step);
    void settleCentres(const std::vector<Eigen::Vector2d>& shifts);
    void alignCentres();
    void moveCentre(std::size_t frame, const Eigen::Vector2d& shift);
    void takeUp(const std::string& name);
    bool takeUpTerm();
    void takeUpTilts();
    bool determined(int column) const;
    GeometryFit result();

    const SpotPrediction& m_prediction;
    std::span<const MeasuredSpot> m_measured;
    std::span<const SpotCentroid> m_centroids;
    const GeometryOptions& m_options;

    SeriesGeometry m_geometry;
    RockingModel m_rocking;
    std::size_t m_frames;
    std::vector<Eigen::Matrix3d> m_strains;
    std::vector<FrameView> m_views;
    std::vector<Vector3d> m_points;  ///< of the reflections, with the current vectors
    std::array<bool, kGlobals> m_active{};
    bool m_tiltsActive = false;
    VectorXd m_prior;
    VectorXd m_moved;  ///< what the common parameters have moved since the start, for the priors
    VectorXd m_tiltShift;
    double m_tiltPrior = 0.05 * std::numbers::pi / 180;
    /// One frame of a curve as the current parameters have it.
    struct CurvePoint {
        SpotPlace place;
        RockingModel::Share share;
    };
    std::vector<std::uint32_t> m_curves;     ///< reflections that take part
    std::vector<std::size_t> m_curveBegins;  ///< where the points of each begin, and the end of the last
    std::vector<CurvePoint> m_curvePoints;
    std::vector<CentreBlock> m_centres;
    double m_scatter2 = 0.01;
    double m_curveError2 = 0.01;
    std::vector<std::string> m_terms;
    int m_rounds = 0;
};

/// What the centroids of a frame add to the common parameters.
struct Refiner::PlaceSums {
    MatrixXd matrix = MatrixXd::Zero(kCommon, kCommon);
    VectorXd right = VectorXd::Zero(kCommon);
    double squares = 0;
};

Refiner::Refiner(const SeriesGeometry& start, const RockingModel& rocking, const SpotPrediction& prediction,
                 std::span<const MeasuredSpot> measured, std::span<const SpotCentroid> centroids,
                 const GeometryOptions& options)
    : m_prediction(prediction),
      m_measured(measured),
      m_centroids(centroids),
      m_options(options),
      m_geometry(start),
      m_rocking(rocking),
      m_frames(start.frames.size()),
      m_moved(VectorXd::Zero(kGlobals)),
      m_tiltShift(VectorXd::Zero(static_cast<Index>(start.frames.size()))) {
    double longest = 0;
    for (const PredictedReflection& reflection : prediction.reflections)
        longest = std::max(longest, reflection.length);
    m_prior = priorDeviations(std::max(longest, 1e-3));
    m_strains = latticeStrains(start.reciprocal, start.ties);
    for (int i = 0; i < 3; ++i)
        m_active[static_cast<std::size_t>(i)] = true;
    for (std::size_t i = 0; i < m_strains.size(); ++i)
        m_active[FrameView::Strain + i] = true;
    m_active[FrameView::AxisAngle] = true;
    m_active[kWidth] = true;
    for (const std::string& name : options.terms)
        takeUp(name);
    m_curveBegins.push_back(0);
    for (std::uint32_t i = 0; i < prediction.reflections.size(); ++i) {
        if (!isStrongCurve(prediction.reflections[i], measured)) continue;
        m_curves.push_back(i);
        m_curveBegins.push_back(m_curveBegins.back() + prediction.reflections[i].spotCount);
    }
    m_curvePoints.resize(m_curveBegins.back());
}

Refiner::Normal Refiner::linearise() {
    m_views.clear();
    for (const FramePose& frame : m_geometry.frames)
        m_views.emplace_back(m_geometry, frame);
    m_strains = latticeStrains(m_geometry.reciprocal, m_geometry.ties);
    m_points.clear();
    for (const PredictedReflection& r : m_prediction.reflections)
        m_points.emplace_back(m_geometry.reciprocal * Vector3d(r.h, r.k, r.l));
    placeCurves();
    estimateScatter();
    estimateCurveError();
    Normal normal(m_tiltsActive ? size() : kGlobals);
    addPlaces(normal);
    addCurves(normal);
    for (Index i = 0; i < kGlobals; ++i) {
        const double weight = 1 / (m_prior(i) * m_prior(i));
        normal.matrix(i, i) += weight;
        normal.right(i) -= weight * m_moved(i);
    }
    for (Index f = 0; f < normal.right.size() - kGlobals; ++f) {
        const double weight = 1 / (m_tiltPrior * m_tiltPrior);
        normal.matrix(kGlobals + f, kGlobals + f) += weight;
        normal.right(kGlobals + f) -= weight * m_tiltShift(f);
    }
    return normal;
}

void Refiner::estimateScatter() {
    std::vector<double> squares, variances;
    for (const SpotCentroid& centroid : m_centroids) {
        const PredictedSpot& spot = m_prediction.spots[centroid.spot];
        const SpotPlace place = m_views[spot.frame].place(m_points[spot.reflection]);
        squares.push_back(std::pow(centroid.x - place.x, 2));
        squares.push_back(std::pow(centroid.y - place.y, 2));
        variances.push_back(centroid.sigmaX * centroid.sigmaX);
        variances.push_back(centroid.sigmaY * centroid.sigmaY);
    }
    m_scatter2 = std::max(extraVariance(squares, variances, std::vector<double>(squares.size(), 1.0)), 1e-6);
}

void Refiner::addPlaces(Normal& normal) {
    m_centres.assign(m_frames, {});
    for (CentreBlock& block : m_centres) {
        block.matrix.setIdentity();
        block.matrix *= 1.0 / 9;  // square pixels
        block.right.setZero();
        block.mixed.setZero();
    }
    // Frame by frame: the centre of a frame is moved by its own spots alone.
    std::vector<std::size_t> begins;
    for (std::size_t i = 0; i < m_centroids.size(); ++i)
        if (i == 0 || m_prediction.spots[m_centroids[i].spot].frame !=
                          m_prediction.spots[m_centroids[i - 1].spot].frame)
            begins.push_back(i);
    begins.push_back(m_centroids.size());
    std::vector<PlaceSums> ofFrame(begins.size() - 1);
    VRK::shareItems(ofFrame.size(),
                    [&](std::size_t i, std::size_t) { ofFrame[i] = placesOf(begins[i], begins[i + 1]); });
    for (const PlaceSums& sums : ofFrame) {
        normal.matrix.topLeftCorner(kCommon, kCommon) += sums.matrix;
        normal.right.head(kCommon) += sums.right;
        normal.squares += sums.squares;
    }
    if (!m_options.centres) return;
    for (const CentreBlock& block : m_centres) {
        const Eigen::Matrix2d inverse = block.matrix.inverse();
        normal.matrix.topLeftCorner(kGlobals, kGlobals) -= block.mixed * inverse * block.mixed.transpose();
        normal.right.head(kGlobals) -= block.mixed * inverse * block.right;
    }
}

/// The centroids of one frame; adds to its block of the centres.
Refiner::PlaceSums Refiner::placesOf(std::size_t first, std::size_t last) {
    PlaceSums sums;
    for (std::size_t i = first; i < last; ++i) {
        const SpotCentroid& centroid = m_centroids[i];
        const PredictedSpot& spot = m_prediction.spots[centroid.spot];
        const Vector3d& g = m_points[spot.reflection];
        const SpotPlace place = m_views[spot.frame].place(g);
        const double varianceX = centroid.sigmaX * centroid.sigmaX + m_scatter2;
        const double varianceY = centroid.sigmaY * centroid.sigmaY + m_scatter2;
        const double dx = centroid.x - place.x;
        const double dy = centroid.y - place.y;
        const double square = dx * dx / varianceX + dy * dy / varianceY;
        const double weight = tukey(square / 1.5);
        sums.squares += std::min(square, kTukey * kTukey);
        if (weight == 0) continue;
        const FrameView::Derivatives d = m_views[spot.frame].derivatives(g, m_strains);
        CentreBlock& block = m_centres[spot.frame];
        const std::array<double, 2> residual = {dx, dy};
        const std::array<double, 2> scale = {weight / varianceX, weight / varianceY};
        for (Index c = 0; c < 2; ++c) {
            const double w = scale[static_cast<std::size_t>(c)];
            const Eigen::Matrix<double, kCommon, 1> row = d.row(c).head<kCommon>();
            const double r = residual[static_cast<std::size_t>(c)];
            sums.matrix.noalias() += w * row * row.transpose();
            sums.right += w * r * row;
            block.matrix(c, c) += w;
            block.right(c) += w * r;
            block.mixed.col(c).head<kCommon>() += w * row;
        }
    }
    return sums;
}

void Refiner::placeCurves() {
    VRK::shareItems(kGroups, [&](std::size_t group, std::size_t) {
        const Group part(group, kGroups, m_curves.size());
        for (std::size_t i = part.begin; i < part.end; ++i) {
            const PredictedReflection& reflection = m_prediction.reflections[m_curves[i]];
            CurvePoint* point = m_curvePoints.data() + m_curveBegins[i];
            for (std::uint32_t n = 0; n < reflection.spotCount; ++n, ++point) {
                const std::uint32_t frame = m_prediction.spots[reflection.firstSpot + n].frame;
                point->place = m_views[frame].place(m_points[m_curves[i]]);
                point->share = m_rocking.share(point->place.excitation, point->place.rate, reflection.length,
                                               m_geometry.frames[frame].rotation);
            }
        }
    });
}

/// Fits the intensity of a reflection to its counts; returns it. The vectors receive, for every frame, the
/// squared deviation, the variance by counting and the squared expected counts.
double Refiner::curveResiduals(std::size_t curve, std::vector<double>* squares,
                               std::vector<double>* variances, std::vector<double>* leverages) const {
    const PredictedReflection& reflection = m_prediction.reflections[m_curves[curve]];
    const CurvePoint* const points = m_curvePoints.data() + m_curveBegins[curve];
    const std::uint32_t count = reflection.spotCount;
    double intensity = 0;
    for (int round = 0; round < 2; ++round) {
        double top = 0, bottom = 0;
        for (std::uint32_t n = 0; n < count; ++n) {
            const MeasuredSpot& measured = m_measured[reflection.firstSpot + n];
            const double share = points[n].share.value;
            const double expected = intensity * share;
            const double weight = 1 / (measured.variance + m_curveError2 * expected * expected);
            top += weight * share * measured.sum;
            bottom += weight * share * share;
            if (round == 1 && squares && expected * expected > 9 * measured.variance) {
                // A curve spends one of its deviations on its intensity.
                squares->push_back(std::pow(measured.sum - expected, 2) * count / (count - 1.0));
                variances->push_back(measured.variance);
                leverages->push_back(expected * expected);
            }
        }
        if (round == 0) intensity = bottom > 0 ? top / bottom : 0;
    }
    return intensity;
}

void Refiner::estimateCurveError() {
    struct Residuals {
        std::vector<double> squares, variances, leverages;
    };
    std::vector<Residuals> groups(kGroups);
    VRK::shareItems(kGroups, [&](std::size_t group, std::size_t) {
        Residuals& found = groups[group];
        const Group part(group, kGroups, m_curves.size());
        for (std::size_t i = part.begin; i < part.end; ++i)
            if (m_prediction.reflections[m_curves[i]].spotCount > 1)
                curveResiduals(i, &found.squares, &found.variances, &found.leverages);
    });
    std::vector<double> squares, variances, leverages;
    for (const Residuals& group : groups) {
        squares.insert(squares.end(), group.squares.begin(), group.squares.end());
        variances.insert(variances.end(), group.variances.begin(), group.variances.end());
        leverages.insert(leverages.end(), group.leverages.begin(), group.leverages.end());
    }
    if (squares.size() < 20) return;
    m_curveError2 = std::clamp(extraVariance(squares, variances, leverages), 1e-6, 1.0);
}

void Refiner::addCurves(Normal& normal) {
    std::vector<Normal> groups(groupsOf(normal.matrix), Normal(0));
    VRK::shareItems(groups.size(), [&](std::size_t group, std::size_t) {
        groups[group] = Normal(normal.right.size());
        const Group part(group, groups.size(), m_curves.size());
        for (std::size_t i = part.begin; i < part.end; ++i)
            addCurve(i, groups[group]);
    });
    for (const Normal& group : groups) {
        normal.matrix += group.matrix;
        normal.right += group.right;
        normal.squares += group.squares;
    }
}

void Refiner::addCurve(std::size_t curve, Normal& normal) const {
    const PredictedReflection& reflection = m_prediction.reflections[m_curves[curve]];
    const Vector3d& g = m_points[m_curves[curve]];
    const double intensity = curveResiduals(curve, nullptr, nullptr, nullptr);
    if (!(intensity > 0)) return;
    const auto count = static_cast<Index>(reflection.spotCount);
    using Common = Eigen::Matrix<double, kGlobals, 1>;
    Eigen::Matrix<double, kGlobals, Eigen::Dynamic> slopes(kGlobals, count);
    VectorXd byTilt(count), residual(count), direction(count);
    for (Index n = 0; n < count; ++n) {
        const PredictedSpot& spot = m_prediction.spots[reflection.firstSpot + static_cast<std::size_t>(n)];
        const MeasuredSpot& measured = m_measured[reflection.firstSpot + static_cast<std::size_t>(n)];
        const auto& [place, share] = m_curvePoints[m_curveBegins[curve] + static_cast<std::size_t>(n)];
        const double expected = intensity * share.value;
        const double sigma = std::sqrt(measured.variance + m_curveError2 * expected * expected);
        const FrameView::Derivatives d = m_views[spot.frame].derivatives(g, m_strains);
        slopes.col(n).head<kCommon>() =
            intensity * share.byShift / sigma * d.row(2).head<kCommon>().transpose();
        slopes(kWidth, n) = intensity * share.byWidth * m_rocking.width / sigma;
        // The spread enters by its square: at 0 the derivative by itself would vanish.
        const double spread = std::max(m_rocking.mosaicity, 2e-4);
        const RockingModel::Share broad =
            RockingModel{m_rocking.mode, m_rocking.width, spread, m_rocking.precession}.share(
                place.excitation, place.rate, reflection.length, m_geometry.frames[spot.frame].rotation);
        slopes(kMosaicity, n) = intensity * broad.byMosaicity / sigma;
        byTilt(n) = intensity * share.byShift / sigma * d(2, FrameView::Tilt);
        residual(n) = (measured.sum - expected) / sigma;
        direction(n) = share.value / sigma;
    }
    const double length = direction.norm();
    if (!(length > 0)) return;
    direction /= length;
    residual -= direction * direction.dot(residual);
    const double square = residual.squaredNorm();
    const double freedom = std::max<double>(static_cast<double>(count) - 1, 1);
    normal.squares += std::min(square, kTukey * kTukey * freedom);
    const double weight = tukey(square / freedom);
    if (weight == 0 || count < 2) return;
    // Products of so few numbers are told to stay as they are: what is made for large ones takes longer.
    const Common along = slopes.lazyProduct(direction);
    for (Index n = 0; n < count; ++n) {
        slopes.col(n) -= direction(n) * along;
        const Common weighted = weight * slopes.col(n);
        normal.matrix.topLeftCorner<kGlobals, kGlobals>().noalias() += weighted * slopes.col(n).transpose();
        normal.right.head<kGlobals>() += residual(n) * weighted;
    }
    if (!normal.hasTilts()) return;
    for (Index n = 0; n < count; ++n) {
        // Column of the tilt of this frame, without the part along the direction of the intensity.
        VectorXd column = -direction * (direction(n) * byTilt(n));
        column(n) += byTilt(n);
        const Index f =
            kGlobals + m_prediction.spots[reflection.firstSpot + static_cast<std::size_t>(n)].frame;
        normal.right(f) += weight * column.dot(residual);
        const Common mixed = weight * slopes.lazyProduct(column);
        normal.matrix.block(f, 0, 1, kGlobals) += mixed.transpose();
        normal.matrix.block(0, f, kGlobals, 1) += mixed;
        for (Index m = 0; m < count; ++m) {
            const Index e =
                kGlobals + m_prediction.spots[reflection.firstSpot + static_cast<std::size_t>(m)].frame;
            // column_m . column_n = byTilt_m byTilt_n (delta_mn - direction_m direction_n)
            normal.matrix(e, f) +=
                weight * byTilt(m) * byTilt(n) * ((m == n ? 1.0 : 0.0) - direction(m) * direction(n));
        }
    }
}

std::vector<Index> Refiner::activeColumns() const {
    std::vector<Index> columns;
    for (Index i = 0; i < kGlobals; ++i)
        if (m_active[static_cast<std::size_t>(i)]) columns.push_back(i);
    if (m_tiltsActive)
        for (Index f = 0; f < static_cast<Index>(m_frames); ++f)
            columns.push_back(kGlobals + f);
    return columns;
}

/// One step of Gauss and Newton. Returns its largest component in standard deviations.
double Refiner::iterate() {
    const Normal normal = linearise();
    const std::vector<Index> columns = activeColumns();
    const MatrixXd matrix = normal.matrix(columns, columns);
    const VectorXd right = normal.right(columns);
    const VectorXd solution = SymmetricSystem(matrix).solve(right);
    if (!solution.allFinite()) return 0;
    VectorXd step = VectorXd::Zero(size());
    double largest = 0;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const auto n = static_cast<Index>(i);
        step(columns[i]) = solution(n);
        largest = std::max(largest, std::abs(solution(n)) * std::sqrt(std::max(matrix(n, n), 0.0)));
    }
    apply(step);
    ++m_rounds;
    return largest;
}

void Refiner::apply(const VectorXd& step) {
    std::vector<Eigen::Vector2d> shifts(m_frames, Eigen::Vector2d::Zero());
    if (m_options.centres) {
        for (std::size_t f = 0; f < m_frames; ++f)
            shifts[f] = m_centres[f].matrix.inverse() *
                        (m_centres[f].right - m_centres[f].mixed.transpose() * step.head(kGlobals));
        settleCentres(shifts);
    }
    m_geometry = moved(m_geometry, step.head<kCommon>());
    m_moved += step.head(kGlobals);
    m_rocking.width *= std::exp(std::clamp(step(kWidth), -0.5, 0.5));
    if (m_active[kMosaicity]) {
        const double before = m_rocking.mosaicity;
        m_rocking.mosaicity = std::clamp(before + step(kMosaicity), 0.0, 0.1);
        m_moved(kMosaicity) += m_rocking.mosaicity - before - step(kMosaicity);
    }
    if (m_tiltsActive)
        for (std::size_t f = 0; f < m_frames; ++f) {
            m_tiltShift(static_cast<Index>(f)) += step(kGlobals + static_cast<Index>(f));
            m_geometry.frames[f].tilt += step(kGlobals + static_cast<Index>(f));
        }
}

/// How far the neighbours of a frame move, each by its weight; it counts as one of them itself.
Eigen::Vector2d shiftAbout(std::size_t frame, std::span<const Eigen::Vector2d> shifts,
                           std::span<const double> weights) {
    constexpr std::size_t kReach = 5;
    Eigen::Vector2d sum = Eigen::Vector2d::Zero();
    double weight = 0;
    const std::size_t end = std::min(frame + kReach + 1, shifts.size());
    for (std::size_t f = frame > kReach ? frame - kReach : 0; f < end; ++f) {
        sum += shifts[f] * weights[f];
        weight += weights[f];
    }
    return weight > 0 ? Eigen::Vector2d(sum / weight) : sum;
}

/// Moves the centre of every frame by the median displacement of its spots, so that no frame starts with all
/// of them as outliers. Frames without a spot follow their neighbours.
void Refiner::alignCentres() {
    std::vector<std::vector<double>> dx(m_frames), dy(m_frames);
    for (const SpotCentroid& centroid : m_centroids) {
        const PredictedSpot& spot = m_prediction.spots[centroid.spot];
        const PredictedReflection& r = m_prediction.reflections[spot.reflection];
        const SpotPlace place = FrameView(m_geometry, m_geometry.frames[spot.frame])
                                    .place(m_geometry.reciprocal * Vector3d(r.h, r.k, r.l));
        dx[spot.frame].push_back(centroid.x - place.x);
        dy[spot.frame].push_back(centroid.y - place.y);
    }
    std::vector<Eigen::Vector2d> shifts(m_frames);
    std::vector<double> spots(m_frames);
    for (std::size_t f = 0; f < m_frames; ++f) {
        spots[f] = static_cast<double>(dx[f].size());
        shifts[f] = {medianOf(dx[f]), medianOf(dy[f])};
    }
    for (std::size_t f = 0; f < m_frames; ++f)
        moveCentre(f, spots[f] > 0 ? shifts[f] : shiftAbout(f, shifts, spots));
}

/// Moves the centres. Frames with hardly a spot follow their neighbours.
void Refiner::settleCentres(const std::vector<Eigen::Vector2d>& shifts) {
    constexpr double kKnown = 1.0;  // pixels
    std::vector<double> weights(m_frames);
    for (std::size_t f = 0; f < m_frames; ++f)
        weights[f] = std::min(m_centres[f].matrix(0, 0), m_centres[f].matrix(1, 1));
    for (std::size_t f = 0; f < m_frames; ++f)
        moveCentre(f, weights[f] * kKnown * kKnown < 1 ? shiftAbout(f, shifts, weights) : shifts[f]);
}

void Refiner::moveCentre(std::size_t frame, const Eigen::Vector2d& shift) {
    m_geometry.frames[frame].centreX += shift.x();
    m_geometry.frames[frame].centreY += shift.y();
}

/// Whether a parameter can be told from those that are refined anyway by more than small effects.
bool Refiner::determined(int column) const {
    if (column != FrameView::Stretch) return true;
    // A stretch of the image along the axis is a strain of the crystal along y.
    Eigen::Matrix3d along = Eigen::Matrix3d::Zero();
    along.diagonal() << -1, 1, -1;
    MatrixXd basis(9, static_cast<Index>(m_strains.size()));
    for (std::size_t i = 0; i < m_strains.size(); ++i)
        basis.col(static_cast<Index>(i)) = m_strains[i].reshaped();
    const VectorXd target = along.reshaped();
    const VectorXd share = SymmetricSystem(propagated(basis.transpose(), MatrixXd::Identity(9, 9)))
                               .solve(basis.transpose() * target);
    const VectorXd left = target - basis * share;
    return left.norm() > 0.4 * target.norm();
}

/// Nothing happens with a parameter that cannot be told from the cell.
void Refiner::takeUp(const std::string& name) {
    for (const Term& term : kOptional) {
        if (name != term.name) continue;
        if (!determined(term.column)) return;
        m_active[static_cast<std::size_t>(term.column)] = true;
    }
    m_terms.push_back(name);
    if (name == kTilts) m_tiltsActive = true;
    if (m_active[kMosaicity]) m_rocking.mosaicity = std::max(m_rocking.mosaicity, 5e-4);
}

/// Takes up the optional parameter that promises most. False when none promises enough.
bool Refiner::takeUpTerm() {
    const Normal normal = linearise();
    const std::vector<Index> columns = activeColumns();
    const SymmetricSystem solver(normal.matrix(columns, columns));
    const VectorXd right = normal.right(columns);
    double best = std::max(kSignificantTerm, kWorthwhileTerm * normal.squares);
    const Term* chosen = nullptr;
    for (const Term& term : kOptional) {
        const bool kept =
            std::find(m_options.kept.begin(), m_options.kept.end(), term.name) != m_options.kept.end();
        if (kept || m_active[static_cast<std::size_t>(term.column)] || !determined(term.column)) continue;
        const VectorXd mixed = normal.matrix(columns, term.column);
        const VectorXd solved = solver.solve(mixed);
        const double curvature = normal.matrix(term.column, term.column) - mixed.dot(solved);
        const double slope = normal.right(term.column) - solved.dot(right);
        if (!(curvature > 0) || (term.column == kMosaicity && slope <= 0)) continue;
        const double gain = slope * slope / curvature;
        if (gain <= best) continue;
        best = gain;
        chosen = &term;
    }
    if (!chosen) return false;
    takeUp(chosen->name);
    return true;
}

/// Tries a correction of every frame's tilt.
void Refiner::takeUpTilts() {
    m_tiltsActive = true;
    Normal normal = linearise();
    const std::vector<Index> columns = activeColumns();
    m_tiltsActive = false;
    const VectorXd solution = SymmetricSystem(normal.matrix(columns, columns)).solve(normal.right(columns));
    const auto count = static_cast<double>(m_frames);
    const double gain = solution.dot(VectorXd(normal.right(columns)));
    // As many as there are frames are free; what they gain by chance scatters by the root of twice that.
    if (gain < count + 5 * std::sqrt(2 * count)) return;
    takeUp(kTilts);
    for (int round = 0; round < 6; ++round) {
        iterate();
        normal = linearise();
        const MatrixXd inverse = SymmetricSystem(normal.matrix(columns, columns)).inverse();
        const double spread =
            (m_tiltShift.squaredNorm() + inverse.diagonal().tail(static_cast<Index>(m_frames)).sum()) / count;
        m_tiltPrior = std::clamp(std::sqrt(spread), 1e-5, 0.02);
    }
}

GeometryFit Refiner::fit() {
    if (m_centroids.size() < kFewestPlaces) {
        GeometryFit nothing;
        nothing.geometry = m_geometry;
        nothing.rocking = m_rocking;
        nothing.cell = m_geometry.cell();
        return nothing;
    }
    const auto converge = [this] {
        for (int round = 0; round < 8 && m_rounds < kMostRounds; ++round)
            if (iterate() < 0.02) break;
    };
    if (m_options.centres) alignCentres();
    converge();
    while (m_options.optional && m_rounds < kMostRounds && takeUpTerm())
        converge();
    if (m_options.tilts && !m_tiltsActive && m_curves.size() > 3 * m_frames) {
        takeUpTilts();
        converge();
    }
    return result();
}

GeometryFit Refiner::result() {
    GeometryFit fit;
    const Normal normal = linearise();
    const std::vector<Index> columns = activeColumns();
    const auto count = static_cast<Index>(columns.size());
    const MatrixXd covariance = SymmetricSystem(normal.matrix(columns, columns)).inverse();
    fit.geometry = m_geometry;
    fit.rocking = m_rocking;
    fit.cell = m_geometry.cell();
    MatrixXd full = MatrixXd::Zero(kGlobals, kGlobals);
    for (Index i = 0; i < count; ++i)
        for (Index j = 0; j < count; ++j)
            if (columns[static_cast<std::size_t>(i)] < kGlobals &&
                columns[static_cast<std::size_t>(j)] < kGlobals)
                full(columns[static_cast<std::size_t>(i)], columns[static_cast<std::size_t>(j)]) =
                    covariance(i, j);
    if (m_tiltsActive) {
        // What all tilts have in common is a turn of the crystal.
        const auto frames = static_cast<Index>(m_frames);
        const MatrixXd tilts = covariance.bottomRightCorner(frames, frames);
        const VectorXd mixed = tilts.rowwise().mean();
        for (Index f = 0; f < frames; ++f)
            fit.tiltSigma.push_back(std::sqrt(std::max(tilts(f, f) - 2 * mixed(f) + mixed.mean(), 0.0)));
    }
    fit.sigma = full.diagonal().head<kCommon>().cwiseMax(0).cwiseSqrt();
    fit.widthSigma = m_rocking.width * std::sqrt(full(kWidth, kWidth));
    fit.mosaicitySigma = std::sqrt(full(kMosaicity, kMosaicity));

    Eigen::Matrix<double, 6, 6> cellByStrain = Eigen::Matrix<double, 6, 6>::Zero();
    for (std::size_t i = 0; i < m_strains.size(); ++i) {
        constexpr double kStep = 1e-5;
        const Eigen::Matrix3d one = Eigen::Matrix3d::Identity();
        const auto up = directCell((one + kStep * m_strains[i]) * m_geometry.reciprocal);
        const auto down = directCell((one - kStep * m_strains[i]) * m_geometry.reciprocal);
        for (std::size_t c = 0; c < 6; ++c)
            cellByStrain(static_cast<Index>(c), static_cast<Index>(i)) = (up[c] - down[c]) / (2 * kStep);
    }
    const MatrixXd cellCovariance =
        propagated(cellByStrain, full.block<6, 6>(FrameView::Strain, FrameView::Strain));
    for (std::size_t c = 0; c < 6; ++c) {
        const double variance = cellCovariance(static_cast<Index>(c), static_cast<Index>(c));
        fit.cellSigma[c] = variance > 1e-20 ? std::sqrt(variance) : 0;
    }
    for (const CentreBlock& block : m_centres)
        fit.centreSigma.push_back(std::sqrt(1 / std::min(block.matrix(0, 0), block.matrix(1, 1))));

    std::vector<double> squares;
    for (const SpotCentroid& centroid : m_centroids) {
        const PredictedSpot& spot = m_prediction.spots[centroid.spot];
        const SpotPlace place = m_views[spot.frame].place(m_points[spot.reflection]);
        const double dx = centroid.x - place.x;
        const double dy = centroid.y - place.y;
        squares.push_back(dx * dx);
        squares.push_back(dy * dy);
        const double deviations = std::sqrt((dx * dx / (centroid.sigmaX * centroid.sigmaX + m_scatter2) +
                                             dy * dy / (centroid.sigmaY * centroid.sigmaY + m_scatter2)) /
                                            1.5);
        if (deviations > kNamed) fit.outliers.push_back({centroid.spot, dx, dy, deviations});
    }
    fit.residual = std::sqrt(medianOf(squares) / kMedianSquare);
    fit.scatter = std::sqrt(m_scatter2);
    fit.curveError = std::sqrt(m_curveError2);
    fit.spots = static_cast<int>(m_centroids.size());
    fit.curves = static_cast<int>(m_curves.size());
    fit.rounds = m_rounds;
    fit.terms = m_terms;
    return fit;
}

}  // namespace

GeometryFit refineGeometry(const SeriesGeometry& start, const RockingModel& rocking,
                           const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                           std::span<const SpotCentroid> centroids, const GeometryOptions& options) {
    return Refiner(start, rocking, prediction, measured, centroids, options).fit();
}

CurveMisfit curveMisfit(const SeriesGeometry& geometry, const RockingModel& rocking,
                        const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                        std::size_t most) {
    constexpr double kError = 0.05;
    std::vector<std::uint32_t> strong;
    for (std::uint32_t i = 0; i < prediction.reflections.size(); ++i)
        if (prediction.reflections[i].spotCount > 1 && isStrongCurve(prediction.reflections[i], measured))
            strong.push_back(i);
    const std::size_t step = strong.size() / most + 1;
    std::vector<FrameView> views;
    for (const FramePose& frame : geometry.frames)
        views.emplace_back(geometry, frame);
    double misfit = 0, freedom = 0;
    std::vector<double> shares;
    for (std::size_t i = 0; i < strong.size(); i += step) {
        const PredictedReflection& reflection = prediction.reflections[strong[i]];
        const Vector3d g = geometry.reciprocal * Vector3d(reflection.h, reflection.k, reflection.l);
        shares.clear();
        for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
            const std::uint32_t frame = prediction.spots[reflection.firstSpot + n].frame;
            const SpotPlace place = views[frame].place(g);
            shares.push_back(
                rocking
                    .share(place.excitation, place.rate, reflection.length, geometry.frames[frame].rotation)
                    .value);
        }
        double intensity = 0, square = 0;
        for (int round = 0; round < 3; ++round) {
            double top = 0, bottom = 0;
            square = 0;
            for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
                const MeasuredSpot& spot = measured[reflection.firstSpot + n];
                const double variance = spot.variance + std::pow(kError * spot.sum, 2);
                top += shares[n] * spot.sum / variance;
                bottom += shares[n] * shares[n] / variance;
                square += std::min(std::pow(spot.sum - intensity * shares[n], 2) / variance, kNamed * kNamed);
            }
            intensity = bottom > 0 ? top / bottom : 0;
        }
        misfit += square;
        freedom += reflection.spotCount - 1.0;
    }
    return {freedom > 0 ? misfit / freedom : 0, freedom};
}

}  // namespace vrk
