#include "cellfinding/CalculateCellIOstuff.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <utility>

#include "cellfinding/Line.h"
#include "foundation/VRKLogger.h"
#include "visualisation/GnuplotScript.h"

thread_local bool CalculateCellIOstuff::m_writeData = false;
thread_local bool CalculateCellIOstuff::m_writeLines = false;
thread_local std::string CalculateCellIOstuff::m_folder;

namespace {

using Clusters = std::vector<Cluster<Point<double>>*>;

constexpr const char* kDiffVectors = "DiffVectors.dat";
constexpr const char* kWithoutNoise = "DiffVectorsWithoutNoise.dat";
constexpr const char* kClusters = "Clusters.dat";
constexpr const char* kCentres = "ClusterCentres.dat";
constexpr const char* kOnLine = "OnLine.dat";
constexpr const char* kNotProjected = "OnLineNotProjected.dat";
constexpr const char* kBeginPoint = "BeginPoint.dat";

std::filesystem::path pathOf(const char* name) {
    return std::filesystem::path(CalculateCellIOstuff::getFolder()) / name;
}

/// A table of points in the making.
class Table {
public:
    Table(const char* name, const char* columns) : m_path(pathOf(name)), m_file(m_path) {
        m_file << "# " << columns << '\n';
    }

    void addRow(const Point<double>& point, int label) {
        for (int axis = 0; axis < point.getDimension(); ++axis)
            m_file << point.getData(axis) << ' ';
        m_file << label << '\n';
    }
    std::ostream& text() { return m_file; }
    void endBlock() { m_file << "\n\n"; }

    bool close() {
        m_file.close();
        if (m_file) return true;
        VRKLogger::getInstance()->log(
            "Cannot write " + m_path.string() +
                ". Check that the folder exists and may be written to, and the space left.",
            VRK::Error, VRK::Information);
        return false;
    }

private:
    std::filesystem::path m_path;
    std::ofstream m_file;
};

/// Those of the first clusters that have points.
Clusters firstOf(const Clusters& clusters, int most) {
    Clusters first(clusters.begin(),
                   clusters.begin() + std::clamp<std::ptrdiff_t>(most, 0, std::ssize(clusters)));
    std::erase_if(first, [](const auto* cluster) { return !cluster || cluster->getNumberOfPoints() == 0; });
    return first;
}

bool writeGrid(CubicGrid<ClusterPoint<double>>* grid, const char* name, bool withNoise) {
    if (!grid) return false;
    Table table(name, "x y z label");
    for (const ClusterPoint<double>* point : *grid->getPoints())
        if (withNoise || point->getClusterID() > 0) table.addRow(*point, point->getClusterID());
    return table.close();
}

/// The part of a line between the first and the last foot of a cluster's points.
class Stretch {
public:
    explicit Stretch(const Line<double>& line) : m_line(line) {}

    void widen(const Point<double>& foot) {
        double along = 0.0;
        for (int axis = 0; axis < m_line.getDimension(); ++axis)
            along += (foot.getData(axis) - m_line.getPoint(axis)) * m_line.getVec(axis);
        if (!m_begin || along < m_from) {
            m_from = along;
            m_begin = std::make_unique<Point<double>>(foot);
        }
        if (!m_end || along > m_to) {
            m_to = along;
            m_end = std::make_unique<Point<double>>(foot);
        }
    }
    void writeTo(Table& table, int label) const {
        for (int axis = 0; axis < m_line.getDimension(); ++axis)
            table.text() << m_begin->getData(axis) << ' ';
        for (int axis = 0; axis < m_line.getDimension(); ++axis)
            table.text() << m_end->getData(axis) - m_begin->getData(axis) << ' ';
        table.text() << label << '\n';
    }

private:
    const Line<double>& m_line;
    std::unique_ptr<Point<double>> m_begin;
    std::unique_ptr<Point<double>> m_end;
    double m_from = 0.0;
    double m_to = 0.0;
};

}  // namespace

void CalculateCellIOstuff::setWriteData(bool write) {
    m_writeData = write;
}

bool CalculateCellIOstuff::getWriteData() {
    return m_writeData;
}

void CalculateCellIOstuff::setWriteLines(bool write) {
    m_writeLines = write;
}

bool CalculateCellIOstuff::getWriteLines() {
    return m_writeLines;
}

void CalculateCellIOstuff::setFolder(const std::string& folder) {
    m_folder = folder;
}

const std::string& CalculateCellIOstuff::getFolder() {
    return m_folder;
}

bool CalculateCellIOstuff::writeDiffData(CubicGrid<ClusterPoint<double>>* grid) {
    return writeGrid(grid, kDiffVectors, true);
}

bool CalculateCellIOstuff::writeDiffDataWithoutNoise(CubicGrid<ClusterPoint<double>>* grid) {
    return writeGrid(grid, kWithoutNoise, false);
}

bool CalculateCellIOstuff::writeClusters(const std::vector<Cluster<Point<double>>*>* clusters, int most) {
    if (!clusters) return false;
    Table points(kClusters, "x y z label");
    Table centres(kCentres, "x y z label points");
    for (const auto* cluster : firstOf(*clusters, most)) {
        for (int i = 0; i < cluster->getNumberOfPoints(); ++i)
            points.addRow(*cluster->getPointAt(i), cluster->getClusterID());
        points.endBlock();
        for (int axis = 0; axis < cluster->getDimension(); ++axis)
            centres.text() << cluster->getCenterOfGrafity(axis) << ' ';
        centres.text() << cluster->getClusterID() << ' ' << cluster->getNumberOfPoints() << '\n';
    }
    const bool written = points.close();
    return centres.close() && written;
}

bool CalculateCellIOstuff::writeLines(const std::vector<Cluster<Point<double>>*>* clusters, int most) {
    if (!clusters) return false;
    Table onLine(kOnLine, "x y z label");
    Table notProjected(kNotProjected, "x y z label");
    Table beginPoint(kBeginPoint, "x y z dx dy dz label");
    for (const auto* cluster : firstOf(*clusters, most)) {
        Line<double> line(cluster->getDimension());
        if (!cluster->getLine(&line)) continue;
        const int label = cluster->getClusterID();
        Stretch stretch(line);
        for (int i = 0; i < cluster->getNumberOfPoints(); ++i) {
            const Point<double>* point = cluster->getPointAt(i);
            const std::unique_ptr<Point<double>> foot(line.getFootOfAPerpendicular(point));
            if (!foot) continue;
            onLine.addRow(*foot, label);
            notProjected.addRow(*point, label);
            stretch.widen(*foot);
        }
        onLine.endBlock();
        notProjected.endBlock();
        stretch.writeTo(beginPoint, label);
    }
    bool written = true;
    for (Table* table : {&onLine, &notProjected, &beginPoint})
        written = table->close() && written;
    return written;
}

bool CalculateCellIOstuff::writeGnuplotScript() {
    constexpr std::pair<const char*, const char*> kLayers[] = {
        {kDiffVectors, "using 1:2:3 with dots linecolor rgb 'grey70' title 'difference vectors'"},
        {kWithoutNoise,
         "using 1:2:3:4 with points pointtype 7 pointsize 0.3 linecolor variable title 'in clusters'"},
        {kBeginPoint, "using 1:2:3:4:5:6 with vectors nohead linecolor rgb 'black' title 'lines'"},
        {kCentres, "using 1:2:3:4 with labels point pointtype 1 offset 1,0.5 title 'centres'"},
    };
    std::string plot;
    for (const auto& [name, style] : kLayers) {
        std::error_code ignored;
        if (!std::filesystem::exists(pathOf(name), ignored)) continue;
        plot += (plot.empty() ? "splot " : ", ") + GnuplotScript::quoted(name) + ' ' + style;
    }
    GnuplotScript script(m_folder, "CellFinding", 1400, 1200);
    for (const char* axis : {"x", "y", "z"})
        script.addCommand(std::string("set ") + axis + "label '" + axis + " (voxels)'");
    script.addCommand("set view equal xyz");
    script.addCommand("set xyplane relative 0");
    if (!plot.empty()) script.addCommand(plot);
    if (!script.save()) return false;
    script.render();
    return true;
}
