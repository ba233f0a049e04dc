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
/// The narration is shared by all reductions of a thread.
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

    NiggliReduction() = default;

    void init(UnitCell* cell, int limit);
    void reduce(const UnitCell& cell);
    bool run(int mostSteps);
    bool step(Circle* circle);
    bool normalize();
    bool normalizeStep();
    bool sortsAB() const;
    bool sortsBC() const;
    void settleSigns();
    bool multTest() const;
    void a1_action();
    void a2_action();
    void a3_action();
    void a4_action();
    void a5_action();
    void a6_action();
    void a7_action();
    void a8_action();
    void update(int m11, int m12, int m13, int m21, int m22, int m23, int m31, int m32, int m33);
    bool eq(double x, double y) const;
    bool lt(double x, double y) const;
    bool gt(double x, double y) const;

    bool isUsable() const;
    bool endsByItself();
    bool isConfirmedBy(const UnitCell& cell) const;
    double roundingOf(const UnitCell& cell) const;
    State transformed(const UnitCell& cell) const;
    bool startFromShortestVectors(const UnitCell& cell);

    void narrateStart(const UnitCell& cell) const;
    void narrateValues() const;
    void narrateEnd(const UnitCell& cell) const;
    static void narrate(const char* text);

    static thread_local std::ostream* m_narration;

    State m_state{};
    double m_eps = 1e-5;
    double m_smallestA = 0.0;
    int m_count = 0;
    int m_limit = 1000;
    bool m_verbose = true;
    bool m_overflow = false;
};
