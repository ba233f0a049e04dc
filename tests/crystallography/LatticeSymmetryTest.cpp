#include "crystallography/LatticeSymmetry.h"

#include "RandomLattice.h"
#include "crystallography/UnitCellTest.h"
#include "crystallography/detail/Centring.h"
#include "crystallography/detail/LatticeMetric.h"
#include "support/Testing.h"

namespace {

using namespace testing_support;
using namespace VRK::detail;

using Whole = Eigen::Map<const Eigen::Matrix<int, 3, 3, Eigen::RowMajor>>;

long determinantOf(const int (&m)[3][3]) {
    return std::lround(Whole(m[0]).cast<double>().determinant());
}

/// True when every lattice point of the conventional cell is a lattice point of the primitive base and the
/// cell holds as many as its centring says.
bool isSameLattice(const LatticeCharacter& lattice) {
    const auto& centring = centringOf(lattice.bravaisType);
    if (determinantOf(lattice.toConventional) != centring.multiplicity) return false;
    const Eigen::Matrix3i points = Whole(lattice.toConventional[0]) * Whole(centring.toPrimitive[0]);
    return points.unaryExpr([&](int entry) { return entry % centring.denominator; }).isZero();
}

void expectStandardSetting(const LatticeCharacter& lattice) {
    const CellParameters& p = lattice.measured;
    using enum LATTICE::BravaisTypes;
    const auto isNoneOf = [&](auto... types) { return !isOneOf(lattice.bravaisType, types...); };
    EXPECT_TRUE(isNoneOf(oP, oI, oF) || p.b <= p.c * 1.000001);
    EXPECT_TRUE(isNoneOf(oP, oI, oF, oC) || p.a <= p.b * 1.000001);
    EXPECT_TRUE(isNoneOf(mP) || p.a <= p.c * 1.000001);
    EXPECT_TRUE(isNoneOf(mP, mC) || p.beta >= 89.999999);
    // The shortest a and c; a centred a changes by twice c.
    const double product = -p.a * p.c * std::cos(BasicMath::ConvertAngleFromDegreeToRadian(p.beta));
    EXPECT_TRUE(isNoneOf(mP, mC) || product <= 0.500001 * p.a * p.a);
    EXPECT_TRUE(isNoneOf(mC) || product <= 1.000001 * p.c * p.c);
}

TEST(LatticeSymmetryTest, TableHoldsSoundRows) {
    std::set<int> numbers;
    for (const auto& row : kLatticeCharacters) {
        numbers.insert(row.number);
        const auto type = LatticeSymmetry::getBravaisType(row.number);
        EXPECT_EQ(type, row.bravais);
        EXPECT_EQ(LatticeSymmetry::getCentring(row.number), centringOf(type).letter);
        int M[3][3];
        ASSERT_TRUE(LatticeSymmetry::getTransformation(row.number, M));
        EXPECT_EQ(determinantOf(M), centringOf(type).multiplicity) << row.number;
    }
    EXPECT_EQ(numbers.size(), 44U);
    EXPECT_EQ(*numbers.begin(), 1);
    EXPECT_EQ(*numbers.rbegin(), 44);
}

TEST(LatticeSymmetryTest, RejectsOtherCharacters) {
    RecordingLogObserver log;
    int M[3][3];
    for (const int character : {0, 45, -1}) {
        EXPECT_EQ(LatticeSymmetry::getBravaisType(character), LATTICE::NoBravaisType);
        EXPECT_FALSE(LatticeSymmetry::getTransformation(character, M));
    }
    ASSERT_EQ(log.messages.size(), 6U);
    for (const auto& entry : log.messages)
        EXPECT_EQ(entry.text, "Cell type has to be between 1 and 44");
}

bool isReducedFormOf(const CharacterRow& row, const Metric& m) {
    const bool isFormI = std::min({m.D, m.E, m.F}) > 1e-9 * m.C;
    return (row.form == Form::I) == isFormI && meets(row, m, 1e-9) &&
           (row.sum != SumCondition::Dagger || std::abs(std::abs(2.0 * m.D + m.F) - m.B) < 1e-9 * m.C);
}

/// A cell in its Niggli-reduced base that meets the conditions of a row and of no row of a higher symmetry.
UnitCell reducedCellOf(RandomLattice& random, const CharacterRow& row) {
    for (;;) {
        UnitCell cell = random.conventional(row.bravais);
        double conventional[3][3];
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 3; ++j)
                conventional[i][j] = row.toConventional[j][i];
        double back[3][3];
        EXPECT_TRUE(BasicMath::Invert(conventional, back));
        cell.transform(back);
        const Metric m = {cell.getA(), cell.getB(), cell.getC(), cell.getD(), cell.getE(), cell.getF()};
        if (isReducedFormOf(row, m) &&
            UnitCellTest::isNiggliCell(m.A, m.B, m.C, 2.0 * m.D, 2.0 * m.E, 2.0 * m.F, 1e-9 * m.C) &&
            std::none_of(kLatticeCharacters.begin(), kLatticeCharacters.end(),
                         [&](const CharacterRow& other) {
                             return symmetryOrder(other.bravais) > symmetryOrder(row.bravais) &&
                                    isReducedFormOf(other, m);
                         }))
            return cell;
    }
}

TEST(LatticeSymmetryTest, NamesTheCharacterOfTheReducedForm) {
    RandomLattice random(25);
    int right = 0;
    constexpr LatticeTolerances tight = {0.001, 1e-5};
    for (const CharacterRow& row : kLatticeCharacters)
        for (int n = 0; n < 20; ++n) {
            UnitCell cell = reducedCellOf(random, row);
            const double error = n % 2 == 0 ? 0.0 : 0.01;
            cell = random.disturbed(cell, 0.01 * error, error);
            cell.transform(raw(random.unimodular(6)));
            const LatticeTolerances tolerances = error == 0.0 ? tight : LatticeTolerances{};
            const auto all = LatticeSymmetry::analyse(cell, tolerances);
            if (error == 0.0) {
                EXPECT_EQ(all.front().number, row.number);
                EXPECT_LT(all.front().qualityIndex, 1e-4);
                right += row.bravais == LATTICE::aP || LatticeSymmetry::best(cell).bravaisType == row.bravais;
            }
            EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const LatticeCharacter& one) {
                const double misfit = std::max(one.qualityIndex, 100.0 * one.lengthMisfit);
                return one.number == row.number && misfit < 3.0 * error + 1e-6;
            })) << row.number;
        }
    EXPECT_GE(right, 44 * 10 * 99 / 100);
}

TEST(LatticeSymmetryTest, PrefersTheExactFit) {
    const auto character = [](LATTICE::BravaisTypes type, double angle, double length = 0.0) {
        LatticeCharacter out;
        out.bravaisType = type;
        out.qualityIndex = angle;
        out.lengthMisfit = length;
        return out;
    };
    using Case = std::tuple<const char*, std::vector<LatticeCharacter>, double, std::size_t>;
    const Case cases[] = {
        {"not ten times better", {character(LATTICE::oP, 1.0), character(LATTICE::mP, 0.11)}, 0.0, 0},
        {"ten times better", {character(LATTICE::oP, 1.0), character(LATTICE::mP, 0.09)}, 0.0, 1},
        {"by its edges", {character(LATTICE::tP, 0.0, 0.01), character(LATTICE::oP, 0.0)}, 0.0, 1},
        {"within the smallest misfit", {character(LATTICE::oP, 0.05), character(LATTICE::mP, 0.0)}, 0.0, 0},
        {"within the uncertainty", {character(LATTICE::oP, 0.5), character(LATTICE::mP, 0.0)}, 0.1, 0},
        {"beyond the uncertainty", {character(LATTICE::oP, 0.7), character(LATTICE::mP, 0.0)}, 0.1, 1},
        {"triclinic ties nothing", {character(LATTICE::mP, 1.0), character(LATTICE::aP, 0.0)}, 0.0, 0},
        {"no further than ten times better asks",
         {character(LATTICE::tP, 1.5), character(LATTICE::oP, 0.5), character(LATTICE::mP, 0.1),
          character(LATTICE::mP, 0.02)},
         0.0,
         2},
        {"none", {}, 0.0, 0},
    };
    for (auto [name, characters, sigma, answer] : cases) {
        const auto before = characters;
        LatticeSymmetry::preferExactFit(characters, sigma);
        ASSERT_EQ(characters.size(), before.size());
        for (std::size_t i = 0; i < before.size(); ++i) {
            const std::size_t from = i == 0 ? answer : i <= answer ? i - 1 : i;
            EXPECT_EQ(characters[i].qualityIndex, before[from].qualityIndex) << name;
        }
    }
}

TEST(LatticeSymmetryTest, FindsTheTypeInSpiteOfNoise) {
    RandomLattice random(22);
    for (const auto type : kAllBravaisTypes) {
        int right = 0;
        constexpr int draws = 200;
        for (int n = 0; n < draws;) {
            UnitCell cell = random.primitive(type);
            // A lattice within twice the tolerances of a higher symmetry may become the higher one.
            if (LatticeSymmetry::analyse(cell, {4.0, 0.06}).front().bravaisType != type) continue;
            ++n;
            int reduced[3][3];
            std::memcpy(reduced, LatticeSymmetry::analyse(cell, {0.0, 0.0}).back().toConventional,
                        sizeof reduced);
            cell.transform(reduced);
            cell = random.disturbed(cell, 0.005, 0.5);
            cell.transform(raw(random.unimodular(6)));
            const auto lattices = LatticeSymmetry::analyse(cell);
            ASSERT_FALSE(lattices.empty());
            right += lattices.front().bravaisType == type;
            EXPECT_EQ(lattices.back().bravaisType, LATTICE::aP);
            UnitCell triclinic(cell);
            triclinic.transform(lattices.back().toConventional);
            EXPECT_TRUE(UnitCellTest::isNiggliCell(&triclinic));
            EXPECT_EQ(lattices.back().number, triclinic.getType() == 1 ? 31 : 44);
            for (const LatticeCharacter& lattice : lattices) {
                EXPECT_TRUE(isSameLattice(lattice)) << LATTICE::shortName(type) << " as " << lattice.number;
                EXPECT_LE(lattice.qualityIndex, 2.0 + 1e-5);
                EXPECT_LE(lattice.lengthMisfit, 0.03 + 1e-7);
                expectStandardSetting(lattice);
                UnitCell conventional(cell);
                conventional.transform(lattice.toConventional);
                EXPECT_NEAR(conventional.getLengthOfC(), lattice.measured.c, 1e-8 * lattice.measured.c);
                EXPECT_NEAR(conventional.getBeta(), lattice.measured.beta, 1e-6);
            }
        }
        EXPECT_GE(right, draws * 99 / 100) << LATTICE::shortName(type);
    }
}

TEST(LatticeSymmetryTest, FollowsTheTolerances) {
    // Garnet through a distorting lens: the angles of the primitive cell are off by up to 1.4 degrees.
    const UnitCell garnet = cellOf({10.41, 10.45, 10.38, 109.4 + 1.4, 109.5 - 1.2, 109.6});
    EXPECT_EQ(LatticeSymmetry::best(garnet).bravaisType, LATTICE::cI);
    EXPECT_EQ(LatticeSymmetry::best(garnet, {0.05, 0.0005}).bravaisType, LATTICE::aP);
    const auto all = LatticeSymmetry::analyse(garnet);
    EXPECT_GT(all.size(), 5U);
    EXPECT_NEAR(all.front().symmetrised.a, 12.02, 0.05);

    // Of three directions for the unique axis the one that fits best.
    const auto nearlyRight = LatticeSymmetry::analyse(cellOf({7.0, 9.0, 12.0, 91.5, 90.2, 90.1}));
    ASSERT_GE(nearlyRight.size(), 2U);
    EXPECT_EQ(nearlyRight[1].bravaisType, LATTICE::mP);
    EXPECT_NEAR(nearlyRight[1].qualityIndex, 0.2, 1e-6);
    EXPECT_EQ(nearlyRight[1].number, 35);

    const double a[3] = {1, 0, 0}, b[3] = {0, 1, 0}, c[3] = {1, 1, 1e-8};
    EXPECT_TRUE(LatticeSymmetry::analyse(UnitCell(a, b, c, 1.0, true, true, LATTICE::aP)).empty());
    for (const double scale : {1e-300, 1e-60, 1e60, 1e300})
        EXPECT_TRUE(LatticeSymmetry::analyse(cellOf({scale, scale, scale, 90, 90, 90})).empty());
    for (const double scale : {1e-49, 1e49})
        EXPECT_EQ(LatticeSymmetry::best(cellOf({scale, scale, scale, 60, 60, 60})).bravaisType, LATTICE::cF);
}

TEST(LatticeSymmetryTest, ConventionalAndBackIsTheSameLatticeDirectAndReciprocal) {
    RandomLattice random(23);
    for (int n = 0; n < 140; ++n) {
        UnitCell direct = random.primitive(kAllBravaisTypes[static_cast<std::size_t>(n) % 14]);
        direct.setPixelsize(5e7);
        direct.setCellCase(26);
        direct.setQualityIndex(0.5);
        UnitCell reciprocal = *std::unique_ptr<UnitCell>(direct.getReciprocalCell());
        EXPECT_FALSE(reciprocal.isRealCell());
        EXPECT_EQ(std::pair(reciprocal.getCellCase(), reciprocal.getQualityIndex()), std::pair(26, 0.5));
        const auto one = LatticeSymmetry::best(direct), other = LatticeSymmetry::best(reciprocal);
        EXPECT_EQ(one.bravaisType, other.bravaisType);
        EXPECT_NEAR(one.symmetrised.a, other.symmetrised.a, 1e-6);
        for (UnitCell* cell : {&direct, &reciprocal}) {
            const Eigen::Matrix3d before = baseOf(*cell);
            cell->determineBravaisType();
            cell->transformIntoConventionalCell();
            const bool isReal = cell->isRealCell();
            EXPECT_EQ(cell->getBravaisType(),
                      isReal ? one.bravaisType : LATTICE::reciprocalType(one.bravaisType));
            const std::unique_ptr<UnitCell> back(cell->getReciprocalCell());
            EXPECT_NEAR((isReal ? *cell : *back).getLengthOfB(), other.measured.b, 1e-6);
            const double quality = cell->getQualityIndex();
            EXPECT_GE(quality, 0.0);
            EXPECT_EQ(cell->isPrimitiv(), centringOf(cell->getBravaisType()).multiplicity == 1);
            cell->transformIntoPrimitivCell();
            EXPECT_EQ(cell->getQualityIndex(), quality);
            EXPECT_TRUE(cell->isPrimitiv());
            const Eigen::Matrix3d change = before.inverse() * baseOf(*cell);
            EXPECT_LT(fractionOf(change), 1e-7);
            EXPECT_NEAR(change.determinant(), 1.0, 1e-7);
        }
    }
    EXPECT_EQ(LATTICE::reciprocalType(LATTICE::oF), LATTICE::oI);
}

}  // namespace
