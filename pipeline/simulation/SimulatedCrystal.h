/// \file
/// The crystal of a simulated tilt series: its lattice, its orientation and the intensities of its
/// reflections.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pipeline/simulation/SimulationRotation.h"

namespace gemmi {
struct SmallStructure;
}

namespace vrk {

/// A reflection of the lattice in the frame of the crystal.
struct CrystalReflection {
    int h = 0;
    int k = 0;
    int l = 0;
    Vector3 g{};           ///< 1/Angstrom; a along x, b in the plane of x and y
    double intensity = 0;  ///< kinematical, on an arbitrary scale
};

/// A lattice with intensities.
///
/// Cartesian frame of the crystal: a along x, b in the plane of x and y, right-handed; its reciprocal vectors
/// are the rows of reciprocal().
class SimulatedCrystal {
public:
    /// A lattice whose intensities follow the acentric Wilson distribution (A. J. C. Wilson, Acta Cryst. 2,
    /// 318 (1949), doi:10.1107/S0365110X49000813) about the mean intensity of carbon atoms with isotropic
    /// displacements B. Friedel mates are equal.
    /// Throws Failure when the cell is impossible or the centring is not one of P A B C I F R (R in hexagonal
    /// axes, obverse setting).
    static SimulatedCrystal fromCell(const std::array<double, 6>& cell, char centring, double bFactor,
                                     std::uint64_t seed);
    /// The first structure of a CIF file. Structure factors from electron scattering factors
    /// (International Tables C, table 4.3.2.2) with the displacement parameters of the file, B where an atom
    /// has none. Throws Failure when the file has no structure that intensities can be calculated from.
    static SimulatedCrystal fromCif(const std::string& path, double bFactor);
    /// \param path  for messages
    static SimulatedCrystal fromCifText(std::string_view text, const std::string& path, double bFactor);

    /// Gives the reflections of a lattice the mean intensity of the Wilson distribution, all of them.
    void setEven(bool even) { m_even = even; }
    /// Multiplies the intensity of every reflection by exp(asymmetry * normal), drawn for each of two Friedel
    /// mates: opposite spots of one pattern differ by the square root of two times that, as multiple
    /// scattering makes them.
    void setAsymmetry(double asymmetry, std::uint64_t seed);

    /// All reflections but 000 that the centring allows with 1/d up to 1/dmin, both Friedel mates.
    /// Throws Failure when there are too many of them to simulate.
    std::vector<CrystalReflection> reflections(double dmin) const;

    const std::array<double, 6>& cell() const { return m_cell; }
    char centring() const { return m_centring; }
    /// Rows a, b, c of the conventional cell, Angstrom.
    Matrix3 direct() const;
    /// Rows a*, b*, c* of the conventional cell, 1/Angstrom.
    Matrix3 reciprocal() const;
    /// Rows a*, b*, c* of the Niggli-reduced primitive cell, 1/Angstrom, right-handed.
    Matrix3 primitiveReciprocal() const;
    /// The Niggli-reduced primitive cell: edges in Angstrom, angles in degrees.
    std::array<double, 6> primitiveCell() const;

private:
    SimulatedCrystal(const std::array<double, 6>& cell, char centring);
    std::vector<CrystalReflection> latticeHalf(double dmin) const;
    void setWilsonIntensities(std::vector<CrystalReflection>& reflections) const;
    void setStructureIntensities(std::vector<CrystalReflection>& reflections) const;
    void disturb(std::vector<CrystalReflection>& reflections) const;

    std::array<double, 6> m_cell;
    char m_centring;
    double m_bFactor = 0;
    std::uint64_t m_seed = 0;
    bool m_even = false;
    double m_asymmetry = 0;
    std::uint64_t m_asymmetrySeed = 0;
    std::shared_ptr<const gemmi::SmallStructure> m_structure;  ///< null for random intensities
};

/// Whether the centring extinguishes a reflection.
bool isExtinct(char centring, int h, int k, int l);

}  // namespace vrk
