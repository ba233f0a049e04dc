/// \file
/// Settings of the library by name.
#pragma once

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

namespace vrk::python {

namespace py = pybind11;

/// Takes keyword arguments over into a structure. Values of another type and names that it does not know
/// raise TypeError; None leaves a setting as it is.
class SettingTable {
public:
    /// A setting that is taken over as it is.
    template <typename Value>
    SettingTable& add(const char* name, Value& target) {
        return add(name, [&target](const py::object& value) { target = value.cast<Value>(); });
    }
    SettingTable& add(const char* name, std::function<void(const py::object&)> take) {
        m_setters[name] = std::move(take);
        return *this;
    }

    void apply(const py::dict& values) const {
        for (const auto& [key, value] : values) {
            const auto name = key.cast<std::string>();
            const auto setter = m_setters.find(name);
            if (setter == m_setters.end()) throw py::type_error("there is no setting '" + name + "'");
            if (value.is_none()) continue;
            try {
                setter->second(py::reinterpret_borrow<py::object>(value));
            } catch (const py::cast_error&) {
                throw py::type_error("'" + name + "' cannot be " + py::repr(value).cast<std::string>());
            }
        }
    }

private:
    std::map<std::string, std::function<void(const py::object&)>> m_setters;
};

}  // namespace vrk::python
