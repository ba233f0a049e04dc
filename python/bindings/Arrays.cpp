#include "Arrays.h"

#include <array>
#include <optional>

namespace vrk::python {
namespace {

constexpr auto kElement = static_cast<py::ssize_t>(sizeof(std::int16_t));

/// Bytes from slice to slice; nothing where they differ.
std::optional<py::ssize_t> distanceOfSlices(const VoxMRCData& data) {
    const unsigned slices = data.GetChunkCount();
    const auto address = [&](unsigned z) { return reinterpret_cast<std::intptr_t>(data.GetChunkPointer(z)); };
    if (slices < 2) return kElement * static_cast<py::ssize_t>(data.GetChunkSize());
    const std::intptr_t distance = address(1) - address(0);
    for (unsigned z = 2; z < slices; ++z)
        if (address(z) - address(z - 1) != distance) return std::nullopt;
    return static_cast<py::ssize_t>(distance);
}

}  // namespace

py::array_t<std::int16_t> viewOf(const VoxMRCData& data, bool isVolume, const py::object& owner) {
    const auto width = static_cast<py::ssize_t>(data.GetWidth());
    const auto height = static_cast<py::ssize_t>(data.GetHeight());
    const auto depth = static_cast<py::ssize_t>(data.GetDepth());
    const std::array<py::ssize_t, 3> shape = {depth, height, width};
    const py::ssize_t alongY = isVolume ? kElement : kElement * width;
    const py::ssize_t alongX = isVolume ? kElement * height : kElement;
    py::array_t<std::int16_t> array;
    if (const std::optional<py::ssize_t> alongZ = distanceOfSlices(data)) {
        array = py::array_t<std::int16_t>(shape, std::array<py::ssize_t, 3>{*alongZ, alongY, alongX},
                                          data.GetChunkPointer(0), owner);
    } else {
        array = py::array_t<std::int16_t>(shape);
        auto values = array.mutable_unchecked<3>();
        for (py::ssize_t z = 0; z < depth; ++z) {
            const short* slice = data.GetChunkPointer(static_cast<unsigned>(z));
            for (py::ssize_t y = 0; y < height; ++y)
                for (py::ssize_t x = 0; x < width; ++x)
                    values(z, y, x) = slice[(y * alongY + x * alongX) / kElement];
        }
    }
    array.attr("flags").attr("writeable") = false;
    return array;
}

}  // namespace vrk::python
