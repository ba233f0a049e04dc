#include "pipeline/latticesearch/EquivalentAxes.h"

#include "crystallography/SpaceMath.h"
#include "support/Testing.h"

namespace {

using Six = std::array<double, 6>;

Six numbersOf(const CellParameters& p) {
    return {p.a, p.b, p.c, p.alpha, p.beta, p.gamma};
}

/// A primitive base of a centred cell whose numbers have small errors.
UnitCell primitiveCell(const Six& cell, char centring, std::mt19937& random) {
    std::normal_distribution<double> error(0.0, 1e-4);
    const SpaceDimensions numbers = {cell[0] + error(random),        cell[1] + error(random),
                                     cell[2] + error(random),        cell[3] + 10.0 * error(random),
                                     cell[4] + 10.0 * error(random), cell[5] + 10.0 * error(random)};
    double base[3][3];
    EXPECT_TRUE(SpaceMath::BaseVectors(numbers, base));
    UnitCell result(base[0], base[1], base[2], 1.0, true, true, LATTICE::aP);
    const double body[3][3] = {{-0.5, 0.5, 0.5}, {0.5, -0.5, 0.5}, {0.5, 0.5, -0.5}};
    const double side[3][3] = {{0.5, 0.5, 0}, {-0.5, 0.5, 0}, {0, 0, 1}};
    const double rhombohedral[3][3] = {
        {2.0 / 3, -1.0 / 3, -1.0 / 3}, {1.0 / 3, 1.0 / 3, -2.0 / 3}, {1.0 / 3, 1.0 / 3, 1.0 / 3}};
    if (centring == 'I') result.transform(body);
    if (centring == 'C') result.transform(side);
    if (centring == 'R') result.transform(rhombohedral);
    return result;
}

TEST(EquivalentAxes, DoNotDependOnNoise) {
    const struct {
        Six cell;
        char centring;
        LATTICE::BravaisTypes type;
    } cases[] = {
        {{12, 12, 12, 90, 90, 90}, 'I', LATTICE::cI}, {{8, 8, 11, 90, 90, 90}, 'P', LATTICE::tP},
        {{7, 7, 13, 90, 90, 120}, 'P', LATTICE::hP},  {{7, 7, 20, 90, 90, 120}, 'R', LATTICE::hR},
        {{7, 8, 11, 90, 90, 90}, 'P', LATTICE::oP},   {{7, 9, 11, 90, 90, 90}, 'C', LATTICE::oC},
        {{7, 9, 11, 90, 101, 90}, 'P', LATTICE::mP},  {{5.2, 6.1, 4.6, 90, 105, 90}, 'C', LATTICE::mC}};
    for (const auto& one : cases) {
        SCOPED_TRACE(LATTICE::shortName(one.type));
        std::mt19937 random(3);
        std::set<std::vector<int>> found;
        std::size_t others = 0;
        for (int n = 0; n < 40; ++n) {
            const UnitCell cell = primitiveCell(one.cell, one.centring, random);
            const UnitCell* analysed = &cell;
            const std::unique_ptr<UnitCell> reciprocal(UnitCell(cell).getReciprocalCell());
            if (n % 2 == 1) analysed = reciprocal.get();
            LatticeCharacter character = LatticeSymmetry::analyse(*analysed).front();
            ASSERT_EQ(character.bravaisType, one.type);
            const Six before = numbersOf(character.symmetrised);
            vrk::settleAxes(character, *analysed);
            found.insert({&character.toConventional[0][0], &character.toConventional[0][0] + 9});
            // Still a conventional cell of that type.
            for (std::size_t i = 0; i < 6; ++i)
                EXPECT_NEAR(numbersOf(character.measured)[i], before[i], i < 3 ? 0.002 : 0.02) << i;
            UnitCell conventional(cell);
            conventional.transform(character.toConventional);
            EXPECT_NEAR(conventional.getLengthOfA(), character.measured.a, 1e-9);
            EXPECT_NEAR(conventional.getGamma(), character.measured.gamma, 1e-7);
            EXPECT_TRUE(conventional.isRightHanded());
            for (const LatticeCharacter& lower : LatticeSymmetry::analyse(*analysed))
                for (const LatticeCharacter& other : vrk::otherAxes(lower, character, *analysed)) {
                    EXPECT_LT(other.lengthMisfit, 0.001);
                    EXPECT_LT(other.qualityIndex, 0.02);
                    ++others;
                }
        }
        EXPECT_EQ(found.size(), 1U);
        EXPECT_GE(others, 40U);
    }
}

}  // namespace
