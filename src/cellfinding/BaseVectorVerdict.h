/// \file
/// What became of a cluster centre in the choice of base vectors.
#pragma once

/// Step four of CalculateCellAlgorithm takes the centres by length; a verdict names the first rule that
/// decided.
enum class BaseVectorVerdict {
    A,                ///< chosen as a
    B,                ///< chosen as b
    C,                ///< chosen as c
    NearA,            ///< the angle with a is below its limit
    OppositeToA,      ///< the angle with a is above 3 radians
    NearB,            ///< the angle with b is below its limit
    OppositeToB,      ///< the angle with b is above 3 radians
    InPlane,          ///< lies in the plane of a and b, or the determinant is below its limit
    LongerThanNeeded  ///< all three were found before
};
