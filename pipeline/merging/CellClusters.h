/// \file
/// Which crystals have the same cell.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "pipeline/merging/ReducedCell.h"

namespace vrk {

struct CellClusterOptions {
    CellMetric metric = CellMetric::Strain;
    /// Distance up to which crystals belong together. 3 % is a few times what pixel sizes and lenses spread
    /// the cells of one phase by, up to a per cent, and about the least that lets structures be told apart by
    /// their cells. For CellMetric::S6 it is in square Angstrom and has to be given.
    double cut = 0.03;
    /// More different cells than this are not told apart in the dendrogram: those nearest to one another come
    /// together first. It bounds time and memory, which grow with its square.
    std::size_t mostDifferent = 2000;
};

/// A step of the dendrogram, numbered as usual: crystals are 0 ... n - 1 in the order given, what the i-th
/// step made is n + i.
struct ClusterJoin {
    std::size_t first = 0;
    std::size_t second = 0;
    double distance = 0;
    std::size_t crystals = 0;  ///< in what the step made
};

struct CellCluster {
    std::vector<std::size_t> crystals;  ///< ascending
    std::size_t middle = 0;             ///< the crystal whose cell is nearest to those of all others
    double spread = 0;                  ///< median distance of the others to it; 0 for a single one
};

struct CellClustering {
    std::vector<ClusterJoin> joins;     ///< by rising distance
    std::vector<CellCluster> clusters;  ///< the largest first, of equal ones that with the first crystal
    std::vector<int> clusterOf;         ///< by crystal; -1 for those without a usable cell
    std::vector<double> fromMiddle;     ///< by crystal: distance to the middle of its cluster; 0 where none
    std::vector<std::size_t> outliers;  ///< crystals alone in their cluster while some other has company
    std::vector<std::size_t> unusable;  ///< whose parameters span no lattice
    /// Up to this distance cells were put together in the order of the list rather than by the tree; 0 unless
    /// there were too many different ones.
    double resolution = 0;
};

/// Clusters the reduced primitive cells hierarchically by average linkage (UPGMA): the distance of two
/// clusters is the mean over their pairs, so that a few bad cells between two phases do not chain them
/// together as single linkage does; strains above 0.5 count as 0.5. The tree is made by nearest-neighbour
/// chains (F. Murtagh, The Computer Journal 26 (1983) 354, doi:10.1093/comjnl/26.4.354) from a matrix of
/// distances between different cells; when these are more than CellClusterOptions::mostDifferent, each
/// crystal first joins the first one in the list that is nearer than a radius, which grows until they are
/// not. The result does not depend on anything but the list.
CellClustering clusterCells(std::span<const CrystalCell> crystals, const CellClusterOptions& options = {});

}  // namespace vrk
