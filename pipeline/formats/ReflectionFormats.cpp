#include "pipeline/formats/ReflectionFormats.h"

#include <Eigen/Cholesky>
#include <Eigen/Core>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <gemmi/c4322.hpp>
#include <gemmi/cifdoc.hpp>
#include <gemmi/elem.hpp>
#define GEMMI_WRITE_IMPLEMENTATION
#include <gemmi/mtz.hpp>
#undef GEMMI_WRITE_IMPLEMENTATION
#include <gemmi/symmetry.hpp>
#include <gemmi/to_cif.hpp>
#include <limits>
#include <map>

#include "foundation/Version.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/detail/NamedSpaceGroup.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"

namespace vrk {
namespace {

/// Largest number in eight columns with two decimals.
constexpr double kLargestField = 99999.99;

/// The space group that has the centring and no other symmetry than (where one is needed) its lattice's.
const gemmi::SpaceGroup* lowestSpaceGroup(char centring) {
    const std::string name = centring == 'R' ? "R 3:H" : std::string(1, centring) + " 1";
    const gemmi::SpaceGroup* group = gemmi::find_spacegroup_by_name(name);
    if (!group) throw Failure(std::string("no space group for the centring ") + centring, FailureKind::Usage);
    return group;
}

const gemmi::SpaceGroup* spaceGroupOf(const ReflectionSet& set) {
    if (set.spaceGroup.empty()) return lowestSpaceGroup(set.centring);
    return &detail::spaceGroupNamed(set.spaceGroup);
}

bool hasAmplitudes(const ReflectionSet& set) {
    return !set.amplitudes.empty() && set.amplitudes.size() == set.reflections.size();
}

bool hasCentreAtOrigin(const gemmi::GroupOps& operations) {
    const gemmi::Op* inversion = operations.find_by_rotation(gemmi::Op::identity().negated_rot());
    return inversion && inversion->tran == gemmi::Op::Tran{0, 0, 0};
}

/// LATT and SYMM of a space group. Where its inversion centre lies elsewhere, the other origin is taken.
std::string symmetryInstructions(const gemmi::SpaceGroup* group, char centring) {
    static const std::map<char, int> kLattices = {{'P', 1}, {'I', 2}, {'R', 3}, {'F', 4},
                                                  {'A', 5}, {'B', 6}, {'C', 7}};
    gemmi::GroupOps operations = group->operations();
    if (operations.is_centrosymmetric() && !hasCentreAtOrigin(operations))
        if (const auto* other = gemmi::find_spacegroup_by_name(std::string(group->hm) + ":2"))
            operations = other->operations();
    const bool centred = hasCentreAtOrigin(operations);
    std::string text = formatted("LATT %d\n", (centred ? 1 : -1) * kLattices.at(centring));
    std::vector<gemmi::Op::Rot> written = {gemmi::Op::identity().rot};
    for (const gemmi::Op& operation : operations.sym_ops) {
        const gemmi::Op::Rot opposite = operation.negated_rot();
        const bool known = std::any_of(written.begin(), written.end(), [&](const gemmi::Op::Rot& one) {
            return one == operation.rot || (centred && one == opposite);
        });
        if (known) continue;
        written.push_back(operation.rot);
        text += "SYMM " + operation.triplet('X') + "\n";
    }
    return text;
}

gemmi::El elementOf(const std::string& symbol) {
    const gemmi::El element = gemmi::find_element(symbol.c_str());
    if (element == gemmi::El::X || !gemmi::C4322<double>::has(element))
        throw Failure("no electron scattering factor for the element \"" + symbol + "\"; check the formula",
                      FailureKind::Usage);
    return element;
}

double cellVolume(const std::array<double, 6>& cell) {
    return gemmi::UnitCell(cell[0], cell[1], cell[2], cell[3], cell[4], cell[5]).volume;
}

double valueOf(const std::array<double, 9>& p, double s2) {
    double f = p[8];
    for (std::size_t i = 0; i < 4; ++i)
        f += p[2 * i] * std::exp(-p[2 * i + 1] * s2);
    return f;
}

/// One Levenberg-Marquardt fit of four Gaussians and a constant to values at s = 0, 0.01 ... 1, weighted by
/// the inverse of the value.
std::array<double, 9> fitGaussians(std::array<double, 9> p, const std::vector<double>& target) {
    using Vector9 = Eigen::Matrix<double, 9, 1>;
    const auto cost = [&](const std::array<double, 9>& q) {
        double sum = 0.0;
        for (std::size_t i = 0; i < target.size(); ++i)
            sum += std::pow(valueOf(q, 1e-4 * static_cast<double>(i * i)) / target[i] - 1.0, 2);
        return sum;
    };
    double best = cost(p);
    double damping = 1e-3;
    for (int round = 0; round < 200 && damping < 1e12; ++round) {
        Eigen::Matrix<double, 9, 9> normal = Eigen::Matrix<double, 9, 9>::Zero();
        Vector9 right = Vector9::Zero();
        for (std::size_t i = 0; i < target.size(); ++i) {
            const double s2 = 1e-4 * static_cast<double>(i * i);
            Vector9 row;
            for (Eigen::Index g = 0; g < 4; ++g) {
                const double a = p[static_cast<std::size_t>(2 * g)];
                const double e = std::exp(-p[static_cast<std::size_t>(2 * g + 1)] * s2);
                row(2 * g) = e;
                row(2 * g + 1) = -a * s2 * e;
            }
            row(8) = 1.0;
            row /= target[i];
            normal += row * row.transpose();
            right += row * (1.0 - valueOf(p, s2) / target[i]);
        }
        normal.diagonal() *= 1.0 + damping;
        const Vector9 step = normal.ldlt().solve(right);
        std::array<double, 9> trial = p;
        bool sound = step.allFinite();
        for (std::size_t i = 0; i < 9; ++i)
            trial[i] += step(static_cast<Eigen::Index>(i));
        for (std::size_t i = 1; i < 8; i += 2)
            sound = sound && trial[i] > 0.0;
        const double now = sound ? cost(trial) : std::numeric_limits<double>::infinity();
        if (now < best) {
            p = trial;
            if (best - now < 1e-10 * best) break;
            best = now;
            damping *= 0.3;
        } else {
            damping *= 5.0;
        }
    }
    return p;
}

/// The atoms of a formula that fill space, 18 cubic Angstrom each: all but hydrogen in organic matter; in
/// oxides and fluorides the anions, between which the small cations fit.
double fillingAtoms(const std::vector<std::pair<std::string, double>>& content) {
    double heavy = 0.0, anions = 0.0;
    bool organic = false;
    for (const auto& [symbol, count] : content) {
        if (symbol != "H" && symbol != "D") heavy += count;
        if (symbol == "O" || symbol == "F") anions += count;
        organic = organic || symbol == "C";
    }
    return std::max(!organic && anions > 0.0 ? anions : heavy, 1.0);
}

/// Content of the cell: element symbols with the number of atoms, from the formula and the volume.
std::vector<std::pair<std::string, double>> cellContent(const ReflectionSet& set, int& units) {
    const double atoms = std::max(cellVolume(set.cell) / 18.0, 1.0);
    units = 1;
    if (set.formula.empty()) return {{"C", std::round(atoms)}};
    auto content = parseFormula(set.formula);
    // Every lattice point carries the same content.
    static const std::map<char, int> kPoints = {{'P', 1}, {'F', 4}, {'R', 3}};
    const auto entry = kPoints.find(set.centring);
    const int points = entry != kPoints.end() ? entry->second : 2;
    units = points * std::max(1, static_cast<int>(std::lround(atoms / (fillingAtoms(content) * points))));
    for (auto& [symbol, count] : content)
        count *= units;
    return content;
}

void describe(const ElectronExperiment& experiment, gemmi::cif::Block& block) {
    const bool precessed = experiment.precession > 0.0;
    block.set_pair("_diffrn_radiation_type", "electron");
    if (experiment.kiloVolts > 0.0)
        block.set_pair("_diffrn_source_details",
                       gemmi::cif::quote(formatted("%g kV electron microscope", experiment.kiloVolts)));
    block.set_pair("_diffrn_measurement_device", gemmi::cif::quote("transmission electron microscope"));
    block.set_pair("_diffrn_measurement_method",
                   gemmi::cif::quote(formatted("3D electron diffraction, tilts from %.2f to %.2f degrees",
                                               experiment.tiltFirst, experiment.tiltLast)));
    block.set_pair("_diffrn_measurement_rotation_mode", experiment.continuous ? "rotation" : "stepwise");
    block.set_pair("_diffrn_measurement_method_precession", precessed ? "yes" : "no");
    if (precessed) block.set_pair("_diffrn_precession_semi_angle", formatted("%.3f", experiment.precession));
    if (experiment.mosaicity > 0.0)
        block.set_pair("_exptl_crystal_mosaicity", formatted("%.3f", experiment.mosaicity));
}

void addScatteringFactor(std::string& text, const std::string& symbol) {
    const gemmi::El element = elementOf(symbol);
    const std::array<double, 9> f = electronScatteringFactor(symbol);
    text += formatted("SFAC %-2s %.5f %.5f %.5f %.5f =\n", symbol.c_str(), f[0], f[1], f[2], f[3]);
    text += formatted("     %.5f %.5f %.5f %.5f %.5f =\n", f[4], f[5], f[6], f[7], f[8]);
    text += formatted("     0 0 0 %.2f %.4f\n", static_cast<double>(gemmi::covalent_radius(element)),
                      gemmi::molecular_weight(element));
}

}  // namespace

std::vector<IndexedReflection> indexedReflections(const ReflexVector& list, const int toConventional[3][3]) {
    std::map<std::array<long long, 3>, double> sums;
    for (const Reflex* reflex : list) {
        if (!reflex || !reflex->isIndicated()) continue;
        const std::array<long long, 3> hkl = {reflex->getH(), reflex->getK(), reflex->getL()};
        std::array<long long, 3> turned = hkl;
        for (std::size_t j = 0; toConventional && j < 3; ++j)
            turned[j] =
                hkl[0] * toConventional[0][j] + hkl[1] * toConventional[1][j] + hkl[2] * toConventional[2][j];
        if (turned != std::array<long long, 3>{0, 0, 0}) sums[turned] += reflex->getIntensity();
    }
    std::vector<IndexedReflection> result;
    for (const auto& [hkl, intensity] : sums) {
        if (!std::all_of(hkl.begin(), hkl.end(), [](long long n) { return std::abs(n) < (1LL << 31); }))
            continue;
        result.push_back({static_cast<int>(hkl[0]), static_cast<int>(hkl[1]), static_cast<int>(hkl[2]),
                          intensity, std::sqrt(intensity)});
    }
    return result;
}

std::vector<std::pair<std::string, double>> parseFormula(const std::string& formula) {
    std::vector<std::pair<std::string, double>> content;
    std::size_t at = 0;
    const auto wrong = [&] {
        throw Failure("the formula \"" + formula + "\" is not understood at character " +
                          std::to_string(at + 1) +
                          "; write element symbols with counts, like \"Ca3 Al2 Si3 O12\"",
                      FailureKind::Usage);
    };
    while (at < formula.size()) {
        if (std::isspace(static_cast<unsigned char>(formula[at]))) {
            ++at;
            continue;
        }
        if (!std::isupper(static_cast<unsigned char>(formula[at]))) wrong();
        std::string symbol(1, formula[at++]);
        while (at < formula.size() && std::islower(static_cast<unsigned char>(formula[at])))
            symbol += formula[at++];
        const std::size_t digits = formula.find_first_not_of("0123456789.", at);
        const std::string number = formula.substr(at, digits - at);
        const double count = number.empty() ? 1.0 : std::strtod(number.c_str(), nullptr);
        if (!(count > 0.0 && count < 1e5)) wrong();
        at += number.size();
        elementOf(symbol);
        const auto known = std::find_if(content.begin(), content.end(),
                                        [&](const auto& entry) { return entry.first == symbol; });
        if (known != content.end())
            known->second += count;
        else
            content.emplace_back(symbol, count);
    }
    if (content.empty()) wrong();
    return content;
}

double shelxScale(const std::vector<IndexedReflection>& reflections) {
    double largest = 0.0;
    for (const IndexedReflection& reflection : reflections)
        if (std::isfinite(reflection.intensity))
            largest = std::max({largest, reflection.intensity, reflection.sigma});
    if (!(largest > 0.0)) return 1.0;
    double scale = std::pow(10.0, std::floor(std::log10(kLargestField / largest)));
    if (largest * scale > kLargestField + 0.004) scale /= 10.0;
    return scale;
}

void writeShelx(const ReflectionSet& set, const std::filesystem::path& path) {
    const double scale = shelxScale(set.reflections);
    std::string text;
    text.reserve(29 * (set.reflections.size() + 1));
    for (const IndexedReflection& r : set.reflections) {
        const auto [least, most] = std::minmax({r.h, r.k, r.l});
        if (least < -999 || most > 9999)
            throw Failure(
                formatted("the reflection %d %d %d does not fit four columns an index; use --format mtz "
                          "or cif",
                          r.h, r.k, r.l));
        if (!std::isfinite(r.intensity))
            throw Failure(formatted("the reflection %d %d %d has no finite intensity", r.h, r.k, r.l));
        text += formatted("%4d%4d%4d%8.2f%8.2f\n", r.h, r.k, r.l, r.intensity * scale,
                          std::max(r.sigma * scale, 0.01));
    }
    text += formatted("%4d%4d%4d%8.2f%8.2f\n", 0, 0, 0, 0.0, 0.0);
    writeText(text, path);
}

void writeShelxInstructions(const ReflectionSet& set, const std::filesystem::path& path) {
    const auto& c = set.cell;
    const auto& e = set.cellSigma;
    int units = 1;
    const auto content = cellContent(set, units);
    std::string title = set.title;
    std::replace_if(
        title.begin(), title.end(), [](unsigned char ch) { return std::iscntrl(ch) != 0; }, ' ');
    std::string text = "TITL " + title.substr(0, 70) + "\n";
    text += formatted("REM  written by vrk %s; intensities are multiplied by %g\n", VRK::kVersion,
                      shelxScale(set.reflections));
    if (set.formula.empty())
        text += "REM  content unknown: carbon stands for all atoms, replace SFAC and UNIT\n";
    text += formatted("CELL %.6f %.5f %.5f %.5f %.4f %.4f %.4f\n", set.wavelength, c[0], c[1], c[2], c[3],
                      c[4], c[5]);
    text += formatted("ZERR %d %.5f %.5f %.5f %.4f %.4f %.4f\n", units, e[0], e[1], e[2], e[3], e[4], e[5]);
    text += symmetryInstructions(spaceGroupOf(set), set.centring);
    for (const auto& [symbol, count] : content)
        addScatteringFactor(text, symbol);
    text += "UNIT";
    for (const auto& [symbol, count] : content)
        text += formatted(" %g", count);
    text += "\nHKLF 4\nEND\n";
    writeText(text, path);
}

void writeMtz(const ReflectionSet& set, const std::filesystem::path& path) {
    if (set.reflections.empty())
        throw Failure("there are no reflections to write", FailureKind::NothingFound);
    gemmi::Mtz mtz(/*with_base=*/true);
    mtz.title = set.title.substr(0, 70);
    mtz.spacegroup = spaceGroupOf(set);
    mtz.add_dataset("electrons").wavelength = set.wavelength;
    const auto& c = set.cell;
    mtz.set_cell_for_all(gemmi::UnitCell(c[0], c[1], c[2], c[3], c[4], c[5]));
    mtz.add_column("I", 'J', -1, -1, false);
    mtz.add_column("SIGI", 'Q', -1, -1, false);
    const bool amplitudes = hasAmplitudes(set);
    if (amplitudes) {
        mtz.add_column("F", 'F', -1, -1, false);
        mtz.add_column("SIGF", 'Q', -1, -1, false);
    }
    std::vector<float> rows;
    rows.reserve(mtz.columns.size() * set.reflections.size());
    for (std::size_t i = 0; i < set.reflections.size(); ++i) {
        const IndexedReflection& r = set.reflections[i];
        // Indices are floats in this format.
        if (std::max({std::abs(r.h), std::abs(r.k), std::abs(r.l)}) > (1 << 24))
            throw Failure(formatted("the reflection %d %d %d does not fit the MTZ format", r.h, r.k, r.l));
        rows.insert(rows.end(), {static_cast<float>(r.h), static_cast<float>(r.k), static_cast<float>(r.l),
                                 static_cast<float>(r.intensity), static_cast<float>(r.sigma)});
        if (amplitudes)
            rows.insert(rows.end(), {static_cast<float>(set.amplitudes[i].value),
                                     static_cast<float>(set.amplitudes[i].sigma)});
    }
    mtz.set_data(rows.data(), rows.size());
    if (!set.spaceGroup.empty()) {
        mtz.ensure_asu();
        mtz.sort();
    }
    std::string bytes;
    mtz.write_to_string(bytes);
    writeText(bytes, path);
}

void writeCif(const ReflectionSet& set, const std::filesystem::path& path) {
    static const std::array<const char*, 6> kCellTags = {"_cell_length_a",   "_cell_length_b",
                                                         "_cell_length_c",   "_cell_angle_alpha",
                                                         "_cell_angle_beta", "_cell_angle_gamma"};
    gemmi::cif::Document document;
    gemmi::cif::Block& block = document.add_new_block("vrk");
    block.set_pair("_audit_creation_method", gemmi::cif::quote(std::string("vrk ") + VRK::kVersion));
    for (std::size_t i = 0; i < kCellTags.size(); ++i)
        block.set_pair(kCellTags[i], withUncertainty(set.cell[i], set.cellSigma[i]));
    block.set_pair("_cell_volume", formatted("%.6g", cellVolume(set.cell)));
    block.set_pair("_symmetry_space_group_name_H-M", gemmi::cif::quote(spaceGroupOf(set)->xhm()));
    block.set_pair("_diffrn_radiation_probe", "electron");
    block.set_pair("_diffrn_radiation_wavelength",
                   set.wavelength > 0.0 ? formatted("%.6f", set.wavelength) : std::string("?"));
    if (set.experiment) describe(*set.experiment, block);
    if (!set.formula.empty()) block.set_pair("_chemical_formula_sum", gemmi::cif::quote(set.formula));
    std::vector<std::string> tags = {"index_h", "index_k", "index_l", "F_squared_meas", "F_squared_sigma"};
    const bool amplitudes = hasAmplitudes(set);
    if (amplitudes) tags.insert(tags.end(), {"F_meas", "F_sigma"});
    gemmi::cif::Loop& loop = block.init_loop("_refln_", tags);
    for (std::size_t i = 0; i < set.reflections.size(); ++i) {
        const IndexedReflection& r = set.reflections[i];
        std::vector<std::string> row = {std::to_string(r.h), std::to_string(r.k), std::to_string(r.l),
                                        formatted("%.9g", r.intensity), formatted("%.6g", r.sigma)};
        if (amplitudes) {
            row.push_back(formatted("%.6g", set.amplitudes[i].value));
            row.push_back(formatted("%.6g", set.amplitudes[i].sigma));
        }
        loop.add_row(row);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    gemmi::cif::write_cif_to_stream(file, document, gemmi::cif::Style::Simple);
    file.close();
    if (!file)
        throw Failure("cannot write " + path.string() + " completely; check the folder and the free space");
}

std::array<double, 9> electronScatteringFactor(const std::string& element) {
    const auto& table = gemmi::C4322<double>::get(elementOf(element));
    std::vector<double> target;
    for (int i = 0; i <= 100; ++i) {
        double f = 0.0;
        for (int g = 0; g < 5; ++g)
            f += table.a(g) * std::exp(-table.b(g) * 1e-4 * i * i);
        target.push_back(f);
    }
    // Start without one of the two sharpest Gaussians, which are nearly constant here, and keep the better
    // fit.
    std::array<double, 9> best{};
    double least = std::numeric_limits<double>::infinity();
    for (int left = 0; left < 2; ++left) {
        std::array<double, 9> start{};
        std::size_t next = 0;
        for (int g = 0; g < 5; ++g) {
            if (g == left) continue;
            start[next++] = table.a(g);
            start[next++] = table.b(g);
        }
        start[8] = 0.5 * table.a(left);
        const std::array<double, 9> fitted = fitGaussians(start, target);
        double worst = 0.0;
        for (std::size_t i = 0; i < target.size(); ++i)
            worst = std::max(worst,
                             std::abs(valueOf(fitted, 1e-4 * static_cast<double>(i * i)) / target[i] - 1.0));
        if (worst < least) {
            least = worst;
            best = fitted;
        }
    }
    return best;
}

}  // namespace vrk
