/// \file
/// The 44 lattice characters of the reduced form: International Tables for Crystallography A (2006), table
/// 9.2.5.1; Mighell & Rodgers (1980), doi:10.1107/S0567739480000782.
#pragma once

#include <array>

#include "crystallography/BravaisTypes.h"

namespace VRK::detail {

/// The six metric values of a reduced form: squared edges A, B, C and plain dot products D, E, F.
struct Metric {
    double A, B, C, D, E, F;
};

enum class Form { I, II };  ///< D, E, F all positive, or none positive
enum class Edges { AllEqual, ABEqual, BCEqual, Any };

/// What a dot product must be: a multiple of another metric value, or anything.
struct DotCondition {
    double factor = 0.0;
    double Metric::*of = &Metric::A;
    bool isFree = false;
    constexpr double wanted(const Metric& m) const { return factor * (m.*of); }
};
inline constexpr DotCondition any = {.isFree = true};
inline constexpr DotCondition zero = {0.0, &Metric::A};
inline constexpr DotCondition halfA = {0.5, &Metric::A};
inline constexpr DotCondition quarterA = {0.25, &Metric::A};
inline constexpr DotCondition halfB = {0.5, &Metric::B};
inline constexpr DotCondition minusHalfA = {-0.5, &Metric::A};
inline constexpr DotCondition minusHalfB = {-0.5, &Metric::B};
inline constexpr DotCondition minusThirdA = {-1.0 / 3.0, &Metric::A};
inline constexpr DotCondition sameAsD = {1.0, &Metric::D};
inline constexpr DotCondition sameAsE = {1.0, &Metric::E};
inline constexpr DotCondition twiceD = {2.0, &Metric::D};
inline constexpr DotCondition twiceE = {2.0, &Metric::E};

/// A condition on a sum of dot products beside those on the single ones.
enum class SumCondition {
    None,
    Star,   ///< 2 |D + E + F| = A + B
    Dagger  ///< Star and |2 D + F| = B
};

struct CharacterRow {
    int number;
    Form form;
    Edges edges;
    DotCondition D, E, F;
    SumCondition sum;
    LATTICE::BravaisTypes bravais;
    /// Row i holds conventional axis i in the reduced base. The monoclinic cell of number 43 is I-centred.
    int toConventional[3][3];
};

// clang-format off
inline constexpr std::array<CharacterRow, 44> kLatticeCharacters = {{
    // no  form      edges            D            E            F            sum                   type         conventional a, b, c
    { 1, Form::I,  Edges::AllEqual, halfA,       halfA,       halfA,       SumCondition::None,   LATTICE::cF, {{ 1,-1, 1}, { 1, 1,-1}, {-1, 1, 1}}},
    { 2, Form::I,  Edges::AllEqual, any,         sameAsD,     sameAsD,     SumCondition::None,   LATTICE::hR, {{ 1,-1, 0}, {-1, 0, 1}, {-1,-1,-1}}},
    { 3, Form::II, Edges::AllEqual, zero,        zero,        zero,        SumCondition::None,   LATTICE::cP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
    { 4, Form::II, Edges::AllEqual, any,         sameAsD,     sameAsD,     SumCondition::None,   LATTICE::hR, {{ 1,-1, 0}, {-1, 0, 1}, {-1,-1,-1}}},
    { 5, Form::II, Edges::AllEqual, minusThirdA, minusThirdA, minusThirdA, SumCondition::None,   LATTICE::cI, {{ 1, 0, 1}, { 1, 1, 0}, { 0, 1, 1}}},
    { 6, Form::II, Edges::AllEqual, any,         sameAsD,     any,         SumCondition::Star,   LATTICE::tI, {{ 0, 1, 1}, { 1, 0, 1}, { 1, 1, 0}}},
    { 7, Form::II, Edges::AllEqual, any,         any,         sameAsE,     SumCondition::Star,   LATTICE::tI, {{ 1, 0, 1}, { 1, 1, 0}, { 0, 1, 1}}},
    { 8, Form::II, Edges::AllEqual, any,         any,         any,         SumCondition::Star,   LATTICE::oI, {{-1,-1, 0}, {-1, 0,-1}, { 0,-1,-1}}},
    { 9, Form::I,  Edges::ABEqual,  halfA,       halfA,       halfA,       SumCondition::None,   LATTICE::hR, {{ 1, 0, 0}, {-1, 1, 0}, {-1,-1, 3}}},
    {10, Form::I,  Edges::ABEqual,  any,         sameAsD,     any,         SumCondition::None,   LATTICE::mC, {{ 1, 1, 0}, { 1,-1, 0}, { 0, 0,-1}}},
    {11, Form::II, Edges::ABEqual,  zero,        zero,        zero,        SumCondition::None,   LATTICE::tP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
    {12, Form::II, Edges::ABEqual,  zero,        zero,        minusHalfA,  SumCondition::None,   LATTICE::hP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
    {13, Form::II, Edges::ABEqual,  zero,        zero,        any,         SumCondition::None,   LATTICE::oC, {{ 1, 1, 0}, {-1, 1, 0}, { 0, 0, 1}}},
    {14, Form::II, Edges::ABEqual,  any,         sameAsD,     any,         SumCondition::None,   LATTICE::mC, {{ 1, 1, 0}, {-1, 1, 0}, { 0, 0, 1}}},
    {15, Form::II, Edges::ABEqual,  minusHalfA,  minusHalfA,  zero,        SumCondition::None,   LATTICE::tI, {{ 1, 0, 0}, { 0, 1, 0}, { 1, 1, 2}}},
    {16, Form::II, Edges::ABEqual,  any,         sameAsD,     any,         SumCondition::Star,   LATTICE::oF, {{-1,-1, 0}, { 1,-1, 0}, { 1, 1, 2}}},
    {17, Form::II, Edges::ABEqual,  any,         any,         any,         SumCondition::Star,   LATTICE::mC, {{ 1,-1, 0}, {-1,-1, 0}, {-1, 0,-1}}},
    {18, Form::I,  Edges::BCEqual,  quarterA,    halfA,       halfA,       SumCondition::None,   LATTICE::tI, {{ 0,-1, 1}, { 1,-1,-1}, { 1, 0, 0}}},
    {19, Form::I,  Edges::BCEqual,  any,         halfA,       halfA,       SumCondition::None,   LATTICE::oI, {{-1, 0, 0}, { 0,-1, 1}, {-1, 1, 1}}},
    {20, Form::I,  Edges::BCEqual,  any,         any,         sameAsE,     SumCondition::None,   LATTICE::mC, {{ 0, 1, 1}, { 0, 1,-1}, {-1, 0, 0}}},
    {21, Form::II, Edges::BCEqual,  zero,        zero,        zero,        SumCondition::None,   LATTICE::tP, {{ 0, 1, 0}, { 0, 0, 1}, { 1, 0, 0}}},
    {22, Form::II, Edges::BCEqual,  minusHalfB,  zero,        zero,        SumCondition::None,   LATTICE::hP, {{ 0, 1, 0}, { 0, 0, 1}, { 1, 0, 0}}},
    {23, Form::II, Edges::BCEqual,  any,         zero,        zero,        SumCondition::None,   LATTICE::oC, {{ 0, 1, 1}, { 0,-1, 1}, { 1, 0, 0}}},
    {24, Form::II, Edges::BCEqual,  any,         minusThirdA, minusThirdA, SumCondition::Star,   LATTICE::hR, {{ 1, 2, 1}, { 0,-1, 1}, { 1, 0, 0}}},
    {25, Form::II, Edges::BCEqual,  any,         any,         sameAsE,     SumCondition::None,   LATTICE::mC, {{ 0, 1, 1}, { 0,-1, 1}, { 1, 0, 0}}},
    {26, Form::I,  Edges::Any,      quarterA,    halfA,       halfA,       SumCondition::None,   LATTICE::oF, {{ 1, 0, 0}, {-1, 2, 0}, {-1, 0, 2}}},
    {27, Form::I,  Edges::Any,      any,         halfA,       halfA,       SumCondition::None,   LATTICE::mC, {{-1, 2, 0}, {-1, 0, 0}, { 0,-1, 1}}},
    {28, Form::I,  Edges::Any,      any,         halfA,       twiceD,      SumCondition::None,   LATTICE::mC, {{-1, 0, 0}, {-1, 0, 2}, { 0, 1, 0}}},
    {29, Form::I,  Edges::Any,      any,         twiceD,      halfA,       SumCondition::None,   LATTICE::mC, {{ 1, 0, 0}, { 1,-2, 0}, { 0, 0,-1}}},
    {30, Form::I,  Edges::Any,      halfB,       any,         twiceE,      SumCondition::None,   LATTICE::mC, {{ 0, 1, 0}, { 0, 1,-2}, {-1, 0, 0}}},
    {31, Form::I,  Edges::Any,      any,         any,         any,         SumCondition::None,   LATTICE::aP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
    {32, Form::II, Edges::Any,      zero,        zero,        zero,        SumCondition::None,   LATTICE::oP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
    {33, Form::II, Edges::Any,      zero,        any,         zero,        SumCondition::None,   LATTICE::mP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
    {34, Form::II, Edges::Any,      zero,        zero,        any,         SumCondition::None,   LATTICE::mP, {{-1, 0, 0}, { 0, 0,-1}, { 0,-1, 0}}},
    {35, Form::II, Edges::Any,      any,         zero,        zero,        SumCondition::None,   LATTICE::mP, {{ 0,-1, 0}, {-1, 0, 0}, { 0, 0,-1}}},
    {36, Form::II, Edges::Any,      zero,        minusHalfA,  zero,        SumCondition::None,   LATTICE::oC, {{ 1, 0, 0}, {-1, 0,-2}, { 0, 1, 0}}},
    {37, Form::II, Edges::Any,      any,         minusHalfA,  zero,        SumCondition::None,   LATTICE::mC, {{ 1, 0, 2}, { 1, 0, 0}, { 0, 1, 0}}},
    {38, Form::II, Edges::Any,      zero,        zero,        minusHalfA,  SumCondition::None,   LATTICE::oC, {{-1, 0, 0}, { 1, 2, 0}, { 0, 0,-1}}},
    {39, Form::II, Edges::Any,      any,         zero,        minusHalfA,  SumCondition::None,   LATTICE::mC, {{-1,-2, 0}, {-1, 0, 0}, { 0, 0,-1}}},
    {40, Form::II, Edges::Any,      minusHalfB,  zero,        zero,        SumCondition::None,   LATTICE::oC, {{ 0,-1, 0}, { 0, 1, 2}, {-1, 0, 0}}},
    {41, Form::II, Edges::Any,      minusHalfB,  any,         zero,        SumCondition::None,   LATTICE::mC, {{ 0,-1,-2}, { 0,-1, 0}, {-1, 0, 0}}},
    {42, Form::II, Edges::Any,      minusHalfB,  minusHalfA,  zero,        SumCondition::None,   LATTICE::oI, {{-1, 0, 0}, { 0,-1, 0}, { 1, 1, 2}}},
    {43, Form::II, Edges::Any,      any,         any,         any,         SumCondition::Dagger, LATTICE::mC, {{-1, 0, 0}, {-1,-1,-2}, { 0,-1, 0}}},
    {44, Form::II, Edges::Any,      any,         any,         any,         SumCondition::None,   LATTICE::aP, {{ 1, 0, 0}, { 0, 1, 0}, { 0, 0, 1}}},
}};
// clang-format on

}  // namespace VRK::detail
