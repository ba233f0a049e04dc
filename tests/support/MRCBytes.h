/// \file
/// MRC files put together byte by byte, for tests of what reads them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

struct MRCBytes {
    std::int32_t nx = 4;
    std::int32_t ny = 3;
    std::int32_t nz = 2;
    std::int32_t next = 2 * 144;
    std::string header = std::string(1024, '\0');
    std::string extended = std::string(2 * 144, '\0');
    std::vector<std::int16_t> data = std::vector<std::int16_t>(24);

    /// A series or, with recordBytes 0, a volume of these sizes. Voxel i holds i modulo 1000.
    MRCBytes(std::int32_t width, std::int32_t height, std::int32_t slices, std::int32_t recordBytes = 144)
        : nx(width), ny(height), nz(slices), next(slices * recordBytes) {
        extended.assign(static_cast<std::size_t>(next), '\0');
        data.resize(static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny) *
                    static_cast<std::size_t>(nz));
        for (std::size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<std::int16_t>(i % 1000);
    }

    /// Little-endian, as this machine has it.
    template <class T>
    static void put(std::string& bytes, std::size_t offset, T value) {
        std::memcpy(bytes.data() + offset, &value, sizeof(value));
    }
    /// Value k, counted from 1, of a slice's record.
    void putSliceValue(int slice, int k, float value) {
        put(extended, static_cast<std::size_t>(slice * 144 + (k - 1) * 4), value);
    }
    /// A tilt series from first in equal steps, with one pixel size.
    void putTilts(float first, float step, float pixelSize = 1e8F) {
        for (int z = 0; z < nz; ++z) {
            putSliceValue(z, 1, first + static_cast<float>(z) * step);
            putSliceValue(z, 12, pixelSize);
        }
    }

    std::string bytes() const {
        std::string all = header;
        const std::int32_t sizes[] = {nx, ny, nz};
        std::memcpy(all.data(), sizes, sizeof(sizes));
        put(all, 92, next);
        all += extended;
        all.append(reinterpret_cast<const char*>(data.data()), 2 * data.size());
        return all;
    }
};
