#include <map>
#include <tuple>

#include "Arrays.h"
#include "Calls.h"
#include "SettingTable.h"
#include "pipeline/run/RunSummary.h"

namespace vrk::python {
namespace {

/// "search", "y", or an angle in degrees.
void takeAxis(const py::object& value, AxisChoice& choice) {
    if (!py::isinstance<py::str>(value)) {
        choice.source = AxisChoice::Source::Given;
        choice.angle = value.cast<double>();
        return;
    }
    const auto text = value.cast<std::string>();
    if (text != "search" && text != "y")
        raise({FailureKind::Usage,
               "the tilt axis is an angle in degrees, 'search' or 'y', not '" + text + "'"});
    choice.source = text == "search" ? AxisChoice::Source::Search : AxisChoice::Source::AlongY;
}

/// "middle", a file, or x and y.
void takeCentre(const py::object& value, CentreChoice& choice) {
    if (py::isinstance<py::tuple>(value) || py::isinstance<py::list>(value)) {
        choice.source = CentreChoice::Source::Given;
        std::tie(choice.x, choice.y) = value.cast<std::pair<double, double>>();
    } else if (py::isinstance<py::str>(value) && value.cast<std::string>() == "middle") {
        choice.source = CentreChoice::Source::Middle;
    } else {
        choice.source = CentreChoice::Source::File;
        choice.file = value.cast<std::filesystem::path>();
    }
}

RotationMode modeOf(const std::string& name) {
    for (const RotationMode mode :
         {RotationMode::Continuous, RotationMode::Stepwise, RotationMode::Precession})
        if (name == nameOf(mode)) return mode;
    raise({FailureKind::Usage, "the mode is continuous, stepwise or precession, not '" + name + "'"});
}

ClusteringMethod clusteringOf(const std::string& name) {
    for (const ClusteringMethod method :
         {ClusteringMethod::DBSCAN, ClusteringMethod::DDSC, ClusteringMethod::FSC})
        if (name == nameOf(method)) return method;
    raise({FailureKind::Usage, "the clustering is dbscan, ddsc or fsc, not '" + name + "'"});
}

void addCellSettings(SettingTable& table, CellOptions& cell) {
    table.add("min_length", cell.minLength)
        .add("max_length", cell.maxLength)
        .add("eps", cell.eps)
        .add("min_points", cell.minPoints)
        .add("refine_clusters", cell.refineClusters)
        .add("angle_a", cell.angleA)
        .add("angle_b", cell.angleB)
        .add("det_limit", cell.detLimit)
        .add("grid_size", cell.gridSize)
        .add("full_space", cell.fullSpace)
        .add("clustering",
             [&cell](const py::object& value) { cell.clustering = clusteringOf(value.cast<std::string>()); });
}

RunOptions runOptionsOf(const py::dict& values) {
    RunOptions options;
    std::optional<std::filesystem::path> distortion;
    SettingTable table;
    table.add("axis", [&](const py::object& value) { takeAxis(value, options.axis); })
        .add("centre", [&](const py::object& value) { takeCentre(value, options.centre); })
        .add("pixel_size", options.pixelSize)
        .add("voltage", options.kiloVolts)
        .add("fine_calibration", options.fineCalibration)
        .add("distortion", distortion)
        .add("threshold", options.search.threshold)
        .add("min_voxels", options.search.minVoxels)
        .add("max_voxels", options.search.maxVoxels)
        .add("zero_beam", options.search.zeroBeam)
        .add("resolution", options.search.resolution)
        .add("integrate", options.intensities.wanted)
        .add("d_min", options.intensities.dMin)
        .add("gain", options.intensities.gain)
        .add("mode",
             [&](const py::object& value) { options.intensities.mode = modeOf(value.cast<std::string>()); })
        .add("crystals", options.crystals);
    addCellSettings(table, options.cell);
    table.apply(values);
    if (distortion)
        options.instrument = call(py::object(), py::object(), [&](Observer& observer) {
            return attempt(observer, [&](Session&) { return readInstrumentFile(*distortion); });
        });
    return options;
}

py::list textsOf(const std::vector<std::string>& texts) {
    py::list list;
    for (const std::string& text : texts)
        list.append(textOf(text));
    return list;
}

py::tuple tupleOf(const CellRow& row) {
    return py::make_tuple(py::tuple(py::cast(row.cell)), py::tuple(py::cast(row.sigma)), row.volume,
                          row.volumeSigma, row.bravais);
}

ReflectionFile kindOf(const std::string& name) {
    static const std::map<std::string, ReflectionFile> kinds = {{"shelx", ReflectionFile::Shelx},
                                                                {"ins", ReflectionFile::ShelxInstructions},
                                                                {"mtz", ReflectionFile::Mtz},
                                                                {"cif", ReflectionFile::Cif},
                                                                {"unmerged_mtz", ReflectionFile::UnmergedMtz},
                                                                {"xds", ReflectionFile::XdsAscii},
                                                                {"frames", ReflectionFile::FrameTable},
                                                                {"dynamical", ReflectionFile::DynamicalCif}};
    return kinds.at(name);
}

py::dict findCellOf(
    const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
    const std::optional<py::array_t<double, py::array::c_style | py::array::forcecast>>& intensities,
    const py::dict& values, py::object progress, py::object log) {
    if (points.ndim() != 2 || points.shape(1) != 3)
        throw py::value_error("points have the shape (reflections, 3)");
    if (intensities && (intensities->ndim() != 1 || intensities->shape(0) != points.shape(0)))
        throw py::value_error("there are as many intensities as points");
    PeakCellOptions options;
    SettingTable table;
    table.add("pixel_size", options.pixelSize)
        .add("merge", options.mergeDistance)
        .add("crystals", options.crystals);
    addCellSettings(table, options.cell);
    table.apply(values);
    std::vector<Eigen::Vector3d> places;
    const auto at = points.unchecked<2>();
    for (py::ssize_t i = 0; i < points.shape(0); ++i)
        places.emplace_back(at(i, 0), at(i, 1), at(i, 2));
    std::vector<double> weights;
    if (intensities) weights.assign(intensities->data(), intensities->data() + intensities->size());
    const PeakCell cell = call(std::move(progress), std::move(log), [&](Observer& observer) {
        return findCell(places, weights, options, observer);
    });
    const auto sixOf = [](const CellParameters& c) {
        return py::make_tuple(c.a, c.b, c.c, c.alpha, c.beta, c.gamma);
    };
    py::array_t<double> vectors({3, 3});
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            vectors.mutable_at(i, j) = cell.answer.lattice.basis(j, i);
    py::dict found;
    found["conventional"] = sixOf(cell.symmetry.measured);
    found["symmetrised"] = sixOf(cell.symmetry.symmetrised);
    found["bravais"] = LATTICE::shortName(cell.symmetry.bravaisType);
    found["reciprocal_vectors"] = vectors;
    found["indexed"] = cell.answer.score.indexed;
    found["reflections"] = cell.points.size();
    found["confidence"] = nameOf(cell.verdict.level);
    found["reasons"] = textsOf(cell.verdict.reasons);
    found["has_scale"] = cell.hasScale();
    return found;
}

}  // namespace

void addRun(py::module_& module) {
    PYBIND11_NUMPY_DTYPE_EX(ReflectionRow, h, "h", k, "k", l, "l", indexed, "indexed", cut, "cut", x, "x", y,
                            "y", z, "z", tilt, "tilt", intensity, "intensity", spacing, "d");
    PYBIND11_NUMPY_DTYPE_EX(FrameRow, tilt, "tilt", x, "x", y, "y", centreSigma, "centre_sigma", jumped,
                            "jumped", doubtful, "doubtful", scale, "scale");
    PYBIND11_NUMPY_DTYPE_EX(IntensityRow, h, "h", k, "k", l, "l", intensity, "intensity", sigma, "sigma",
                            spacing, "d", x, "x", y, "y", frame, "frame", tilt, "tilt", coverage, "coverage",
                            good, "good");
    PYBIND11_NUMPY_DTYPE_EX(ObservationRow, h, "h", k, "k", l, "l", intensity, "intensity", sigma, "sigma",
                            spacing, "d", frame, "frame", scale, "scale", outlier, "outlier");
    PYBIND11_NUMPY_DTYPE_EX(MergedRow, h, "h", k, "k", l, "l", intensity, "intensity", sigma, "sigma",
                            spacing, "d", observations, "observations");
    py::class_<RunResult>(module, "RunResult")
        .def_property_readonly("cell",
                               [](const RunResult& result) { return tupleOf(conventionalCell(result)); })
        .def_property_readonly("reduced_cell",
                               [](const RunResult& result) { return tupleOf(reducedCell(result)); })
        .def_property_readonly("confidence",
                               [](const RunResult& result) { return nameOf(result.indexed.verdict.level); })
        .def_property_readonly(
            "reasons", [](const RunResult& result) { return textsOf(result.indexed.verdict.reasons); })
        .def_property_readonly("warnings", [](const RunResult& result) { return textsOf(result.warnings); })
        .def_property_readonly("volume",
                               [](const py::object& self) {
                                   return viewOf(*self.cast<const RunResult&>().volume.voxels, true, self);
                               })
        .def_property_readonly("reflections",
                               [](const RunResult& result) { return arrayOf(reflectionRows(result)); })
        .def_property_readonly("frames", [](const RunResult& result) { return arrayOf(frameRows(result)); })
        .def_property_readonly("intensities",
                               [](const RunResult& result) { return arrayOf(intensityRows(result)); })
        .def_property_readonly("observations",
                               [](const RunResult& result) { return arrayOf(observationRows(result)); })
        .def_property_readonly("merged", [](const RunResult& result) { return arrayOf(mergedRows(result)); })
        .def("summary",
             [](const RunResult& result, const std::string& name) {
                 return textOf(summaryJson({"", name, {}}, result, result.warnings, {}));
             })
        .def("write",
             [](const RunResult& result, const std::filesystem::path& folder,
                const std::filesystem::path& name, const std::string& title, const std::string& formula) {
                 return call(py::object(), py::object(), [&](Observer& observer) {
                     return writeResults(result, folder, name, {title, formula}, observer);
                 });
             })
        .def("write_reflections",
             [](const RunResult& result, const std::string& kind, const std::filesystem::path& path,
                const std::string& title, const std::string& formula) {
                 const ReflectionFile file = kindOf(kind);
                 call(py::object(), py::object(), [&](Observer& observer) {
                     return writeReflections(result, file, path, {title, formula}, observer);
                 });
             });
    module.def("run",
               [](const TiltSeries& series, const py::dict& values, py::object progress, py::object log) {
                   const RunOptions options = runOptionsOf(values);
                   return call(std::move(progress), std::move(log),
                               [&](Observer& observer) { return run(series, options, observer); });
               });
    module.def("write_report",
               [](const std::vector<std::filesystem::path>& folders, const std::filesystem::path& page) {
                   call(py::object(), py::object(),
                        [&](Observer& observer) { return writeReportPage(folders, page, observer); });
               });
    module.def("find_cell", findCellOf);
}

}  // namespace vrk::python
