#include "crystallography/UnitCell.h"

#include "RandomLattice.h"
#include "crystallography/CrystallographyMath.h"
#include "crystallography/RealSpaceMath.h"
#include "crystallography/ReciprocalSpaceMath.h"
#include "crystallography/Space.h"
#include "crystallography/UnitCellTest.h"
#include "support/Testing.h"

namespace {

using namespace testing_support;

TEST(BasicMathTest, InvertUndoesAnySoundMatrix) {
    RandomLattice random(31);
    for (int n = 0; n < 500; ++n) {
        const double scale = std::pow(10.0, random.uniform(-140.0, 140.0));
        double M[3][3], inverse[3][3], product[3][3];
        random.primitive(kAllBravaisTypes[static_cast<std::size_t>(n) % 14]).getOrientationMatrix(M);
        Eigen::Map<Eigen::Matrix3d>(M[0]) *= scale;
        ASSERT_TRUE(BasicMath::Invert(M, inverse));
        BasicMath::MatrixProduct(M, inverse, product);
        EXPECT_TRUE(Eigen::Map<Eigen::Matrix3d>(product[0]).isIdentity(1e-12));
    }
}

TEST(BasicMathTest, InvertSaysWhenThereIsNoInverse) {
    const double inf = std::numeric_limits<double>::infinity();
    const Matrix cases[] = {{{{0, 0, 0}, {0, 1, 0}, {0, 0, 1}}},
                            {{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}},
                            {{{1e-9, 2e-9, 3e-9}, {4, 5, 6}, {7e9, 8e9, 9e9}}},
                            {{{1, 0, 0}, {0, std::nan(""), 0}, {0, 0, 1}}},
                            {{{1, 0, 0}, {0, inf, 0}, {0, 0, 1}}}};
    for (const Matrix& M : cases) {
        double out[3][3] = {{42.0}};
        EXPECT_FALSE(BasicMath::Invert(raw(M), out));
        EXPECT_EQ(out[0][0], 42.0);
    }
}

TEST(BasicMathTest, AnglesOfParallelVectors) {
    const double u[3] = {0.1, 0.7, 0.3}, v[3] = {-0.2, -1.4, -0.6}, none[3] = {0, 0, 0};
    EXPECT_NEAR(BasicMath::CalcAngleBetweenAandB(u, u), 0.0, 1e-7);
    EXPECT_NEAR(BasicMath::CalcAngleBetweenAandB(u, v), std::acos(-1.0), 1e-7);
    EXPECT_TRUE(std::isnan(BasicMath::CalcAngleBetweenAandB(u, none)));
}

TEST(UnitCellClassTest, ParametersAndVolume) {
    RandomLattice random(32);
    for (int n = 0; n < 200; ++n) {
        const Parameters p = {random.uniform(3, 30),   random.uniform(3, 30),   random.uniform(3, 30),
                              random.uniform(75, 105), random.uniform(75, 105), random.uniform(75, 105)};
        const UnitCell cell = cellOf(p);
        for (const auto number : {&Parameters::a, &Parameters::b, &Parameters::c, &Parameters::alpha,
                                  &Parameters::beta, &Parameters::gamma})
            EXPECT_NEAR(parametersOf(cell).*number, p.*number, 1e-9);
        EXPECT_EQ(cell.getVolume(), static_cast<int>(cell.getExactVolume()));

        Space space, dual;
        ASSERT_TRUE(space.setRealDimensions({p.a, p.b, p.c, p.alpha, p.beta, p.gamma}));
        ASSERT_TRUE(dual.setReciprocalDimensions(space.getReciprocalDimensions()));
        EXPECT_NEAR(dual.getRealDimensions().alpha, p.alpha, 1e-8);
        EXPECT_NEAR(space.getRealVolume(), cell.getExactVolume(), 1e-8);
        EXPECT_NEAR(space.getRealVolume() * space.getReciprocalVolume(), 1.0, 1e-12);
        EXPECT_TRUE(space.equal(space));
        EXPECT_FALSE(space.equal(Space()));
        const std::unique_ptr<UnitCell> reciprocal(UnitCell(cell).getReciprocalCell());
        EXPECT_NEAR(space.getReciprocalDimensions().b, reciprocal->getLengthOfB() / 1e10, 1e-12);
        EXPECT_NEAR(space.getReciprocalDimensions().beta, reciprocal->getBeta(), 1e-8);
        const double uvw[3] = {1, -2, 3}, hkl[3] = {2, 1, 1};
        double G[3][3], u[3], h[3], cross[3], a[3], b[3], c[3];
        cell.getBase(a, b, c);
        CrystallographyMath::MetricMatrix(a, b, c, G);
        EXPECT_NEAR(CrystallographyMath::CrystallDot(uvw, uvw, G), RealSpaceMath::Dot(space, uvw, uvw), 1e-8);
        RealSpaceMath::Cartesian(space, uvw, u);
        ReciprocalSpaceMath::Cartesian(space, hkl, h);
        EXPECT_NEAR(BasicMath::Dot(u, h), 3.0, 1e-10);  // h u + k v + l w
        EXPECT_NEAR(ReciprocalSpaceMath::Spacing(space, hkl) * ReciprocalSpaceMath::Length(space, hkl), 1.0,
                    1e-12);
        CrystallographyMath::CrystallCross(uvw, hkl, a, b, c, cross);
        EXPECT_NEAR(BasicMath::Dot(cross, u), 0.0, 1e-7);
    }
    const SpaceDimensions impossible[] = {
        {0, 1, 1, 90, 90, 90}, {1, 1, 1, 30, 30, 90}, {1, 1, 1, 180, 90, 90}};
    for (const auto& dimensions : impossible) {
        Space space;
        EXPECT_FALSE(space.setRealDimensions(dimensions));
        EXPECT_TRUE(space.equal(Space()));
    }
    const double x[3] = {1, 0, 0}, y[3] = {0, 1, 0};
    EXPECT_FALSE(Space().setRealBaseVectors(x, y, x) || Space().setReciprocalBaseVectors(y, y, x));
}

TEST(UnitCellClassTest, VolumeIsTruncatedAndLimited) {
    const double x[3] = {123.9, 0, 0}, y[3] = {0, 1, 0}, z[3] = {0, 0, 1}, far[3] = {0, 0, 1e30};
    EXPECT_EQ(UnitCell(x, y, z, 1.0, true, true, LATTICE::aP).getVolume(), 123);
    EXPECT_EQ(UnitCell(x, y, far, 1.0, true, true, LATTICE::aP).getVolume(), std::numeric_limits<int>::max());
}

TEST(UnitCellClassTest, TransformTakesColumns) {
    RandomLattice random(33);
    UnitCell cell = random.conventional(LATTICE::aP);
    const Eigen::Matrix3d before = baseOf(cell);
    cell.setQualityIndex(1.0);
    const int M[3][3] = {{1, 0, 2}, {3, 1, 0}, {5, 0, 1}};
    cell.transform(M);
    const Eigen::Matrix3d columns = Eigen::Matrix3d{{1, 0, 2}, {3, 1, 0}, {5, 0, 1}};
    EXPECT_LT((baseOf(cell) - before * columns).cwiseAbs().maxCoeff(), 1e-12);
    EXPECT_EQ(cell.getQualityIndex(), -1.0);
}

TEST(UnitCellClassTest, NormalizeOrdersEdgesAndSigns) {
    RandomLattice random(34);
    for (int n = 0; n < 1000; ++n) {
        UnitCell cell = random.primitive(kAllBravaisTypes[static_cast<std::size_t>(n) % 14]);
        cell.transform(raw(random.unimodular(n % 4)));
        const double determinant = cell.getDeterminant();
        cell.normalize();
        const double e = cell.getEps();
        EXPECT_LE(cell.getA(), cell.getB() + e);
        EXPECT_LE(cell.getB(), cell.getC() + e);
        EXPECT_NE(cell.getType(), 0);
        EXPECT_NEAR(cell.getDeterminant(), determinant, 1e-9 * std::abs(determinant));
    }
}

TEST(UnitCellClassTest, GridFollowsTheCentring) {
    for (const auto& [type, points] :
         std::map<LATTICE::BravaisTypes, std::size_t>{{LATTICE::aP, 27},
                                                      {LATTICE::hP, 27},
                                                      {LATTICE::NoBravaisType, 27},
                                                      {LATTICE::cI, 13},
                                                      {LATTICE::oF, 9},
                                                      {LATTICE::mC, 15},
                                                      {LATTICE::hR, 0}}) {
        UnitCell cell;
        cell.setBravaisType(type);
        const int n[3] = {1, 1, 1};
        std::vector<double*> grid = {new double[3]};
        cell.getGrid(n, &grid);
        EXPECT_EQ(grid.size(), points) << LATTICE::shortName(type);
        if (type == LATTICE::aP) {
            EXPECT_EQ(grid[22][1], 1.0);  // (1, 0, 0) as (y, x, z)
            EXPECT_EQ(grid[22][0], 0.0);
        }
        for (const double* point : grid)
            delete[] point;
    }
}

TEST(UnitCellClassTest, TextForms) {
    UnitCell cell = cellOf({3, 4, 5.25, 90, 90, 90});
    EXPECT_EQ(cell.getParameterAsString(), "3, 4, 5.25, 90\xB0, 90\xB0, 90\xB0");
    cell.setCellCase(32);
    cell.setBravaisType(LATTICE::oP);
    EXPECT_EQ(cell.getCellInformationAsString(),
              "-1.  a=3  b=4  c=5.25  alpha=90  beta=90  gamma=90  -  32  -  oP");
    EXPECT_STREQ(LATTICE::shortName(static_cast<LATTICE::BravaisTypes>(15)), "error Bravais Type");
}

TEST(UnitCellClassTest, FitsOfCrystalSystems) {
    const UnitCell cubic = cellOf({10.0, 10.2, 10.1, 90.5, 89.5, 90.9});
    EXPECT_TRUE(cubic.fitCubicCase(1.0, 0.03));
    EXPECT_FALSE(cubic.fitCubicCase(1.0, 0.01));
    EXPECT_FALSE(cubic.fitOrthorombicCase(0.6, 0.03));
    EXPECT_TRUE(cellOf({5, 5.05, 9, 90, 90, 119.5}).fitHexagonalCase(1.0, 0.02));
    EXPECT_FALSE(cellOf({5, 5.05, 9, 90, 90, 60}).fitHexagonalCase(1.0, 0.02));
    EXPECT_TRUE(cellOf({5, 8, 9, 90, 110, 90}).fitMonoclinicCase(0.1, 0.0));
}

TEST(UnitCellTestTest, Conditions) {
    struct Case {
        double A, B, C, xi, eta, zeta;
        bool primary, main, burger, niggli;
    };
    const Case cases[] = {
        {4, 9, 16, 1, 1, 4, true, true, true, true},
        {4.000005, 4, 16, 1, 1, 1, true, true, true, true},  // equal within the tolerance
        {4.1, 4, 16, 1, 1, 1, false, false, false, false},   // edges out of order
        {4, 9, 16, 10, 1, 1, false, false, false, false},    // xi above B
        {4, 9, 16, 1, -1, 1, true, false, false, false},     // mixed signs
        {4, 9, 16, -9, -4, -1, true, false, false, false},   // the body diagonal is shorter
        {4, 4, 16, 2, 1, 1, true, true, false, false},       // A = B needs xi <= eta
        {4, 9, 16, 1, 4, 3, true, true, true, false},        // eta = A needs zeta <= 2 xi
        {4, 9, 16, 9, 1, 3, true, true, true, false},        // xi = B needs zeta <= 2 eta
        {4, 9, 16, -1, -4, -1, true, true, true, false},     // eta = -A needs zeta = 0
        {4, 9, 16, -1, -4, 0, true, true, true, true},       //
        {4, 9, 16, std::nan(""), 1, 1, false, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.A << ' ' << c.xi << ' ' << c.eta << ' ' << c.zeta);
        EXPECT_EQ(UnitCellTest::fulfillPrimaryConditions(c.A, c.B, c.C, c.xi, c.eta, c.zeta, 1e-5),
                  c.primary);
        EXPECT_EQ(UnitCellTest::fulfillMainConditions(c.A, c.B, c.C, c.xi, c.eta, c.zeta, 1e-5), c.main);
        EXPECT_EQ(UnitCellTest::isBurgerCell(c.A, c.B, c.C, c.xi, c.eta, c.zeta, 1e-5), c.burger);
        EXPECT_EQ(UnitCellTest::isNiggliCell(c.A, c.B, c.C, c.xi, c.eta, c.zeta, 1e-5), c.niggli);
    }
}

}  // namespace
