#include "pipeline/latticesearch/LayerSearch.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <iterator>
#include <map>
#include <numbers>
#include <utility>

#include "pipeline/latticesearch/PhasorSums.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using Complex = std::complex<double>;

/// Layers closer than this cannot be told apart in a volume of voxels.
constexpr double kLeastSpacing = 2.2;
/// A share of the points that the Fourier sum of random positions does not reach.
constexpr double kLeastLayerShare = 0.15;
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

// A sum over all points at each of many frequencies or shifts is mostly sines and cosines. So all of them are
// formed nearly exactly by turning phasors, and exactly where that leaves open which one is the largest: what
// is found is what exact sums everywhere would find.

/// 0, step, 2 step, ... below an end, added up.
std::vector<double> stepsBelow(double end, double step) {
    std::vector<double> values;
    for (double value = 0.0; value < end; value += step)
        values.push_back(value);
    return values;
}

/// By how much a sum of unit phasors exp(2 pi i value place) divided by their number may be off, when the
/// values are taken for multiples of the step.
double errorOf(const std::vector<double>& values, double step, double largestPlace) {
    double off = 0.0;
    for (std::size_t k = 0; k < values.size(); ++k)
        off = std::max(off, std::abs(values[k] - static_cast<double>(k) * step));
    return 1e-9 + 2.0 * std::numbers::pi * off * largestPlace +
           1e-13 * (static_cast<double>(values.size()) + largestPlace);
}

/// The first of the largest values. Of the exact ones, those are asked for that may be the largest.
template <typename Exact>
std::size_t firstLargest(const std::vector<double>& near, double error, Exact exact) {
    const double least = *std::max_element(near.begin(), near.end()) - 2.0 * error;
    std::size_t best = 0;
    double strongest = -1.0;
    for (std::size_t k = 0; k < near.size(); ++k) {
        if (near[k] < least) continue;
        const double magnitude = exact(k);
        if (magnitude <= strongest) continue;
        strongest = magnitude;
        best = k;
    }
    return best;
}

/// What tells how far the points share a period.
struct Spectrum {
    /// Of a frequency: 1 when all points share the period, near 0 when they are random.
    std::function<double(double)> exact;
    /// Of as many multiples of a frequency, nearly.
    std::function<std::vector<double>(std::size_t, double)> near;
    double sensitivity;  ///< by how much it changes when every phasor does by 1
};

/// The strongest maxima of the spectrum as magnitude and frequency, the strongest first; of equal ones, as
/// exact multiples of a period are, that of the lowest frequency.
/// \param first  maxima at lower multiples of the step do not count
std::vector<std::pair<double, double>> strongestMaxima(const Spectrum& spectrum, std::size_t most,
                                                       const std::vector<double>& frequencies, double step,
                                                       std::size_t first, double error) {
    const std::vector<double> near = spectrum.near(frequencies.size(), step);
    std::vector<std::size_t> places;
    for (std::size_t i = first; i + 1 < near.size(); ++i)
        if (near[i] >= std::max(near[i - 1], near[i + 1]) - 2.0 * error &&
            near[i] >= kLeastLayerShare - error)
            places.push_back(i);
    std::stable_sort(places.begin(), places.end(),
                     [&](std::size_t a, std::size_t b) { return near[a] > near[b]; });
    std::vector<std::pair<double, double>> maxima;
    for (const std::size_t i : places) {
        if (maxima.size() >= most && near[i] < maxima[most - 1].first - error) break;
        const double here = spectrum.exact(frequencies[i]);
        const double before = spectrum.exact(frequencies[i - 1]);
        const double after = spectrum.exact(frequencies[i + 1]);
        if (here < before || here < after || here < kLeastLayerShare) continue;
        const double curvature = before - 2.0 * here + after;
        const double shift = curvature < 0.0 ? 0.5 * (before - after) / curvature : 0.0;
        maxima.emplace_back(here, (static_cast<double>(i) + shift) * step);
        std::sort(maxima.begin(), maxima.end(), [](const auto& x, const auto& y) {
            return x.first != y.first ? x.first > y.first : x.second < y.second;
        });
    }
    maxima.resize(std::min(most, maxima.size()));
    return maxima;
}

/// The frequencies (1/voxel) of the strongest maxima of a spectrum, strongest first.
/// \param reach  largest distance from the origin that takes part
std::vector<double> strongestFrequencies(double reach, std::size_t most, const Spectrum& spectrum) {
    if (reach < 2.0 * kLeastSpacing) return {};
    const double step = 1.0 / (8.0 * reach);
    std::vector<double> steps;
    for (double f = 0.0; f <= 1.0 / kLeastSpacing + step; f += step)
        steps.push_back(f);
    // Below one and a half periods it is the extent of the cloud that shows.
    const auto first = static_cast<std::size_t>(std::ceil(1.5 / (reach * step)));
    const double error = spectrum.sensitivity * errorOf(steps, step, reach);
    std::vector<double> frequencies;
    for (const auto& [magnitude, frequency] : strongestMaxima(spectrum, most, steps, step, first, error))
        frequencies.push_back(frequency);
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
    const std::vector<double> shifts = stepsBelow(1.0, step);
    std::map<double, Complex> together;  // of the points of a layer, which turn alike
    for (std::size_t i = 0; i < fractions.size(); ++i)
        together[layers[i]] += std::polar(1.0, 2.0 * std::numbers::pi * fractions[i]);
    PhasorSums sums(shifts.size());
    for (const auto& [layer, amplitude] : together)
        sums.add(amplitude, -step * layer);
    std::vector<double> near;
    for (std::size_t k = 0; k < shifts.size(); ++k)
        near.push_back(std::abs(sums[k]));
    const double error =
        static_cast<double>(fractions.size()) * errorOf(shifts, step, std::max(most, largest(fractions)));
    return shifts[firstLargest(near, error, [&](std::size_t k) {
        return std::abs(fourierSum(fractions.size(),
                                   [&](std::size_t i) { return fractions[i] - shifts[k] * layers[i]; }));
    })];
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

double sensitivityOf(const std::vector<Row>& rows) {
    double squares = 0.0;
    double pairs = 0.0;
    for (const Row& row : rows) {
        const auto n = static_cast<double>(row.places.size());
        squares += 3.0 * n * n;
        pairs += n * (n - 1.0);
    }
    return pairs > 0.0 ? squares / pairs : 0.0;
}

/// The same at multiples of a frequency, nearly.
std::vector<double> nearCoherence(const std::vector<Row>& rows, std::size_t count, double step) {
    std::vector<double> sum(count);
    double pairs = 0.0;
    PhasorSums sums(count);
    for (const Row& row : rows) {
        const auto n = static_cast<double>(row.places.size());
        sums.clear();
        for (const double place : row.places)
            sums.add(1.0, step * place);
        for (std::size_t k = 0; k < count; ++k)
            sum[k] += std::norm(sums[k]) - n;
        pairs += n * (n - 1.0);
    }
    for (double& value : sum)
        value = pairs > 0.0 ? value / pairs : 0.0;
    return sum;
}

/// Something of all rows that have one index in common.
using RowSums = std::array<Complex, 2 * kLargestRow + 1>;

std::size_t placeOf(double index) {
    return static_cast<std::size_t>(index + kLargestRow);
}

/// The parts of both vectors along the rows, in periods, that bring the phases of all rows together.
std::pair<double, double> phasesOf(const std::vector<Row>& rows, double frequency) {
    std::vector<Complex> amplitudes;
    double most = 1.0;
    double all = 0.0;
    for (const Row& row : rows) {
        amplitudes.push_back(
            fourierSum(row.places.size(), [&](std::size_t i) { return frequency * row.places[i]; }));
        most = std::max({most, std::abs(row.h), std::abs(row.k)});
        all += std::abs(amplitudes.back());
    }
    const double step = 1.0 / (6.0 * most);
    const std::vector<double> parts = stepsBelow(1.0, step);
    std::vector<double> near;
    PhasorSums sums(parts.size());
    for (const double alpha : parts) {
        RowSums turns{}, together{};  // rows of the same h, and then those of the same k, turn alike
        for (int h = -kLargestRow; h <= kLargestRow; ++h)
            turns[placeOf(h)] = std::polar(1.0, -2.0 * std::numbers::pi * alpha * h);
        for (std::size_t i = 0; i < rows.size(); ++i)
            together[placeOf(rows[i].k)] += amplitudes[i] * turns[placeOf(rows[i].h)];
        sums.clear();
        for (int k = -kLargestRow; k <= kLargestRow; ++k)
            sums.add(together[placeOf(k)], -step * k);
        for (std::size_t k = 0; k < parts.size(); ++k)
            near.push_back(std::abs(sums[k]));
    }
    const auto pairAt = [&](std::size_t k) {
        return std::pair(parts[k / parts.size()], parts[k % parts.size()]);
    };
    return pairAt(firstLargest(near, all * errorOf(parts, step, 2.0 * most), [&](std::size_t k) {
        const auto [alpha, beta] = pairAt(k);
        Complex sum = 0.0;
        for (std::size_t i = 0; i < rows.size(); ++i)
            sum += amplitudes[i] *
                   std::polar(1.0, -2.0 * std::numbers::pi * (alpha * rows[i].h + beta * rows[i].k));
        return std::abs(sum);
    }));
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
    const auto count = static_cast<double>(heights.size());
    const Spectrum spectrum = {
        [&](double f) {
            return std::abs(fourierSum(heights.size(), [&](std::size_t i) { return f * heights[i]; })) /
                   count;
        },
        [&](std::size_t multiples, double step) {
            PhasorSums sums(multiples);
            for (const double height : heights)
                sums.add(1.0, step * height);
            std::vector<double> values;
            for (std::size_t k = 0; k < multiples; ++k)
                values.push_back(std::abs(sums[k]) / count);
            return values;
        },
        1.0};
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
    const Spectrum spectrum = {
        [&](double f) { return coherence(rows, f); },
        [&](std::size_t multiples, double step) { return nearCoherence(rows, multiples, step); },
        sensitivityOf(rows)};
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
