/// \file
/// The conditions that a reduced cell fulfils.
#pragma once

#include "VRKCoreExport.h"

class UnitCell;

/// Predicates on a cell or on its six metric values A = a.a, B = b.b, C = c.c, xi = 2 b.c, eta = 2 a.c,
/// zeta = 2 a.b. Every comparison is tolerant by eps (absolute, in the unit of the metric); the variants
/// for a cell use UnitCell::getEps(). Each predicate includes the ones before it. Values that are not
/// numbers fulfil nothing.
///
/// The conditions are those of Gruber (1973), doi:10.1107/S0567739473001063, and of International Tables
/// for Crystallography A, section 9.2 (2006).
class VRKCORE_EXPORT UnitCellTest {
public:
    /// A <= B <= C, |xi| <= B, |eta| <= A, |zeta| <= A.
    static bool fulfillPrimaryConditions(const UnitCell* cell);
    static bool fulfillPrimaryConditions(double A, double B, double C, double xi, double eta, double zeta,
                                         double eps);

    /// xi, eta and zeta all positive or none of them; in the second case also xi + eta + zeta + A + B >= 0:
    /// the edges are the shortest three lattice vectors that span the lattice.
    static bool fulfillMainConditions(const UnitCell* cell);
    static bool fulfillMainConditions(double A, double B, double C, double xi, double eta, double zeta,
                                      double eps);

    /// Edges of equal length ordered by the off-diagonal values.
    static bool isBurgerCell(const UnitCell* cell);
    static bool isBurgerCell(double A, double B, double C, double xi, double eta, double zeta, double eps);

    /// The special conditions that single out one of the Buerger cells.
    static bool isNiggliCell(const UnitCell* cell);
    static bool isNiggliCell(double A, double B, double C, double xi, double eta, double zeta, double eps);

    /// Writes one line for each predicate to the standard output.
    static void testCell(const UnitCell* cell);
};
