#include "pipeline/latticesearch/LayerSearch.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <complex>

#include "support/Testing.h"

// The search for layers and rows with every sum formed by sines and cosines: what the library finds by
// turning phasors must be the same.
namespace plain {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using vrk::Lattice;
using vrk::Points;
using Complex = std::complex<double>;

constexpr double kLeastSpacing = 2.2;
constexpr double kLeastShare = 0.15;
constexpr std::size_t kPeriods = 4;
constexpr std::size_t kRowPeriods = 2;
constexpr int kLargestRow = 8;

template <typename Phase>
Complex fourierSum(std::size_t count, Phase phase) {
    Complex sum = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const double angle = 2.0 * std::numbers::pi * phase(i);
        sum += Complex(std::cos(angle), std::sin(angle));
    }
    return sum;
}

Complex fourierSum(const std::vector<double>& places, double frequency) {
    return fourierSum(places.size(), [&](std::size_t i) { return frequency * places[i]; });
}

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
    std::stable_sort(maxima.begin(), maxima.end(),
                     [](const auto& x, const auto& y) { return x.first > y.first; });
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

double shiftPerLayer(const std::vector<double>& fractions, const std::vector<double>& layers) {
    const double step = 1.0 / (6.0 * std::max(1.0, largest(layers)));
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

/// Places along the rows, by h and k.
using Rows = std::map<std::pair<int, int>, std::vector<double>>;

Rows rowsOf(const Points& points, const Vector3d& origin, const Vector3d& directA, const Vector3d& directB,
            const Vector3d& direction) {
    Rows rows;
    for (const Vector3d& point : points) {
        const Vector3d p = point - origin;
        const double h = std::round(directA.dot(p));
        const double k = std::round(directB.dot(p));
        if (std::abs(directA.dot(p) - h) > 0.2 || std::abs(directB.dot(p) - k) > 0.2) continue;
        if (std::max(std::abs(h), std::abs(k)) > kLargestRow) continue;
        rows[{static_cast<int>(h), static_cast<int>(k)}].push_back(direction.dot(p));
    }
    return rows;
}

double coherence(const Rows& rows, double frequency) {
    double sum = 0.0;
    double pairs = 0.0;
    for (const auto& [indices, places] : rows) {
        const auto n = static_cast<double>(places.size());
        sum += std::norm(fourierSum(places, frequency)) - n;
        pairs += n * (n - 1.0);
    }
    return pairs > 0.0 ? sum / pairs : 0.0;
}

std::pair<double, double> phasesOf(const Rows& rows, double frequency) {
    std::vector<std::tuple<double, double, Complex>> amplitudes;
    double most = 1.0;
    for (const auto& [indices, places] : rows) {
        const double h = indices.first, k = indices.second;
        amplitudes.emplace_back(h, k, fourierSum(places, frequency));
        most = std::max({most, std::abs(h), std::abs(k)});
    }
    const double step = 1.0 / (6.0 * most);
    std::pair<double, double> best{0.0, 0.0};
    double strongest = -1.0;
    for (double alpha = 0.0; alpha < 1.0; alpha += step)
        for (double beta = 0.0; beta < 1.0; beta += step) {
            Complex sum = 0.0;
            for (const auto& [h, k, amplitude] : amplitudes)
                sum += amplitude * std::polar(1.0, -2.0 * std::numbers::pi * (alpha * h + beta * k));
            if (std::abs(sum) <= strongest) continue;
            strongest = std::abs(sum);
            best = {alpha, beta};
        }
    return best;
}

std::vector<Matrix3d> basesFromLayers(const Points& points, const Vector3d& a, const Vector3d& b) {
    const Vector3d normal = a.cross(b).normalized();
    if (!normal.allFinite()) return {};
    Matrix3d frame;
    frame << a, b, normal;
    const Matrix3d inverse = frame.inverse();
    std::vector<double> heights;
    for (const Vector3d& point : points)
        heights.push_back(point.dot(normal));

    std::vector<Matrix3d> bases;
    const auto spectrum = [&](double f) {
        return std::abs(fourierSum(heights, f)) / static_cast<double>(heights.size());
    };
    for (const double frequency : strongestFrequencies(largest(heights), kPeriods, spectrum)) {
        const double offset = std::arg(fourierSum(heights, frequency)) / (2.0 * std::numbers::pi);
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

std::vector<Matrix3d> basesFromRows(const Points& points, const Lattice& lattice, int third) {
    const Matrix3d direct = lattice.basis.inverse();
    const Vector3d directA = direct.row((third + 1) % 3);
    const Vector3d directB = direct.row((third + 2) % 3);
    const Vector3d direction = directA.cross(directB).normalized();
    if (!direction.allFinite()) return {};
    const Rows rows = rowsOf(points, lattice.origin, directA, directB, direction);
    double reach = 0.0;
    for (const auto& [indices, places] : rows)
        reach = std::max(reach, largest(places));

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

}  // namespace
}  // namespace plain

namespace {

/// Nodes of a lattice around the origin, off by some noise, among points that lie anywhere.
vrk::Points pointsOf(const Eigen::Matrix3d& basis, double noise, int strays, std::mt19937& random) {
    std::normal_distribution<double> off;
    std::uniform_real_distribution<double> anywhere(-60.0, 60.0);
    vrk::Points points;
    for (int i = 0; i < 400; ++i) {
        const Eigen::Vector3d place(anywhere(random), anywhere(random), anywhere(random));
        const Eigen::Vector3d node = basis * Eigen::Vector3d((basis.inverse() * place).array().round());
        const Eigen::Vector3d away = noise * Eigen::Vector3d(off(random), off(random), 0.0);
        points.push_back(i < strays ? place : Eigen::Vector3d(node + away));
    }
    return points;
}

}  // namespace

TEST(LayerSearchTest, FindsWhatExactSumsFind) {
    std::mt19937 random(5);
    std::uniform_real_distribution<double> part(-0.3, 0.3);
    for (const double noise : {0.0, 0.3})
        for (const double spacing : {3.1, 14.0})
            for (const int strays : {0, 250}) {
                Eigen::Matrix3d basis = Eigen::Vector3d(11.0, 17.0, spacing).asDiagonal();
                basis.col(2) += Eigen::Vector3d(part(random) * 11.0, part(random) * 17.0, 0.0);
                const vrk::Points points = pointsOf(basis, noise, strays, random);
                vrk::Lattice lattice{basis, Eigen::Vector3d::Zero()};
                EXPECT_EQ(vrk::basesFromLayers(points, basis.col(0), basis.col(1)),
                          plain::basesFromLayers(points, basis.col(0), basis.col(1)));
                for (int third = 0; third < 3; ++third)
                    EXPECT_EQ(vrk::basesFromRows(points, lattice, third),
                              plain::basesFromRows(points, lattice, third));
            }
}
