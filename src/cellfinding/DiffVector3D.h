/// \file
/// A vector in space that knows its length.
#pragma once

#include "cellfinding/DiffVector.h"

/// As DiffVector, with a third coordinate.
class VRKCORE_EXPORT DiffVector3D : public DiffVector {
public:
    DiffVector3D(double x, double y, double z);
    DiffVector3D(const DiffVector3D&) = default;
    DiffVector3D& operator=(const DiffVector3D&) = default;
    ~DiffVector3D() override;

    double getZ() const { return m_z; }
    double getValue(int i) const override;
    using DiffVector::getValues;
    void getValues(double& x, double& y, double& z) const;
    void setValue(int i, double v) override;
    using DiffVector::setValues;
    void setValues(double x, double y, double z);

private:
    void updateLength() override;

    double m_z;
};
