/// \file
/// A lattice in real and reciprocal space together.
#pragma once

#include "VRKCoreExport.h"
#include "crystallography/SpaceMath.h"

/// Real space in Angstrom and reciprocal space in 1/Angstrom (a . a* = 1, without a factor of 2 pi), always
/// consistent: setting one side sets the other. Starts as the cubic lattice of edge 1. Every setter returns
/// false and changes nothing when no lattice has the values given.
class VRKCORE_EXPORT Space {
public:
    Space();

    bool setRealBaseVectors(const double a[3], const double b[3], const double c[3]);
    bool setReciprocalBaseVectors(const double a[3], const double b[3], const double c[3]);
    /// The base is put with a along x and b in the plane of x and y.
    bool setRealDimensions(const SpaceDimensions& dimensions);
    /// The reciprocal base is put with a* along x and b* in the plane of x and y.
    bool setReciprocalDimensions(const SpaceDimensions& dimensions);

    void getRealBaseVectors(double a[3], double b[3], double c[3]) const;
    void getReciprocalBaseVectors(double a[3], double b[3], double c[3]) const;
    /// The base vectors as the rows of a matrix that lives as long as this object.
    const double (*realBase() const)[3] { return m_real; }
    const double (*reciprocalBase() const)[3] { return m_reciprocal; }
    SpaceDimensions getRealDimensions() const { return SpaceMath::Dimensions(m_real); }
    SpaceDimensions getReciprocalDimensions() const { return SpaceMath::Dimensions(m_reciprocal); }
    void getRealMetricMatrix(double G[3][3]) const { SpaceMath::MetricMatrix(m_real, G); }
    void getReciprocalMetricMatrix(double G[3][3]) const { SpaceMath::MetricMatrix(m_reciprocal, G); }
    double getRealVolume() const { return SpaceMath::Volume(m_real); }
    double getReciprocalVolume() const { return SpaceMath::Volume(m_reciprocal); }

    /// True when no component of the real base vectors differs by more than the tolerance times the longest
    /// edge. Two orientations of one lattice are different.
    bool equal(const Space& other, double tolerance = 1e-9) const;

private:
    bool setBase(const double base[3][3], double own[3][3], double dual[3][3]);

    double m_real[3][3];
    double m_reciprocal[3][3];
};
