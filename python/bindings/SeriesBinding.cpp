#include <array>
#include <cstddef>
#include <cstring>
#include <limits>

#include "Arrays.h"
#include "Calls.h"
#include "SettingTable.h"

namespace vrk::python {
namespace {

/// A frame of an array of any strides.
template <typename Number>
TiltSeries::FrameSource sourceOf(const py::array& frames) {
    const auto* first = static_cast<const std::byte*>(frames.data());
    const std::array<py::ssize_t, 3> step = {frames.strides(0), frames.strides(1), frames.strides(2)};
    const std::array<py::ssize_t, 2> size = {frames.shape(1), frames.shape(2)};
    return [first, step, size](std::size_t frame, std::span<float> counts) {
        std::size_t i = 0;
        for (py::ssize_t row = 0; row < size[0]; ++row) {
            const std::byte* at = first + static_cast<py::ssize_t>(frame) * step[0] + row * step[1];
            for (py::ssize_t column = 0; column < size[1]; ++column, at += step[2]) {
                Number value;
                std::memcpy(&value, at, sizeof value);
                counts[i++] = static_cast<float>(value);
            }
        }
    };
}

/// \returns an empty function for a type that is read by none
TiltSeries::FrameSource anySource(const py::array& frames) {
    const py::dtype type = frames.dtype();
    const bool isNative = type.attr("isnative").cast<bool>();
    if (!isNative) return {};
    switch (type.kind()) {
        case 'b':
            return sourceOf<std::uint8_t>(frames);
        case 'i':
            if (type.itemsize() == 1) return sourceOf<std::int8_t>(frames);
            if (type.itemsize() == 2) return sourceOf<std::int16_t>(frames);
            if (type.itemsize() == 4) return sourceOf<std::int32_t>(frames);
            return sourceOf<std::int64_t>(frames);
        case 'u':
            if (type.itemsize() == 1) return sourceOf<std::uint8_t>(frames);
            if (type.itemsize() == 2) return sourceOf<std::uint16_t>(frames);
            if (type.itemsize() == 4) return sourceOf<std::uint32_t>(frames);
            return sourceOf<std::uint64_t>(frames);
        case 'f':
            if (type.itemsize() == 4) return sourceOf<float>(frames);
            if (type.itemsize() == 8) return sourceOf<double>(frames);
            return {};
        default:
            return {};
    }
}

TiltSeries fromArray(py::array frames,
                     const py::array_t<double, py::array::c_style | py::array::forcecast>& tilts,
                     double pixelSize, std::optional<double> voltage, std::optional<double> axis) {
    if (frames.ndim() != 3)
        throw py::value_error("frames have the shape (frames, rows, columns), not " +
                              std::to_string(frames.ndim()) + " dimensions");
    if (std::string("biuf").find(frames.dtype().kind()) == std::string::npos)
        throw py::type_error("frames are numbers, not " + py::str(frames.dtype()).cast<std::string>());
    if (tilts.ndim() != 1 || tilts.shape(0) != frames.shape(0))
        raise({FailureKind::Usage, std::to_string(frames.shape(0)) + " frames need as many tilts, not " +
                                       std::to_string(tilts.size())});
    TiltSeries::FrameSource source = anySource(frames);
    if (!source) {
        frames = py::array_t<double, py::array::forcecast>::ensure(frames);
        if (!frames) throw py::error_already_set();
        source = anySource(frames);
    }
    const std::span<const double> angles(tilts.data(), static_cast<std::size_t>(tilts.size()));
    const auto edge = [](py::ssize_t size) {
        return static_cast<int>(std::min<py::ssize_t>(size, std::numeric_limits<int>::max()));
    };
    return call(py::object(), py::object(), [&](Observer& observer) {
        return TiltSeries::make(edge(frames.shape(2)), edge(frames.shape(1)), angles,
                                {pixelSize, voltage.value_or(0.0), axis}, source, observer);
    });
}

TiltSeries fromFrames(const std::vector<std::filesystem::path>& files, const py::dict& values,
                      py::object progress, py::object log) {
    ImportSettings settings;
    SettingTable()
        .add("tilts", settings.tilts)
        .add("skip_bad", settings.skipBad)
        .add("allow_outside", settings.allowOutside)
        .add("sum", settings.sum)
        .add("bin", settings.bin)
        .add("scale", settings.scale)
        .add("pixel_size", settings.pixelSize)
        .add("axis", settings.axis)
        .add("voltage", settings.kilovolts)
        .apply(values);
    return call(std::move(progress), std::move(log),
                [&](Observer& observer) { return importSeries(files, settings, observer); });
}

py::object orNone(double value) {
    return value != 0.0 ? py::object(py::float_(value)) : py::none();
}

}  // namespace

void addSeries(py::module_& module) {
    py::class_<TiltSeries>(module, "TiltSeries")
        .def_static("from_mrc",
                    [](const std::filesystem::path& path) {
                        return call(py::object(), py::object(),
                                    [&](Observer& observer) { return TiltSeries::read(path, observer); });
                    })
        .def_static("from_frames", fromFrames)
        .def_static("from_array", fromArray)
        .def_property_readonly(
            "frames",
            [](const py::object& self) { return viewOf(self.cast<const TiltSeries&>().data(), false, self); })
        .def_property_readonly("tilts", [](const TiltSeries& series) { return arrayOf(series.tilts()); })
        .def_property_readonly("pixel_size",
                               [](const TiltSeries& series) { return orNone(series.statement().pixelSize); })
        .def_property_readonly("voltage",
                               [](const TiltSeries& series) { return orNone(series.statement().kiloVolts); })
        .def_property_readonly("axis", [](const TiltSeries& series) { return series.statement().axis; })
        .def_property_readonly("shape",
                               [](const TiltSeries& series) {
                                   return py::make_tuple(series.frames(), series.rows(), series.columns());
                               })
        .def("write", [](const TiltSeries& series, const std::filesystem::path& path) {
            call(py::object(), py::object(),
                 [&](Observer& observer) { return series.write(path, observer); });
        });
}

}  // namespace vrk::python
