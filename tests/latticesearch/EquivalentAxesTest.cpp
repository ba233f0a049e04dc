#include "pipeline/latticesearch/EquivalentAxes.h"

#include "crystallography/RandomLattice.h"
#include "support/Testing.h"

namespace {

using Six = std::array<double, 6>;

Six numbersOf(const CellParameters& p) {
    return {p.a, p.b, p.c, p.alpha, p.beta, p.gamma};
}

/// A primitive base of a cell whose numbers have small errors.
UnitCell primitiveCell(const Six& cell, LATTICE::BravaisTypes type, testing_support::RandomLattice& random) {
    UnitCell result =
        testing_support::cellOf({cell[0], cell[1], cell[2], cell[3], cell[4], cell[5]}, type, false);
    result.transformIntoPrimitivCell();
    return random.disturbed(result, 1e-5, 1e-3);
}

TEST(EquivalentAxes, DoNotDependOnNoise) {
    const std::pair<Six, LATTICE::BravaisTypes> cases[] = {
        {{12, 12, 12, 90, 90, 90}, LATTICE::cI}, {{8, 8, 11, 90, 90, 90}, LATTICE::tP},
        {{7, 7, 13, 90, 90, 120}, LATTICE::hP},  {{7, 7, 20, 90, 90, 120}, LATTICE::hR},
        {{7, 8, 11, 90, 90, 90}, LATTICE::oP},   {{7, 9, 11, 90, 90, 90}, LATTICE::oC},
        {{7, 9, 11, 90, 101, 90}, LATTICE::mP},  {{5.2, 6.1, 4.6, 90, 105, 90}, LATTICE::mC}};
    for (const auto& [numbers, type] : cases) {
        SCOPED_TRACE(LATTICE::shortName(type));
        testing_support::RandomLattice random(3);
        std::set<std::vector<int>> found;
        std::size_t others = 0;
        for (int n = 0; n < 40; ++n) {
            const UnitCell cell = primitiveCell(numbers, type, random);
            const UnitCell* analysed = &cell;
            const std::unique_ptr<UnitCell> reciprocal(UnitCell(cell).getReciprocalCell());
            if (n % 2 == 1) analysed = reciprocal.get();
            LatticeCharacter character = LatticeSymmetry::analyse(*analysed).front();
            ASSERT_EQ(character.bravaisType, type);
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
