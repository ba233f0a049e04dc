#include "pipeline/batch/InstrumentTrend.h"

#include <algorithm>
#include <cmath>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

constexpr double kSameAxis = 2.0;  // degrees
constexpr std::size_t kFewest = 3;

/// The rows that agree with the one that most agree with; of equals the first.
template <typename Agree>
std::vector<std::size_t> largestGroup(const std::vector<std::size_t>& rows, Agree agree) {
    std::vector<std::size_t> best;
    for (const std::size_t middle : rows) {
        const auto agrees = [&](std::size_t row) { return agree(middle, row); };
        const auto count = std::count_if(rows.begin(), rows.end(), agrees);
        if (static_cast<std::size_t>(count) <= best.size()) continue;
        best.clear();
        std::copy_if(rows.begin(), rows.end(), std::back_inserter(best), agrees);
        if (2 * best.size() > rows.size()) break;
    }
    return best;
}

bool hasCameraLengthOf(const SeriesCalibration& one, const SeriesCalibration& other) {
    InstrumentCalibration calibration;
    calibration.width = one.width;
    calibration.pixelSize = one.pixelSize;
    return calibration.hasCameraLengthOf(other.pixelSize);
}

/// A term that few series show is what their errors are, not the microscope's.
void dropRareTerms(CombinedCalibration& common, std::size_t rows) {
    InstrumentCalibration& calibration = common.calibration;
    for (const CalibrationScatter& one : common.scatters) {
        if (2 * static_cast<std::size_t>(one.series) > rows || one.key == "axis_angle_deg") continue;
        if (one.key == "ellipse") {
            calibration.ellipse.reset();
            calibration.ellipseAzimuth.reset();
        }
        if (one.key == "radial") calibration.radial.reset();
        if (one.key == "tilt_scale") calibration.tiltScale.reset();
        if (one.key == "axis_tilt_deg") calibration.axisTilt.reset();
        calibration.notDetermined.emplace_back(one.key, "fewer than half of the series show it");
    }
}

void remark(InstrumentTrend& trend, std::size_t count, const char* text) {
    if (count == 0) return;
    trend.remark.append(trend.remark.empty() ? "" : "; ").append(std::to_string(count) + ' ' + text);
}

}  // namespace

InstrumentTrend instrumentTrend(const std::vector<CrystalRow>& rows) {
    InstrumentTrend trend;
    std::vector<std::size_t> trusted;
    std::size_t known = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::optional<CrystalFacts>& facts = rows[i].facts;
        if (!facts || facts->lattice == "low" || !(facts->geometry.pixelSize > 0.0)) continue;
        if (facts->hadGeometry)
            ++known;
        else if (std::isfinite(facts->geometry.instrument.axisSigma))
            trusted.push_back(i);
    }
    remark(trend, known, "were run with --distortion and tell nothing more");
    const auto geometry = [&](std::size_t row) -> const SeriesCalibration& {
        return rows[row].facts->geometry;
    };
    const std::vector<std::size_t> alike = largestGroup(
        trusted, [&](std::size_t a, std::size_t b) { return hasCameraLengthOf(geometry(a), geometry(b)); });
    remark(trend, trusted.size() - alike.size(), "were recorded at another camera length");
    trend.rows = largestGroup(alike, [&](std::size_t a, std::size_t b) {
        return std::abs(std::remainder(rows[a].facts->axis - rows[b].facts->axis, 180.0)) <= kSameAxis;
    });
    std::set_difference(alike.begin(), alike.end(), trend.rows.begin(), trend.rows.end(),
                        std::back_inserter(trend.elsewhere));
    remark(trend, trend.elsewhere.size(), "have their axis elsewhere");
    if (trend.rows.size() < kFewest) return trend;
    std::vector<SeriesCalibration> series;
    for (const std::size_t row : trend.rows) {
        series.push_back(geometry(row));
        series.back().name = rows[row].series;
    }
    trend.common = combined(series);
    for (auto& [key, reason] : trend.common->calibration.notDetermined)
        reason = "no series of the batch shows it";
    dropRareTerms(*trend.common, trend.rows.size());
    return trend;
}

}  // namespace vrk
