#include "pipeline/merging/CellClusters.h"

#include <Eigen/Dense>

#include "pipeline/base/Failure.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "support/Testing.h"

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

Matrix3d baseOf(const std::array<double, 6>& cell) {
    UnitCell primitive = vrk::cellFromNumbers({cell.begin(), cell.end()}, 'P').primitive;
    Matrix3d base;
    primitive.getBase(base.col(0).data(), base.col(1).data(), base.col(2).data());
    return base;
}

std::array<double, 6> cellOf(const Matrix3d& base) {
    return vrk::directCell(base.inverse().transpose());
}

Matrix3d primitiveOf(char centring) {
    Matrix3d m = Matrix3d::Identity();
    if (centring == 'I') m.col(0) << -0.5, 0.5, 0.5;
    if (centring == 'C') m.col(0) << 0.5, -0.5, 0;
    if (centring == 'F') m << 0.5, 0.5, 0, 0.5, 0, 0.5, 0, 0.5, 0.5;
    if (centring == 'R') m.col(0) << -1.0 / 3, 1.0 / 3, 1.0 / 3;
    return m;
}

class Random {
public:
    double normal() { return std::normal_distribution<double>()(m_engine); }
    /// A strain with independent entries.
    Matrix3d strain(double size) {
        const Matrix3d any = Matrix3d::NullaryExpr([&] { return size * normal(); });
        return 0.5 * (any + any.transpose());
    }
    Matrix3d unimodular() {
        Matrix3d m = Matrix3d::Identity();
        for (int i = 0; i < 4; ++i) {
            const auto from = static_cast<Eigen::Index>(m_engine() % 3);
            const auto to = (from + 1 + static_cast<Eigen::Index>(m_engine() % 2)) % 3;
            m.col(to) += (m_engine() % 2 == 0 ? 1 : -1) * m.col(from);
        }
        return m;
    }

private:
    std::mt19937 m_engine{7};
};

/// sqrt(sum sinh^2 e), by the singular values of what takes one base to the other.
double strainBetween(const Matrix3d& from, const Matrix3d& to) {
    const Vector3d stretches = (to * from.inverse()).jacobiSvd().singularValues();
    return stretches.array().log().sinh().matrix().norm();
}

struct Lattice {
    std::array<double, 6> cell;
    char centring;
    std::size_t rotations;
};
const Lattice kLattices[] = {{{7, 7, 7, 90, 90, 90}, 'P', 24},
                             {{7, 7, 7, 90, 90, 90}, 'I', 24},
                             {{11.5, 11.5, 11.5, 90, 90, 90}, 'F', 24},
                             {{8, 8, 5, 90, 90, 120}, 'P', 12},
                             {{13, 13, 9, 90, 90, 120}, 'R', 6},
                             {{6, 6, 9, 90, 90, 90}, 'P', 8},
                             {{6, 6, 9, 90, 90, 90}, 'I', 8},
                             {{4, 5, 50, 90, 90, 90}, 'P', 4},
                             {{5, 9, 14, 90, 90, 90}, 'C', 4},
                             {{5, 9, 14, 90, 90, 90}, 'F', 4},
                             {{9.7, 6.4, 11.9, 90, 104.5, 90}, 'P', 2},
                             {{9.7, 6.4, 11.9, 90, 104.5, 90}, 'C', 2},
                             {{6, 7, 8, 91, 99, 95}, 'P', 1}};

TEST(ReducedCellTest, knowsALatticeInAnyBaseAcrossTheBordersOfReduction) {
    Random random;
    for (const Lattice& lattice : kLattices)
        for (int trial = 0; trial < 20; ++trial) {
            const Matrix3d base = baseOf(lattice.cell);
            const Matrix3d primitive = base * primitiveOf(lattice.centring) * random.unimodular();
            const Matrix3d strained = (Matrix3d::Identity() + random.strain(0.01)) * primitive;
            const double truth = strainBetween(primitive, strained);
            const vrk::ReducedCell one({lattice.cell, lattice.centring});
            const vrk::ReducedCell other({cellOf(strained), 'P'});
            const double distance = one.distance(other);
            EXPECT_LE(distance, truth + 1e-6) << lattice.centring << lattice.cell[0];
            EXPECT_LE(one.leastStrain(other), distance + 1e-6);
            EXPECT_NEAR(other.distance(one), distance, 1e-6);
            // The best match names the base that the distance is measured with.
            const auto best = one.matches(other, 0.07).front();
            EXPECT_NEAR(strainBetween(base, baseOf(cellOf(baseOf(cellOf(strained)) * best.base))), distance,
                        1e-5);
        }
}

TEST(ReducedCellTest, matchesOncePerRotationOfTheLattice) {
    for (const Lattice& lattice : kLattices) {
        const vrk::ReducedCell cell({lattice.cell, lattice.centring});
        const auto matches = cell.matches(cell, 0.001);
        EXPECT_EQ(matches.size(), lattice.rotations) << lattice.centring << lattice.cell[0];
        for (const auto& match : matches)
            EXPECT_LT(strainBetween(baseOf(lattice.cell), baseOf(cellOf(baseOf(lattice.cell) * match.base))),
                      1e-6);
    }
}

TEST(ReducedCellTest, measuresTheStrainOrTheDifferenceOfTheScalars) {
    const vrk::ReducedCell cube({{5, 5, 5, 90, 90, 90}, 'P'});
    const vrk::ReducedCell larger({{5.1, 5.1, 5.1, 90, 90, 90}, 'P'});
    // Three scalars differ, each by 5.1^2 - 5^2.
    EXPECT_NEAR(cube.distance(larger, vrk::CellMetric::S6), std::sqrt(3.0) * 1.01, 1e-9);
    EXPECT_NEAR(cube.distance(larger), std::sqrt(3.0) * std::sinh(std::log(1.02)), 1e-9);
    EXPECT_THROW(vrk::ReducedCell({{5, 5, 5, 60, 60, 120}, 'P'}), vrk::Failure);
    EXPECT_THROW(vrk::ReducedCell({{5, 0, 5, 90, 90, 90}, 'P'}), vrk::Failure);
}

/// Average linkage as it is defined: the pair with the least mean distance, again and again.
std::vector<double> plainHeights(const std::vector<vrk::CrystalCell>& crystals) {
    std::vector<std::vector<std::size_t>> sets;
    for (std::size_t i = 0; i < crystals.size(); ++i)
        sets.push_back({i});
    std::vector<double> heights;
    while (sets.size() > 1) {
        double least = 1e9;
        std::pair<std::size_t, std::size_t> best;
        for (std::size_t a = 0; a < sets.size(); ++a)
            for (std::size_t b = 0; b < a; ++b) {
                double sum = 0;
                for (const std::size_t i : sets[a])
                    for (const std::size_t j : sets[b])
                        sum += std::min(
                            0.5, vrk::ReducedCell(crystals[i]).distance(vrk::ReducedCell(crystals[j])));
                sum /= static_cast<double>(sets[a].size() * sets[b].size());
                if (sum >= least) continue;
                least = sum;
                best = {a, b};
            }
        heights.push_back(least);
        sets[best.second].insert(sets[best.second].end(), sets[best.first].begin(), sets[best.first].end());
        sets.erase(sets.begin() + static_cast<std::ptrdiff_t>(best.first));
    }
    return heights;
}

/// Crystals of three phases in turn, the first on a border of reduction, one of none and one without a cell.
std::vector<vrk::CrystalCell> session(int crystals, double spread) {
    Random random;
    std::vector<vrk::CrystalCell> list;
    for (int i = 0; i < crystals; ++i) {
        const Lattice& phase = kLattices[i % 6 == 5 ? 10 : i % 2 == 0 ? 0 : 4];
        const Matrix3d base = baseOf(phase.cell) * primitiveOf(phase.centring) * random.unimodular();
        list.push_back({cellOf((Matrix3d::Identity() + random.strain(spread)) * base), 'P'});
    }
    list.push_back({{7, 7, 8, 90, 90, 90}, 'P'});
    list.push_back({{7, 7, 0, 90, 90, 90}, 'P'});
    return list;
}

TEST(CellClustersTest, findsPhasesAndOutliersWithTheTreeOfThePlainDefinition) {
    const auto crystals = session(24, 0.004);
    const vrk::CellClustering result = vrk::clusterCells(crystals);
    ASSERT_EQ(result.clusters.size(), 4u);
    EXPECT_EQ(result.clusters[0].crystals.size(), 12u);
    EXPECT_EQ(result.clusters[1].crystals.size(), 8u);
    EXPECT_EQ(result.clusters[2].crystals, (std::vector<std::size_t>{5, 11, 17, 23}));
    EXPECT_EQ(result.outliers, std::vector<std::size_t>{24});
    EXPECT_EQ(result.unusable, std::vector<std::size_t>{25});
    EXPECT_EQ(result.clusterOf[25], -1);
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(result.clusterOf[static_cast<std::size_t>(i)], i % 6 == 5 ? 2 : i % 2);
    EXPECT_EQ(vrk::clusterCells(std::span(crystals).first(2)).clusterOf, (std::vector<int>{0, 1}));
    EXPECT_GT(result.clusters[0].spread, 0.002);
    EXPECT_LT(result.clusters[0].spread, 0.02);

    const std::vector<double> heights = plainHeights({crystals.begin(), crystals.end() - 1});
    ASSERT_EQ(result.joins.size(), heights.size());
    for (std::size_t i = 0; i < heights.size(); ++i)
        EXPECT_NEAR(result.joins[i].distance, heights[i], 1e-9);
    EXPECT_EQ(result.joins.back().crystals, 25u);
    EXPECT_LT(result.joins.back().first, result.joins.back().second);
    EXPECT_EQ(result.joins.back().second, crystals.size() + heights.size() - 2);
}

TEST(CellClustersTest, findsTheSameClustersWhenTheTreeIsBounded) {
    const auto crystals = session(600, 0.003);
    vrk::CellClusterOptions options;
    options.mostDifferent = 40;
    const vrk::CellClustering bounded = vrk::clusterCells(crystals, options);
    EXPECT_GT(bounded.resolution, 0);
    EXPECT_LT(bounded.resolution, options.cut);
    ASSERT_EQ(bounded.joins.size(), crystals.size() - 2);
    for (std::size_t i = 1; i < bounded.joins.size(); ++i)
        EXPECT_GE(bounded.joins[i].distance, bounded.joins[i - 1].distance);
    for (int i = 0; i < 600; ++i)
        ASSERT_EQ(bounded.clusterOf[static_cast<std::size_t>(i)], i % 6 == 5 ? 2 : i % 2);
    EXPECT_EQ(bounded.outliers, std::vector<std::size_t>{600});
}

}  // namespace
