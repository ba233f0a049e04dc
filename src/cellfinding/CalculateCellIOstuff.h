/// \file
/// Intermediate results of the cell finding as text files, for a look at what the steps saw.
#pragma once

#include <string>
#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Cluster.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/CubicGrid.h"

/// Writes the files and holds the two switches that make CalculateCellAlgorithm write them. The switches and
/// the folder are the thread's own; set them before the steps run, not while they do. Both are off at first.
///
/// One row a point, blanks between x, y, z in voxels and the label; two empty lines between clusters, so
/// that gnuplot takes each for an index of its own. Earlier files of the same name are replaced.
///
/// Every writer returns false for a null argument, and for a file that cannot be written, with one error in
/// the log that names it.
class VRKCORE_EXPORT CalculateCellIOstuff {
public:
    /// No more clusters than this are written.
    static constexpr int kMostClusters = 500;

    /// Steps two and three write the difference vectors and the clusters.
    static void setWriteData(bool write);
    static bool getWriteData();
    /// Step three writes the clusters projected onto their lines.
    static void setWriteLines(bool write);
    static bool getWriteLines();
    /// An existing folder; "", as at first, is the current one.
    static void setFolder(const std::string& folder);
    static const std::string& getFolder();

    /// "DiffVectors.dat": the vectors of the grid in its order.
    static bool writeDiffData(CubicGrid<ClusterPoint<double>>* grid);
    /// "DiffVectorsWithoutNoise.dat": those of them that belong to a cluster.
    static bool writeDiffDataWithoutNoise(CubicGrid<ClusterPoint<double>>* grid);
    /// "Clusters.dat", the points of the first clusters, and "ClusterCentres.dat", their centres with label
    /// and number of points.
    static bool writeClusters(const std::vector<Cluster<Point<double>>*>* clusters, int most = kMostClusters);
    /// The elongated ones among the first clusters (PointSet::getLine()) and their lines: "OnLine.dat" has
    /// the feet of the perpendiculars of their points, "OnLineNotProjected.dat" the points themselves in
    /// the same order, "BeginPoint.dat" the first foot of every line, the way from there to its last foot
    /// (three columns) and the label.
    static bool writeLines(const std::vector<Cluster<Point<double>>*>* clusters, int most = kMostClusters);
    /// "CellFinding.plt" shows those of the files above that are in the folder. Its picture is made too
    /// where gnuplot is installed.
    static bool writeGnuplotScript();

private:
    static thread_local bool m_writeData;
    static thread_local bool m_writeLines;
    static thread_local std::string m_folder;
};
