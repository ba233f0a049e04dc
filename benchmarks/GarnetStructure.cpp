/// \file
/// How well do the amplitudes of a garnet that `vrk run` measured agree with those of the garnet structure?
/// Its atoms are the same in all garnets but for their kinds and a little of the place of oxygen: R against
/// published structures of several compositions, scale and an overall B fitted, is a test that nothing in the
/// program knows the answer of. One structure with its amplitudes dealt out at random is the measure of no
/// agreement at all.
///
/// Usage: garnet_structure RESULT/merged.cif
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <gemmi/c4322.hpp>
#include <gemmi/cif.hpp>
#include <gemmi/numb.hpp>
#include <gemmi/symmetry.hpp>
#include <gemmi/unitcell.hpp>
#include <numbers>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

/// X3 Y2 Z3 O12 in Ia-3d: X on 24c (1/8, 0, 1/4), Y on 16a (0, 0, 0), Z on 24d (3/8, 0, 1/4), O on 96h.
struct Garnet {
    const char* name;
    std::array<const char*, 3> atoms;
    double a;  ///< Angstrom
    gemmi::Fractional oxygen;
};

// G. A. Novak & G. V. Gibbs, Am. Mineral. 56 (1971) 791; YAG: F. Euler & J. A. Bruce, Acta Cryst. 19 (1965)
// 971.
const std::array<Garnet, 8> kGarnets = {
    {{"grossular Ca3Al2Si3O12", {"Ca", "Al", "Si"}, 11.845, {0.0381, 0.0449, 0.6514}},
     {"andradite Ca3Fe2Si3O12", {"Ca", "Fe", "Si"}, 12.058, {0.0395, 0.0488, 0.6555}},
     {"uvarovite Ca3Cr2Si3O12", {"Ca", "Cr", "Si"}, 11.988, {0.0399, 0.0474, 0.6535}},
     {"pyrope Mg3Al2Si3O12", {"Mg", "Al", "Si"}, 11.459, {0.0329, 0.0502, 0.6534}},
     {"almandine Fe3Al2Si3O12", {"Fe", "Al", "Si"}, 11.526, {0.0340, 0.0494, 0.6528}},
     {"spessartine Mn3Al2Si3O12", {"Mn", "Al", "Si"}, 11.612, {0.0351, 0.0479, 0.6525}},
     {"goldmanite Ca3V2Si3O12", {"Ca", "V", "Si"}, 12.070, {0.0399, 0.0474, 0.6535}},
     {"YAG Y3Al5O12", {"Y", "Al", "Al"}, 12.000, {0.0306, 0.0512, 0.6500}}}};

struct Reflection {
    gemmi::Op::Miller hkl;
    double stol2;  ///< (sin(theta) / lambda)^2
    double amplitude;
};

std::vector<Reflection> readReflections(const char* path, const gemmi::GroupOps& group, int& forbidden) {
    gemmi::cif::Document document = gemmi::cif::read_file(path);
    gemmi::cif::Block& block = document.sole_block();
    const auto number = [&](const char* tag) { return gemmi::cif::as_number(*block.find_value(tag)); };
    const double a = number("_cell_length_a");
    std::vector<Reflection> list;
    for (const auto row : block.find("_refln_", {"index_h", "index_k", "index_l", "F_meas"})) {
        const gemmi::Op::Miller hkl = {std::stoi(row[0]), std::stoi(row[1]), std::stoi(row[2])};
        if (group.is_systematically_absent(hkl)) {
            ++forbidden;
            continue;
        }
        const double square = hkl[0] * hkl[0] + hkl[1] * hkl[1] + hkl[2] * hkl[2];
        list.push_back({hkl, square / (4 * a * a), gemmi::cif::as_number(row[3])});
    }
    return list;
}

struct Atom {
    const gemmi::C4322<double>::Coef* factor;
    gemmi::Fractional place;
};

/// All atoms of the cell.
std::vector<Atom> atomsOf(const Garnet& garnet, const gemmi::GroupOps& group) {
    const std::array<gemmi::Fractional, 4> places = {
        {{0.125, 0, 0.25}, {0, 0, 0}, {0.375, 0, 0.25}, garnet.oxygen}};
    std::vector<Atom> atoms;
    for (std::size_t i = 0; i < places.size(); ++i) {
        const auto* factor = &gemmi::C4322<double>::get(gemmi::find_element(i < 3 ? garnet.atoms[i] : "O"));
        const std::size_t first = atoms.size();
        for (const gemmi::Op& operation : group.all_ops_sorted()) {
            const auto image = operation.apply_to_xyz({places[i].x, places[i].y, places[i].z});
            const gemmi::Fractional place = gemmi::Fractional(image[0], image[1], image[2]).wrap_to_unit();
            const bool known = std::any_of(
                atoms.begin() + static_cast<std::ptrdiff_t>(first), atoms.end(),
                [&](const Atom& atom) { return (atom.place - place).wrap_to_zero().length() < 0.01; });
            if (!known) atoms.push_back({factor, place});
        }
    }
    return atoms;
}

/// Shortest distance from a special position to an oxygen, Angstrom.
double bond(const Garnet& garnet, const std::vector<Atom>& atoms, const gemmi::Fractional& from) {
    double shortest = garnet.a;
    for (auto oxygen = atoms.end() - 96; oxygen != atoms.end(); ++oxygen)
        shortest = std::min(shortest, garnet.a * (oxygen->place - from).wrap_to_zero().length());
    return shortest;
}

/// Centred on the origin: the structure factors are real.
std::vector<double> amplitudes(const std::vector<Atom>& atoms, const std::vector<Reflection>& reflections) {
    std::vector<double> result;
    for (const Reflection& one : reflections) {
        double sum = 0;
        for (const Atom& atom : atoms)
            sum +=
                atom.factor->calculate_sf(one.stol2) *
                std::cos(2 * std::numbers::pi *
                         (one.hkl[0] * atom.place.x + one.hkl[1] * atom.place.y + one.hkl[2] * atom.place.z));
        result.push_back(std::abs(sum));
    }
    return result;
}

struct Agreement {
    double r = 1;
    double rCoarse = 1;  ///< to 0.8 Angstrom
    double b = 0;
};

/// Scale by least squares for every overall B; the B with the smallest squares.
Agreement agreement(const std::vector<Reflection>& measured, const std::vector<double>& calculated) {
    Agreement best;
    double least = INFINITY;
    for (double b = -3; b <= 8; b += 0.05) {
        double top = 0, bottom = 0;
        const auto model = [&](std::size_t i) { return calculated[i] * std::exp(-b * measured[i].stol2); };
        for (std::size_t i = 0; i < measured.size(); ++i) {
            top += measured[i].amplitude * model(i);
            bottom += model(i) * model(i);
        }
        const double scale = top / bottom;
        double squares = 0;
        std::array<double, 2> deviations{}, sums{};
        for (std::size_t i = 0; i < measured.size(); ++i) {
            const double deviation = measured[i].amplitude - scale * model(i);
            squares += deviation * deviation;
            const bool coarse = measured[i].stol2 < 0.25 / (0.8 * 0.8);
            for (std::size_t part = 0; part < (coarse ? 2U : 1U); ++part) {
                deviations[part] += std::abs(deviation);
                sums[part] += measured[i].amplitude;
            }
        }
        if (squares >= least) continue;
        least = squares;
        best = {deviations[0] / sums[0], deviations[1] / sums[1], b};
    }
    return best;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: garnet_structure RESULT/merged.cif\n");
        return 2;
    }
    const gemmi::GroupOps group = gemmi::find_spacegroup_by_name("I a -3 d")->operations();
    int forbidden = 0;
    const std::vector<Reflection> reflections = readReflections(argv[1], group, forbidden);
    std::printf("%zu unique reflections, and %d that Ia-3d forbids\n\n", reflections.size(), forbidden);
    std::printf("%-26s %8s %8s %6s   %s\n", "structure", "R", "to 0.8", "B", "X-O, Y-O, Z-O (A)");
    const Garnet* best = nullptr;
    double least = INFINITY;
    std::vector<double> last;
    for (const Garnet& garnet : kGarnets) {
        const std::vector<Atom> atoms = atomsOf(garnet, group);
        last = amplitudes(atoms, reflections);
        const Agreement found = agreement(reflections, last);
        std::printf("%-26s %6.1f %% %6.1f %% %6.2f   %.2f %.2f %.2f\n", garnet.name, 100 * found.r,
                    100 * found.rCoarse, found.b, bond(garnet, atoms, {0.125, 0, 0.25}),
                    bond(garnet, atoms, {0, 0, 0}), bond(garnet, atoms, {0.375, 0, 0.25}));
        if (found.r >= least) continue;
        least = found.r;
        best = &garnet;
    }
    std::mt19937 random(1);
    std::shuffle(last.begin(), last.end(), random);
    const Agreement chance = agreement(reflections, last);
    std::printf("%-26s %6.1f %% %6.1f %%\n", "amplitudes at random", 100 * chance.r, 100 * chance.rCoarse);
    if (best) std::printf("\nbest of these: %s, R = %.1f %%\n", best->name, 100 * least);
}
