/// \file
/// Indexed reflections in the formats that structure solution reads, beside the plain HKL file of the
/// library: HKLF 4 with an instruction file, MTZ and CIF.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

class ReflexVector;

namespace vrk {

/// A reflection as structure solution takes it.
struct IndexedReflection {
    int h = 0;
    int k = 0;
    int l = 0;
    double intensity = 0.0;
    double sigma = 0.0;
    bool operator==(const IndexedReflection&) const = default;
};

/// The amplitude of a reflection, estimated from its intensity.
struct ReflectionAmplitude {
    double value = 0.0;
    double sigma = 0.0;
};

/// How the patterns were recorded, as the electron-diffraction items of CIF have it.
struct ElectronExperiment {
    double kiloVolts = 0.0;
    double tiltFirst = 0.0;   ///< degrees
    double tiltLast = 0.0;    ///< degrees
    bool continuous = true;   ///< the crystal turned during the exposures
    double precession = 0.0;  ///< half angle of the cone, degrees; 0: none
    double mosaicity = 0.0;   ///< degrees; 0: not known
};

/// Reflections with what the files say about the crystal.
struct ReflectionSet {
    std::vector<IndexedReflection> reflections;
    std::vector<ReflectionAmplitude> amplitudes;  ///< as the reflections, or none; for MTZ and CIF
    std::array<double, 6> cell{};                 ///< Angstrom, degrees
    std::array<double, 6> cellSigma{};            ///< standard uncertainties
    double wavelength = 0.0;                      ///< Angstrom; 0 is unknown
    char centring = 'P';                          ///< P A B C I F, or R with hexagonal axes
    std::string spaceGroup;  ///< extended Hermann-Mauguin symbol; empty: the lowest of the centring
    std::string formula;     ///< of one formula unit, as "Ca3 Al2 Si3 O12"; may be empty
    std::string title;
    std::optional<ElectronExperiment> experiment;
};

/// The indexed reflections but 000, sorted by h, k, l. Several reflections with the same indices are pieces
/// of one that broke up: their intensities are added. Sigma is the square root of the intensity.
/// \param toConventional  h' = h M for the matrix M of the new base; null leaves the indices
std::vector<IndexedReflection> indexedReflections(const ReflexVector& list,
                                                  const int toConventional[3][3] = nullptr);

/// What a formula like "C10 H12 N2" or "SiO2" says: element symbols and counts. Throws Failure (usage).
std::vector<std::pair<std::string, double>> parseFormula(const std::string& formula);

/// The power of ten by which writeShelx() multiplies intensities and sigmas, so that the largest has as many
/// digits as eight columns with two decimals hold.
double shelxScale(const std::vector<IndexedReflection>& reflections);

/// \name Writers
/// Each replaces the file. They throw Failure when it cannot be written completely or when an index or a
/// number does not fit the format.
/// @{

/// HKLF 4: 3I4, 2F8.2 and the closing line of zeros. All numbers are multiplied by shelxScale().
void writeShelx(const ReflectionSet& set, const std::filesystem::path& path);

/// The instruction file of writeShelx(): CELL with the electrons' wavelength, ZERR, LATT and SYMM of the
/// space group (of a centrosymmetric one in the setting that has the centre at the origin), scattering
/// factors of the formula's elements for electrons, UNIT, HKLF 4. The factors are those of International
/// Tables C, table 4.3.2.2, as four Gaussians and a constant fitted to its five up to sin(theta)/lambda = 1
/// per Angstrom. Without a formula carbon alone stands for the content.
void writeShelxInstructions(const ReflectionSet& set, const std::filesystem::path& path);

/// Columns H K L I SIGI, F SIGF where there are amplitudes, one dataset with the wavelength. With a space
/// group the indices go to its asymmetric unit: for merged reflections.
void writeMtz(const ReflectionSet& set, const std::filesystem::path& path);

/// Core dictionary: cell with uncertainties, wavelength, one loop of _refln_ items, amplitudes among them
/// where there are any; of the experiment the items of the electron diffraction dictionary.
void writeCif(const ReflectionSet& set, const std::filesystem::path& path);
/// @}

/// Four Gaussians and a constant, f(s) = sum a exp(-b s^2) + c, in the order a1 b1 ... a4 b4 c: electron
/// scattering factor of an element in Angstrom.
std::array<double, 9> electronScatteringFactor(const std::string& element);

}  // namespace vrk
