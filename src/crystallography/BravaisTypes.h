/// \file
/// The 14 Bravais types with the numbers that programs and files exchange.
#pragma once

namespace LATTICE {

enum BravaisTypes {
    NoBravaisType = 0,
    cP = 1,
    cI = 2,
    cF = 3,
    tP = 4,
    tI = 5,
    hP = 6,
    hR = 7,
    oP = 8,
    oI = 9,
    oC = 10,
    oF = 11,
    mP = 12,
    mC = 13,
    aP = 14
};

/// "cP" ... "aP", "no Bravais Type" for 0 and "error Bravais Type" for any other value.
constexpr const char* shortName(BravaisTypes type) {
    switch (type) {
        case NoBravaisType:
            return "no Bravais Type";
        case cP:
            return "cP";
        case cI:
            return "cI";
        case cF:
            return "cF";
        case tP:
            return "tP";
        case tI:
            return "tI";
        case hP:
            return "hP";
        case hR:
            return "hR";
        case oP:
            return "oP";
        case oI:
            return "oI";
        case oC:
            return "oC";
        case oF:
            return "oF";
        case mP:
            return "mP";
        case mC:
            return "mC";
        case aP:
            return "aP";
    }
    return "error Bravais Type";
}

/// The type of the lattice reciprocal to one of the given type: body-centred and face-centred swap, all
/// others stay. NoBravaisType for a value that is none of the 14.
constexpr BravaisTypes reciprocalType(BravaisTypes type) {
    switch (type) {
        case cI:
            return cF;
        case cF:
            return cI;
        case oI:
            return oF;
        case oF:
            return oI;
        default:
            return type >= cP && type <= aP ? type : NoBravaisType;
    }
}

}  // namespace LATTICE
