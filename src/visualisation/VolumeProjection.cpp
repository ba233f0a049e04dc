#include "visualisation/VolumeProjection.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"

namespace {

constexpr short kLowest = std::numeric_limits<short>::lowest();

/// The slices of a volume, of rows * columns voxels each, columns fastest: x or y.
struct Slices {
    std::vector<const short*> data;
    std::size_t rows;
    std::size_t columns;
    bool xFastest;

    std::size_t width() const { return xFastest ? columns : rows; }
    std::size_t height() const { return xFastest ? rows : columns; }
};

Slices slicesOf(const VoxMRCData& volume) {
    Slices slices{{}, volume.GetWidth(), volume.GetHeight(), false};
    for (unsigned z = 0; z < volume.GetDepth(); ++z)
        slices.data.push_back(volume.GetChunkPointer(z));
    return slices;
}

Slices slicesOf(const VoxVolumeData& view) {
    Slices slices{{}, view.height(), view.width(), true};
    for (std::size_t z = 0; z < view.depth(); ++z)
        slices.data.push_back(view.voxels().data() + z * slices.rows * slices.columns);
    return slices;
}

/// Raises each of the accumulated values to the one at its place.
void raise(std::vector<short>& accumulated, const short* values) {
    for (std::size_t i = 0; i < accumulated.size(); ++i)
        accumulated[i] = std::max(accumulated[i], values[i]);
}

/// The largest value of every row of a slice.
std::vector<short> alongColumns(const Slices& slices, const short* slice) {
    std::vector<short> highest;
    for (std::size_t row = 0; row < slices.rows; ++row, slice += slices.columns)
        highest.push_back(std::accumulate(slice, slice + slices.columns, kLowest,
                                          [](short a, short b) { return std::max(a, b); }));
    return highest;
}

std::vector<short> alongRows(const Slices& slices, const short* slice) {
    std::vector<short> highest(slices.columns, kLowest);
    for (std::size_t row = 0; row < slices.rows; ++row, slice += slices.columns)
        raise(highest, slice);
    return highest;
}

PlaneImage blank(std::size_t width, std::size_t height) {
    return {static_cast<int>(width), static_cast<int>(height)};
}

/// z to the right, y downwards.
PlaneImage alongX(const Slices& slices) {
    PlaneImage image = blank(slices.data.size(), slices.height());
    for (int z = 0; z < image.width; ++z) {
        const short* slice = slices.data[static_cast<std::size_t>(z)];
        const std::vector<short> column =
            slices.xFastest ? alongColumns(slices, slice) : alongRows(slices, slice);
        for (int y = 0; y < image.height; ++y)
            image.at(z, y) = column[static_cast<std::size_t>(y)];
    }
    return image;
}

/// x to the right, z downwards.
PlaneImage alongY(const Slices& slices) {
    PlaneImage image = blank(slices.width(), slices.data.size());
    for (int z = 0; z < image.height; ++z) {
        const short* slice = slices.data[static_cast<std::size_t>(z)];
        const std::vector<short> row =
            slices.xFastest ? alongRows(slices, slice) : alongColumns(slices, slice);
        std::copy(row.begin(), row.end(), &image.at(0, z));
    }
    return image;
}

/// x to the right, y downwards.
PlaneImage alongZ(const Slices& slices) {
    std::vector<short> layer(slices.rows * slices.columns, kLowest);
    for (const short* slice : slices.data)
        raise(layer, slice);
    PlaneImage image = blank(slices.width(), slices.height());
    if (slices.xFastest)
        std::copy(layer.begin(), layer.end(), image.values.begin());
    else
        for (std::size_t i = 0; i < layer.size(); ++i)
            image.at(static_cast<int>(i / slices.columns), static_cast<int>(i % slices.columns)) = layer[i];
    return image;
}

PlaneImage project(const Slices& slices, int axis) {
    switch (axis) {
        case 0:
            return alongX(slices);
        case 1:
            return alongY(slices);
        case 2:
            return alongZ(slices);
        default:
            return {};
    }
}

}  // namespace

PlaneImage VolumeProjection::maximumAlong(const VoxMRCData& volume, int axis) {
    if (volume.GetDimCount() != 3 || volume.GetDataSize() == 0) return {};
    return project(slicesOf(volume), axis);
}

PlaneImage VolumeProjection::maximumAlong(const VoxVolumeData& view, int axis) {
    return project(slicesOf(view), axis);
}

ImageOverlay VolumeProjection::axesOf(const PlaneImage& image, int axis, double length) {
    static constexpr std::array<std::array<const char*, 3>, 3> kNames = {
        {{"along x", "z", "y"}, {"along y (tilt axis)", "x", "z"}, {"along z", "x", "y"}}};
    if (axis < 0 || axis > 2) return {};
    const std::array<const char*, 3>& names = kNames[static_cast<std::size_t>(axis)];
    const double left = 12.0;
    const double top = image.height - length - 22.0;
    ImageOverlay overlay;
    overlay.title = std::string("maximum ") + names[0];
    overlay.lines.push_back({left, top, left + length, top, names[1]});
    overlay.lines.push_back({left, top, left, top + length, names[2]});
    return overlay;
}
