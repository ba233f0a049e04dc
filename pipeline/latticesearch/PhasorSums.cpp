#include "pipeline/latticesearch/PhasorSums.h"

#include <algorithm>
#include <numbers>

namespace vrk {
namespace {

using Complex = std::complex<double>;

/// Turned copies of some phasors, which are added to sums.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void addTurned(const double* __restrict real, const double* __restrict imaginary, std::size_t n, Complex turn,
               double* __restrict turnedReal, double* __restrict turnedImaginary, double* __restrict sumReal,
               double* __restrict sumImaginary) {
    const double c = turn.real();
    const double s = turn.imag();
    for (std::size_t k = 0; k < n; ++k) {
        turnedReal[k] = real[k] * c - imaginary[k] * s;
        turnedImaginary[k] = real[k] * s + imaginary[k] * c;
        sumReal[k] += turnedReal[k];
        sumImaginary[k] += turnedImaginary[k];
    }
}

}  // namespace

PhasorSums::PhasorSums(std::size_t count)
    : m_real(count), m_imaginary(count), m_phasorReal(count), m_phasorImaginary(count) {}

void PhasorSums::clear() {
    std::fill(m_real.begin(), m_real.end(), 0.0);
    std::fill(m_imaginary.begin(), m_imaginary.end(), 0.0);
}

void PhasorSums::add(Complex amplitude, double step) {
    if (m_real.empty()) return;
    m_real[0] += m_phasorReal[0] = amplitude.real();
    m_imaginary[0] += m_phasorImaginary[0] = amplitude.imag();
    Complex turn = std::polar(1.0, 2.0 * std::numbers::pi * step);
    for (std::size_t known = 1; known < m_real.size(); known *= 2, turn *= turn)
        addTurned(m_phasorReal.data(), m_phasorImaginary.data(), std::min(known, m_real.size() - known), turn,
                  m_phasorReal.data() + known, m_phasorImaginary.data() + known, m_real.data() + known,
                  m_imaginary.data() + known);
}

}  // namespace vrk
