/// \file
/// The voxel array written down plainly, as a reference: coordinates only, no chunks.
#pragma once

#include <rapidcheck.h>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "VoxCore/DataModel/VoxArray/VoxArray.h"

template <typename T>
using ArrayPtr = std::unique_ptr<VoxArray<T>>;

inline const std::vector<StorageMethod> kMethods = {Storage_Contiguous, Storage_Interleaved, Storage_BySlice};

/// Where element (x, y, z) has to lie, worked out from the definition of the storage methods.
struct Place {
    unsigned chunk;
    unsigned position;
    bool operator==(const Place&) const = default;
};

inline Place placeOf(StorageMethod method, const std::vector<unsigned>& dims, unsigned chunkCount,
                     const std::vector<unsigned>& index) {
    if (method == Storage_BySlice && dims.size() == 3) return {index[2], dims[1] * index[0] + index[1]};
    if (method == Storage_BySlice && dims.size() == 2) return {index[1], index[0]};
    unsigned i = 0;
    for (std::size_t d = dims.size(); d-- > 0;)
        i = i * dims[d] + index[d];
    return {i % chunkCount, i / chunkCount};
}

/// Calls back with every x, y, z below the sizes.
inline void forEachVoxel(unsigned w, unsigned h, unsigned d,
                         const std::function<void(unsigned, unsigned, unsigned)>& use) {
    for (unsigned z = 0; z < d; ++z)
        for (unsigned y = 0; y < h; ++y)
            for (unsigned x = 0; x < w; ++x)
                use(x, y, z);
}

/// A volume of random values and the array that holds the same.
struct RandomVolume {
    unsigned w, h, d;
    std::vector<short> values;  ///< x fastest, then y, then z
    ArrayPtr<short> array;

    explicit RandomVolume(StorageMethod method, unsigned smallest = 1)
        : w(size(smallest)), h(size(smallest)), d(size(smallest)), values(w * h * d) {
        array.reset(VoxArray<short>::Create3D(w, h, d, method));
        forEachVoxel(w, h, d, [this](unsigned x, unsigned y, unsigned z) {
            array->SetValue(at(x, y, z) = *rc::gen::arbitrary<short>(), x, y, z);
        });
    }

    short& at(unsigned x, unsigned y, unsigned z) { return values[(z * h + y) * w + x]; }

    bool inside(float px, float py, float pz) const {
        const auto within = [](float p, unsigned n) {
            return std::floor(p + 1e-6f) >= 0 && std::ceil(p + 1e-6f) <= static_cast<float>(n - 1);
        };
        return within(px, w) && within(py, h) && within(pz, d);
    }

    /// Trilinear interpolation by its formula.
    short sample(float px, float py, float pz) {
        const float p[3] = {px + 1e-6f, py + 1e-6f, pz + 1e-6f};
        double sum = 0;
        unsigned low[3], high[3];
        double f[3];
        for (int i = 0; i < 3; ++i) {
            low[i] = static_cast<unsigned>(std::floor(p[i]));
            high[i] = static_cast<unsigned>(std::ceil(p[i]));
            f[i] = p[i] - std::floor(p[i]);
        }
        const auto plane = [&](unsigned z) {
            return (at(high[0], low[1], z) * f[0] + at(low[0], low[1], z) * (1 - f[0])) * (1 - f[1]) +
                   (at(high[0], high[1], z) * f[0] + at(low[0], high[1], z) * (1 - f[0])) * f[1];
        };
        sum = plane(high[2]) * f[2] + plane(low[2]) * (1 - f[2]);
        return static_cast<short>(sum);
    }

private:
    static unsigned size(unsigned smallest) { return *rc::gen::inRange(smallest, 7U); }
};
