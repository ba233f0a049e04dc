/// \file
/// Data of the library as numpy arrays.
#pragma once

#include <pybind11/numpy.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace vrk::python {

namespace py = pybind11;

/// The rows themselves, which the array owns from now on.
template <typename Row>
py::array_t<Row> arrayOf(std::vector<Row> rows) {
    auto kept = std::make_unique<std::vector<Row>>(std::move(rows));
    const py::capsule owner(kept.get(), [](void* vector) { delete static_cast<std::vector<Row>*>(vector); });
    const std::vector<Row>& values = *kept.release();
    return py::array_t<Row>(static_cast<py::ssize_t>(values.size()), values.data(), owner);
}

/// What is stored, to be read, with the axes (z, y, x): no copy where the slices lie at equal distances.
/// \param owner     keeps the data alive
/// \param isVolume  y is fastest, otherwise x
py::array_t<std::int16_t> viewOf(const VoxMRCData& data, bool isVolume, const py::object& owner);

}  // namespace vrk::python
