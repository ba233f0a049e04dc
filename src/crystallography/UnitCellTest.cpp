#include "crystallography/UnitCellTest.h"

#include <cmath>
#include <iostream>

#include "crystallography/UnitCell.h"
#include "crystallography/detail/Tolerance.h"

namespace {

using VRK::detail::equal;
using VRK::detail::lessOrEqual;

using Predicate = bool (*)(double, double, double, double, double, double, double);

bool holds(Predicate predicate, const UnitCell* cell) {
    return predicate(cell->getA(), cell->getB(), cell->getC(), 2.0 * cell->getD(), 2.0 * cell->getE(),
                     2.0 * cell->getF(), cell->getEps());
}

int countPositive(double xi, double eta, double zeta, double eps) {
    return (xi - eps > 0.0) + (eta - eps > 0.0) + (zeta - eps > 0.0);
}

/// What an edge on its limit asks for: "if value = limit then left <= right".
struct SpecialCondition {
    double value, limit, left, right;
};

}  // namespace

bool UnitCellTest::fulfillPrimaryConditions(const UnitCell* cell) {
    return holds(fulfillPrimaryConditions, cell);
}

bool UnitCellTest::fulfillPrimaryConditions(double A, double B, double C, double xi, double eta, double zeta,
                                            double eps) {
    return lessOrEqual(A, B, eps) && lessOrEqual(B, C, eps) && lessOrEqual(std::abs(xi), B, eps) &&
           lessOrEqual(std::abs(eta), A, eps) && lessOrEqual(std::abs(zeta), A, eps);
}

bool UnitCellTest::fulfillMainConditions(const UnitCell* cell) {
    return holds(fulfillMainConditions, cell);
}

bool UnitCellTest::fulfillMainConditions(double A, double B, double C, double xi, double eta, double zeta,
                                         double eps) {
    if (!fulfillPrimaryConditions(A, B, C, xi, eta, zeta, eps)) return false;
    switch (countPositive(xi, eta, zeta, eps)) {
        case 3:
            return true;
        case 0:
            return lessOrEqual(0.0, xi + eta + zeta + A + B, eps);
        default:
            return false;
    }
}

bool UnitCellTest::isBurgerCell(const UnitCell* cell) {
    return holds(isBurgerCell, cell);
}

bool UnitCellTest::isBurgerCell(double A, double B, double C, double xi, double eta, double zeta,
                                double eps) {
    if (!fulfillMainConditions(A, B, C, xi, eta, zeta, eps)) return false;
    if (equal(A, B, eps) && !lessOrEqual(std::abs(xi), std::abs(eta), eps)) return false;
    return !equal(B, C, eps) || lessOrEqual(std::abs(eta), std::abs(zeta), eps);
}

bool UnitCellTest::isNiggliCell(const UnitCell* cell) {
    return holds(isNiggliCell, cell);
}

bool UnitCellTest::isNiggliCell(double A, double B, double C, double xi, double eta, double zeta,
                                double eps) {
    if (!isBurgerCell(A, B, C, xi, eta, zeta, eps)) return false;
    const SpecialCondition conditions[] = {
        {xi, B, zeta, 2.0 * eta},
        {eta, A, zeta, 2.0 * xi},
        {zeta, A, eta, 2.0 * xi},
        {xi + eta + zeta + A + B, 0.0, 2.0 * A + 2.0 * eta + zeta, 0.0},
    };
    for (const auto& [value, limit, left, right] : conditions)
        if (equal(value, limit, eps) && !lessOrEqual(left, right, eps)) return false;
    if (equal(xi, -B, eps) && !equal(zeta, 0.0, eps)) return false;
    if (equal(eta, -A, eps) && !equal(zeta, 0.0, eps)) return false;
    return !equal(zeta, -A, eps) || equal(eta, 0.0, eps);
}

void UnitCellTest::testCell(const UnitCell* cell) {
    std::cout << (fulfillPrimaryConditions(cell) ? "Cell fulfills the primary conditions."
                                                 : "Cell does not fulfill the primary conditions.")
              << '\n'
              << (fulfillMainConditions(cell) ? "Cell fulfills the main conditions."
                                              : "Cell does not fulfill the main conditions.")
              << '\n'
              << (isBurgerCell(cell) ? "Cell is a burger cell." : "Cell is no burger cell.") << '\n'
              << (isNiggliCell(cell) ? "Cell is a niggli cell." : "Cell is no niggli cell.") << '\n';
}
