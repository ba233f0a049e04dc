#include "LayerSearch.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <utility>

namespace host {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using Complex = std::complex<double>;

/// Layers closer than this cannot be told apart in a volume of voxels.
constexpr double kLeastSpacing = 2.2;
/// A share of the points that the Fourier sum of random positions does not reach.
constexpr double kLeastShare = 0.15;
constexpr std::size_t kPeriods = 4;

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

/// The frequencies (1/voxel) of the strongest maxima of the Fourier sum of the heights, strongest first.
std::vector<double> strongestFrequencies(const std::vector<double>& heights) {
    double reach = 0.0;
    for (double height : heights)
        reach = std::max(reach, std::abs(height));
    if (reach < 2.0 * kLeastSpacing) return {};
    const double step = 1.0 / (8.0 * reach);
    std::vector<double> magnitudes;
    for (double f = 0.0; f <= 1.0 / kLeastSpacing + step; f += step)
        magnitudes.push_back(
            std::abs(fourierSum(heights.size(), [&](std::size_t i) { return f * heights[i]; })));
    // Below one and a half periods it is the extent of the cloud that shows.
    const auto first = static_cast<std::size_t>(std::ceil(1.5 / (reach * step)));
    std::vector<std::pair<double, double>> maxima;
    for (std::size_t i = first; i + 1 < magnitudes.size(); ++i) {
        if (magnitudes[i] < magnitudes[i - 1] || magnitudes[i] < magnitudes[i + 1]) continue;
        if (magnitudes[i] < kLeastShare * static_cast<double>(heights.size())) continue;
        const double curvature = magnitudes[i - 1] - 2.0 * magnitudes[i] + magnitudes[i + 1];
        const double shift =
            curvature < 0.0 ? 0.5 * (magnitudes[i - 1] - magnitudes[i + 1]) / curvature : 0.0;
        maxima.emplace_back(magnitudes[i], (static_cast<double>(i) + shift) * step);
    }
    std::sort(maxima.begin(), maxima.end(), [](const auto& x, const auto& y) { return x.first > y.first; });
    std::vector<double> frequencies;
    for (const auto& [magnitude, frequency] : maxima) {
        frequencies.push_back(frequency);
        if (frequencies.size() == kPeriods) break;
    }
    return frequencies;
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

}  // namespace

std::vector<Matrix3d> basesFromLayers(const Points& points, const Vector3d& a, const Vector3d& b) {
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
    for (const double frequency : strongestFrequencies(heights)) {
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

}  // namespace host
