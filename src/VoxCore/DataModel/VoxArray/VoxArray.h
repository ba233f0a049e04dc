/// \file
/// The one container for images, image stacks, volumes, masks and small matrices.
#pragma once

#include <array>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxPoint3D.h"

/// How the elements of a VoxArray are spread over its chunks. N is the number of elements, C the number
/// of chunks, S = N / C the number of elements in each.
enum StorageMethod : std::uint32_t {
    /// Storage_BySlice for two or three dimensions, Storage_Interleaved for any other number.
    Storage_Auto = 0,
    /// One chunk. Element i sits at position i.
    Storage_Contiguous = 1,
    /// The largest power of two of chunks that is not above 1 + the size in whole MiB, so a chunk has
    /// between half a MiB and two. Element i sits in chunk i mod C at position i / C. For arrays whose
    /// N is a multiple of C: of any other array, the last N mod C elements can be reached by index, but
    /// no whole-array operation, copy or file sees them.
    Storage_Interleaved = 2,
    /// One chunk for every index of the last dimension. Element (x, y, z) sits in chunk z at position
    /// height * x + y: y runs fastest. Element (x, y) of an image sits in chunk y at position x.
    /// Element i by flat index sits in chunk i mod C at position i / C, which is another order.
    Storage_BySlice = 3
};

/// An array of one, two, three or more dimensions in separately allocated chunks.
///
/// Dimension 0 is the width (rows of a matrix), 1 the height (columns), 2 the depth (slices). A
/// dimension that an array does not have counts as size 0. The flat index of (x, y, z) is
/// x + width * y + width * height * z; sliced storage resolves coordinates and flat indices by different
/// rules (see Storage_BySlice), all others resolve coordinates through the flat index. Whole-array
/// operations walk from chunk to chunk and position to position, whatever the mapping. docs/conventions.md
/// tells which in-slice order a series and which a volume has.
///
/// New elements are zero. Accessors check no index. Operations on two arrays expect equal shapes and
/// equal storage; where they differ only the chunks and positions that both have take part. Arithmetic
/// is done in T and wraps as T does (bool: anything but 0 is true). A mask, if there is one, has the
/// same shape, belongs to the array and limits Inside().
///
/// Ownership: an array that is not shallow frees its elements, offset table and mask when it is
/// destroyed. The copy constructor copies no element: the copy refers to the same memory and has its
/// source's shallow flag, so before both of an owning pair are destroyed, one has to be marked with
/// SetShallow(true), or the memory is freed twice. Clone() makes an independent array.
///
/// \tparam T short (images and volumes), bool (masks), unsigned char, float, double or
///           VoxPoint3D<unsigned char> (colour images); the library holds the code for these.
template <typename T>
class VRKCORE_EXPORT VoxArray {
public:
    /// An empty array: no dimensions, no chunks.
    VoxArray() = default;
    /// A second view of the same memory, see the class.
    VoxArray(const VoxArray& other) = default;
    virtual ~VoxArray();

    /// \name Creation
    /// The caller owns the result. Null when the memory could not be had, more than 2^32 - 1 elements and
    /// more memory than the machine has included; the reason goes to the standard error stream. A size of
    /// 0 or an empty list of sizes gives an array without elements.
    /// @{
    static VoxArray* Create(std::vector<unsigned> dims, StorageMethod method);
    static VoxArray* Create1D(unsigned n, StorageMethod method);
    static VoxArray* Create2D(unsigned width, unsigned height, StorageMethod method);
    static VoxArray* CreateMatrix(unsigned rows, unsigned columns, StorageMethod method);
    static VoxArray* Create3D(unsigned width, unsigned height, unsigned depth, StorageMethod method);
    /// @}

    /// \name Shape and storage
    /// @{
    unsigned GetDimCount() const { return static_cast<unsigned>(m_Dims.size()); }
    unsigned GetDimSize(unsigned d) const { return d < m_Dims.size() ? m_Dims[d] : 0; }
    std::vector<unsigned> GetDims() const { return m_Dims; }
    unsigned GetWidth() const { return GetDimSize(0); }
    unsigned GetRows() const { return GetDimSize(0); }
    unsigned GetHeight() const { return GetDimSize(1); }
    unsigned GetColumns() const { return GetDimSize(1); }
    unsigned GetDepth() const { return GetDimSize(2); }
    unsigned GetSlices() const { return GetDimSize(2); }
    unsigned GetDataSize() const { return m_DataSize; }
    unsigned GetChunkCount() const { return m_ChunkCount; }
    unsigned GetChunkSize() const { return m_ChunkSize; }
    /// Step of the flat index along dimension d.
    unsigned GetOffset(unsigned d) const { return d < m_Dims.size() ? m_Offsets[d] : 0; }
    StorageMethod GetStorageMethod() const { return m_StorageMethod; }
    float GetMemoryUsedInMB() const;
    /// The size of the last dimension, and the number of elements in each of its slices.
    void GetSliceParameters(unsigned& sliceCount, unsigned& sliceSize) const;
    bool EqualDimSizes(const VoxArray& other) const { return m_Dims == other.m_Dims; }

    /// Whether the array leaves its memory to another.
    bool GetShallow() const { return m_Shallow; }
    void SetShallow(bool shallow) { m_Shallow = shallow; }

    VoxArray<bool>* GetMask() const { return m_Mask; }
    /// Takes over a mask of the same shape, or null. The former mask is deleted.
    void SetMask(VoxArray<bool>* mask);
    /// @}

    /// \name Element access
    /// Two indices on an array of three dimensions address slice 0. Three indices need three dimensions.
    /// @{
    T& GetValue(unsigned i) { return *Locate(i); }
    T GetValue(unsigned i) const { return *Locate(i); }
    T& operator[](unsigned i) { return *Locate(i); }
    T operator[](unsigned i) const { return *Locate(i); }
    T& GetValue(unsigned x, unsigned y) { return *Locate(x, y); }
    T GetValue(unsigned x, unsigned y) const { return *Locate(x, y); }
    T& GetValue(unsigned x, unsigned y, unsigned z) { return *Locate(x, y, z); }
    T GetValue(unsigned x, unsigned y, unsigned z) const { return *Locate(x, y, z); }
    /// Integers of other types count as unsigned, they do not choose the interpolation.
    template <std::integral X, std::integral Y, std::integral Z>
    T& GetValue(X x, Y y, Z z) {
        return *Locate(static_cast<unsigned>(x), static_cast<unsigned>(y), static_cast<unsigned>(z));
    }
    template <std::integral X, std::integral Y, std::integral Z>
    T GetValue(X x, Y y, Z z) const {
        return *Locate(static_cast<unsigned>(x), static_cast<unsigned>(y), static_cast<unsigned>(z));
    }
    T& GetValue(const VoxPoint3D<unsigned>& p) { return *Locate(p.x, p.y, p.z); }
    T GetValue(const VoxPoint3D<unsigned>& p) const { return *Locate(p.x, p.y, p.z); }

    /// Trilinear interpolation, truncated towards zero where T is an integer; (x, y, z) has to be
    /// Inside(). 1e-6 is added to each coordinate, so that one which came out a hair below an integer
    /// counts as that integer. At whole positions below 32 the upper neighbours therefore carry a weight
    /// of 1e-6: with smaller neighbours the result there is one less than the voxel. From 32 on the sum
    /// rounds back and the voxel itself comes out.
    T GetValue(float x, float y, float z) const {
        return Interpolate(x + kPositionTolerance, y + kPositionTolerance, z + kPositionTolerance);
    }
    T GetValue(float x, float y, float z) { return std::as_const(*this).GetValue(x, y, z); }
    T GetValue(const VoxPoint3D<float>& p) const { return GetValue(p.x, p.y, p.z); }

    void SetValue(const T& value, unsigned i) { *Locate(i) = value; }
    void SetValue(const T& value, unsigned x, unsigned y) { *Locate(x, y) = value; }
    void SetValue(const T& value, unsigned x, unsigned y, unsigned z) { *Locate(x, y, z) = value; }
    void SetValue(const T& value, const VoxPoint3D<unsigned>& p) { *Locate(p.x, p.y, p.z) = value; }

    T& GetValueByChunk(unsigned chunk, unsigned position) { return m_Chunks[chunk][position]; }
    T GetValueByChunk(unsigned chunk, unsigned position) const { return m_Chunks[chunk][position]; }
    void SetValueByChunk(const T& value, unsigned chunk, unsigned position) {
        m_Chunks[chunk][position] = value;
    }
    T* GetChunkPointer(unsigned chunk) { return m_Chunks[chunk]; }
    const T* GetChunkPointer(unsigned chunk) const { return m_Chunks[chunk]; }

    /// Whether the element exists and the mask, if there is one, has it.
    bool Inside(unsigned x, unsigned y) const {
        return x < GetWidth() && y < GetHeight() && (!m_Mask || m_Mask->GetValue(x, y));
    }
    bool Inside(unsigned x, unsigned y, unsigned z) const {
        return x < GetWidth() && y < GetHeight() && z < GetDepth() && (!m_Mask || m_Mask->GetValue(x, y, z));
    }
    template <std::integral X, std::integral Y, std::integral Z>
    bool Inside(X x, Y y, Z z) const {
        return Inside(static_cast<unsigned>(x), static_cast<unsigned>(y), static_cast<unsigned>(z));
    }
    /// Whether all voxels exist that GetValue(x, y, z) interpolates between, its shift of 1e-6 included
    /// (so the last voxel itself is outside along an axis of up to 32 voxels), and the mask, if there is
    /// one, has the nearest of them. Not for arrays of two dimensions: they have no inside.
    bool Inside(float x, float y, float z) const;
    /// @}

    /// \name Whole-array operations
    /// @{
    /// Copies the elements, not the shape, the mask or the memory.
    VoxArray& operator=(const VoxArray& other);
    /// Sets every element.
    VoxArray& operator=(T value);
    VoxArray& operator+=(const VoxArray& other);
    VoxArray& operator-=(const VoxArray& other);
    VoxArray& operator*=(const VoxArray& other);
    /// Integers must not be divided by 0.
    VoxArray& operator/=(const VoxArray& other);
    VoxArray& operator+=(T value);
    VoxArray& operator-=(T value);
    VoxArray& operator*=(T value);
    /// Returns at once when value is 1. Integers must not be divided by 0.
    VoxArray& operator/=(T value);
    /// Whether all elements are equal; an array without elements equals any other.
    bool operator==(const VoxArray& other) const;
    /// Overwrites every element that is below (above) the limit.
    void LimitMinValue(const T& limit, const T& replacement);
    void LimitMaxValue(const T& limit, const T& replacement);
    /// Overwrites every element that the mask has. The parameter is a view (it never frees the mask).
    void Replace(T value, VoxArray<bool> mask);

    /// Sum of all elements, in T: sums of short wrap.
    T Sum() const;
    static T ScalarProduct(const VoxArray& a, const VoxArray& b);
    /// The smallest (largest) element that equals none of the excluded values. When there is none, warns
    /// on the standard output and returns the first excluded value, or zero when none is excluded.
    T GetMinValue(std::vector<T> excluded) const;
    T GetMaxValue(std::vector<T> excluded) const;
    /// Sum of all elements, and sums weighted by the x, y or z index, in T.
    T GetMoment000() const;
    T GetMoment100() const;
    T GetMoment010() const;
    T GetMoment001() const;
    /// (M100, M010, M001) / M000, divided in T; the origin when M000 is 0.
    VoxPoint3D<T> GetCentreOfMass() const;
    /// @}

    /// \name Copies and views
    /// The caller owns the result; null when the memory could not be had.
    /// @{
    /// Same dimensions, storage and elements, and a clone of the mask.
    VoxArray* Clone() const;
    /// The block of w x h x d voxels from (x0, y0, z0) on, automatic storage, without mask. Voxels beyond
    /// the edge are 0.
    VoxArray* GetSubVolume(unsigned x0, unsigned y0, unsigned z0, unsigned w, unsigned h, unsigned d) const;
    /// The same at a fractional position: element (i, j, k) is interpolated at (x0 + i, y0 + j, z0 + k),
    /// without asking whether that is inside. Beyond the edge the edge's voxels continue.
    VoxArray* GetSubVolume(float x0, float y0, float z0, unsigned w, unsigned h, unsigned d) const;
    template <std::integral X, std::integral Y, std::integral Z>
    VoxArray* GetSubVolume(X x0, Y y0, Z z0, unsigned w, unsigned h, unsigned d) const {
        return GetSubVolume(static_cast<unsigned>(x0), static_cast<unsigned>(y0), static_cast<unsigned>(z0),
                            w, h, d);
    }
    /// A plane of a volume as an image. Axis 0: dimensions (1, 2) at x = index; axis 1: dimensions (2, 0)
    /// at y = index; axis 2: dimensions (0, 1) at z = index. Null when there is no such plane.
    VoxArray* GetHyperPlane(unsigned axis, unsigned index, StorageMethod method) const;
    /// Writes an image of the shape that GetHyperPlane() returns back into its plane. False, and nothing
    /// is written, when the shape does not fit or there is no such plane.
    bool SetHyperPlane(VoxArray& plane, unsigned axis, unsigned index);
    /// Resamples a volume under an affine map, same shape and storage.
    /// \param transform matrix of at least 3 rows and 4 columns that takes target voxels to source points,
    ///        (p, q, r) = transform * (x, y, z, 1); of a colour array the first component counts. Anything
    ///        smaller gives null.
    /// \return interpolated values, 0 where the source point is not Inside(). When this array has a mask
    ///         the result has one too: the voxels whose source was inside.
    VoxArray* GetTransformedVolume(VoxArray& transform) const;
    /// All elements, position j of chunk i at C * j + i; delete[] it. Sliced and interleaved arrays come
    /// out in the order of their flat index.
    T* ToArray() const;
    /// The elements of one chunk; delete[] it. Lists every element on the standard output. Null when
    /// there is no such chunk.
    T* ToArrayByChunk(unsigned chunk) const;
    /// The chunk pointers; the vector is the caller's, the chunks stay the array's.
    std::vector<T*>* ToVectorArray() const;
    /// @}

    /// \name Matrices
    /// Arrays of two dimensions; element (row, column) is GetValue(row, column). New matrices have
    /// automatic storage and belong to the caller; null when the shapes do not fit.
    /// @{
    VoxArray* MatrixMul(const VoxArray& right) const;
    /// Writes the product to result, which is none of the factors. False, and nothing is written, when the
    /// shapes do not fit.
    bool MatrixMul(const VoxArray& right, VoxArray& result) const;
    VoxArray* MatrixTranspose() const;
    /// Ones on the diagonal, zeros elsewhere, whether square or not.
    void SetIdentity();
    VoxArray* GetSubMatrix(unsigned row, unsigned column, unsigned rows, unsigned columns) const;
    /// False, and nothing is written, when the block reaches beyond the edge.
    bool SetSubMatrix(unsigned row, unsigned column, const VoxArray& block);
    /// The elements in the order of their flat index as a matrix of rows x (width * height / rows).
    VoxArray* Reshape(unsigned rows) const;
    /// @}

    /// Frees everything and leaves an empty, shallow array. A shallow array stays as it is.
    void ReleaseMemory();

    /// Slice 0 as text: a line for every x, on it every y (a single one for one dimension) with four
    /// decimals in eleven columns; the three components one after another for colours.
    virtual std::string ToString() const;

protected:
    /// Gives an empty array its shape and its memory (one that has memory releases it first). False when
    /// the memory could not be had; the array is empty then.
    bool Init(const std::vector<unsigned>& dims, StorageMethod method);

private:
    /// Added to positions, so that one a hair below an integer counts as that integer.
    static constexpr float kPositionTolerance = 1e-6f;

    using AffineMap = std::array<std::array<double, 4>, 3>;

    /// \param elements the product of the sizes, which may be more than an unsigned holds
    void InitVariables(const std::vector<unsigned>& dims, StorageMethod method, double elements);
    bool InitMemory();
    bool InitRegion(std::size_t places);
    void FreeChunks();
    void Clear();

    std::span<T> Chunk(unsigned chunk) const { return {m_Chunks[chunk], m_ChunkSize}; }
    /// Calls visit(value, {x, y, z}) for every element.
    template <typename Visitor>
    void VisitVoxels(Visitor visit) const;
    /// Sum of all elements, each multiplied with its index along an axis.
    T WeightedSum(std::size_t axis) const;
    template <typename Better>
    T FindExtreme(const std::vector<T>& excluded, const char* warning, Better better) const;
    template <typename Better>
    std::optional<T> ExtremeOfValuesSeen(const std::vector<T>& excluded, Better better) const;
    template <typename Better>
    std::optional<T> ExtremeByComparison(const std::vector<T>& excluded, Better better) const;
    T* LocateInPlane(unsigned axis, unsigned index, unsigned u, unsigned v) const;
    void TransformLine(VoxArray& target, const AffineMap& map, bool alongY, unsigned outer, unsigned z) const;
    /// Whether this is a matrix that has such a block.
    bool HasBlock(unsigned row, unsigned column, unsigned rows, unsigned columns) const;

    T* Locate(unsigned i) const {
        if (m_StorageMethod == Storage_BySlice) return m_Chunks[i % m_ChunkCount] + i / m_ChunkCount;
        const unsigned position = i >> m_LogChunkCount;
        return m_Chunks[i - (position << m_LogChunkCount)] + position;
    }
    T* Locate(unsigned x, unsigned y) const {
        if (m_StorageMethod != Storage_BySlice) return Locate(x + m_Dims[0] * y);
        return m_Dims.size() == 2 ? m_Chunks[y] + x : m_Chunks[0] + (m_Dims[1] * x + y);
    }
    T* Locate(unsigned x, unsigned y, unsigned z) const {
        if (m_StorageMethod == Storage_BySlice) return m_Chunks[z] + (m_Dims[1] * x + y);
        return Locate(x + m_Offsets[1] * y + m_Offsets[2] * z);
    }
    /// Both take positions to which the tolerance has been added.
    T Interpolate(float x, float y, float z) const;
    bool ShiftedInside(float x, float y, float z) const;

    T** m_Chunks = nullptr;  ///< chunk table
    unsigned m_ChunkCount = 0;
    unsigned m_ChunkSize = 0;
    unsigned m_DataSize = 0;
    std::vector<unsigned> m_Dims;
    unsigned* m_Offsets = nullptr;  ///< offset table, one entry a dimension
    bool m_Shallow = false;
    unsigned m_LogChunkCount = 0;  ///< 0 for everything but interleaved storage
    StorageMethod m_StorageMethod = Storage_Auto;
    VoxArray<bool>* m_Mask = nullptr;
    std::byte* m_Region = nullptr;  ///< what the chunks lie in, null when each has its own block
    std::size_t m_RegionBytes = 0;
};

namespace VRK::detail {

/// Values at the eight corners of a cell, x varying fastest and z slowest.
template <typename T>
struct CellCorners {
    T values[8];
};

/// Blends the corners, in double: fx, fy, fz are the fractions of the way to the upper corner.
template <typename T>
inline T blend(const CellCorners<T>& c, float fx, float fy, float fz) {
    const double ux = fx;
    const double uy = fy;
    const double uz = fz;
    const auto along = [](double low, double high, double u) { return high * u + low * (1 - u); };
    const auto v = [&c](int i) { return static_cast<double>(c.values[i]); };
    const double upper = along(along(v(4), v(5), ux), along(v(6), v(7), ux), uy);
    const double lower = along(along(v(0), v(1), ux), along(v(2), v(3), ux), uy);
    const double value = upper * uz + lower * (1 - uz);
    if constexpr (std::is_same_v<T, bool>)
        return static_cast<int>(value) != 0;
    else
        return static_cast<T>(value);
}

/// Colours blend component by component.
template <typename S>
inline VoxPoint3D<S> blend(const CellCorners<VoxPoint3D<S>>& c, float fx, float fy, float fz) {
    VoxPoint3D<S> result;
    for (int component = 0; component < 3; ++component) {
        CellCorners<S> corners{};
        for (int i = 0; i < 8; ++i)
            corners.values[i] = c.values[i][component];
        result[component] = blend(corners, fx, fy, fz);
    }
    return result;
}

}  // namespace VRK::detail

template <typename T>
inline T VoxArray<T>::Interpolate(float x, float y, float z) const {
    // Inside the array no position is negative, so truncation is floor.
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const int iz = static_cast<int>(z);
    const float fx = x - static_cast<float>(ix);
    const float fy = y - static_cast<float>(iy);
    const float fz = z - static_cast<float>(iz);
    const auto x0 = static_cast<unsigned>(ix);
    const auto y0 = static_cast<unsigned>(iy);
    const auto z0 = static_cast<unsigned>(iz);
    const unsigned x1 = x0 + (fx > 0 ? 1U : 0U);
    const unsigned y1 = y0 + (fy > 0 ? 1U : 0U);
    const unsigned z1 = z0 + (fz > 0 ? 1U : 0U);
    if (m_StorageMethod == Storage_BySlice) {
        const T* const low = m_Chunks[z0];
        const T* const high = m_Chunks[z1];
        const unsigned a = m_Dims[1] * x0;
        const unsigned b = m_Dims[1] * x1;
        return VRK::detail::blend(
            VRK::detail::CellCorners<T>{low[a + y0], low[b + y0], low[a + y1], low[b + y1],  //
                                        high[a + y0], high[b + y0], high[a + y1], high[b + y1]},
            fx, fy, fz);
    }
    return VRK::detail::blend(
        VRK::detail::CellCorners<T>{*Locate(x0, y0, z0), *Locate(x1, y0, z0), *Locate(x0, y1, z0),
                                    *Locate(x1, y1, z0), *Locate(x0, y0, z1), *Locate(x1, y0, z1),
                                    *Locate(x0, y1, z1), *Locate(x1, y1, z1)},
        fx, fy, fz);
}

template <typename T>
inline bool VoxArray<T>::Inside(float x, float y, float z) const {
    return ShiftedInside(x + kPositionTolerance, y + kPositionTolerance, z + kPositionTolerance);
}

// floor(p) >= 0 and ceil(p) <= size - 1 say the same as 0 <= p <= size - 1.
template <typename T>
inline bool VoxArray<T>::ShiftedInside(float x, float y, float z) const {
    const auto within = [](float p, unsigned size) { return p >= 0 && p <= static_cast<double>(size) - 1; };
    if (!within(x, GetWidth()) || !within(y, GetHeight()) || !within(z, GetDepth())) return false;
    const auto nearest = [](float p) { return static_cast<unsigned>(std::floor(p + 0.5)); };
    return !m_Mask || m_Mask->GetValue(nearest(x), nearest(y), nearest(z));
}

extern template class VoxArray<short>;
extern template class VoxArray<bool>;
extern template class VoxArray<unsigned char>;
extern template class VoxArray<float>;
extern template class VoxArray<double>;
extern template class VoxArray<VoxPoint3D<unsigned char>>;
