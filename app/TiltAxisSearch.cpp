#include "TiltAxisSearch.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "Failure.h"
#include "ParallelTiltAxisRefinement.h"
#include "Pictures.h"

namespace host {
namespace {

constexpr const char* kName = "series";
constexpr std::size_t kCoarseAngles = 37;  // of the schedule's first iteration
constexpr double kClearPeak = 6.0;

/// Weighted sums of a parabola's normal equations about a centre.
struct Parabola {
    double a = 0.0, b = 0.0, c = 0.0;  ///< a + b x + c x^2
    double vertex = 0.0;
    double uncertainty = 0.0;
    bool valid = false;
};

using Samples = std::vector<std::pair<double, double>>;

double determinant(const double (&m)[3][3]) {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

/// Inverse of a symmetric matrix of full rank.
void invert(const double (&m)[3][3], double (&inverse)[3][3]) {
    const double d = determinant(m);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const int a = (j + 1) % 3, b = (j + 2) % 3, e = (i + 1) % 3, f = (i + 2) % 3;
            inverse[i][j] = (m[a][e] * m[b][f] - m[a][f] * m[b][e]) / d;
        }
}

/// Least squares; the uncertainty of the vertex follows from the scatter about the parabola.
Parabola fitParabola(const Samples& samples) {
    Parabola result;
    if (samples.size() < 4) return result;
    double m[3][3] = {}, right[3] = {};
    for (const auto& [x, y] : samples) {
        const double powers[3] = {1.0, x, x * x};
        for (int i = 0; i < 3; ++i) {
            right[i] += powers[i] * y;
            for (int j = 0; j < 3; ++j)
                m[i][j] += powers[i] * powers[j];
        }
    }
    if (!(std::abs(determinant(m)) > 0.0)) return result;
    double inverse[3][3];
    invert(m, inverse);
    double p[3] = {};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            p[i] += inverse[i][j] * right[j];
    result.a = p[0];
    result.b = p[1];
    result.c = p[2];
    if (!(result.c < 0.0)) return result;
    result.vertex = -result.b / (2.0 * result.c);
    double squares = 0.0;
    for (const auto& [x, y] : samples)
        squares += std::pow(y - (p[0] + p[1] * x + p[2] * x * x), 2);
    const double variance = squares / static_cast<double>(samples.size() - 3);
    const double byB = -1.0 / (2.0 * result.c), byC = result.b / (2.0 * result.c * result.c);
    result.uncertainty =
        std::sqrt(std::max(0.0, variance * (byB * byB * inverse[1][1] + 2.0 * byB * byC * inverse[1][2] +
                                            byC * byC * inverse[2][2])));
    result.valid = true;
    return result;
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
    for (const TiltAxisScore& score : scores)
        angles.push_back(score.angle);
    std::sort(angles.begin(), angles.end());
    double step = std::numeric_limits<double>::infinity();
    for (std::size_t i = 1; i < angles.size(); ++i)
        if (const double distance = angles[i] - angles[i - 1]; distance > 1e-5)
            step = std::min(step, distance);
    return step;
}

double medianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
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

void judge(TiltAxisResult& result, Host& host) {
    result.significance = significanceOf(result.scores);
    result.reliable = result.significance >= kClearPeak;
    if (!result.reliable)
        host.warn(
            "the tilt axis is not certain: no angle stands out of the others (see the plots); try the "
            "other --method, or a series with more reflections");
}

template <typename Search>
TiltAxisResult search(const VoxMRCData& series, int jobs, const std::filesystem::path& folder, Host& host,
                      Search run) {
    makeFolder(folder);
    ParallelTiltAxisRefinement refinement(jobs);
    refinement.registerObserver(&host.progress());
    host.progress().stage("tilt axis");
    // The library takes its series as one that it may change, and does not change it.
    const float angle = run(refinement, const_cast<VoxMRCData*>(&series));
    host.progress().finish();
    if (host.progress().canceled())
        throw Failure("stopped on request; the images of the angles tried so far are in " + folder.string());
    if (angle == VRKTiltAxisRefinement::kNoAngle)
        throw Failure(host.log().lastError(),
                      refinement.accepted() ? ExitCode::NothingFound : ExitCode::Failed);
    TiltAxisResult result;
    result.gridAngle = static_cast<double>(angle);
    result.scores = refinement.scores();
    const TiltAxisFit fit = fitTiltAxis(result.scores, result.gridAngle);
    result.angle = fit.angle;
    result.uncertainty = fit.uncertainty;
    result.plots = folder / (std::string(kName) + "_searchTiltAxis_plots");
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
        const Parabola parabola = fitParabola(samplesAround(scores, centre, halfWidth));
        if (!parabola.valid || std::abs(parabola.vertex) > halfWidth) return fit;
        centre += parabola.vertex;
        fit = {centre, parabola.uncertainty};
        if (std::abs(parabola.vertex) < 1e-3) break;
    }
    return fit;
}

TiltAxisResult findTiltAxis(const VoxMRCData& preprocessed, TiltAxisMethod method, double accuracy, int jobs,
                            const std::filesystem::path& folder, Host& host) {
    TiltAxisResult result =
        search(preprocessed, jobs, folder, host, [&](VRKTiltAxisRefinement& refinement, VoxMRCData* series) {
            return method == TiltAxisMethod::ThreeD
                       ? refinement.searchTiltAxisAutomated3D(series, kName, folder.string(), accuracy)
                       : refinement.searchTiltAxis2dBruteForce(series, kName, folder.string(), accuracy);
        });
    judge(result, host);
    return result;
}

TiltAxisResult findTiltAxis(const VoxMRCData& preprocessed, TiltAxisMethod method, const TiltAxisRange& range,
                            int jobs, const std::filesystem::path& folder, Host& host) {
    return search(preprocessed, jobs, folder, host,
                  [&](VRKTiltAxisRefinement& refinement, VoxMRCData* series) {
                      return method == TiltAxisMethod::ThreeD
                                 ? refinement.searchTiltAxisManual3D(series, kName, folder.string(),
                                                                     range.start, range.end, range.step)
                                 : refinement.searchTiltAxisManual2D(series, kName, folder.string(),
                                                                     range.start, range.end, range.step);
                  });
}

}  // namespace host
