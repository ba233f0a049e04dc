/// \file
/// The ways in which difference vectors can be grouped.
#pragma once

enum class ClusteringMethod {
    DBSCAN,  ///< one radius, one least density
    DDSC,    ///< the same, and clusters of even density
    FSC,     ///< centres by falling density; finds its radius
};
