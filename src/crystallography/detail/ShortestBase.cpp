#include "crystallography/detail/ShortestBase.h"

#include <algorithm>
#include <cmath>

#include "crystallography/BasicMath.h"

namespace VRK::detail {
namespace {

bool isShorter(const double u[3], const double v[3]) {
    constexpr double rounding = 1e-12;
    return BasicMath::Dot(u, u) < BasicMath::Dot(v, v) * (1.0 - rounding);
}

}  // namespace

ShortestBase::ShortestBase(const double base[3][3]) {
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t k = 0; k < 3; ++k)
            m_vectors[i][k] = base[k][i];
    m_isReduced = reduce();
    if (!m_isTurned) return;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t k = 0; k < 3; ++k) {
            m_axes[i][k] = -m_axes[i][k];
            m_vectors[i][k] = -m_vectors[i][k];
        }
}

bool ShortestBase::reduce() {
    constexpr int mostRounds = 1000;
    for (int round = 0; round < mostRounds; ++round) {
        sort();
        const bool isShorter = shortenSecond() || shortenThird();
        if (m_isTooSkew) return false;
        if (!isShorter) return true;
    }
    return false;
}

void ShortestBase::sort() {
    const auto swapIfLonger = [this](std::size_t i, std::size_t j) {
        if (BasicMath::Dot(m_vectors[i], m_vectors[i]) <= BasicMath::Dot(m_vectors[j], m_vectors[j])) return;
        std::swap(m_vectors[i], m_vectors[j]);
        std::swap(m_axes[i], m_axes[j]);
        m_isTurned = !m_isTurned;
    };
    swapIfLonger(0, 1);
    swapIfLonger(1, 2);
    swapIfLonger(0, 1);
}

bool ShortestBase::shortenSecond() {
    const auto& [a, b, c] = m_vectors;
    const double multiple = BasicMath::round(BasicMath::Dot(b, a) / BasicMath::Dot(a, a));
    if (!std::isfinite(multiple)) m_isTooSkew = true;
    double candidate[3];
    for (int k = 0; k < 3; ++k)
        candidate[k] = b[k] - multiple * a[k];
    if (!isShorter(candidate, b)) return false;
    std::copy_n(candidate, 3, m_vectors[1]);
    subtract(1, 0, multiple);
    return true;
}

bool ShortestBase::shortenThird() {
    const auto& [a, b, c] = m_vectors;
    const double aa = BasicMath::Dot(a, a);
    const double ab = BasicMath::Dot(a, b);
    const double bb = BasicMath::Dot(b, b);
    const double ac = BasicMath::Dot(a, c);
    const double bc = BasicMath::Dot(b, c);
    const double det = aa * bb - ab * ab;
    const double x = std::floor((ac * bb - bc * ab) / det);
    const double y = std::floor((bc * aa - ac * ab) / det);
    if (!std::isfinite(x + y)) m_isTooSkew = true;
    double shortest[3] = {c[0], c[1], c[2]};
    double best[2] = {0.0, 0.0};
    // Of the lattice points around the foot of the third vector one of these four is the nearest.
    for (int i = 0; i <= 1; ++i)
        for (int j = 0; j <= 1; ++j) {
            double candidate[3];
            for (int k = 0; k < 3; ++k)
                candidate[k] = c[k] - (x + i) * a[k] - (y + j) * b[k];
            if (!isShorter(candidate, shortest)) continue;
            std::copy_n(candidate, 3, shortest);
            best[0] = x + i;
            best[1] = y + j;
        }
    if (best[0] == 0.0 && best[1] == 0.0) return false;
    std::copy_n(shortest, 3, m_vectors[2]);
    subtract(2, 0, best[0]);
    subtract(2, 1, best[1]);
    return true;
}

/// Lets the axes follow the vectors.
void ShortestBase::subtract(std::size_t i, std::size_t by, double multiple) {
    constexpr double largest = 0x1p27;  // leaves room for what is done with the axes
    Vector out;
    for (std::size_t k = 0; k < 3; ++k) {
        const double entry = m_axes[i][k] - multiple * m_axes[by][k];
        if (!(std::abs(entry) <= largest)) {
            m_isTooSkew = true;
            return;
        }
        out[k] = static_cast<int>(entry);
    }
    m_axes[i] = out;
}

}  // namespace VRK::detail
