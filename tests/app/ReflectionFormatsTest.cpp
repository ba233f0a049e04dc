#include "pipeline/formats/ReflectionFormats.h"

#include <gemmi/c4322.hpp>
#include <gemmi/cif.hpp>
#include <gemmi/mtz.hpp>
#include <gemmi/refln.hpp>

#include "pipeline/base/Failure.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"
#include "support/Testing.h"

namespace {

using vrk::IndexedReflection;

class ReflectionFormatsTest : public testing::Test {
protected:
    ReflectionFormatsTest() {
        std::mt19937 random(5);
        std::lognormal_distribution<double> intensity(5.0, 3.0);
        for (int h = -12; h <= 12; h += 3)
            for (int k = -104; k <= 104; k += 13)
                for (int l = -999; l <= 999; l += 333) {
                    if (h == 0 && k == 0 && l == 0) continue;
                    const double value = intensity(random);
                    m_set.reflections.push_back({h, k, l, value, std::sqrt(value)});
                }
        m_set.cell = {7.1234, 9.2, 12.345678, 90.0, 101.5, 90.0};
        m_set.cellSigma = {0.0012, 0.003, 0.00056, 0.0, 0.02, 0.0};
        m_set.wavelength = 0.025079;
        m_set.centring = 'C';
        m_set.formula = "Ca3 Al2 Si3 O12";
        m_set.title = "garnet";
    }

    /// What follows the keyword in the instructions of the set, a line each.
    std::string written(const std::string& keyword) const {
        vrk::writeShelxInstructions(m_set, m_folder / "x.ins");
        std::string text;
        for (const std::string& line : m_folder.lines("x.ins"))
            if (line.starts_with(keyword)) text += line.substr(keyword.size()) + '\n';
        return text;
    }

    void addAmplitudes() {
        for (std::size_t i = 0; i < m_set.reflections.size(); ++i)
            m_set.amplitudes.push_back({20.0 + static_cast<double>(i), 0.5 * static_cast<double>(i)});
    }

    const TemporaryFolder m_folder;
    vrk::ReflectionSet m_set;
};

void expectSame(const std::vector<IndexedReflection>& found, const std::vector<IndexedReflection>& written,
                double scale, double tolerance) {
    ASSERT_EQ(found.size(), written.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        const IndexedReflection &a = found[i], &b = written[i];
        ASSERT_TRUE(a.h == b.h && a.k == b.k && a.l == b.l) << i;
        ASSERT_NEAR(a.intensity, b.intensity * scale, std::max(tolerance, 1e-6 * b.intensity * scale));
        ASSERT_NEAR(a.sigma, b.sigma * scale, 0.01 + tolerance);
    }
}

TEST_F(ReflectionFormatsTest, ShelxColumnsReadBack) {
    for (const double factor : {1e-7, 1.0, 99999.994, 1e9}) {
        vrk::ReflectionSet set = m_set;
        for (IndexedReflection& r : set.reflections)
            r.sigma = std::sqrt(r.intensity *= factor);
        vrk::writeShelx(set, m_folder / "x.hkl");
        const auto text = m_folder.lines("x.hkl");
        std::vector<IndexedReflection> found;
        double largest = 0.0;
        for (const std::string& line : text) {
            ASSERT_EQ(line.size(), 28u);
            const auto field = [&](std::size_t from, std::size_t width) {
                return std::stod(line.substr(from, width));
            };
            found.push_back({static_cast<int>(field(0, 4)), static_cast<int>(field(4, 4)),
                             static_cast<int>(field(8, 4)), field(12, 8), field(20, 8)});
            largest = std::max({largest, found.back().intensity, found.back().sigma});
        }
        EXPECT_EQ(found.back(), (IndexedReflection{0, 0, 0, 0.0, 0.0}));
        found.pop_back();
        expectSame(found, set.reflections, vrk::shelxScale(set.reflections), 0.0051);
        EXPECT_GE(largest, 9999.9) << "digits are wasted";
    }
}

TEST_F(ReflectionFormatsTest, InstructionsSayWhatTheyShould) {
    EXPECT_EQ(written("CELL"), " 0.025079 7.12340 9.20000 12.34568 90.0000 101.5000 90.0000\n");
    EXPECT_EQ(written("ZERR"), " 4 0.00120 0.00300 0.00056 0.0000 0.0200 0.0000\n");
    EXPECT_EQ(written("HKLF"), " 4\n");
    EXPECT_EQ(written("LATT"), " -7\n");
    EXPECT_EQ(written("UNIT"), " 12 8 12 48\n");
    std::string elements;
    for (const std::string& line : m_folder.lines("x.ins")) {
        EXPECT_LE(line.size(), 80u);
        if (line.starts_with("SFAC")) elements += line.substr(5, 2) + ';';
    }
    EXPECT_EQ(elements, "Ca;Al;Si;O ;");
    EXPECT_EQ(m_folder.lines("x.ins").back(), "END");
}

TEST_F(ReflectionFormatsTest, InstructionsFollowFormulaAndSpaceGroup) {
    const std::tuple<std::array<double, 6>, char, const char*, const char*, std::string, std::string, int>
        cases[] = {
            {{11.95, 11.95, 11.95, 90, 90, 90}, 'I', "Ca3 Al2 Si3 O12", "I a -3 d", " 24 16 24 96", " 2", 23},
            {{4.91, 4.91, 5.40, 90, 90, 120}, 'P', "SiO2", "P 31 2 1", " 3 6", " -1", 5},
            {{5.46, 5.46, 5.46, 90, 90, 90}, 'F', "CaF2", "F m -3 m", " 4 8", " 4", 23},
            {{4.99, 4.99, 17.06, 90, 90, 120}, 'R', "C", "R -3 c:H", " 21", " 3", 5},
            {{5, 6, 7, 90, 90, 90}, 'A', "C", "A m m 2", " 12", " -5", 3},
            {{5, 6, 7, 90, 95, 90}, 'B', "C", "", " 12", " -6", 0},
            {{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "C10 H12 N2 O3", "P 1 21/c 1", " 20 24 4 6", " 1", 1},
            // Its inversion centre is not at the origin in this setting.
            {{8.3, 8.3, 8.3, 90, 90, 90}, 'F', "C", "F d -3 m:1", " 32", " 4", 23},
            {{7.1, 8.3, 9.4, 82, 93, 105}, 'P', "C4", "", " 28", " -1", 0}};
    for (const auto& [cell, centring, formula, group, unit, latt, symmetryLines] : cases) {
        m_set.cell = cell;
        m_set.centring = centring;
        m_set.formula = formula;
        m_set.spaceGroup = group;
        EXPECT_EQ(written("UNIT"), unit + '\n') << formula;
        EXPECT_EQ(written("LATT"), latt + '\n') << group;
        EXPECT_EQ(std::ranges::count(written("SYMM"), '\n'), symmetryLines) << group;
    }
    m_set.spaceGroup = "P 7";
    EXPECT_THROW(written("UNIT"), vrk::Failure);
}

TEST_F(ReflectionFormatsTest, FourGaussiansFollowTheTable) {
    for (const char* symbol : {"H", "C", "N", "O", "Al", "Si", "Ca", "Fe", "Zr", "Cs", "Au", "U"}) {
        const auto f = vrk::electronScatteringFactor(symbol);
        const auto& table = gemmi::C4322<double>::get(gemmi::find_element(symbol));
        double worst = 0.0;
        for (double s = 0.0; s <= 1.0; s += 0.05) {
            double fitted = f[8];
            for (std::size_t i = 0; i < 4; ++i)
                fitted += f[2 * i] * std::exp(-f[2 * i + 1] * s * s);
            worst = std::max(worst, std::abs(fitted / table.calculate_sf(s * s) - 1.0));
        }
        EXPECT_LT(worst, 0.01) << symbol;
    }
}

TEST_F(ReflectionFormatsTest, GemmiReadsMtzBack) {
    addAmplitudes();
    vrk::writeMtz(m_set, m_folder / "x.mtz");
    const gemmi::Mtz mtz = gemmi::read_mtz_file(m_folder / "x.mtz");
    EXPECT_EQ(mtz.spacegroup->xhm(), "C 1");
    EXPECT_NEAR(mtz.cell.c, 12.345678, 1e-4);
    EXPECT_NEAR(mtz.datasets.back().wavelength, 0.025079, 1e-5);
    std::vector<IndexedReflection> found;
    const auto* intensity = mtz.column_with_label("I");
    const auto* sigma = mtz.column_with_label("SIGI");
    const auto* amplitude = mtz.column_with_label("F");
    ASSERT_TRUE(intensity && sigma && amplitude && mtz.column_with_label("SIGF"));
    EXPECT_EQ(amplitude->type, 'F');
    EXPECT_FLOAT_EQ(mtz.data[mtz.columns.size() + amplitude->idx], 21);
    EXPECT_FLOAT_EQ(mtz.data[mtz.columns.size() + amplitude->idx + 1], 0.5);
    for (std::size_t i = 0; i < mtz.data.size(); i += mtz.columns.size()) {
        const auto hkl = mtz.get_hkl(i);
        found.push_back({hkl[0], hkl[1], hkl[2], mtz.data[i + intensity->idx], mtz.data[i + sigma->idx]});
    }
    expectSame(found, m_set.reflections, 1.0, 1e-3);
}

TEST_F(ReflectionFormatsTest, GemmiReadsCifBack) {
    addAmplitudes();
    vrk::writeCif(m_set, m_folder / "x.cif");
    gemmi::cif::Document document = gemmi::cif::read_file(m_folder / "x.cif");
    const gemmi::ReflnBlock block = gemmi::hkl_cif_as_refln_block(document.sole_block());
    ASSERT_TRUE(block.refln_loop && block.spacegroup);
    EXPECT_EQ(block.spacegroup->xhm(), "C 1");
    EXPECT_NEAR(block.cell.a, 7.1234, 1e-9);
    ASSERT_TRUE(block.block.find_value("_cell_length_a"));
    EXPECT_EQ(*block.block.find_value("_cell_length_a"), "7.1234(12)");
    std::vector<IndexedReflection> found;
    for (std::size_t row = 0; row < block.refln_loop->length(); ++row) {
        const auto number = [&](std::size_t column) {
            return gemmi::cif::as_number(block.refln_loop->val(row, column));
        };
        found.push_back({static_cast<int>(number(0)), static_cast<int>(number(1)),
                         static_cast<int>(number(2)), number(3), number(4)});
    }
    ASSERT_EQ(block.refln_loop->tags.back(), "_refln_F_sigma");
    EXPECT_EQ(block.refln_loop->val(1, 5), "21");
    EXPECT_EQ(block.refln_loop->val(1, 6), "0.5");
    expectSame(found, m_set.reflections, 1.0, 1e-3);
}

TEST_F(ReflectionFormatsTest, CollectsIndexedReflections) {
    ReflexVectorPtr list(new ReflexVector);
    const auto add = [&](int h, int k, int l, double intensity) {
        list->push_back(new Reflex(0, 0, 0));
        list->back()->setHKL(h, k, l);
        list->back()->setIntensity(intensity);
    };
    add(1, 1, 0, 40.0);
    add(Reflex::kNotIndexed, 0, 0, 5.0);
    add(0, 0, 0, 1e6);
    add(-1, 2, 3, 9.0);
    add(1, 1, 0, 60.0);  // the other piece of a spot that broke up
    list->push_back(nullptr);
    EXPECT_EQ(vrk::indexedReflections(*list),
              (std::vector<IndexedReflection>{{-1, 2, 3, 9.0, 3.0}, {1, 1, 0, 100.0, 10.0}}));
    // The columns of the matrix are the new axes: (h k l) M.
    const int toConventional[3][3] = {{0, 1, 1}, {1, 0, 1}, {1, 1, 0}};
    EXPECT_EQ(vrk::indexedReflections(*list, toConventional),
              (std::vector<IndexedReflection>{{1, 1, 2, 100.0, 10.0}, {5, 2, 1, 9.0, 3.0}}));
}

TEST_F(ReflectionFormatsTest, RefusesWhatDoesNotFit) {
    for (const char* wrong : {"Xx2", "C2 h3", "  ", "C0"})
        EXPECT_THROW(vrk::parseFormula(wrong), vrk::Failure) << wrong;
    EXPECT_EQ(vrk::parseFormula("CaCO3"),
              (std::vector<std::pair<std::string, double>>{{"Ca", 1}, {"C", 1}, {"O", 3}}));
    m_set.reflections.push_back({10000, 0, 0, 1.0, 1.0});
    EXPECT_THROW(vrk::writeShelx(m_set, m_folder / "x.hkl"), vrk::Failure);
    EXPECT_THROW(vrk::writeMtz(m_set, m_folder / "none/x.mtz"), vrk::Failure);
    EXPECT_THROW(vrk::writeCif(m_set, "/dev/full"), vrk::Failure);
}

}  // namespace
