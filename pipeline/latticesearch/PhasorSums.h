/// \file
/// Sums of turning phasors at many equally spaced places at once.
#pragma once

#include <complex>
#include <cstddef>
#include <vector>

namespace vrk {

/// Sums S(k) of a exp(2 pi i k s) over terms of amplitude a and step s, for k = 0, 1, ...
///
/// Turning what is known of a term doubles it with each step, by multiplications in vector units, where sines
/// and cosines would take forty times as long. S(k) is off by less than 1e-14 of the sum of the |a| for each
/// of the places: enough to tell where it is worth while to form a sum exactly.
class PhasorSums {
public:
    explicit PhasorSums(std::size_t count);
    void clear();
    void add(std::complex<double> amplitude, double step);
    std::complex<double> operator[](std::size_t k) const { return {m_real[k], m_imaginary[k]}; }

private:
    std::vector<double> m_real, m_imaginary;
    std::vector<double> m_phasorReal, m_phasorImaginary;  ///< of the latest term
};

}  // namespace vrk
