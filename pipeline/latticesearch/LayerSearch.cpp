#include "pipeline/latticesearch/LayerSearch.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <iterator>
#include <map>
#include <numbers>
#include <utility>

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using Complex = std::complex<double>;

/// Layers closer than this cannot be told apart in a volume of voxels.
constexpr double kLeastSpacing = 2.2;
/// A share of the points that the Fourier sum of random positions does not reach.
constexpr double kLeastShare = 0.15;
/// No volume reaches farther. The steps of a spectrum are as many as its points reach far, and strays would
/// make them endless.
constexpr double kFarthest = 4000.0;
constexpr std::size_t kPeriods = 4;
constexpr std::size_t kRowPeriods = 2;
/// Rows with larger indices add nothing to the phases but time.
constexpr int kLargestRow = 8;

Points withoutStrays(const Points& points) {
    Points near;
    std::copy_if(points.begin(), points.end(), std::back_inserter(near),
                 [](const Vector3d& point) { return point.norm() <= kFarthest; });
    return near;
}

/// The sum of exp(2 pi i phase(i)) over i.
template <typename Phase>
Complex fourierSum(std::size_t count, Phase phase) {
    Complex sum = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const double angle = 2.0 * std::numbers::pi * phase(i);
        sum += Complex(std::cos(angle), std::sin(angle));
    }
    return sum;
}

/// The frequencies (1/voxel) of the strongest maxima of a spectrum, strongest first.
/// \param reach     largest distance from the origin that takes part
/// \param spectrum  of a frequency: 1 when all points share the period, near 0 when they are random
template <typename Spectrum>
std::vector<double> strongestFrequencies(double reach, std::size_t most, Spectrum spectrum) {
    if (reach < 2.0 * kLeastSpacing) return {};
    const double step = 1.0 / (8.0 * reach);
    std::vector<double> magnitudes;
    for (double f = 0.0; f <= 1.0 / kLeastSpacing + step; f += step)
        magnitudes.push_back(spectrum(f));
    // Below one and a half periods it is the extent of the cloud that shows.
    const auto first = static_cast<std::size_t>(std::ceil(1.5 / (reach * step)));
    std::vector<std::pair<double, double>> maxima;
    for (std::size_t i = first; i + 1 < magnitudes.size(); ++i) {
        if (magnitudes[i] < magnitudes[i - 1] || magnitudes[i] < magnitudes[i + 1]) continue;
        if (magnitudes[i] < kLeastShare) continue;
        const double curvature = magnitudes[i - 1] - 2.0 * magnitudes[i] + magnitudes[i + 1];
        const double shift =
            curvature < 0.0 ? 0.5 * (magnitudes[i - 1] - magnitudes[i + 1]) / curvature : 0.0;
        maxima.emplace_back(magnitudes[i], (static_cast<double>(i) + shift) * step);
    }
    std::sort(maxima.begin(), maxima.end(), [](const auto& x, const auto& y) { return x.first > y.first; });
    std::vector<double> frequencies;
    for (std::size_t i = 0; i < std::min(most, maxima.size()); ++i)
        frequencies.push_back(maxima[i].second);
    return frequencies;
}

double largest(const std::vector<double>& values) {
    double reach = 0.0;
    for (double value : values)
        reach = std::max(reach, std::abs(value));
    return reach;
}

/// The shift per layer, in fractions of a vector, that brings the fractional coordinates of all layers
/// together.
double shiftPerLayer(const std::vector<double>& fractions, const std::vector<double>& layers) {
    double most = 1.0;
    for (double layer : layers)
        most = std::max(most, std::abs(layer));
    const double step = 1.0 / (6.0 * most);
    double best = 0.0;
    double strongest = -1.0;
    for (double shift = 0.0; shift < 1.0; shift += step) {
        const double magnitude = std::abs(
            fourierSum(fractions.size(), [&](std::size_t i) { return fractions[i] - shift * layers[i]; }));
        if (magnitude <= strongest) continue;
        strongest = magnitude;
        best = shift;
    }
    return best;
}

/// The places along one row of nodes, and the row's indices.
struct Row {
    std::vector<double> places;
    double h, k;
};

/// Sorts the points into rows along the direction, by the indices that the two direct vectors give them.
std::vector<Row> rowsOf(const Points& points, const Vector3d& origin, const Vector3d& directA,
                        const Vector3d& directB, const Vector3d& direction) {
    std::map<std::pair<int, int>, Row> rows;
    for (const Vector3d& point : points) {
        const Vector3d p = point - origin;
        const double h = std::round(directA.dot(p));
        const double k = std::round(directB.dot(p));
        if (std::abs(directA.dot(p) - h) > 0.2 || std::abs(directB.dot(p) - k) > 0.2) continue;
        if (std::max(std::abs(h), std::abs(k)) > kLargestRow) continue;
        Row& row = rows[{static_cast<int>(h), static_cast<int>(k)}];
        row.h = h;
        row.k = k;
        row.places.push_back(direction.dot(p));
    }
    std::vector<Row> result;
    result.reserve(rows.size());
    for (auto& [indices, row] : rows)
        result.push_back(std::move(row));
    return result;
}

/// How far the points of each row share a period: the mean of cos(2 pi f d) over all their distances d.
double coherence(const std::vector<Row>& rows, double frequency) {
    double sum = 0.0;
    double pairs = 0.0;
    for (const Row& row : rows) {
        const auto n = static_cast<double>(row.places.size());
        const Complex amplitude =
            fourierSum(row.places.size(), [&](std::size_t i) { return frequency * row.places[i]; });
        sum += std::norm(amplitude) - n;
        pairs += n * (n - 1.0);
    }
    return pairs > 0.0 ? sum / pairs : 0.0;
}

/// The parts of both vectors along the rows, in periods, that bring the phases of all rows together.
std::pair<double, double> phasesOf(const std::vector<Row>& rows, double frequency) {
    std::vector<Complex> amplitudes;
    double most = 1.0;
    for (const Row& row : rows) {
        amplitudes.push_back(
            fourierSum(row.places.size(), [&](std::size_t i) { return frequency * row.places[i]; }));
        most = std::max({most, std::abs(row.h), std::abs(row.k)});
    }
    const double step = 1.0 / (6.0 * most);
    std::pair<double, double> best{0.0, 0.0};
    double strongest = -1.0;
    for (double alpha = 0.0; alpha < 1.0; alpha += step)
        for (double beta = 0.0; beta < 1.0; beta += step) {
            Complex sum = 0.0;
            for (std::size_t i = 0; i < rows.size(); ++i)
                sum += amplitudes[i] *
                       std::polar(1.0, -2.0 * std::numbers::pi * (alpha * rows[i].h + beta * rows[i].k));
            if (std::abs(sum) <= strongest) continue;
            strongest = std::abs(sum);
            best = {alpha, beta};
        }
    return best;
}

}  // namespace

std::vector<Matrix3d> basesFromLayers(const Points& all, const Vector3d& a, const Vector3d& b) {
    const Points points = withoutStrays(all);
    const Vector3d normal = a.cross(b).normalized();
    if (!normal.allFinite()) return {};
    Matrix3d frame;
    frame << a, b, normal;
    const Matrix3d inverse = frame.inverse();
    std::vector<double> heights;
    heights.reserve(points.size());
    for (const Vector3d& point : points)
        heights.push_back(point.dot(normal));

    std::vector<Matrix3d> bases;
    const auto spectrum = [&](double f) {
        return std::abs(fourierSum(heights.size(), [&](std::size_t i) { return f * heights[i]; })) /
               static_cast<double>(heights.size());
    };
    for (const double frequency : strongestFrequencies(largest(heights), kPeriods, spectrum)) {
        const Complex sum = fourierSum(heights.size(), [&](std::size_t i) { return frequency * heights[i]; });
        const double offset = std::arg(sum) / (2.0 * std::numbers::pi);
        std::vector<double> layers, alongA, alongB;
        for (std::size_t i = 0; i < points.size(); ++i) {
            const double height = frequency * heights[i] - offset;
            if (std::abs(height - std::round(height)) > 0.25) continue;
            const Vector3d fractions = inverse * points[i];
            layers.push_back(std::round(height));
            alongA.push_back(fractions[0]);
            alongB.push_back(fractions[1]);
        }
        Matrix3d basis;
        basis << a, b,
            normal / frequency + shiftPerLayer(alongA, layers) * a + shiftPerLayer(alongB, layers) * b;
        bases.push_back(basis);
    }
    return bases;
}

std::vector<Matrix3d> basesFromRows(const Points& all, const Lattice& lattice, int third) {
    const Points points = withoutStrays(all);
    const Matrix3d direct = lattice.basis.inverse();
    const Vector3d directA = direct.row((third + 1) % 3);
    const Vector3d directB = direct.row((third + 2) % 3);
    const Vector3d direction = directA.cross(directB).normalized();
    if (!direction.allFinite()) return {};
    const std::vector<Row> rows = rowsOf(points, lattice.origin, directA, directB, direction);
    double reach = 0.0;
    for (const Row& row : rows)
        reach = std::max(reach, largest(row.places));

    Matrix3d frame;
    frame << directA.transpose(), directB.transpose(), direction.transpose();
    const Matrix3d across = frame.inverse();
    std::vector<Matrix3d> bases;
    const auto spectrum = [&](double f) { return coherence(rows, f); };
    for (const double frequency : strongestFrequencies(reach, kRowPeriods, spectrum)) {
        const auto [alpha, beta] = phasesOf(rows, frequency);
        Matrix3d basis;
        basis << across.col(0) + alpha / frequency * direction, across.col(1) + beta / frequency * direction,
            direction / frequency;
        bases.push_back(basis);
    }
    return bases;
}

}  // namespace vrk
