/// \file
/// The list of reflections that search, peak file, cell finding, indexing and export hand to each other.
#pragma once

#include <memory>
#include <vector>

#include "VRKCoreExport.h"
#include "reflections/Reflex.h"

/// Owns its elements, with two peculiarities that callers need to know:
///
/// - The destructor deletes every element as a plain Reflex; the voxel sets of ReflexOnGrid elements stay
///   behind. destroy() (or ReflexVectorPtr) frees a list whole and is what the library and the host use.
/// - Copies are shallow: two lists then share the same reflections, and only one of them may be destroyed;
///   clear() the other one first.
///
/// Elements may be null only where the destructor, destroy() and the filters meet them; they count as no
/// reflection and stay in the list.
class VRKCORE_EXPORT ReflexVector : public std::vector<Reflex*> {
public:
    ReflexVector() = default;
    ReflexVector(const ReflexVector&) = default;
    ReflexVector& operator=(const ReflexVector&) = default;
    ~ReflexVector();

    /// Deletes the list and every element as what it is. Null is allowed.
    static void destroy(ReflexVector* list);
    /// Deletes every element as what it is and empties the list.
    void destroyElements();

    /// Takes the reflection over as the last element.
    void append(ReflexPtr reflex);

    /// Writes the number of reflections to the standard output.
    void print();

    /// \name Filters
    /// They keep the order of the survivors and only take pointers out of the list: what they remove is not
    /// deleted. A caller that holds no other pointer to the elements loses them; keep a copy of the list to
    /// free them. Bounds are inclusive: an element exactly at a bound stays.
    /// @{

    /// Removes the elements with fewer than n voxels.
    void removeAllReflexesSmallerThanX(int n);
    /// Removes the elements with more than n voxels.
    void romoveAllReflexesGreaterThanX(int n);
    /// Removes the elements closer to (cx, cy, cz) than the radius, in voxels. The type selects the centre
    /// as in Reflex::getCenter().
    void cutOffZeroBeam(double cx, double cy, double cz, double radius, int type);
    /// Removes the elements farther from (cx, cy, cz) than the radius, in voxels.
    void limitResolution(double cx, double cy, double cz, double radius, int type);
    /// @}

    /// The first element that contains the voxel; null when there is none. The coordinates are truncated
    /// towards zero; coordinates beyond the range of int lie in no element.
    Reflex* getReflex(double x, double y, double z);

    /// Sorts by h, k, l. Elements with equal indices may change their order.
    void sortReflectionsByHKL();
};

/// Frees a list whole.
struct ReflexVectorDeleter {
    void operator()(ReflexVector* list) const { ReflexVector::destroy(list); }
};

/// A list that is freed whole when it goes out of scope.
using ReflexVectorPtr = std::unique_ptr<ReflexVector, ReflexVectorDeleter>;
