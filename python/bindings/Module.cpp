#include "Calls.h"
#include "foundation/Version.h"

PYBIND11_MODULE(_vrkcore, module) {
    module.attr("__version__") = VRK::kVersion;
    vrk::python::addExceptions(module);
    vrk::python::addSeries(module);
    vrk::python::addRun(module);
    vrk::python::addCells(module);
    vrk::python::addMerging(module);
    vrk::python::addSimulation(module);
}
