/// \file
/// What a measured intensity says of the true one, which is never negative and mostly small.
///
/// S. French and K. Wilson, Acta Cryst. A 34 (1978) 517, doi:10.1107/S0567739478001114: the measured
/// intensity scatters normally about the true one, which follows the distribution of A. J. C. Wilson, Acta
/// Cryst. 2 (1949) 318, doi:10.1107/S0365110X49000813, about the mean at its resolution.
#pragma once

namespace vrk {

/// A number and its standard uncertainty.
struct Estimate {
    double value = 0;
    double sigma = 0;
};

/// The mean true intensity of an acentric reflection. Never negative; less subject to the noise of the
/// measurement than that itself. \param mean  of the true intensities around
double expectedIntensity(double intensity, double sigma, double mean);

/// Mean and standard deviation of the true amplitude. \param centric  the reflection has a fixed phase
Estimate expectedAmplitude(double intensity, double sigma, double mean, bool centric);

}  // namespace vrk
