#include <algorithm>
#include <array>

#include "Arrays.h"
#include "Calls.h"
#include "SettingTable.h"
#include "pipeline/merging/MergeFiles.h"

namespace vrk::python {
namespace {

/// A scaled intensity of a merge.
struct CrystalObservationRow {
    std::int32_t h = 0, k = 0, l = 0;
    double intensity = 0.0, sigma = 0.0;
    double spacing = 0.0;  ///< d, Angstrom
    std::int32_t crystal = 0;
    double scale = 1.0;
    bool outlier = false;
};

std::vector<CrystalObservationRow> observationRowsOf(const CrystalMerge& merge) {
    std::vector<CrystalObservationRow> rows;
    for (const Observation& one : merge.data.observations)
        rows.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma, one.spacing,
                        static_cast<std::int32_t>(one.source), one.scale, one.outlier});
    return rows;
}

std::vector<MergedRow> mergedRowsOf(const CrystalMerge& merge) {
    std::vector<MergedRow> rows;
    for (const MergedReflection& one : merge.data.merged)
        rows.push_back(
            {one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma, one.spacing, one.observations});
    return rows;
}

MergeOptions mergeOptionsOf(const py::dict& values) {
    MergeOptions options;
    SettingTable table;
    table.add("cell_tolerance", options.cellTolerance)
        .add("leave_out", options.leaveOut)
        .add("keep_all", options.keepAll)
        .add("d_min", options.dMin)
        .add("reference", options.reference)
        .add("reference_cell", options.referenceCell);
    table.apply(values);
    return options;
}

py::dict clusterCellsOf(const py::array_t<double, py::array::c_style | py::array::forcecast>& rows,
                        const std::string& centrings, double cut) {
    if (rows.ndim() != 2 || rows.shape(1) != 6) throw py::value_error("cells have the shape (cells, 6)");
    if (centrings.size() != static_cast<std::size_t>(rows.shape(0)))
        throw py::value_error("there are as many centrings as cells");
    if (!(cut > 0.0)) throw py::value_error("cut is a positive strain");
    std::vector<CrystalCell> cells(centrings.size());
    for (std::size_t i = 0; i < cells.size(); ++i) {
        std::copy_n(rows.data() + 6 * i, 6, cells[i].cell.begin());
        cells[i].centring = centrings[i];
    }
    CellClusterOptions options;
    options.cut = cut;
    const CellClustering found = call(py::object(), py::object(), [&](Observer& observer) {
        return attempt(observer, [&](Session&) { return clusterCells(cells, options); });
    });
    py::array_t<double> joins({found.joins.size(), std::size_t{4}});
    auto at = joins.mutable_unchecked<2>();
    for (std::size_t i = 0; i < found.joins.size(); ++i) {
        const ClusterJoin& join = found.joins[i];
        const auto row = static_cast<py::ssize_t>(i);
        at(row, 0) = static_cast<double>(join.first);
        at(row, 1) = static_cast<double>(join.second);
        at(row, 2) = join.distance;
        at(row, 3) = static_cast<double>(join.crystals);
    }
    py::dict result;
    result["labels"] = arrayOf(std::vector<std::int64_t>(found.clusterOf.begin(), found.clusterOf.end()));
    result["strains"] = arrayOf(found.fromMiddle);
    result["joins"] = joins;
    std::vector<std::int64_t> middles;
    for (const CellCluster& cluster : found.clusters)
        middles.push_back(static_cast<std::int64_t>(cluster.middle));
    result["middles"] = arrayOf(std::move(middles));
    return result;
}

}  // namespace

void addMerging(py::module_& module) {
    PYBIND11_NUMPY_DTYPE_EX(CrystalObservationRow, h, "h", k, "k", l, "l", intensity, "intensity", sigma,
                            "sigma", spacing, "d", crystal, "crystal", scale, "scale", outlier, "outlier");
    py::class_<CrystalMerge>(module, "CrystalMerge")
        .def_property_readonly("merged",
                               [](const CrystalMerge& merge) { return arrayOf(mergedRowsOf(merge)); })
        .def_property_readonly("observations",
                               [](const CrystalMerge& merge) { return arrayOf(observationRowsOf(merge)); })
        .def("summary", [](const CrystalMerge& merge) { return textOf(mergeJson(merge, "", {})); })
        .def("write", [](const CrystalMerge& merge, const std::filesystem::path& folder,
                         const std::string& title, const std::string& formula) {
            return call(py::object(), py::object(), [&](Observer& observer) {
                return writeMergedCrystals(merge, folder, {title, formula}, observer);
            });
        });
    module.def("merge", [](const std::vector<std::filesystem::path>& folders, const py::dict& values,
                           py::object progress, py::object log) {
        const MergeOptions options = mergeOptionsOf(values);
        return call(std::move(progress), std::move(log),
                    [&](Observer& observer) { return mergeCrystals(folders, options, observer); });
    });
    module.def("cluster_cells", clusterCellsOf);
}

}  // namespace vrk::python
