#include "pipeline/geometry/TiltAxisSearch.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/SearchLock.h"
#include "pipeline/geometry/ParallelTiltAxisRefinement.h"

namespace vrk {
namespace {

constexpr const char* kName = "series";
constexpr std::size_t kCoarseAngles = 37;  // of the schedule's first iteration
constexpr double kClearPeak = 6.0;

/// Distance from a centre and score.
using Samples = std::vector<std::pair<double, double>>;

/// Top of the least-squares parabola, with the uncertainty that follows from the scatter about it. Nothing
/// when the samples determine no parabola that opens downwards.
std::optional<TiltAxisFit> topOfParabola(const Samples& samples) {
    if (samples.size() < 4) return std::nullopt;
    Eigen::Matrix3d normal = Eigen::Matrix3d::Zero();
    Eigen::Vector3d right = Eigen::Vector3d::Zero();
    for (const auto& [x, y] : samples) {
        const Eigen::Vector3d powers(1.0, x, x * x);
        normal += powers * powers.transpose();
        right += y * powers;
    }
    const Eigen::FullPivLU<Eigen::Matrix3d> solver(normal);
    if (!solver.isInvertible()) return std::nullopt;
    const Eigen::Vector3d p = solver.solve(right);
    if (!(p[2] < 0.0)) return std::nullopt;
    double squares = 0.0;
    for (const auto& [x, y] : samples)
        squares += std::pow(y - (p[0] + p[1] * x + p[2] * x * x), 2);
    const double variance = squares / static_cast<double>(samples.size() - 3);
    const Eigen::Vector3d slope(0.0, -1.0 / (2.0 * p[2]), p[1] / (2.0 * p[2] * p[2]));
    const double spread = slope.dot(solver.inverse() * slope);
    return TiltAxisFit{-p[1] / (2.0 * p[2]), std::sqrt(std::max(0.0, variance * spread))};
}

/// Samples within the half width of the centre, as many on either side.
Samples samplesAround(const std::vector<TiltAxisScore>& scores, double centre, double halfWidth) {
    Samples samples;
    for (const TiltAxisScore& score : scores)
        if (score.evaluated && std::abs(score.angle - centre) <= halfWidth + 1e-4)
            samples.emplace_back(score.angle - centre, score.variance);
    return samples;
}

/// Smallest distance between two of the angles tried.
double finestStep(const std::vector<TiltAxisScore>& scores) {
    std::vector<double> angles;
    angles.reserve(scores.size());
    for (const TiltAxisScore& score : scores)
        angles.push_back(score.angle);
    std::sort(angles.begin(), angles.end());
    double step = std::numeric_limits<double>::infinity();
    for (std::size_t i = 1; i < angles.size(); ++i)
        if (const double distance = angles[i] - angles[i - 1]; distance > 1e-5)
            step = std::min(step, distance);
    return step;
}

/// How the best of the first scores stands out of them.
double significanceOf(const std::vector<TiltAxisScore>& scores) {
    std::vector<double> values;
    for (std::size_t i = 0; i < std::min(kCoarseAngles, scores.size()); ++i)
        if (scores[i].evaluated) values.push_back(scores[i].variance);
    if (values.size() < 3) return 0.0;
    const double best = *std::max_element(values.begin(), values.end());
    const double median = medianOf(values);
    for (double& value : values)
        value = std::abs(value - median);
    const double deviation = 1.4826 * medianOf(values);
    return deviation > 0.0 ? (best - median) / deviation : 0.0;
}

void judge(TiltAxisResult& result, Session& session) {
    result.significance = significanceOf(result.scores);
    result.reliable = result.significance >= kClearPeak;
    if (!result.reliable)
        session.warn(
            "the tilt axis is not certain: no angle stands out of the others (see the plots); try the "
            "other --method, or a series with more reflections");
}

/// For plots that nobody asked for; goes with them.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "vrk-axis-XXXXXX").string();
        if (!mkdtemp(name.data()))
            throw Failure("cannot make a folder for the images of the axis search in " +
                          std::filesystem::temp_directory_path().string() + "; name one");
        m_path = name;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// Volumes are searched for reflections by the one method, not by the other.
std::unique_lock<std::mutex> lockIf(bool searchesVolumes) {
    return searchesVolumes ? lockSearch() : std::unique_lock<std::mutex>();
}

template <typename Search>
TiltAxisResult search(const VoxMRCData& series, const std::filesystem::path& wanted, Session& session,
                      Search run) {
    std::optional<ScratchFolder> scratch;
    if (wanted.empty()) scratch.emplace();
    const std::filesystem::path folder = scratch ? scratch->path() : wanted;
    // An image for each angle and few plots: they do not belong into one folder.
    const std::filesystem::path histograms = folder / "histograms";
    makeFolder(histograms);
    ParallelTiltAxisRefinement refinement(session);
    float angle = VRKTiltAxisRefinement::kNoAngle;
    {
        const Stage stage(session, "tilt axis");
        // The library takes its series as one that it may change, and does not change it.
        angle = run(refinement, const_cast<VoxMRCData*>(&series), histograms.string());
    }
    if (session.canceled())
        throw Failure(
            refinement.scores().empty()
                ? "stopped on request before the first angle was tried"
                : "stopped on request; the images of the angles tried so far are in " + histograms.string(),
            FailureKind::Canceled);
    if (angle == VRKTiltAxisRefinement::kNoAngle)
        throw Failure(session.lastError(),
                      refinement.accepted() ? FailureKind::NothingFound : FailureKind::Failed);
    TiltAxisResult result;
    result.gridAngle = static_cast<double>(angle);
    result.scores = refinement.scores();
    const TiltAxisFit fit = fitTiltAxis(result.scores, result.gridAngle);
    result.angle = fit.angle;
    result.uncertainty = fit.uncertainty;
    if (scratch) return result;
    const std::string plots = std::string(kName) + "_searchTiltAxis_plots";
    result.plots = folder / plots;
    std::error_code ignored;
    std::filesystem::remove_all(result.plots, ignored);
    std::filesystem::rename(histograms / plots, result.plots, ignored);
    return result;
}

}  // namespace

TiltAxisFit fitTiltAxis(const std::vector<TiltAxisScore>& scores, double gridAngle) {
    const double step = finestStep(scores);
    TiltAxisFit fit{gridAngle, step / 2.0};
    if (!std::isfinite(step)) return {gridAngle, 0.0};
    const double halfWidth = 10.0 * step;
    double centre = gridAngle;
    for (int i = 0; i < 5; ++i) {
        const std::optional<TiltAxisFit> top = topOfParabola(samplesAround(scores, centre, halfWidth));
        if (!top || std::abs(top->angle) > halfWidth) return fit;
        centre += top->angle;
        fit = {centre, top->uncertainty};
        if (std::abs(top->angle) < 1e-3) break;
    }
    return fit;
}

TiltAxisResult findTiltAxis(const VoxMRCData& preprocessed, TiltAxisMethod method, double accuracy,
                            const std::filesystem::path& folder, Session& session) {
    TiltAxisResult result =
        search(preprocessed, folder, session,
               [&](VRKTiltAxisRefinement& refinement, VoxMRCData* series, const std::string& images) {
                   const auto lock = lockIf(method == TiltAxisMethod::ThreeD);
                   return method == TiltAxisMethod::ThreeD
                              ? refinement.searchTiltAxisAutomated3D(series, kName, images, accuracy)
                              : refinement.searchTiltAxis2dBruteForce(series, kName, images, accuracy);
               });
    judge(result, session);
    return result;
}

TiltAxisResult findTiltAxis(const VoxMRCData& preprocessed, TiltAxisMethod method, const TiltAxisRange& range,
                            const std::filesystem::path& folder, Session& session) {
    return search(preprocessed, folder, session,
                  [&](VRKTiltAxisRefinement& refinement, VoxMRCData* series, const std::string& images) {
                      const auto lock = lockIf(method == TiltAxisMethod::ThreeD);
                      return method == TiltAxisMethod::ThreeD
                                 ? refinement.searchTiltAxisManual3D(series, kName, images, range.start,
                                                                     range.end, range.step)
                                 : refinement.searchTiltAxisManual2D(series, kName, images, range.start,
                                                                     range.end, range.step);
                  });
}

}  // namespace vrk
