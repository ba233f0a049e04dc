#include "crystallography/NiggliReduction.h"

#include "RandomLattice.h"
#include "crystallography/UnitCellTest.h"
#include "support/Testing.h"

namespace {

using namespace testing_support;

using Six = std::array<double, 6>;

Six sixOf(const UnitCell& cell) {
    return {cell.getA(), cell.getB(), cell.getC(), 2.0 * cell.getD(), 2.0 * cell.getE(), 2.0 * cell.getF()};
}

UnitCell cellOfMetric(const Six& s) {
    const double a = std::sqrt(s[0]), b = std::sqrt(s[1]), c = std::sqrt(s[2]);
    const auto angle = [](double cosine) {
        return BasicMath::ConvertAngleFromRadianToDegree(std::acos(cosine));
    };
    return cellOf(
        {a, b, c, angle(s[3] / (2.0 * b * c)), angle(s[4] / (2.0 * a * c)), angle(s[5] / (2.0 * a * b))});
}

/// The steps A1 to A8, written down plainly, for at most a number of passes.
class PlainSteps {
public:
    explicit PlainSteps(const UnitCell& cell) : s(sixOf(cell)) {}

    /// The values and the matrix when the steps end by themselves.
    std::optional<std::pair<Six, Eigen::Matrix3i>> run(int mostPasses) {
        for (int i = 0; i < mostPasses; ++i)
            if (!pass()) return std::make_pair(s, T);
        return std::nullopt;
    }

    /// What is said about the values from the first pass to the verdict.
    std::string narration() {
        const bool isNiggli = UnitCellTest::isNiggliCell(s[0], s[1], s[2], s[3], s[4], s[5], e);
        m_text << "Niggli reduction beendet\n";
        writeValues();
        m_text << (isNiggli ? "Ja ist Niggli-Zelle\n" : "Nein ist leider keine Niggli-Zelle\n");
        return m_text.str();
    }

private:
    bool eq(double x, double y) const { return !(x < y - e || y < x - e); }
    bool lt(double x, double y) const { return x < y - e; }
    bool gt(double x, double y) const { return y < x - e; }

    bool pass() {
        auto& [A, B, C, x, y, z] = s;
        narrate();
        if (gt(A, B) || (eq(A, B) && gt(std::abs(x), std::abs(y)))) {
            T *= Eigen::Matrix3i{{0, -1, 0}, {-1, 0, 0}, {0, 0, -1}};
            std::swap(A, B);
            std::swap(x, y);
            return true;
        }
        if (gt(B, C) || (eq(B, C) && gt(std::abs(y), std::abs(z)))) {
            T *= Eigen::Matrix3i{{-1, 0, 0}, {0, 0, -1}, {0, -1, 0}};
            std::swap(B, C);
            std::swap(y, z);
            return true;
        }
        settleSigns();
        narrate();
        if (gt(std::abs(x), B) || (eq(x, B) && lt(2 * y, z)) || (eq(x, -B) && lt(z, 0)))
            return shorten(C, B, x, y, z, 1, 2);
        if (gt(std::abs(y), A) || (eq(z, A) && lt(2 * x, z)) || (eq(y, -A) && lt(z, 0)))
            return shorten(C, A, y, x, z, 0, 2);
        if (gt(std::abs(z), A) || (eq(z, A) && lt(2 * x, y)) || (eq(z, -A) && lt(y, 0)))
            return shorten(B, A, z, x, y, 0, 1);
        const double sum = x + y + z + A + B;
        if (!lt(sum, 0) && !(eq(sum, 0) && gt(2 * A + 2 * y + z, 0))) return false;
        T *= Eigen::Matrix3i{{1, 0, 1}, {0, 1, 1}, {0, 0, 1}};
        C = A + B + C + x + y + z;
        x = 2 * B + x + z;
        y = 2 * A + y + z;
        return true;
    }

    /// Shortens a vector by another one, whose square is `by`: `product` is that of the two, `other` that of
    /// the first and the third vector, `third` that of the other two.
    bool shorten(double& square, double by, double& product, double& other, double third, int row,
                 int column) {
        const int g = product > 0.0 ? 1 : -1;
        Eigen::Matrix3i m = Eigen::Matrix3i::Identity();
        m(row, column) = -g;
        T *= m;
        square = by + square - g * product;
        other -= g * third;
        product -= g * 2 * by;
        return true;
    }

    void settleSigns() {
        int positive = 0, zero = 0, last = -1;
        std::array<int, 3> sign = {1, 1, 1};
        for (int i = 0; i < 3; ++i) {
            const double v = s[static_cast<std::size_t>(i) + 3];
            if (v > e) ++positive;
            if (std::abs(v) <= e) {
                ++zero;
                last = i;
            }
        }
        const bool allPositive = positive == 3 || (positive == 1 && zero == 0);
        for (std::size_t i = 0; i < 3; ++i) {
            double& v = s[i + 3];
            if (allPositive ? v < -e : v > e) sign[i] = -1;
            v = allPositive ? std::abs(v) : -std::abs(v);
        }
        if (!allPositive && sign[0] * sign[1] * sign[2] < 0 && last >= 0)
            sign[static_cast<std::size_t>(last)] = -1;
        T *= Eigen::Vector3i(sign.data()).asDiagonal();
    }

    void narrate() {
        if (UnitCellTest::isBurgerCell(s[0], s[1], s[2], s[3], s[4], s[5], e)) m_text << "Burger-Zelle:\n";
        writeValues();
    }

    void writeValues() {
        for (std::size_t i = 0; i < 6; ++i)
            m_text << s[i] << (i < 5 ? "  " : "\n");
    }

    Six s;
    std::ostringstream m_text;
    Eigen::Matrix3i T = Eigen::Matrix3i::Identity();
    static constexpr double e = 1e-5;
};

/// The integer matrix that leads from one base to another of the same lattice.
Eigen::Matrix3i matrixBetween(const UnitCell& from, const UnitCell& to) {
    const Eigen::Matrix3d product = baseOf(from).inverse() * baseOf(to);
    EXPECT_LT(fractionOf(product), 1e-6);
    return product.array().round().cast<int>();
}

/// That one base leads to another of the same lattice and handedness.
void expectSameDeterminant(const UnitCell& from, const UnitCell& to) {
    EXPECT_NEAR(to.getDeterminant(), from.getDeterminant(), 1e-9 * std::abs(from.getDeterminant()));
}

void expectNear(const Six& actual, const Six& expected, double tolerance) {
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(actual[i], expected[i], tolerance) << "value " << i;
}

/// One element of the lattice type set in a random base, disturbed in every third case.
UnitCell randomInput(RandomLattice& random, int n) {
    UnitCell cell = random.primitive(kAllBravaisTypes[static_cast<std::size_t>(n) % kAllBravaisTypes.size()]);
    if (n % 3 == 0) cell = random.disturbed(cell, 0.005, 0.5);
    cell.transform(raw(random.unimodular(n % 8)));
    return cell;
}

class NiggliReductionTest : public ::testing::Test {
protected:
    NiggliReductionTest() { NiggliReduction::setNarration(&m_narration); }
    ~NiggliReductionTest() override { NiggliReduction::setNarration(&std::cout); }

    std::ostringstream m_narration;
};

TEST_F(NiggliReductionTest, PublishedExamples) {
    using Case = std::pair<Six, Six>;
    const Case cases[] = {
        {{9, 27, 4, -5, -4, -22}, {4, 9, 9, 9, 3, 4}},   // Krivy & Gruber (1976)
        {{4, 16, 16, 16, 3, 4}, {4, 16, 16, 16, 3, 4}},  // Gruber (1973): Buerger cells of one lattice
        {{4, 16, 16, 16, 1, 4}, {4, 16, 16, 16, 3, 4}},    {{4, 16, 16, -15, -1, -4}, {4, 16, 16, 16, 3, 4}},
        {{4, 16, 16, -13, -3, -4}, {4, 16, 16, 16, 3, 4}},
    };
    for (const auto& [input, reduced] : cases) {
        UnitCell cell = cellOfMetric(input);
        EXPECT_TRUE(NiggliReduction::niggliReduction(&cell, 0));
        expectNear(sixOf(cell), reduced, 1e-6);
        EXPECT_TRUE(UnitCellTest::isNiggliCell(&cell));
    }
}

/// A cell with several of its values within a few tolerances of where the steps decide: round edges and right
/// or special angles, each value moved a little, in a random base.
UnitCell nearTolerance(RandomLattice& random, int n) {
    constexpr double edges[] = {3.0, 4.0, 4.0, 5.0, 5.0, 7.0};
    Six s;
    for (std::size_t i = 0; i < 3; ++i) {
        const double edge = edges[random.integer(0, 5)];
        s[i] = edge * edge;
    }
    const double limits[3] = {std::min(s[1], s[2]), std::min(s[0], s[2]), std::min(s[0], s[1])};
    constexpr double fractions[] = {0.0, 0.0, 0.0, 0.0, 1.0, -1.0, 0.5, -2.0 / 3.0};
    do
        for (std::size_t i = 0; i < 3; ++i)
            s[i + 3] = limits[i] * fractions[random.integer(0, 7)];
    while (cellOfMetric(s).isDegenerate());
    for (double& value : s)
        if (random.integer(0, 2) > 0) value += 1e-5 * random.uniform(-3.0, 3.0);
    UnitCell cell = cellOfMetric(s);
    cell.transform(raw(random.unimodular(n % 7)));
    return cell;
}

TEST_F(NiggliReductionTest, FollowsTheStatedStepsWhereTheyEnd) {
    RandomLattice random(14);
    int ended = 0;
    constexpr int count = 12'800;
    for (int n = 0; n < count; ++n) {
        const UnitCell input = n < 2800 ? randomInput(random, n) : nearTolerance(random, n);
        UnitCell cell(input);
        m_narration.str("");
        NiggliReduction::niggliReduction(&cell, 0);
        const Eigen::Matrix3i T = matrixBetween(input, cell);
        expectSameDeterminant(input, cell);
        PlainSteps plain(input);
        const auto result = plain.run(1000);
        if (!result) continue;
        ++ended;
        ASSERT_EQ(T, result->second) << "draw " << n;
        if (n < 2800) expectNear(sixOf(cell), result->first, 1e-7);
        const std::string text = m_narration.str();
        const std::size_t begin = text.find("gestartet\n") + 10;
        ASSERT_EQ(text.substr(begin, text.find("Matrix") - begin), plain.narration()) << "draw " << n;
    }
    EXPECT_GT(ended, count * 9 / 10);
}

TEST_F(NiggliReductionTest, LeavesCircles) {
    // Reduced already, and the steps would come back to it for ever.
    UnitCell reduced = cellOfMetric(Six{4, 9, 16, 1, 1, 4});
    ASSERT_FALSE(PlainSteps(reduced).run(1000));
    const UnitCell before(reduced);
    NiggliReduction::niggliReduction(&reduced, 0);
    expectNear(sixOf(reduced), sixOf(before), 1e-9);
    EXPECT_TRUE(UnitCellTest::isNiggliCell(&reduced));
    EXPECT_NE(m_narration.str().find("Ja ist Niggli-Zelle"), std::string::npos);

    RandomLattice random(13);
    int circles = 0;
    for (int n = 0; n < 1200; ++n) {
        UnitCell cell = random.primitive(LATTICE::mC);
        cell.transform(raw(random.unimodular(4)));
        if (PlainSteps(cell).run(1000)) continue;
        ++circles;
        const UnitCell input(cell);
        NiggliReduction::niggliReduction(&cell, 0);
        EXPECT_TRUE(UnitCellTest::isNiggliCell(&cell));
        matrixBetween(input, cell);
        expectSameDeterminant(input, cell);
    }
    EXPECT_GT(circles, 100);
}

TEST_F(NiggliReductionTest, LeavesTheSortingOfNearlyEqualEdges) {
    // Each pair of neighbours is equal within the tolerance, the first and the last are not.
    UnitCell cell = cellOfMetric(Six{9.0, 9.000008, 9.000016, 4.0, 2.0, 0.5});
    NiggliReduction::niggliReduction(&cell, 0);
    EXPECT_NEAR(cell.getA(), 9.0, 1e-4);
    EXPECT_NEAR(cell.getC(), 9.0, 1e-4);
}

/// How much shorter, relatively, an edge could be: 0 for a reduced cell.
double excessOf(const UnitCell& cell) {
    const Eigen::Matrix3d base = baseOf(cell);
    double excess = 0.0;
    for (int n = 0; n < 125; ++n) {
        const Eigen::Vector3i hkl(n / 25 - 2, n / 5 % 5 - 2, n % 5 - 2);
        const double squared = (base * hkl.cast<double>()).squaredNorm();
        const double edges[3] = {cell.getA(), cell.getB(), cell.getC()};
        for (int i = 0; i < 3; ++i)
            if (std::abs(hkl[i]) == 1) excess = std::max(excess, edges[i] / squared - 1.0);
    }
    return excess;
}

TEST_F(NiggliReductionTest, ReducesThinLattices) {
    NiggliReduction::setNarration(nullptr);
    UnitCell nearlyFlat = cellOf(Parameters{28.569498258037, 39.056075439509, 17.319829675837,
                                            21.282650465091, 82.951500929849, 61.668850544794});
    NiggliReduction::niggliReduction(&nearlyFlat, 0);
    EXPECT_LT(excessOf(nearlyFlat), 1e-5);
    RandomLattice random(15);
    for (int n = 0; n < 2000; ++n) {
        Parameters p = parametersOf(random.primitive(kAllBravaisTypes[static_cast<std::size_t>(n) % 14]));
        p.a = std::pow(10.0, random.uniform(-4.0, -1.7));
        if (n % 3 == 0) p.b = p.a * random.integer(1, 3);
        UnitCell cell = cellOf(p);
        const int far = n % 2 == 0 ? 3 : 3000;
        const int matrix[3][3] = {{1, random.integer(-far, far), random.integer(-far, far)},
                                  {0, 1, random.integer(-far, far)},
                                  {0, 0, 1}};
        cell.transform(matrix);
        cell.transform(raw(random.unimodular(4)));
        const double volume = cell.getExactVolume();
        if (cell.isDegenerate()) continue;
        NiggliReduction::niggliReduction(&cell, 0);
        ASSERT_LT(excessOf(cell), 1e-5) << "draw " << n;
        const Six s = sixOf(cell);
        // Below that the digits of the long edges end.
        const bool isBuerger = UnitCellTest::isBurgerCell(s[0], s[1], s[2], s[3], s[4], s[5], 2e-5 * s[0]);
        ASSERT_TRUE(isBuerger || s[0] < 1e-6) << "draw " << n;
        ASSERT_NEAR(cell.getExactVolume(), volume, 1e-6 * volume);
    }
}

TEST_F(NiggliReductionTest, EndsOnCellsThatSpanNothing) {
    const double nan = std::nan("");
    const double x[3] = {1, 0, 0}, y[3] = {0.3, 1, 0}, flat[3] = {std::sqrt(2.0), 0.1, 0},
                 none[3] = {0, 0, 0}, bad[3] = {nan, 0, 1}, far[3] = {1e300, 1e300, 0};
    NiggliReduction::setNarration(nullptr);
    for (const double* third : {flat, none, bad, far, x}) {
        UnitCell cell(x, y, third, 1.0, true, true, LATTICE::aP);
        EXPECT_TRUE(cell.isDegenerate());
        EXPECT_TRUE(NiggliReduction::niggliReduction(&cell, 0));
    }
    EXPECT_FALSE(NiggliReduction::niggliReduction(nullptr, 0));
}

TEST_F(NiggliReductionTest, Narration) {
    const double a[3] = {3, 0, 0}, b[3] = {0, 2, 0}, c[3] = {0, 0, 4};
    UnitCell cell(a, b, c, 1.0, true, true, LATTICE::aP);
    NiggliReduction::niggliReduction(&cell, 0);
    const std::string text = m_narration.str();
    EXPECT_TRUE(text.starts_with(
        " \n \norientation matrix:\nA_11 = 3  A_12 = 0  A_13 = 0\nA_21 = 0  A_22 = 2  A_23 = 0\n"
        "A_31 = 0  A_32 = 0  A_33 = 4\ncell parameter:\nA = 3  B = 2  C = 4\nAlpha = 90  Beta = 90  Gamma = "
        "90\n"
        "Cell parameter: \na = 3  b = 2  c = 4\nalpha = 90  beta = 90  gamma = 90\nNiggli reduction "
        "gestartet\n"));
    EXPECT_NE(
        text.find(
            "Ja ist Niggli-Zelle\nMatrix: \n0 -1 0\n-1 0 0\n0 0 -1\nNiggli-Cell parameter: \na = 2  b = 3"),
        std::string::npos);
}

}  // namespace
