#include "pipeline/latticesearch/PhasorSums.h"

#include <algorithm>
#include <array>
#include <numbers>

namespace vrk {
namespace {

constexpr std::size_t kLanes = 8;

/// Neighbouring phasors, and what turns each of them to the one that follows after as many.
struct Lanes {
    std::array<double, kLanes> real, imaginary;
    double turnReal, turnImaginary;
};

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void addTurning(double* real, double* imaginary, std::size_t n, Lanes z) {
    for (std::size_t begin = 0; begin < n; begin += kLanes)
        for (std::size_t i = 0; i < kLanes; ++i) {
            real[begin + i] += z.real[i];
            imaginary[begin + i] += z.imaginary[i];
            const double turned = z.real[i] * z.turnReal - z.imaginary[i] * z.turnImaginary;
            z.imaginary[i] = z.real[i] * z.turnImaginary + z.imaginary[i] * z.turnReal;
            z.real[i] = turned;
        }
}

}  // namespace

PhasorSums::PhasorSums(std::size_t count)
    : m_count(count), m_real((count + kLanes - 1) / kLanes * kLanes), m_imaginary(m_real.size()) {}

void PhasorSums::clear() {
    std::fill(m_real.begin(), m_real.end(), 0.0);
    std::fill(m_imaginary.begin(), m_imaginary.end(), 0.0);
}

void PhasorSums::add(std::complex<double> amplitude, double step) {
    const std::complex<double> turn = std::polar(1.0, 2.0 * std::numbers::pi * step);
    Lanes lanes;
    std::complex<double> phasor = 1.0;
    for (std::size_t i = 0; i < kLanes; ++i, phasor *= turn) {
        const std::complex<double> z = amplitude * phasor;
        lanes.real[i] = z.real();
        lanes.imaginary[i] = z.imag();
    }
    lanes.turnReal = phasor.real();
    lanes.turnImaginary = phasor.imag();
    addTurning(m_real.data(), m_imaginary.data(), m_real.size(), lanes);
}

}  // namespace vrk
