/// \file
/// From any primitive cell to its Niggli-reduced cell.
#pragma once

#include <iosfwd>

#include "VRKCoreExport.h"

class UnitCell;

/// The algorithm of Krivy & Gruber (1976), doi:10.1107/S0567739476000636: steps A1 to A8 on the six metric
/// values (A, B, C, xi, eta, zeta) = (a.a, b.b, c.c, 2 b.c, 2 a.c, 2 a.b), every comparison tolerant by
/// UnitCell::getEps(). The accumulated integer matrix T is applied to the cell once at the end.
///
/// The middle condition of A6 tests zeta = A where the paper tests eta = A, so a cell with eta = A and
/// zeta > 2 xi stays a Buerger cell that is not the Niggli cell; and on some cells that condition makes the
/// steps run in a circle. When the six values come back, within eps, to a state they had before, and the
/// steps do not end by themselves from there either, the reduction stops at the first state of the circle
/// that passes the Niggli test, else at the first that passes the Buerger test, else where it is.
///
/// A value within eps of zero takes the sign that the others ask for, which moves it by up to twice eps; the
/// six values then differ from those of the transformed vectors by a few eps. That belongs to the steps and
/// is left alone. In three cases the values say too little about the lattice:
/// - rounding may have moved them by more than eps, and they differ from those of the vectors by more than
///   that (input vectors many thousand times longer than the reduced ones);
/// - an edge is shorter than ten times the square root of eps, so that eps is not small beside its square;
/// - the steps end, or have gone on a million times, and the transformed vectors are not reduced.
/// Then the three shortest lattice vectors are looked for on the vectors themselves, and the steps go on from
/// these with a tolerance of at most 1e-5 of the square of the shortest.
///
/// So every cell that is not UnitCell::isDegenerate(), and whose T fits into whole numbers of 32 bits, is
/// reduced in a finite number of steps, about as many as its longest vector is longer than the reduced one.
/// A host asks isDegenerate() first; a degenerate cell comes back in some equivalent form.
///
/// Not reentrant: the working state and the narration are shared by all reductions of a thread.
class VRKCORE_EXPORT NiggliReduction {
public:
    /// Reduces the cell in place. The cell is touched once, at the end, by UnitCell::transform(T).
    /// @param limit kept for hosts that pass one (below 2: 1000); it does not end the reduction
    /// @return true; false only for a null cell
    static bool niggliReduction(UnitCell* cell, int limit);

    /// Where the narration of this thread goes: a stream that outlives the reductions, or null for none. The
    /// standard output unless changed. Nothing is formatted for a stream that has no buffer or has failed, so
    /// that a null stream (std::ostream(nullptr)) costs nothing. Numbers have six significant digits whatever
    /// the stream's own settings are.
    static void setNarration(std::ostream* out);
    static std::ostream* getNarration();

private:
    struct State {
        double A, B, C, xi, eta, zeta;
        int T[3][3];
    };
    class Circle;

    static void init(UnitCell* cell, int limit);
    static void reduce(const UnitCell& cell);
    static bool run(int mostSteps);
    static bool step(Circle* circle);
    static bool normalize();
    static bool normalizeStep();
    static bool sortsAB();
    static bool sortsBC();
    static void settleSigns();
    static bool multTest();
    static void a1_action();
    static void a2_action();
    static void a3_action();
    static void a4_action();
    static void a5_action();
    static void a6_action();
    static void a7_action();
    static void a8_action();
    static void update(int m11, int m12, int m13, int m21, int m22, int m23, int m31, int m32, int m33);
    static bool eq(double x, double y);
    static bool lt(double x, double y);
    static bool gt(double x, double y);

    static bool isUsable();
    static bool endsByItself();
    static bool isConfirmedBy(const UnitCell& cell);
    static double roundingOf(const UnitCell& cell);
    static State transformed(const UnitCell& cell);
    static bool startFromShortestVectors(const UnitCell& cell);

    static void narrateStart(const UnitCell& cell);
    static void narrateValues();
    static void narrateEnd(const UnitCell& cell);
    static void narrate(const char* text);

    static thread_local State m_state;
    static thread_local double m_eps;
    static thread_local double m_smallestA;
    static thread_local int m_count;
    static thread_local int m_limit;
    static thread_local bool m_verbose;
    static thread_local bool m_overflow;
    static thread_local std::ostream* m_narration;
};
