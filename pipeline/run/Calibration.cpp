#include "pipeline/run/Calibration.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/SymmetricSystem.h"
#include "pipeline/latticesearch/KnownCell.h"

namespace vrk {
namespace {

using Eigen::MatrixXd;
using Eigen::VectorXd;

constexpr double kIndexTolerance = 0.25;

std::size_t indexOf(InstrumentTerm term) {
    return static_cast<std::size_t>(term);
}

/// What a series says about a quantity of one or two components.
struct Estimate {
    VectorXd value;
    MatrixXd covariance;
    double correlation = 0.0;
};

struct Mean {
    VectorXd value;
    MatrixXd covariance;
    double correlation = 0.0;
    double scatter = 0.0;
    int series = 0;
};

/// Weighted mean with a variance between the series; and the sum of the weighted squares.
double weightedMean(const std::vector<Estimate>& estimates, double between, Mean& mean) {
    const Eigen::Index size = estimates.front().value.size();
    MatrixXd weights = MatrixXd::Zero(size, size);
    VectorXd sum = VectorXd::Zero(size);
    const auto weightOf = [&](const Estimate& one) {
        return SymmetricSystem(one.covariance + between * MatrixXd::Identity(size, size)).inverse();
    };
    for (const Estimate& one : estimates) {
        weights += weightOf(one);
        sum += weightOf(one) * one.value;
    }
    mean.covariance = SymmetricSystem(weights).inverse();
    mean.value = mean.covariance * sum;
    double squares = 0.0;
    for (const Estimate& one : estimates)
        squares += (one.value - mean.value).dot(weightOf(one) * (one.value - mean.value));
    return squares;
}

Mean meanOf(const std::vector<Estimate>& estimates) {
    Mean mean;
    const double freedom =
        static_cast<double>(estimates.front().value.size()) * (static_cast<double>(estimates.size()) - 1.0);
    if (weightedMean(estimates, 0.0, mean) > freedom && freedom > 0.0) {
        double low = 0.0, high = 0.0;
        for (const Estimate& one : estimates)
            high = std::max(high, (one.value - mean.value).squaredNorm());
        high *= static_cast<double>(estimates.size());
        for (int step = 0; step < 60; ++step) {
            const double middle = 0.5 * (low + high);
            (weightedMean(estimates, middle, mean) > freedom ? low : high) = middle;
        }
    }
    for (const Estimate& one : estimates) {
        mean.scatter += (one.value - mean.value).squaredNorm();
        mean.correlation = std::max(mean.correlation, one.correlation);
    }
    mean.scatter = freedom > 0.0 ? std::sqrt(mean.scatter / freedom) : 0.0;
    mean.series = static_cast<int>(estimates.size());
    return mean;
}

Estimate scalar(double value, double sigma, double correlation) {
    return {VectorXd::Constant(1, value), MatrixXd::Constant(1, 1, std::max(sigma * sigma, 1e-24)),
            correlation};
}

/// A term as a scalar in other units.
std::optional<Estimate> termOf(const SeriesCalibration& one, InstrumentTerm term, double unit,
                               double offset = 0.0) {
    const RefinedInstrument& instrument = one.instrument;
    if (!instrument.uses(term)) return std::nullopt;
    return scalar(offset + unit * instrument.model[term], unit * instrument.sigma[indexOf(term)],
                  instrument.correlation[indexOf(term)]);
}

/// The two components of the ellipse in the frame.
std::optional<Estimate> ellipseOf(const SeriesCalibration& one) {
    using enum InstrumentTerm;
    const RefinedInstrument& instrument = one.instrument;
    if (!instrument.uses(EllipseCosine)) return std::nullopt;
    const double c = std::cos(2.0 * one.axisAngle * kDegree);
    const double s = std::sin(2.0 * one.axisAngle * kDegree);
    Eigen::Matrix2d toFrame;
    toFrame << c, -s, s, c;
    const Eigen::Vector2d value(instrument.model[EllipseCosine], instrument.model[EllipseSine]);
    const auto first = static_cast<Eigen::Index>(indexOf(EllipseCosine));
    const Eigen::Matrix2d covariance = instrument.covariance.block<2, 2>(first, first);
    return Estimate{toFrame * value, toFrame * covariance * toFrame.transpose(),
                    std::max(instrument.correlation[indexOf(EllipseCosine)],
                             instrument.correlation[indexOf(EllipseSine)])};
}

class Combination {
public:
    explicit Combination(std::span<const SeriesCalibration> series) : m_series(series) {
        m_result.calibration.width = series.front().width;
        m_result.calibration.pixelSize = series.front().pixelSize;
        for (const SeriesCalibration& one : series) {
            m_result.calibration.madeFrom.push_back(one.name);
            if (m_result.calibration.hasCameraLengthOf(one.pixelSize)) continue;
            throw Failure(formatted("the series have pixel sizes of %.4g and %.4g 1/m: ",
                                    m_result.calibration.pixelSize, one.pixelSize) +
                              "lenses distort otherwise at every camera length; calibrate each by itself",
                          FailureKind::Usage);
        }
    }

    CombinedCalibration result() {
        InstrumentCalibration& calibration = m_result.calibration;
        addEllipse();
        addScalar("radial", calibration.radial, [&](const SeriesCalibration& one) {
            // At half the width of the first one's frames.
            const double reach = calibration.width * calibration.pixelSize / (one.width * one.pixelSize);
            return termOf(one, InstrumentTerm::Radial, reach * reach);
        });
        addScalar("tilt_scale", calibration.tiltScale, [](const SeriesCalibration& one) {
            return termOf(one, InstrumentTerm::TiltScale, 1.0, 1.0);
        });
        addScalar("axis_angle_deg", calibration.axisAngle,
                  [this](const SeriesCalibration& one) { return axisOf(one); });
        addScalar("axis_tilt_deg", calibration.axisTilt, [](const SeriesCalibration& one) {
            return termOf(one, InstrumentTerm::AxisTilt, 1.0 / kDegree);
        });
        addScalar("pixel_scale", calibration.pixelScale,
                  [](const SeriesCalibration& one) -> std::optional<Estimate> {
                      if (!one.pixelScale) return std::nullopt;
                      return scalar(one.pixelScale->value, one.pixelScale->sigma,
                                    one.pixelScale->correlation);
                  });
        refuseDifferentAxes();
        giveReasons();
        return std::move(m_result);
    }

private:
    using Source = std::function<std::optional<Estimate>(const SeriesCalibration&)>;

    std::optional<Mean> mean(const char* key, const Source& source) {
        std::vector<Estimate> estimates;
        for (const SeriesCalibration& one : m_series)
            if (std::optional<Estimate> estimate = source(one)) estimates.push_back(std::move(*estimate));
        if (estimates.empty()) return std::nullopt;
        const Mean result = meanOf(estimates);
        m_result.scatters.push_back({key, result.series, result.scatter});
        return result;
    }

    void addScalar(const char* key, std::optional<CalibratedValue>& value, const Source& source) {
        if (const std::optional<Mean> found = mean(key, source))
            value = {found->value(0), std::sqrt(found->covariance(0, 0)), found->correlation};
    }

    void addEllipse() {
        const std::optional<Mean> found = mean("ellipse", ellipseOf);
        if (!found) return;
        const double strength = found->value.norm();
        const Eigen::Vector2d along =
            strength > 0.0 ? Eigen::Vector2d(found->value / strength) : Eigen::Vector2d::UnitX();
        const Eigen::Vector2d across(-along.y(), along.x());
        const auto sigmaAlong = [&](const Eigen::Vector2d& direction) {
            return std::sqrt(direction.dot(found->covariance * direction));
        };
        InstrumentCalibration& calibration = m_result.calibration;
        calibration.ellipse = {strength, sigmaAlong(along), found->correlation};
        constexpr double kNothing = 90.0;  // degrees
        const double azimuthSigma = strength > 0.0 ? 0.5 * sigmaAlong(across) / strength / kDegree : kNothing;
        calibration.ellipseAzimuth = {0.5 * std::atan2(along.y(), along.x()) / kDegree,
                                      std::min(azimuthSigma, kNothing), found->correlation};
    }

    /// t and t + 180 are the same line.
    std::optional<Estimate> axisOf(const SeriesCalibration& one) const {
        const RefinedInstrument& instrument = one.instrument;
        if (!std::isfinite(instrument.axisSigma)) return std::nullopt;
        const double first = m_series.front().axisAngle;
        const double angle = one.axisAngle + instrument.model[InstrumentTerm::AxisTurn] / kDegree;
        return scalar(first + std::remainder(angle - first, 180.0), instrument.axisSigma / kDegree,
                      instrument.correlation[indexOf(InstrumentTerm::AxisTurn)]);
    }

    void refuseDifferentAxes() {
        constexpr double kMost = 1.0;  // degrees
        const auto axis =
            std::find_if(m_result.scatters.begin(), m_result.scatters.end(),
                         [](const CalibrationScatter& one) { return one.key == "axis_angle_deg"; });
        if (axis == m_result.scatters.end() || axis->scatter <= kMost) return;
        m_result.calibration.axisAngle.reset();
        m_result.calibration.notDetermined.emplace_back(
            "axis_angle_deg",
            formatted("the series have it at different angles, which scatter by %.2f degrees",
                      axis->scatter));
    }

    void giveReasons() {
        InstrumentCalibration& calibration = m_result.calibration;
        const bool ties = std::any_of(m_series.begin(), m_series.end(),
                                      [](const SeriesCalibration& one) { return one.hasTies; });
        const auto explain = [&](const char* key, bool there, const char* reason) {
            if (!there) calibration.notDetermined.emplace_back(key, reason);
        };
        const char* narrow = "the reflections do not tell it from the cell; wider tilts or a known cell do";
        explain(
            "ellipse", calibration.ellipse.has_value(),
            ties ? narrow
                 : "a triclinic cell takes up whatever an ellipse does to it; give its cell, or a crystal of "
                   "higher symmetry");
        explain("radial", calibration.radial.has_value(), narrow);
        explain("tilt_scale", calibration.tiltScale.has_value(), narrow);
        explain("axis_tilt_deg", calibration.axisTilt.has_value(), narrow);
        explain("pixel_scale", calibration.pixelScale.has_value(), "no cell is known that gives the scale");
        explain("tilt_offset", false, "an offset of all tilts turns the crystal alone");
    }

    std::span<const SeriesCalibration> m_series;
    CombinedCalibration m_result;
};

std::string cellText(const std::array<double, 6>& cell) {
    return formatted("%.2f %.2f %.2f %.1f %.1f %.1f", cell[0], cell[1], cell[2], cell[3], cell[4], cell[5]);
}

}  // namespace

CalibrationInput calibrationInput(const std::string& name, const RunResult& result) {
    CalibrationInput input;
    input.name = name;
    input.positions = result.indexed.level.positions();
    input.tilts = result.indexed.level.tilts();
    input.lattice = result.indexed.lattice();
    input.type = result.indexed.symmetry().bravaisType;
    input.toConventional = result.indexed.toConventional();
    input.centre = result.volume.centre();
    input.width = static_cast<int>(result.volume.voxels->GetWidth());
    input.wavelength = result.facts().wavelength();
    input.sense = result.indexed.refined.sense;
    input.axisAngle = result.axis.angle;
    return input;
}

SeriesCalibration calibrate(const CalibrationInput& input, const std::optional<std::array<double, 6>>& cell) {
    SeriesCalibration result;
    result.name = input.name;
    result.type = input.type;
    result.width = input.width;
    result.pixelSize = input.lattice.pixelSize;
    result.axisAngle = input.axisAngle;
    InstrumentSettings settings;
    settings.halfWidth = 0.5 * input.width;
    settings.wavelength = input.wavelength;
    settings.sense = input.sense;
    settings.tolerance = kIndexTolerance;
    settings.allTerms = true;
    settings.ties = CellTies::of(input.type, input.toConventional);
    if (cell) {
        const Eigen::Matrix3d direct =
            input.lattice.basis.inverse().transpose() / (input.lattice.pixelSize * 1e-10);
        const std::optional<Eigen::Matrix3d> toCell = toKnownCell(direct, *cell);
        if (!toCell) {
            const Vector7 found =
                directCellAndVolume(input.lattice.basis * (1e-10 * input.lattice.pixelSize));
            throw Failure(input.name + " shows a lattice with the reduced cell " +
                              cellText({found(0), found(1), found(2), found(3), found(4), found(5)}) +
                              ", which is not that of " + cellText(*cell) +
                              " within 15 % of scale, 4 % of the ratios of its edges and 4 degrees",
                          FailureKind::NothingFound);
        }
        settings.ties = CellTies::ofShape(*cell, *toCell);
    }
    result.hasTies = settings.ties.any;
    result.hasCell = cell.has_value();
    result.instrument = refineInstrument(input.positions, input.tilts, input.lattice, input.centre, settings);
    if (!result.instrument.valid)
        throw Failure(input.name + " has too few reflections on its lattice to calibrate anything with",
                      FailureKind::NothingFound);
    if (!cell) return result;
    const RefinedLattice& lattice = result.instrument.lattice;
    result.pixelScale = {lattice.cell[0] / (*cell)[0], lattice.cellSigma[0] / (*cell)[0], 0.0};
    return result;
}

CombinedCalibration combined(std::span<const SeriesCalibration> series) {
    if (series.empty()) throw Failure("there is no series to calibrate with", FailureKind::NothingFound);
    return Combination(series).result();
}

}  // namespace vrk
