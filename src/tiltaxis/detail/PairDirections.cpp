#include "tiltaxis/detail/PairDirections.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "cellfinding/detail/CellList.h"

namespace VRK::detail {
namespace {

/// Number of an interval, truncated; -1 for what is not finite.
int addressOf(double angle, double width) {
    return std::isfinite(angle) ? static_cast<int>(angle / width) : -1;
}

constexpr std::size_t kBlock = 512;
constexpr std::int32_t kOutside = -1;
constexpr std::int32_t kUncertain = -2;
/// In bins for each bin of the half circle: six times what single precision and the polynomial are off.
constexpr float kMargin = 2e-6F;
/// Components in the plane below it leave the azimuth to the exact way.
constexpr float kSmall = 1e-6F;
constexpr float kQuarter = std::numbers::pi_v<float> / 2;

/// The vectors from one point to some others, folded into the half space x >= 0.
struct Fan {
    std::array<float, kBlock> x, y, z;
    std::array<float, kBlock> counts;       ///< 1 for vectors of a length that counts, otherwise 0
    std::array<std::int32_t, kBlock> bins;  ///< of each vector, or kOutside or kUncertain
};

struct Scales {
    float perPhi, perTheta;          ///< bins per radian
    float phiCertain, thetaCertain;  ///< distance from the middle of a bin
    std::int32_t phiBins;
};

struct Lengths {
    double aboveSquare, withinSquare;
};

/// Where the coordinates of a point begin, and those of the points after it.
struct Place {
    const double *x, *y, *z;
};

[[gnu::always_inline]] inline void formVectors(Place from, Place to, std::size_t n, Lengths lengths,
                                               Fan& fan) {
    const double x = *from.x, y = *from.y, z = *from.z;
    for (std::size_t j = 0; j < n; ++j) {
        const double dx = to.x[j] - x;
        const double dy = to.y[j] - y;
        const double dz = to.z[j] - z;
        const double square = dx * dx + dy * dy + dz * dz;
        const double sign = dx < 0.0 ? -1.0 : 1.0;
        fan.x[j] = static_cast<float>(sign * dx);
        fan.y[j] = static_cast<float>(sign * dy);
        fan.z[j] = static_cast<float>(sign * dz);
        fan.counts[j] = static_cast<float>((square > lengths.aboveSquare ? 1.0 : 0.0) *
                                           (square <= lengths.withinSquare ? 1.0 : 0.0));
    }
}

/// Arctangent of a / b for b >= 0 to 4e-7; not a number for 0 / 0.
[[gnu::always_inline]] inline float arctangent(float a, float b) {
    const float size = std::abs(a);
    const float t = (size < b ? size : b) / (size < b ? b : size);
    const float s = t * t;
    // Chebyshev series of atan(t) / t in t^2 on [0, 1].
    float sum = -0.00466877333F;
    sum = sum * s + 0.0241661896F;
    sum = sum * s - 0.0593671009F;
    sum = sum * s + 0.099060969F;
    sum = sum * s - 0.14016585F;
    sum = sum * s + 0.199692354F;
    sum = sum * s - 0.333319597F;
    sum = sum * s + 0.999999898F;
    const float angle = sum * t;
    return std::copysign(size < b ? angle : kQuarter - angle, a);
}

[[gnu::always_inline]] inline void findBins(Fan& fan, std::size_t n, Scales scales) {
    for (std::size_t j = 0; j < n; ++j) {
        const float inPlane = std::sqrt(fan.x[j] * fan.x[j] + fan.z[j] * fan.z[j]);
        const float phi = (kQuarter + arctangent(fan.z[j], fan.x[j])) * scales.perPhi;
        const float theta = (kQuarter - arctangent(fan.y[j], inPlane)) * scales.perTheta;
        const auto phiAddress = static_cast<std::int32_t>(phi > 0.0F ? phi : 0.0F);
        const auto thetaAddress = static_cast<std::int32_t>(theta > 0.0F ? theta : 0.0F);
        const float phiOff = std::abs(phi - static_cast<float>(phiAddress) - 0.5F);
        const float thetaOff = std::abs(theta - static_cast<float>(thetaAddress) - 0.5F);
        // What is not a number is not certain.
        std::int32_t bin = thetaAddress * scales.phiBins + phiAddress;
        bin = phiOff < scales.phiCertain ? bin : kUncertain;
        bin = thetaOff < scales.thetaCertain ? bin : kUncertain;
        bin = inPlane > kSmall ? bin : kUncertain;
        fan.bins[j] = fan.counts[j] > 0.0F ? bin : kOutside;
    }
}

using BinsOf = void (*)(Place, Place, std::size_t, Lengths, Scales, Fan&);

void binsOnAnyMachine(Place from, Place to, std::size_t n, Lengths lengths, Scales scales, Fan& fan) {
    formVectors(from, to, n, lengths, fan);
    findBins(fan, n, scales);
}

#if defined(__x86_64__)
// The same in wider registers.
[[gnu::target("avx2")]] void binsWithAvx2(Place from, Place to, std::size_t n, Lengths lengths, Scales scales,
                                          Fan& fan) {
    formVectors(from, to, n, lengths, fan);
    findBins(fan, n, scales);
}
[[gnu::target("avx512f,avx512bw,avx512dq,avx512vl")]] void binsWithAvx512(Place from, Place to, std::size_t n,
                                                                          Lengths lengths, Scales scales,
                                                                          Fan& fan) {
    formVectors(from, to, n, lengths, fan);
    findBins(fan, n, scales);
}

BinsOf fastestBins() {
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
        return binsWithAvx512;
    return __builtin_cpu_supports("avx2") ? binsWithAvx2 : binsOnAnyMachine;
}
#else
BinsOf fastestBins() {
    return binsOnAnyMachine;
}
#endif

}  // namespace

// The tilt axis, y, is the pole.
DirectionAddress::DirectionAddress(const DirectionBins& bins, double x, double y, double z)
    : phi(std::atan2(z, x) + std::numbers::pi / 2.0),
      theta(std::atan2(std::sqrt(x * x + z * z), y)),
      phiAddress(addressOf(phi, std::numbers::pi / bins.phi)),
      thetaAddress(addressOf(theta, std::numbers::pi / bins.theta)) {}

bool DirectionAddress::isInRange(const DirectionBins& bins) const {
    return phiAddress >= 0 && phiAddress <= bins.phi && thetaAddress >= 0 && thetaAddress <= bins.theta;
}

std::size_t DirectionAddress::bin(const DirectionBins& bins) const {
    return static_cast<std::size_t>(std::min(thetaAddress, bins.theta - 1)) *
               static_cast<std::size_t>(bins.phi) +
           static_cast<std::size_t>(std::min(phiAddress, bins.phi - 1));
}

PairDirections::PairDirections(DirectionBins bins, double minLength, double maxLength)
    : m_bins(bins),
      m_aboveSquare(minLength >= 0.0 ? largestSquareWithin(
                                           std::nextafter(minLength, std::numeric_limits<double>::infinity()))
                                     : -1.0),
      m_withinSquare(maxLength > 0.0 ? largestSquareWithin(maxLength) : -1.0) {}

void PairDirections::reserve(std::size_t points) {
    for (std::vector<double>* coordinates : {&m_x, &m_y, &m_z})
        coordinates->reserve(points);
}

void PairDirections::addPoint(const std::array<double, 3>& point) {
    m_x.push_back(point[0]);
    m_y.push_back(point[1]);
    m_z.push_back(point[2]);
}

std::int64_t PairDirections::count(std::span<int> counts) const {
    static const BinsOf fastest = fastestBins();
    const Lengths lengths{m_aboveSquare, m_withinSquare};
    const Scales scales{static_cast<float>(m_bins.phi / std::numbers::pi),
                        static_cast<float>(m_bins.theta / std::numbers::pi),
                        0.5F - kMargin * static_cast<float>(m_bins.phi),
                        0.5F - kMargin * static_cast<float>(m_bins.theta), m_bins.phi};
    const auto at = [this](std::size_t i) { return Place{m_x.data() + i, m_y.data() + i, m_z.data() + i}; };
    Fan fan;
    std::int64_t vectors = 0;
    for (std::size_t i = 0; i < m_x.size(); ++i)
        for (std::size_t begin = i + 1; begin < m_x.size(); begin += kBlock) {
            const std::size_t n = std::min(kBlock, m_x.size() - begin);
            fastest(at(i), at(begin), n, lengths, scales, fan);
            for (std::size_t j = 0; j < n; ++j) {
                if (fan.bins[j] >= 0)
                    ++counts[static_cast<std::size_t>(fan.bins[j])];
                else if (fan.bins[j] == kUncertain)
                    countExactly(i, begin + j, counts);
                vectors += fan.bins[j] != kOutside;
            }
        }
    return vectors;
}

void PairDirections::countExactly(std::size_t i, std::size_t j, std::span<int> counts) const {
    double x = m_x[j] - m_x[i], y = m_y[j] - m_y[i], z = m_z[j] - m_z[i];
    if (x == 0.0 && z == 0.0) return;
    if (x < 0.0 || (x == 0.0 && z < 0.0)) {
        x = -x;
        y = -y;
        z = -z;
    }
    ++counts[DirectionAddress(m_bins, x, y, z).bin(m_bins)];
}

}  // namespace VRK::detail
