/// \file
/// The object that every processing step takes and returns: a tilt series or a reciprocal volume.
#pragma once

#include <memory>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxArray/VoxArray.h"
#include "VoxCore/DataModel/VoxHistogram.h"
#include "VoxCore/DataModel/mrcH.h"

/// Grey values, one chunk per slice, with the header that describes them and, once somebody has made
/// one, their histogram. docs/conventions.md has the in-slice orders of series and volumes.
///
/// Ownership: the histogram belongs to the object. A copy (construction or assignment) takes over the
/// pointer, and both own the histogram from then on: it is deleted with the last of them, and each may put
/// another one, or null, in its place. It still counts the elements of the object that it was made for,
/// which therefore has to exist when it is updated. The elements are shared by copy construction alone
/// (see VoxArray): before both sides are destroyed, one of them has to be marked with SetShallow(true). For
/// independent data use Create3D(), assign, and give the copy a histogram of its own.
class VRKCORE_EXPORT VoxMRCData : public VoxArray<short> {
public:
    /// Empty: no elements, no histogram.
    VoxMRCData() = default;
    /// Shares elements and histogram with the source, see the class; the header is copied.
    VoxMRCData(const VoxMRCData& other);
    ~VoxMRCData() override;

    /// Copies the elements into the existing slices (the shapes have to agree) and the header, and takes
    /// over the pointer to the histogram, see the class. A histogram that this object alone had is deleted.
    VoxMRCData& operator=(const VoxMRCData& other);
    using VoxArray<short>::operator=;

    /// New data of zeros, one chunk per slice. The header stays zeroed: the caller fills it or copies one.
    /// The caller owns the result; null when a size is 0 or the memory could not be had.
    static VoxMRCData* Create3D(unsigned width, unsigned height, unsigned depth);

    /// Logs the main header as one message, a labelled line per field.
    ///
    /// Two lines do not show what their label says: "nint: " the mean and "nreal: " the minimum density.
    /// nd1 and nd2 appear twice. Bytes that are no printable characters are shown as dots, filling at the
    /// end of a text not at all.
    void print_MRCHeader() const;
    /// Logs the slice records of the extended header as one message, a line per slice, in the columns of
    /// kSliceValuePrintOrder; slices beyond mrcH::kMaxSlices have no record and no line.
    void print_Extended_MRCHeader() const;

    VoxHistogram<short>* m_Histogram = nullptr;  ///< owned; null until somebody makes one
    mrcH m_Header;

private:
    void shareHistogramOf(const VoxMRCData& other);
    void holdHistogram() const;

    /// The histogram, once copies share it: whoever sets m_Histogram hands over a plain pointer.
    mutable std::shared_ptr<VoxHistogram<short>> m_SharedHistogram;
};
