/// \file
/// What the centring of a Bravais type means: how the conventional cell and a primitive one are related.
#pragma once

#include "crystallography/BravaisTypes.h"

namespace VRK::detail {

/// Conventional base = primitive base x fromPrimitive; the determinant is the number of lattice points in
/// the conventional cell. Primitive base = conventional base x toPrimitive / denominator.
struct Centring {
    char letter;
    int multiplicity;
    int fromPrimitive[3][3];
    int toPrimitive[3][3];
    int denominator;
};

inline constexpr Centring kCentringP = {
    'P', 1, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, 1};
inline constexpr Centring kCentringI = {
    'I', 2, {{0, 1, 1}, {1, 0, 1}, {1, 1, 0}}, {{-1, 1, 1}, {1, -1, 1}, {1, 1, -1}}, 2};
inline constexpr Centring kCentringF = {
    'F', 4, {{-1, 1, 1}, {1, -1, 1}, {1, 1, -1}}, {{0, 1, 1}, {1, 0, 1}, {1, 1, 0}}, 2};
inline constexpr Centring kCentringC = {
    'C', 2, {{1, -1, 0}, {1, 1, 0}, {0, 0, 1}}, {{1, 1, 0}, {-1, 1, 0}, {0, 0, 2}}, 2};
/// Hexagonal axes in the obverse setting: lattice points at 2/3 1/3 1/3 and 1/3 2/3 2/3.
inline constexpr Centring kCentringR = {
    'R', 3, {{1, 0, 1}, {-1, 1, 1}, {0, -1, 1}}, {{2, -1, -1}, {1, 1, -2}, {1, 1, 1}}, 3};

constexpr const Centring& centringOf(LATTICE::BravaisTypes type) {
    switch (type) {
        case LATTICE::cI:
        case LATTICE::tI:
        case LATTICE::oI:
            return kCentringI;
        case LATTICE::cF:
        case LATTICE::oF:
            return kCentringF;
        case LATTICE::oC:
        case LATTICE::mC:
            return kCentringC;
        case LATTICE::hR:
            return kCentringR;
        default:
            return kCentringP;
    }
}

}  // namespace VRK::detail
