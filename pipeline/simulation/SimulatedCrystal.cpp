#include "pipeline/simulation/SimulatedCrystal.h"

#include <algorithm>
#include <cmath>
#include <gemmi/c4322.hpp>
#include <gemmi/cellred.hpp>
#include <gemmi/cif.hpp>
#include <gemmi/sfcalc.hpp>
#include <gemmi/smcif.hpp>
#include <gemmi/symmetry.hpp>
#include <map>
#include <numbers>
#include <string_view>

#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"

namespace vrk {
namespace {

constexpr double kMostReflections = 2e7;

gemmi::UnitCell unitCell(const std::array<double, 6>& cell) {
    return {cell[0], cell[1], cell[2], cell[3], cell[4], cell[5]};
}

Matrix3 rowsOf(const gemmi::Mat33& matrix) {
    Matrix3 rows{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            rows[i][j] = matrix[static_cast<int>(i)][static_cast<int>(j)];
    return rows;
}

/// Reduced basis: the change-of-basis operator takes the conventional vectors to the reduced ones.
gemmi::GruberVector reduced(const gemmi::UnitCell& cell, char centring) {
    gemmi::GruberVector gruber(cell, centring, true);
    gruber.niggli_reduce(1e-6);
    return gruber;
}

void checkCell(const std::array<double, 6>& cell) {
    const bool numbers =
        std::all_of(cell.begin(), cell.end(), [](double value) { return std::isfinite(value) && value > 0; });
    const bool edges =
        std::all_of(cell.begin(), cell.begin() + 3, [](double edge) { return edge >= 1 && edge <= 1000; });
    const double volume = numbers ? unitCell(cell).volume : 0;
    if (!numbers || !edges || !(volume > 1e-3 * cell[0] * cell[1] * cell[2]) || cell[3] >= 180 ||
        cell[4] >= 180 || cell[5] >= 180)
        throw Failure(
            "no lattice has the given cell; edges are in Angstrom (1 to 1000), angles in degrees, and three "
            "angles must be able to meet in a corner",
            FailureKind::Usage);
}

/// Seeded by the indices, so that an intensity does not depend on the resolution limit.
SimulationRandom randomOf(const CrystalReflection& one, std::uint64_t seed) {
    const auto key =
        static_cast<std::uint64_t>(((one.h + 1024LL) * 2048 + one.k + 1024) * 2048 + one.l + 1024);
    SimulationRandom random(seed ^ (key * 0xd1342543de82ef95ULL));
    random.next();
    return random;
}

/// Whether phases and temperature factors of an atom can be calculated. Slightly negative displacements come
/// out of refinements.
bool isPossible(const gemmi::SmallStructure::Site& site) {
    constexpr double kFarthest = 1e3, kFullest = 100, kLeast = -0.1, kMost = 100;
    const auto isWithin = [](double value, double least, double most) {
        return value >= least && value <= most;
    };
    bool isSo = isWithin(site.occ, 0, kFullest) && isWithin(site.u_iso, kLeast, kMost);
    for (const double place : {site.fract.x, site.fract.y, site.fract.z})
        isSo = isSo && isWithin(place, -kFarthest, kFarthest);
    for (const double element : site.aniso.elements_pdb())
        isSo = isSo && isWithin(element, -kMost, kMost);
    if (!isSo || !site.aniso.nonzero()) return isSo;
    for (const double value : site.aniso.calculate_eigenvalues())
        isSo = isSo && value >= kLeast;
    return isSo;
}

gemmi::SmallStructure readStructure(std::string_view text, const std::string& path, double bFactor) {
    gemmi::SmallStructure structure;
    try {
        const gemmi::cif::Document document = gemmi::cif::read_memory(text.data(), text.size(), path.c_str());
        for (const gemmi::cif::Block& block : document.blocks) {
            structure = gemmi::make_small_structure_from_block(block);
            if (!structure.sites.empty()) break;
        }
    } catch (const std::exception& error) {
        throw Failure("cannot read the structure " + path + ": " + error.what());
    }
    std::erase_if(structure.sites, [](const auto& site) {
        return !std::isfinite(site.fract.x + site.fract.y + site.fract.z);
    });
    if (structure.sites.empty() || !structure.cell.is_crystal())
        throw Failure(
            "cannot simulate from " + path +
            ": no cell with atom sites in fractional coordinates in it; give a small-molecule CIF, or "
            "--cell and --centring for random intensities");
    for (gemmi::SmallStructure::Site& site : structure.sites) {
        if (!gemmi::C4322<double>::has(site.element.elem) || site.element.elem == gemmi::El::X)
            throw Failure("cannot simulate from " + path + ": no scattering factor for atom " + site.label +
                          "; check its type symbol");
        if (!isPossible(site))
            throw Failure("cannot simulate from " + path +
                          ": the position, occupancy or displacement of atom " + site.label +
                          " is one that no crystal has");
        // Sums over the symmetry operations count an atom on a special position several times.
        site.occ /= structure.cell.is_special_position(site.fract, 0.4) + 1;
        if (site.u_iso == 0 && !site.aniso.nonzero()) site.u_iso = bFactor / gemmi::u_to_b();
    }
    return structure;
}

}  // namespace

bool isExtinct(char centring, int h, int k, int l) {
    const auto odd = [](int value) { return value % 2 != 0; };
    switch (centring) {
        case 'A':
            return odd(k + l);
        case 'B':
            return odd(h + l);
        case 'C':
            return odd(h + k);
        case 'I':
            return odd(h + k + l);
        case 'F':
            return odd(h + k) || odd(h + l);
        case 'R':
            return (-h + k + l) % 3 != 0;
        default:
            return false;
    }
}

SimulatedCrystal::SimulatedCrystal(const std::array<double, 6>& cell, char centring)
    : m_cell(cell), m_centring(centring) {
    checkCell(cell);
    if (std::string_view("PABCIFR").find(centring) == std::string_view::npos)
        throw Failure(std::string("unknown centring ") + centring + "; it is one of P A B C I F R",
                      FailureKind::Usage);
}

SimulatedCrystal SimulatedCrystal::fromCell(const std::array<double, 6>& cell, char centring, double bFactor,
                                            std::uint64_t seed) {
    SimulatedCrystal crystal(cell, centring);
    crystal.m_bFactor = bFactor;
    crystal.m_seed = seed;
    return crystal;
}

SimulatedCrystal SimulatedCrystal::fromCif(const std::string& path, double bFactor) {
    return fromCifText(textOfFile(path), path, bFactor);
}

SimulatedCrystal SimulatedCrystal::fromCifText(std::string_view text, const std::string& path,
                                               double bFactor) {
    const auto structure = std::make_shared<const gemmi::SmallStructure>(readStructure(text, path, bFactor));
    const gemmi::SpaceGroup* group = structure->find_spacegroup();
    const gemmi::UnitCell& cell = structure->cell;
    SimulatedCrystal crystal({cell.a, cell.b, cell.c, cell.alpha, cell.beta, cell.gamma},
                             group ? group->centring_type() : 'P');
    crystal.m_structure = structure;
    return crystal;
}

void SimulatedCrystal::setAsymmetry(double asymmetry, std::uint64_t seed) {
    m_asymmetry = asymmetry;
    m_asymmetrySeed = seed;
}

Matrix3 SimulatedCrystal::direct() const {
    const Matrix3 columns = rowsOf(unitCell(m_cell).orth.mat);
    Matrix3 rows{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            rows[i][j] = columns[j][i];
    return rows;
}

Matrix3 SimulatedCrystal::reciprocal() const {
    return rowsOf(unitCell(m_cell).frac.mat);
}

Matrix3 SimulatedCrystal::primitiveReciprocal() const {
    const gemmi::UnitCell cell = unitCell(m_cell);
    const gemmi::GruberVector gruber = reduced(cell, m_centring);
    const gemmi::Mat33 direct = cell.orth.mat.multiply(gemmi::rot_as_mat33(gruber.change_of_basis->rot));
    Matrix3 rows = rowsOf(direct.inverse());
    if (direct.determinant() < 0)
        for (Vector3& row : rows)
            for (double& value : row)
                value = -value;
    return rows;
}

std::array<double, 6> SimulatedCrystal::primitiveCell() const {
    return reduced(unitCell(m_cell), m_centring).cell_parameters();
}

std::vector<CrystalReflection> SimulatedCrystal::reflections(double dmin) const {
    std::vector<CrystalReflection> result = latticeHalf(dmin);
    if (m_structure)
        setStructureIntensities(result);
    else
        setWilsonIntensities(result);
    const std::size_t half = result.size();
    result.reserve(2 * half);
    for (std::size_t i = 0; i < half; ++i) {
        const CrystalReflection& one = result[i];
        result.push_back({-one.h, -one.k, -one.l, {-one.g[0], -one.g[1], -one.g[2]}, one.intensity});
    }
    if (m_asymmetry > 0) disturb(result);
    return result;
}

/// One reflection of every Friedel pair: h > 0, or h = 0 and k > 0, or h = k = 0 and l > 0.
std::vector<CrystalReflection> SimulatedCrystal::latticeHalf(double dmin) const {
    const double longest = 1 / dmin;
    const double count = 4.0 / 3 * std::numbers::pi * longest * longest * longest * unitCell(m_cell).volume;
    if (!(count < kMostReflections))
        throw Failure("too many reflections to simulate (" +
                          std::to_string(static_cast<long long>(count / 1e6)) +
                          " million); choose a larger --dmin or a smaller cell",
                      FailureKind::Usage);
    const Matrix3 axes = reciprocal();
    const int hMax = static_cast<int>(m_cell[0] * longest);
    const int kMax = static_cast<int>(m_cell[1] * longest);
    const int lMax = static_cast<int>(m_cell[2] * longest);
    std::vector<CrystalReflection> result;
    for (int h = 0; h <= hMax; ++h)
        for (int k = h == 0 ? 0 : -kMax; k <= kMax; ++k)
            for (int l = h == 0 && k == 0 ? 1 : -lMax; l <= lMax; ++l) {
                if (isExtinct(m_centring, h, k, l)) continue;
                Vector3 g{};
                for (std::size_t i = 0; i < 3; ++i)
                    g[i] = h * axes[0][i] + k * axes[1][i] + l * axes[2][i];
                if (g[0] * g[0] + g[1] * g[1] + g[2] * g[2] <= longest * longest)
                    result.push_back({h, k, l, g, 0});
            }
    return result;
}

void SimulatedCrystal::setWilsonIntensities(std::vector<CrystalReflection>& reflections) const {
    const auto& carbon = gemmi::C4322<double>::get(gemmi::El::C);
    for (CrystalReflection& one : reflections) {
        const double stol2 = (one.g[0] * one.g[0] + one.g[1] * one.g[1] + one.g[2] * one.g[2]) / 4;
        const double factor = carbon.calculate_sf(stol2) * std::exp(-m_bFactor * stol2);
        SimulationRandom random = randomOf(one, m_seed);
        const double relative = m_even ? 1 : -std::log(1 - random.uniform());
        one.intensity = relative * factor * factor;
    }
}

void SimulatedCrystal::disturb(std::vector<CrystalReflection>& reflections) const {
    for (CrystalReflection& one : reflections)
        one.intensity *= std::exp(m_asymmetry * randomOf(one, m_asymmetrySeed).normal());
}

void SimulatedCrystal::setStructureIntensities(std::vector<CrystalReflection>& reflections) const {
    gemmi::StructureFactorCalculator<gemmi::C4322<double>> calculator(m_structure->cell);
    const gemmi::SpaceGroup* group = m_structure->find_spacegroup();
    if (!group) group = &gemmi::get_spacegroup_p1();
    const gemmi::GroupOps operations = group->operations();
    const gemmi::ReciprocalAsu unique(group);
    std::map<gemmi::Op::Miller, double> known;
    for (CrystalReflection& one : reflections) {
        const gemmi::Op::Miller hkl = unique.to_asu({one.h, one.k, one.l}, operations).first;
        const auto [entry, isNew] = known.try_emplace(hkl, 0.0);
        if (isNew) entry->second = std::norm(calculator.calculate_sf_from_small_structure(*m_structure, hkl));
        one.intensity = entry->second;
    }
}

}  // namespace vrk
