#include "crystallography/detail/ConventionalSetting.h"

#include <algorithm>
#include <cmath>

#include "crystallography/detail/LatticeMetric.h"

namespace VRK::detail {
namespace {

/// True when half the sum of the vectors is a lattice vector.
bool isCentred(const Vector& u, const Vector& v) {
    const Vector sum = plus(u, 1, v);
    return sum[0] % 2 == 0 && sum[1] % 2 == 0 && sum[2] % 2 == 0;
}

}  // namespace

ConventionalSetting::ConventionalSetting(LATTICE::BravaisTypes type, const Axes& axes, const Metric& reduced)
    : m_axes(axes), m_reduced(reduced) {
    switch (type) {
        case LATTICE::oP:
        case LATTICE::oI:
        case LATTICE::oF:
            sortAxes();
            break;
        case LATTICE::oC:
            swapIfLonger(0, 1);
            break;
        case LATTICE::mP:
            setMonoclinic(false);
            break;
        case LATTICE::mC:
            centreOnC();
            setMonoclinic(true);
            break;
        case LATTICE::hR:
            setObverse();
            break;
        default:
            break;
    }
    if (determinant(m_axes) < 0) {
        const std::size_t turned = isMonoclinic(type) ? 1 : 2;
        m_axes[turned] = negated(m_axes[turned]);
    }
}

double ConventionalSetting::product(std::size_t i, std::size_t j) const {
    return Lowered(m_axes[j], m_reduced).dot(m_axes[i]);
}

void ConventionalSetting::swapIfLonger(std::size_t i, std::size_t j) {
    if (product(i, i) > product(j, j)) std::swap(m_axes[i], m_axes[j]);
}

void ConventionalSetting::sortAxes() {
    swapIfLonger(0, 1);
    swapIfLonger(1, 2);
    swapIfLonger(0, 1);
}

void ConventionalSetting::centreOnC() {
    if (isCentred(m_axes[0], m_axes[1])) return;
    if (isCentred(m_axes[2], m_axes[1]))
        std::swap(m_axes[0], m_axes[2]);
    else
        m_axes[0] = plus(m_axes[0], 1, m_axes[2]);
}

/// The shortest a and c; a centred a may change only by even multiples of c.
void ConventionalSetting::setMonoclinic(bool isCentredOnC) {
    constexpr int mostRounds = 100;
    const int step = isCentredOnC ? 2 : 1;
    for (int round = 0; round < mostRounds; ++round)
        if (!shorten(2, 0, 1) && !shorten(0, 2, step)) break;
    if (!isCentredOnC) swapIfLonger(0, 2);
    if (product(0, 2) > 0.0) m_axes[2] = negated(m_axes[2]);
}

bool ConventionalSetting::shorten(std::size_t i, std::size_t by, int step) {
    constexpr double rounding = 1e-9;
    // Axes of a reduced lattice have small indices; larger ones come of a metric that is nothing but rounding
    // errors.
    constexpr double largest = 1e6;
    const Lowered lowered(m_axes[by], m_reduced);
    const double ratio = lowered.dot(m_axes[i]) / (step * lowered.dot(m_axes[by]));
    if (!(std::abs(ratio) > 0.5 + rounding)) return false;
    const double times = -step * std::round(ratio);
    for (std::size_t k = 0; k < 3; ++k)
        if (!(std::abs(m_axes[i][k] + times * m_axes[by][k]) < largest)) return false;
    m_axes[i] = plus(m_axes[i], static_cast<int>(times), m_axes[by]);
    return true;
}

/// Lattice points at 2/3 1/3 1/3; in the reverse setting they are at 1/3 2/3 1/3.
void ConventionalSetting::setObverse() {
    const auto& [a, b, c] = m_axes;
    for (std::size_t j = 0; j < 3; ++j) {
        if ((2 * a[j] + b[j] + c[j]) % 3 == 0) continue;
        m_axes[0] = negated(m_axes[0]);
        m_axes[1] = negated(m_axes[1]);
        return;
    }
}

Axes standardAxes(const CharacterRow& row, const Metric& reduced) {
    Axes axes;
    for (std::size_t i = 0; i < 3; ++i)
        std::copy_n(row.toConventional[i], 3, axes[i].begin());
    return ConventionalSetting(row.bravais, axes, reduced).axes();
}

}  // namespace VRK::detail
