/// \file
/// A reflection: a position in the reciprocal volume with Miller indices and an integrated intensity.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <set>

#include "VRKCoreExport.h"

/// A reflection at one position. Coordinates are voxel coordinates of the volume that it was found in.
///
/// Polymorphic, but its destructor is not virtual: a list of reflections deletes its elements as plain
/// Reflex objects (see ReflexVector). Whoever wants a reflection gone with all that it owns calls
/// destroy(), which ends the object as what it is.
class VRKCORE_EXPORT Reflex {
public:
    /// Value of h, k and l of a reflection that has no Miller indices.
    static constexpr int kNotIndexed = std::numeric_limits<int>::max();

    /// A reflection at (x, y, z): not indexed, intensity 1.
    Reflex(double x, double y, double z);
    /// Takes nothing from the array. The caller sets position, indices and intensity afterwards; until then
    /// the reflection lies at the origin, is not indexed and has intensity 1.
    explicit Reflex(const double* xyz);
    Reflex(const Reflex&) = default;
    Reflex& operator=(const Reflex&) = default;
    ~Reflex() = default;

    /// Deallocation that is not told a size, so that deleting a derived object as a Reflex returns the whole
    /// block to the heap.
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, void* place) noexcept;
    static void operator delete(void* block) noexcept;
    static void operator delete(void* block, void* place) noexcept;

    /// Deletes a reflection as what it is (a Reflex or a ReflexOnGrid). Null is allowed.
    static void destroy(Reflex* reflex);

    /// \name Position
    /// The axis is 0 (x), 1 (y) or 2 (z) and is not checked. The type selects which centre of a voxel region
    /// is meant: 1 centre of gravity (the brightest voxel), 2 arithmetical mean of the voxel coordinates,
    /// 3 intensity-weighted mean. A plain reflection has one position and ignores the type.
    /// @{
    virtual double getCenter(int axis, int type);
    virtual double getCenter(int axis);
    virtual void getCenter(double& x, double& y, double& z);
    virtual double getCenterInX();
    virtual double getCenterInY();
    virtual double getCenterInZ();
    /// @}

    /// Moves this reflection towards another one and adds up the intensities. The axes are weighted one
    /// after the other with a running intensity I (J is the other's): x with I, then I += J; y with I, then
    /// I += J; z with I, then I += J. The intensity ends at I + 3 J.
    virtual void merge(Reflex* other);
    /// For a positive factor divides the coordinates by (factor XOR 2): 1 divides by 3, 3 by 1, 4 by 6, and
    /// 2 makes them infinite (or not a number where a coordinate is 0). Other factors change nothing.
    virtual void bin(int factor);
    /// True when the position equals the integer coordinates exactly.
    virtual bool isInside(int x, int y, int z);
    virtual int getNumberOfVoxels();
    /// The linear indices of the member voxels; null, because a plain reflection has none.
    virtual std::set<int>* getPoints();

    int getH() const { return m_h; }
    int getK() const { return m_k; }
    int getL() const { return m_l; }
    void getHKL(int& h, int& k, int& l) const;
    void setH(int h) { m_h = h; }
    void setK(int k) { m_k = k; }
    void setL(int l) { m_l = l; }
    void setHKL(int h, int k, int l);
    /// True when all of h, k and l have been assigned.
    bool isIndicated() const;

    double getIntensity() const { return m_intensity; }
    /// Refuses negative values and NaN: the intensity stays and the result is false.
    bool setIntensity(double value);

    /// Euclidean distance between the raw coordinates of two reflections. For a ReflexOnGrid these are the
    /// sums of the voxel coordinates; use getCenter() for distances between centres.
    double getDistance(const Reflex* other) const;
    /// A new reflection (the caller owns it) at the raw coordinates turned about z by the angle, from x
    /// towards y. It is not indexed and has intensity 1.
    Reflex* rotatez(double angleDegrees) const;

    /// Strict ascending order by h, then k, then l.
    static bool compareByHKL(Reflex* a, Reflex* b);

    /// Sends position, indices and intensity to the log as one message.
    void print();

protected:
    double m_x = 0.0;
    double m_y = 0.0;
    double m_z = 0.0;
    int m_h = kNotIndexed;
    int m_k = kNotIndexed;
    int m_l = kNotIndexed;
    double m_intensity = 1.0;
};

/// Lets std::unique_ptr delete a reflection as what it is.
struct ReflexDeleter {
    void operator()(Reflex* reflex) const { Reflex::destroy(reflex); }
};

using ReflexPtr = std::unique_ptr<Reflex, ReflexDeleter>;
