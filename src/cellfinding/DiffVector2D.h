/// \file
/// The vector in the plane by its full name, beside DiffVector3D.
#pragma once

#include "cellfinding/DiffVector.h"

class VRKCORE_EXPORT DiffVector2D : public DiffVector {
public:
    DiffVector2D(double x, double y);
    DiffVector2D(const DiffVector2D&) = default;
    DiffVector2D& operator=(const DiffVector2D&) = default;
    ~DiffVector2D() override;
};
