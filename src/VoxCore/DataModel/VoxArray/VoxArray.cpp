#include "VoxCore/DataModel/VoxArray/VoxArray.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <optional>

#include "VoxCore/DataModel/VoxArray/detail/ElementArithmetic.h"
#include "foundation/Narration.h"
#include "foundation/detail/LargePages.h"

#ifdef __linux__
#include <sys/mman.h>
#include <sys/sysinfo.h>
#endif

namespace {

using VRK::detail::Element;

constexpr double kBytesPerMB = 1048576.0;
constexpr const char* kMinWarning = "\nWARNING: VoxCore/DataModel/VoxArray/VoxArray(947)\n";
constexpr const char* kMaxWarning = "\nWARNING: __FILE__(__LINE__)\n";

/// The system grants more memory than there is and kills the process that touches it; an array larger
/// than the machine must therefore be refused here.
bool fitsIntoMachine([[maybe_unused]] double bytes) {
#ifdef __linux__
    struct sysinfo machine {};
    if (sysinfo(&machine) != 0) return true;
    const double total = static_cast<double>(machine.totalram) + static_cast<double>(machine.totalswap);
    return bytes <= total * machine.mem_unit;
#else
    return true;
#endif
}

// Arrays of some size get their chunks side by side in one region of the address space that is backed by
// large pages: touching hundreds of megabytes for the first time in pages of 4 KiB takes longer than what is
// usually computed into them. A sanitizer sees an overrun of a chunk only when each has its own block.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kUseRegions = false;
#else
constexpr bool kUseRegions = true;
#endif
constexpr std::size_t kLeastRegion = std::size_t{4} << 20;
constexpr std::size_t kCacheLine = 64;

/// Zeros, or null.
std::byte* mapRegion([[maybe_unused]] std::size_t bytes) {
#ifdef __linux__
    void* region = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (region == MAP_FAILED) return nullptr;
    VRK::detail::preferLargePages(region, bytes);
    return static_cast<std::byte*>(region);
#else
    return nullptr;
#endif
}

void unmapRegion([[maybe_unused]] std::byte* region, [[maybe_unused]] std::size_t bytes) {
#ifdef __linux__
    munmap(region, bytes);
#endif
}

unsigned logOfInterleavedChunks(double bytes) {
    auto mebibytes = static_cast<std::uint64_t>(bytes / kBytesPerMB);
    unsigned log = 0;
    for (++mebibytes; mebibytes > 1; mebibytes /= 2)
        ++log;
    return log;
}

/// Calls operation(target, source, count) for the chunks of both arrays. They may be the same array.
template <typename T, typename Operation>
void forChunkPairs(VoxArray<T>& target, const VoxArray<T>& source, Operation operation) {
    const unsigned chunks = std::min(target.GetChunkCount(), source.GetChunkCount());
    const std::size_t count = std::min(target.GetChunkSize(), source.GetChunkSize());
    for (unsigned c = 0; c < chunks; ++c)
        operation(target.GetChunkPointer(c), source.GetChunkPointer(c), count);
}

template <typename T, typename Operation>
void combine(VoxArray<T>& target, const VoxArray<T>& source, Operation operation) {
    forChunkPairs(target, source, [operation](T* a, const T* b, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            a[i] = operation(a[i], b[i]);
    });
}

template <typename T, typename Operation>
void transformEach(VoxArray<T>& target, Operation operation) {
    for (unsigned c = 0; c < target.GetChunkCount(); ++c) {
        T* const a = target.GetChunkPointer(c);
        const std::size_t count = target.GetChunkSize();
        for (std::size_t i = 0; i < count; ++i)
            a[i] = operation(a[i]);
    }
}

template <typename T>
std::optional<T> firstNotIn(std::span<const T> values, const std::vector<T>& excluded) {
    for (const T& v : values)
        if (std::find(excluded.begin(), excluded.end(), v) == excluded.end()) return v;
    return std::nullopt;
}

/// Neighbours of a position along one axis, held within the array.
struct AxisSample {
    unsigned low = 0;
    unsigned high = 0;
    float fraction = 0;
};

AxisSample sampleAxis(float shifted, unsigned size) {
    if (!std::isfinite(shifted)) return {};
    const float low = std::floor(shifted);
    const double last = static_cast<double>(size) - 1;
    const auto within = [last](double p) { return static_cast<unsigned>(std::clamp(p, 0.0, last)); };
    return {within(low), within(std::ceil(shifted)), shifted - low};
}

std::vector<AxisSample> sampleAxis(float start, unsigned count, unsigned size, float tolerance) {
    std::vector<AxisSample> samples(count);
    for (unsigned i = 0; i < count; ++i)
        samples[i] = sampleAxis(start + static_cast<float>(i) + tolerance, size);
    return samples;
}

}  // namespace

// ---------------------------------------------------------------------------------- memory and shape

template <typename T>
VoxArray<T>::~VoxArray() {
    ReleaseMemory();
}

template <typename T>
VoxArray<T>* VoxArray<T>::Create(std::vector<unsigned> dims, StorageMethod method) {
    auto array = std::make_unique<VoxArray>();
    if (!array->Init(dims, method)) return nullptr;
    return array.release();
}

template <typename T>
VoxArray<T>* VoxArray<T>::Create1D(unsigned n, StorageMethod method) {
    return Create({n}, method);
}

template <typename T>
VoxArray<T>* VoxArray<T>::Create2D(unsigned width, unsigned height, StorageMethod method) {
    return Create({width, height}, method);
}

template <typename T>
VoxArray<T>* VoxArray<T>::CreateMatrix(unsigned rows, unsigned columns, StorageMethod method) {
    return Create2D(rows, columns, method);
}

template <typename T>
VoxArray<T>* VoxArray<T>::Create3D(unsigned width, unsigned height, unsigned depth, StorageMethod method) {
    return Create({width, height, depth}, method);
}

template <typename T>
bool VoxArray<T>::Init(const std::vector<unsigned>& dims, StorageMethod method) {
    ReleaseMemory();
    Clear();
    m_Shallow = false;

    double elements = dims.empty() ? 0 : 1;
    for (const unsigned size : dims)
        elements *= size;
    bool done = false;
    try {
        InitVariables(dims, method, elements);
        done = elements <= std::numeric_limits<unsigned>::max() && InitMemory();
    } catch (const std::bad_alloc&) {
        done = false;
    }
    if (!done) {
        std::cerr << "\n\nERROR: VoxArray::Init() : Could not allocate "
                  << static_cast<float>(elements * sizeof(T) / kBytesPerMB) << " MB memory in" << m_ChunkCount
                  << " chunks.\n\n";
        FreeChunks();
        Clear();
    }
    return done;
}

template <typename T>
void VoxArray<T>::InitVariables(const std::vector<unsigned>& dims, StorageMethod method, double elements) {
    constexpr double kMost = std::numeric_limits<unsigned>::max();
    m_DataSize = static_cast<unsigned>(std::min(elements, kMost));
    m_Dims = dims;
    if (method == Storage_Auto)
        method = dims.size() == 2 || dims.size() == 3 ? Storage_BySlice : Storage_Interleaved;
    m_StorageMethod = method;

    m_ChunkCount = dims.empty() ? 0 : 1;
    if (method == Storage_BySlice && !dims.empty()) m_ChunkCount = dims.back();
    if (method == Storage_Interleaved && !dims.empty()) {
        m_LogChunkCount = logOfInterleavedChunks(std::min(elements, kMost) * sizeof(T));
        m_ChunkCount = 1U << m_LogChunkCount;
    }
    m_ChunkSize = m_ChunkCount == 0 ? 0 : m_DataSize / m_ChunkCount;

    // Volumes of one layer may be smaller than three dimensions: access by three indices finds a step.
    const std::size_t entries = std::max<std::size_t>(dims.size(), 3);
    m_Offsets = new unsigned[entries];
    unsigned step = 1;
    for (std::size_t d = 0; d < entries; ++d) {
        m_Offsets[d] = step;
        if (d < dims.size()) step *= dims[d];
    }
}

template <typename T>
bool VoxArray<T>::InitMemory() {
    // Whoever asks for an element of the incomplete last round of interleaved storage finds one.
    const bool incomplete = m_ChunkCount != 0 && m_DataSize % m_ChunkCount != 0;
    const std::size_t places = std::max<std::size_t>(std::size_t{m_ChunkSize} + (incomplete ? 1 : 0), 1);
    constexpr double kOverheadOfChunk = sizeof(T*) + 2 * sizeof(std::size_t);
    if (!fitsIntoMachine(m_ChunkCount * (static_cast<double>(places * sizeof(T)) + kOverheadOfChunk)))
        return false;

    m_Chunks = new (std::nothrow) T*[m_ChunkCount]();
    if (!m_Chunks) return false;
    if (InitRegion(places)) return true;
    for (unsigned c = 0; c < m_ChunkCount; ++c) {
        m_Chunks[c] = static_cast<T*>(std::calloc(places, sizeof(T)));
        if (!m_Chunks[c]) return false;
    }
    return true;
}

template <typename T>
bool VoxArray<T>::InitRegion(std::size_t places) {
    if (!kUseRegions) return false;
    // A line more than needed: slices of a power of two would otherwise share their places in the cache.
    const std::size_t stride = (places * sizeof(T) / kCacheLine + 1) * kCacheLine;
    const std::size_t bytes = m_ChunkCount * stride;
    if (m_ChunkCount < 2 || bytes < kLeastRegion) return false;
    m_Region = mapRegion(bytes);
    if (!m_Region) return false;
    m_RegionBytes = bytes;
    for (unsigned c = 0; c < m_ChunkCount; ++c)
        m_Chunks[c] = reinterpret_cast<T*>(m_Region + c * stride);
    return true;
}

template <typename T>
void VoxArray<T>::FreeChunks() {
    if (m_Region)
        unmapRegion(m_Region, m_RegionBytes);
    else if (m_Chunks)
        for (unsigned c = 0; c < m_ChunkCount; ++c)
            std::free(m_Chunks[c]);
    delete[] m_Chunks;
    delete[] m_Offsets;
    delete m_Mask;
}

template <typename T>
void VoxArray<T>::Clear() {
    m_Chunks = nullptr;
    m_Region = nullptr;
    m_RegionBytes = 0;
    m_Offsets = nullptr;
    m_Mask = nullptr;
    m_Dims.clear();
    m_ChunkCount = 0;
    m_ChunkSize = 0;
    m_DataSize = 0;
    m_LogChunkCount = 0;
}

template <typename T>
void VoxArray<T>::ReleaseMemory() {
    if (m_Shallow) return;
    FreeChunks();
    Clear();
    m_Shallow = true;
}

template <typename T>
float VoxArray<T>::GetMemoryUsedInMB() const {
    return static_cast<float>(m_DataSize * static_cast<double>(sizeof(T)) / kBytesPerMB);
}

template <typename T>
void VoxArray<T>::GetSliceParameters(unsigned& sliceCount, unsigned& sliceSize) const {
    sliceCount = m_Dims.empty() ? 0 : m_Dims.back();
    sliceSize = sliceCount == 0 ? 0 : m_DataSize / sliceCount;
}

template <typename T>
void VoxArray<T>::SetMask(VoxArray<bool>* mask) {
    if (mask == m_Mask) return;
    delete m_Mask;
    m_Mask = mask;
}

// ------------------------------------------------------------------------------- whole-array operations

template <typename T>
VoxArray<T>& VoxArray<T>::operator=(const VoxArray& other) {
    if (this != &other)
        forChunkPairs(*this, other, [](T* a, const T* b, std::size_t count) { std::copy_n(b, count, a); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator=(T value) {
    for (unsigned c = 0; c < m_ChunkCount; ++c)
        std::ranges::fill(Chunk(c), value);
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator+=(const VoxArray& other) {
    combine(*this, other, [](T a, T b) { return Element<T>::add(a, b); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator-=(const VoxArray& other) {
    combine(*this, other, [](T a, T b) { return Element<T>::subtract(a, b); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator*=(const VoxArray& other) {
    combine(*this, other, [](T a, T b) { return Element<T>::multiply(a, b); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator/=(const VoxArray& other) {
    combine(*this, other, [](T a, T b) { return Element<T>::divide(a, b); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator+=(T value) {
    transformEach(*this, [value](T a) { return Element<T>::add(a, value); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator-=(T value) {
    transformEach(*this, [value](T a) { return Element<T>::subtract(a, value); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator*=(T value) {
    transformEach(*this, [value](T a) { return Element<T>::multiply(a, value); });
    return *this;
}

template <typename T>
VoxArray<T>& VoxArray<T>::operator/=(T value) {
    if (value == Element<T>::one()) return *this;
    transformEach(*this, [value](T a) { return Element<T>::divide(a, value); });
    return *this;
}

template <typename T>
bool VoxArray<T>::operator==(const VoxArray& other) const {
    const unsigned chunks = std::min(m_ChunkCount, other.m_ChunkCount);
    const std::size_t count = std::min(m_ChunkSize, other.m_ChunkSize);
    for (unsigned c = 0; c < chunks; ++c)
        if (!std::ranges::equal(Chunk(c).first(count), other.Chunk(c).first(count))) return false;
    return true;
}

template <typename T>
void VoxArray<T>::LimitMinValue(const T& limit, const T& replacement) {
    // By value: either may be an element of this array.
    transformEach(*this, [limit, replacement](T a) { return a < limit ? replacement : a; });
}

template <typename T>
void VoxArray<T>::LimitMaxValue(const T& limit, const T& replacement) {
    transformEach(*this, [limit, replacement](T a) { return a > limit ? replacement : a; });
}

template <typename T>
void VoxArray<T>::Replace(T value, VoxArray<bool> mask) {
    mask.SetShallow(true);
    const unsigned chunks = std::min(m_ChunkCount, mask.GetChunkCount());
    const std::size_t count = std::min(m_ChunkSize, mask.GetChunkSize());
    for (unsigned c = 0; c < chunks; ++c) {
        T* const a = m_Chunks[c];
        const bool* const masked = mask.GetChunkPointer(c);
        for (std::size_t i = 0; i < count; ++i)
            a[i] = masked[i] ? value : a[i];
    }
}

template <typename T>
T VoxArray<T>::Sum() const {
    T sum{};
    for (unsigned c = 0; c < m_ChunkCount; ++c)
        for (const T& v : Chunk(c))
            sum = Element<T>::add(sum, v);
    return sum;
}

template <typename T>
T VoxArray<T>::ScalarProduct(const VoxArray& a, const VoxArray& b) {
    T sum{};
    const unsigned chunks = std::min(a.m_ChunkCount, b.m_ChunkCount);
    const std::size_t count = std::min(a.m_ChunkSize, b.m_ChunkSize);
    for (unsigned c = 0; c < chunks; ++c) {
        const T* const p = a.m_Chunks[c];
        const T* const q = b.m_Chunks[c];
        for (std::size_t i = 0; i < count; ++i)
            sum = Element<T>::add(sum, Element<T>::multiply(p[i], q[i]));
    }
    return sum;
}

template <typename T>
T VoxArray<T>::GetMinValue(std::vector<T> excluded) const {
    return FindExtreme(excluded, kMinWarning, std::less<T>());
}

template <typename T>
T VoxArray<T>::GetMaxValue(std::vector<T> excluded) const {
    return FindExtreme(excluded, kMaxWarning, std::greater<T>());
}

template <typename T>
template <typename Better>
T VoxArray<T>::FindExtreme(const std::vector<T>& excluded, const char* warning, Better better) const {
    const std::optional<T> best = VRK::detail::kIsNarrow<T> && !excluded.empty()
                                      ? ExtremeOfValuesSeen(excluded, better)
                                      : ExtremeByComparison(excluded, better);
    if (best) return *best;
    VRK::narration() << warning;
    return excluded.empty() ? T{} : T{excluded.front()};
}

/// Narrow types: marking which values occur needs no decision per element, however many are excluded.
template <typename T>
template <typename Better>
std::optional<T> VoxArray<T>::ExtremeOfValuesSeen(const std::vector<T>& excluded, Better better) const {
    std::optional<T> best;
    if constexpr (VRK::detail::kIsNarrow<T>) {
        constexpr int kLowest = std::numeric_limits<T>::min();
        constexpr int kHighest = std::numeric_limits<T>::max();
        std::array<unsigned char, kHighest - kLowest + 1> seen{};
        for (unsigned c = 0; c < m_ChunkCount; ++c)
            for (const T& v : Chunk(c))
                seen[static_cast<std::size_t>(v - kLowest)] = 1;
        for (const T& v : excluded)
            seen[static_cast<std::size_t>(v - kLowest)] = 0;
        for (int v = kLowest; v <= kHighest; ++v) {
            const T value = Element<T>::convert(v);
            if (seen[static_cast<std::size_t>(v - kLowest)] && (!best || better(value, *best))) best = value;
        }
    }
    return best;
}

template <typename T>
template <typename Better>
std::optional<T> VoxArray<T>::ExtremeByComparison(const std::vector<T>& excluded, Better better) const {
    std::optional<T> start;
    for (unsigned c = 0; c < m_ChunkCount && !start; ++c)
        start = firstNotIn<T>(Chunk(c), excluded);
    if (!start) return start;

    T best = *start;
    for (unsigned c = 0; c < m_ChunkCount; ++c) {
        if (excluded.empty()) {
            for (const T& v : Chunk(c))
                best = better(v, best) ? v : best;
            continue;
        }
        for (const T& v : Chunk(c))
            if (better(v, best) && std::find(excluded.begin(), excluded.end(), v) == excluded.end()) best = v;
    }
    return best;
}

// ------------------------------------------------------------------------------------------- moments

template <typename T>
template <typename Visitor>
void VoxArray<T>::VisitVoxels(Visitor visit) const {
    if (m_StorageMethod == Storage_BySlice && m_Dims.size() == 3) {
        for (unsigned z = 0; z < m_Dims[2]; ++z)
            for (unsigned x = 0; x < m_Dims[0]; ++x)
                for (unsigned y = 0; y < m_Dims[1]; ++y)
                    visit(*Locate(x, y, z), std::array{x, y, z});
        return;
    }
    if (m_StorageMethod == Storage_BySlice && m_Dims.size() == 2) {
        for (unsigned y = 0; y < m_Dims[1]; ++y)
            for (unsigned x = 0; x < m_Dims[0]; ++x)
                visit(*Locate(x, y), std::array{x, y, 0U});
        return;
    }
    const unsigned stored = m_ChunkCount * m_ChunkSize;
    if (stored == 0) return;
    std::array<unsigned, 3> sizes{1, 1, 1};
    std::copy_n(m_Dims.begin(), std::min<std::size_t>(m_Dims.size(), 3), sizes.begin());
    std::array<unsigned, 3> index{};
    for (unsigned i = 0; i < stored; ++i) {
        visit(*Locate(i), index);
        for (std::size_t d = 0; d < 3; ++d) {
            if (++index[d] < sizes[d]) break;
            index[d] = 0;
        }
    }
}

template <typename T>
T VoxArray<T>::WeightedSum(std::size_t axis) const {
    T sum{};
    VisitVoxels([&sum, axis](T value, const std::array<unsigned, 3>& index) {
        sum = Element<T>::add(sum, Element<T>::multiply(value, Element<T>::fromIndex(index[axis])));
    });
    return sum;
}

template <typename T>
T VoxArray<T>::GetMoment000() const {
    unsigned sliceCount = 0;
    unsigned sliceSize = 0;
    GetSliceParameters(sliceCount, sliceSize);
    std::vector<T> sums(sliceCount);
    const unsigned stored = m_ChunkCount * m_ChunkSize;
    for (unsigned s = 0; s < sliceCount; ++s) {
        T sum{};
        if (m_StorageMethod == Storage_BySlice) {
            for (const T& v : Chunk(s))
                sum = Element<T>::add(sum, v);
        } else {
            for (unsigned i = s * sliceSize; i < std::min((s + 1) * sliceSize, stored); ++i)
                sum = Element<T>::add(sum, *Locate(i));
        }
        sums[s] = sum;
    }
    T total{};
    for (const T sum : sums)
        total = Element<T>::add(total, sum);
    return total;
}

template <typename T>
T VoxArray<T>::GetMoment100() const {
    return WeightedSum(0);
}

template <typename T>
T VoxArray<T>::GetMoment010() const {
    return WeightedSum(1);
}

template <typename T>
T VoxArray<T>::GetMoment001() const {
    return WeightedSum(2);
}

template <typename T>
VoxPoint3D<T> VoxArray<T>::GetCentreOfMass() const {
    const T total = GetMoment000();
    return {Element<T>::divideOrZero(GetMoment100(), total), Element<T>::divideOrZero(GetMoment010(), total),
            Element<T>::divideOrZero(GetMoment001(), total)};
}

// ----------------------------------------------------------------------------------- copies and views

template <typename T>
VoxArray<T>* VoxArray<T>::Clone() const {
    std::unique_ptr<VoxArray> copy(Create(m_Dims, m_StorageMethod));
    if (!copy) return nullptr;
    *copy = *this;
    if (m_Mask) {
        copy->SetMask(m_Mask->Clone());
        if (!copy->m_Mask) return nullptr;
    }
    return copy.release();
}

template <typename T>
VoxArray<T>* VoxArray<T>::GetSubVolume(unsigned x0, unsigned y0, unsigned z0, unsigned w, unsigned h,
                                       unsigned d) const {
    std::unique_ptr<VoxArray> block(Create3D(w, h, d, Storage_Auto));
    if (!block || m_DataSize == 0) return block.release();
    const auto overlap = [](unsigned start, unsigned count, unsigned size) {
        return start >= size ? 0U : std::min(count, size - start);
    };
    const unsigned nx = overlap(x0, w, GetWidth());
    const unsigned ny = overlap(y0, h, GetHeight());
    const unsigned nz = overlap(z0, d, GetDepth());
    for (unsigned z = 0; z < nz; ++z)
        for (unsigned x = 0; x < nx; ++x)
            for (unsigned y = 0; y < ny; ++y)
                *block->Locate(x, y, z) = *Locate(x0 + x, y0 + y, z0 + z);
    return block.release();
}

template <typename T>
VoxArray<T>* VoxArray<T>::GetSubVolume(float x0, float y0, float z0, unsigned w, unsigned h,
                                       unsigned d) const {
    std::unique_ptr<VoxArray> block(Create3D(w, h, d, Storage_Auto));
    if (!block || m_DataSize == 0 || m_Dims.size() < 3) return block.release();
    const std::vector<AxisSample> xs = sampleAxis(x0, w, GetWidth(), kPositionTolerance);
    const std::vector<AxisSample> ys = sampleAxis(y0, h, GetHeight(), kPositionTolerance);
    const std::vector<AxisSample> zs = sampleAxis(z0, d, GetDepth(), kPositionTolerance);
    for (unsigned k = 0; k < d; ++k) {
        const AxisSample z = zs[k];
        for (unsigned i = 0; i < w; ++i) {
            const AxisSample x = xs[i];
            for (unsigned j = 0; j < h; ++j) {
                const AxisSample y = ys[j];
                *block->Locate(i, j, k) = VRK::detail::blend(
                    VRK::detail::CellCorners<T>{*Locate(x.low, y.low, z.low), *Locate(x.high, y.low, z.low),
                                                *Locate(x.low, y.high, z.low), *Locate(x.high, y.high, z.low),
                                                *Locate(x.low, y.low, z.high), *Locate(x.high, y.low, z.high),
                                                *Locate(x.low, y.high, z.high),
                                                *Locate(x.high, y.high, z.high)},
                    x.fraction, y.fraction, z.fraction);
            }
        }
    }
    return block.release();
}

template <typename T>
T* VoxArray<T>::LocateInPlane(unsigned axis, unsigned index, unsigned u, unsigned v) const {
    std::array<unsigned, 3> p{};
    p[axis] = index;
    p[(axis + 1) % 3] = u;
    p[(axis + 2) % 3] = v;
    return Locate(p[0], p[1], p[2]);
}

template <typename T>
VoxArray<T>* VoxArray<T>::GetHyperPlane(unsigned axis, unsigned index, StorageMethod method) const {
    if (m_Dims.size() != 3 || axis > 2 || index >= m_Dims[axis]) return nullptr;
    const unsigned width = m_Dims[(axis + 1) % 3];
    const unsigned height = m_Dims[(axis + 2) % 3];
    VoxArray* const plane = Create2D(width, height, method);
    if (!plane) return nullptr;
    for (unsigned v = 0; v < height; ++v)
        for (unsigned u = 0; u < width; ++u)
            *plane->Locate(u, v) = *LocateInPlane(axis, index, u, v);
    return plane;
}

template <typename T>
bool VoxArray<T>::SetHyperPlane(VoxArray& plane, unsigned axis, unsigned index) {
    if (m_Dims.size() != 3 || axis > 2 || index >= m_Dims[axis]) return false;
    const unsigned width = m_Dims[(axis + 1) % 3];
    const unsigned height = m_Dims[(axis + 2) % 3];
    if (plane.m_Dims != std::vector{width, height}) return false;
    for (unsigned v = 0; v < height; ++v)
        for (unsigned u = 0; u < width; ++u)
            *LocateInPlane(axis, index, u, v) = *plane.Locate(u, v);
    return true;
}

template <typename T>
VoxArray<T>* VoxArray<T>::GetTransformedVolume(VoxArray& transform) const {
    if (transform.m_Dims.size() != 2 || transform.m_Dims[0] < 3 || transform.m_Dims[1] < 4) return nullptr;
    if (m_Dims.size() != 3) return nullptr;
    std::unique_ptr<VoxArray> target(Create(m_Dims, m_StorageMethod));
    if (!target) return nullptr;
    if (m_Mask) {
        target->SetMask(VoxArray<bool>::Create(m_Dims, m_Mask->GetStorageMethod()));
        if (!target->m_Mask) return nullptr;
    }
    AffineMap map{};
    for (unsigned r = 0; r < 3; ++r)
        for (unsigned c = 0; c < 4; ++c)
            map[r][c] = Element<T>::number(*transform.Locate(r, c));

    // Voxels do not depend on each other: the target is filled in the order in which it lies in memory.
    const bool columns = m_StorageMethod == Storage_BySlice;
    for (unsigned z = 0; z < m_Dims[2]; ++z)
        for (unsigned outer = 0; outer < m_Dims[columns ? 0 : 1]; ++outer)
            TransformLine(*target, map, columns, outer, z);
    return target.release();
}

/// Fills the target's line along y at x = outer, or along x at y = outer.
template <typename T>
void VoxArray<T>::TransformLine(VoxArray& target, const AffineMap& map, bool alongY, unsigned outer,
                                unsigned z) const {
    const unsigned count = m_Dims[alongY ? 1 : 0];
    for (unsigned inner = 0; inner < count; ++inner) {
        const unsigned x = alongY ? outer : inner;
        const unsigned y = alongY ? inner : outer;
        std::array<float, 3> p{};
        for (std::size_t r = 0; r < 3; ++r) {
            const double source = map[r][0] * x + map[r][1] * y + map[r][2] * z + map[r][3];
            p[r] = static_cast<float>(source) + kPositionTolerance;
        }
        const bool inside = ShiftedInside(p[0], p[1], p[2]);
        *target.Locate(x, y, z) = inside ? Interpolate(p[0], p[1], p[2]) : T{};
        if (target.m_Mask) target.m_Mask->SetValue(inside, x, y, z);
    }
}

template <typename T>
T* VoxArray<T>::ToArray() const {
    T* const all = new (std::nothrow) T[m_DataSize]();
    if (!all) {
        std::cerr << "ERROR: VoxArray::ToArray(): Could not allocate memory." << std::endl;
        return nullptr;
    }
    // In blocks of positions, so that the lines being written stay in the cache from chunk to chunk.
    constexpr unsigned kBlock = 64;
    for (std::size_t begin = 0; begin < m_ChunkSize; begin += kBlock) {
        const std::size_t end = std::min<std::size_t>(begin + kBlock, m_ChunkSize);
        for (std::size_t c = 0; c < m_ChunkCount; ++c)
            for (std::size_t j = begin; j < end; ++j)
                all[m_ChunkCount * j + c] = m_Chunks[c][j];
    }
    return all;
}

template <typename T>
T* VoxArray<T>::ToArrayByChunk(unsigned chunk) const {
    std::cout << "VoxArray::ToArrayByChunk(): chunk " << chunk << std::endl;
    if (chunk >= m_ChunkCount) return nullptr;
    T* const copy = new (std::nothrow) T[m_ChunkSize];
    if (!copy) {
        std::cerr << "ERROR: VoxArray::ToArrayByChunk(): Could not allocate memory." << std::endl;
        return nullptr;
    }
    for (unsigned j = 0; j < m_ChunkSize; ++j) {
        copy[j] = m_Chunks[chunk][j];
        std::cout << " val " << j << '=';
        Element<T>::print(std::cout, copy[j]);
    }
    return copy;
}

template <typename T>
std::vector<T*>* VoxArray<T>::ToVectorArray() const {
    return new std::vector<T*>(m_Chunks, m_Chunks + m_ChunkCount);
}

// ------------------------------------------------------------------------------------------- matrices

template <typename T>
VoxArray<T>* VoxArray<T>::MatrixMul(const VoxArray& right) const {
    if (m_Dims.size() != 2 || right.m_Dims.size() != 2) return nullptr;
    std::unique_ptr<VoxArray> product(CreateMatrix(m_Dims[0], right.m_Dims[1], Storage_Auto));
    if (!product || !MatrixMul(right, *product)) return nullptr;
    return product.release();
}

template <typename T>
bool VoxArray<T>::MatrixMul(const VoxArray& right, VoxArray& result) const {
    if (m_Dims.size() != 2 || right.m_Dims.size() != 2 || m_Dims[1] != right.m_Dims[0]) return false;
    if (result.m_Dims != std::vector{m_Dims[0], right.m_Dims[1]}) return false;
    for (unsigned c = 0; c < right.m_Dims[1]; ++c) {
        for (unsigned r = 0; r < m_Dims[0]; ++r) {
            T sum{};
            for (unsigned k = 0; k < m_Dims[1]; ++k)
                sum = Element<T>::add(sum, Element<T>::multiply(*Locate(r, k), *right.Locate(k, c)));
            *result.Locate(r, c) = sum;
        }
    }
    return true;
}

template <typename T>
VoxArray<T>* VoxArray<T>::MatrixTranspose() const {
    if (m_Dims.size() != 2) return nullptr;
    VoxArray* const transposed = CreateMatrix(m_Dims[1], m_Dims[0], Storage_Auto);
    if (!transposed) return nullptr;
    for (unsigned r = 0; r < m_Dims[0]; ++r)
        for (unsigned c = 0; c < m_Dims[1]; ++c)
            *transposed->Locate(c, r) = *Locate(r, c);
    return transposed;
}

template <typename T>
void VoxArray<T>::SetIdentity() {
    *this = T{};
    if (m_Dims.size() != 2) return;
    for (unsigned i = 0; i < std::min(m_Dims[0], m_Dims[1]); ++i)
        *Locate(i, i) = Element<T>::one();
}

template <typename T>
bool VoxArray<T>::HasBlock(unsigned row, unsigned column, unsigned rows, unsigned columns) const {
    return m_Dims.size() == 2 && row <= m_Dims[0] && rows <= m_Dims[0] - row && column <= m_Dims[1] &&
           columns <= m_Dims[1] - column;
}

template <typename T>
VoxArray<T>* VoxArray<T>::GetSubMatrix(unsigned row, unsigned column, unsigned rows, unsigned columns) const {
    if (!HasBlock(row, column, rows, columns)) return nullptr;
    VoxArray* const block = CreateMatrix(rows, columns, Storage_Auto);
    if (!block) return nullptr;
    for (unsigned c = 0; c < columns; ++c)
        for (unsigned r = 0; r < rows; ++r)
            *block->Locate(r, c) = *Locate(row + r, column + c);
    return block;
}

template <typename T>
bool VoxArray<T>::SetSubMatrix(unsigned row, unsigned column, const VoxArray& block) {
    if (!HasBlock(row, column, block.GetRows(), block.GetColumns()) || block.m_Dims.size() != 2) return false;
    for (unsigned c = 0; c < block.m_Dims[1]; ++c)
        for (unsigned r = 0; r < block.m_Dims[0]; ++r)
            *Locate(row + r, column + c) = *block.Locate(r, c);
    return true;
}

template <typename T>
VoxArray<T>* VoxArray<T>::Reshape(unsigned rows) const {
    if (rows == 0 || m_Dims.size() != 2) return nullptr;
    VoxArray* const matrix = Create2D(rows, m_DataSize / rows, Storage_Auto);
    if (!matrix) return nullptr;
    for (unsigned i = 0; i < matrix->m_DataSize; ++i)
        *matrix->Locate(i) = *Locate(i);
    return matrix;
}

template <typename T>
std::string VoxArray<T>::ToString() const {
    std::string text;
    if (m_DataSize == 0) return text;
    const bool oneColumn = m_Dims.size() == 1;
    for (unsigned x = 0; x < m_Dims[0]; ++x) {
        for (unsigned y = 0; y < (oneColumn ? 1 : m_Dims[1]); ++y)
            Element<T>::appendFixed(text, oneColumn ? *Locate(x) : *Locate(x, y));
        text += '\n';
    }
    return text;
}

template class VoxArray<short>;
template class VoxArray<bool>;
template class VoxArray<unsigned char>;
template class VoxArray<float>;
template class VoxArray<double>;
template class VoxArray<VoxPoint3D<unsigned char>>;
