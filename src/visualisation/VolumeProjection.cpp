#include "visualisation/VolumeProjection.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace {

constexpr short kLowest = std::numeric_limits<short>::lowest();

/// Raises each of the accumulated values to the one at its place.
void raise(std::vector<short>& accumulated, const short* values) {
    for (std::size_t i = 0; i < accumulated.size(); ++i)
        accumulated[i] = std::max(accumulated[i], values[i]);
}

PlaneImage blank(unsigned width, unsigned height) {
    return {static_cast<int>(width), static_cast<int>(height)};
}

PlaneImage alongX(const VoxMRCData& volume) {
    PlaneImage image = blank(volume.GetDepth(), volume.GetHeight());
    for (unsigned z = 0; z < volume.GetDepth(); ++z) {
        std::vector<short> column(volume.GetHeight(), kLowest);
        for (unsigned x = 0; x < volume.GetWidth(); ++x)
            raise(column, volume.GetChunkPointer(z) + std::size_t{x} * volume.GetHeight());
        for (int y = 0; y < image.height; ++y)
            image.at(static_cast<int>(z), y) = column[static_cast<std::size_t>(y)];
    }
    return image;
}

PlaneImage alongY(const VoxMRCData& volume) {
    PlaneImage image = blank(volume.GetWidth(), volume.GetDepth());
    for (unsigned z = 0; z < volume.GetDepth(); ++z)
        for (unsigned x = 0; x < volume.GetWidth(); ++x) {
            const short* column = volume.GetChunkPointer(z) + std::size_t{x} * volume.GetHeight();
            image.at(static_cast<int>(x), static_cast<int>(z)) =
                *std::max_element(column, column + volume.GetHeight());
        }
    return image;
}

PlaneImage alongZ(const VoxMRCData& volume) {
    std::vector<short> layer(volume.GetChunkSize(), kLowest);
    for (unsigned z = 0; z < volume.GetDepth(); ++z)
        raise(layer, volume.GetChunkPointer(z));
    PlaneImage image = blank(volume.GetWidth(), volume.GetHeight());
    const short* value = layer.data();
    for (int x = 0; x < image.width; ++x)
        for (int y = 0; y < image.height; ++y)
            image.at(x, y) = *value++;
    return image;
}

}  // namespace

PlaneImage VolumeProjection::maximumAlong(const VoxMRCData& volume, int axis) {
    if (volume.GetDimCount() != 3 || volume.GetDataSize() == 0) return {};
    switch (axis) {
        case 0:
            return alongX(volume);
        case 1:
            return alongY(volume);
        case 2:
            return alongZ(volume);
        default:
            return {};
    }
}

ImageOverlay VolumeProjection::axesOf(const PlaneImage& image, int axis) {
    static constexpr std::array<std::array<const char*, 3>, 3> kNames = {
        {{"along x", "z", "y"}, {"along y (tilt axis)", "x", "z"}, {"along z", "x", "y"}}};
    if (axis < 0 || axis > 2) return {};
    const std::array<const char*, 3>& names = kNames[static_cast<std::size_t>(axis)];
    const double left = 12.0;
    const double top = image.height - 62.0;
    ImageOverlay overlay;
    overlay.title = std::string("maximum ") + names[0];
    overlay.lines.push_back({left, top, left + 40.0, top, names[1]});
    overlay.lines.push_back({left, top, left, top + 40.0, names[2]});
    return overlay;
}
