#include "pipeline/run/ResultTables.h"

#include <algorithm>

#include "pipeline/base/Angle.h"

namespace vrk {
namespace {

/// A row's indices.
template <typename Row>
void setIndices(Row& row, int h, int k, int l) {
    row.h = h;
    row.k = k;
    row.l = l;
}

CellRow rowOf(const RefinedLattice& lattice, LATTICE::BravaisTypes type) {
    return {lattice.cell, lattice.cellSigma, lattice.volume, lattice.volumeSigma, LATTICE::shortName(type)};
}

}  // namespace

std::vector<ReflectionRow> reflectionRows(const RunResult& result) {
    const Indexed& indexed = result.indexed;
    const Lattice& lattice = indexed.lattice();
    const auto& toConventional = indexed.symmetry().toConventional;
    std::vector<ReflectionRow> rows(indexed.level.reflections.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const FoundReflection& found = indexed.level.reflections[i];
        const Indices& hkl = indexed.refined.indices[i];
        ReflectionRow& row = rows[i];
        row.indexed = hkl[0] != kNotIndexed;
        std::array<int, 3> conventional{};
        for (std::size_t to = 0; row.indexed && to < 3; ++to)
            for (std::size_t from = 0; from < 3; ++from)
                conventional[to] += hkl[from] * toConventional[from][to];
        setIndices(row, conventional[0], conventional[1], conventional[2]);
        const Eigen::Vector3d place = indexed.refined.positions[i] - lattice.origin;
        row.x = place.x();
        row.y = place.y();
        row.z = place.z();
        row.spacing = 1e10 / (place.norm() * lattice.pixelSize);
        row.tilt = found.tilt / kDegree;
        row.intensity = found.intensity;
        row.cut = found.cut;
    }
    return rows;
}

std::vector<FrameRow> frameRows(const RunResult& result) {
    constexpr double kLowResolution = 1e4;  // Angstrom
    std::vector<FrameRow> rows(result.volume.centres.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const PatternCentre& centre = result.volume.centres[i];
        rows[i] = {result.volume.tilts[i], centre.x,        centre.y, centre.error,
                   centre.jumped,          centre.doubtful, 1.0};
        if (result.intensities)
            rows[i].scale =
                result.intensities->reduction.scales.factor(static_cast<double>(i), kLowResolution);
    }
    return rows;
}

std::vector<IntensityRow> intensityRows(const RunResult& result) {
    std::vector<IntensityRow> rows;
    if (!result.intensities) return rows;
    for (const IntegratedReflection& one : result.intensities->integration.reflections)
        rows.push_back({one.h, one.k, one.l, one.intensity, one.sigma, one.spacing, one.x, one.y, one.frame,
                        one.tilt, one.coverage, one.good()});
    return rows;
}

std::vector<ObservationRow> observationRows(const RunResult& result) {
    std::vector<ObservationRow> rows;
    if (!result.intensities) return rows;
    for (const Observation& one : result.intensities->reduction.observations)
        rows.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma, one.spacing, one.frame,
                        one.scale, one.outlier});
    return rows;
}

std::vector<MergedRow> mergedRows(const RunResult& result) {
    std::vector<MergedRow> rows;
    if (!result.intensities) return rows;
    for (const MergedReflection& one : result.intensities->reduction.merged)
        rows.push_back(
            {one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma, one.spacing, one.observations});
    return rows;
}

CellRow conventionalCell(const RunResult& result) {
    return rowOf(result.indexed.conventional, result.indexed.symmetry().bravaisType);
}

CellRow reducedCell(const RunResult& result) {
    return rowOf(result.indexed.refined.lattice, LATTICE::aP);
}

}  // namespace vrk
