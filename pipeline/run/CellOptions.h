/// \file
/// The settings of the cell finding that a user may give.
#pragma once

#include <optional>

#include "cellfinding/ClusteringMethod.h"
#include "pipeline/base/Session.h"
#include "pipeline/latticesearch/CellSearch.h"

class Parameter;

namespace vrk {

/// What a user may set of the cell finding. Values that were not given are empty.
struct CellOptions {
    std::optional<double> minLength;
    std::optional<double> maxLength;
    std::optional<double> eps;
    std::optional<int> minPoints;
    std::optional<double> refineClusters;  ///< percent; 0 switches the refinement off
    std::optional<double> angleA;
    std::optional<double> angleB;
    std::optional<double> detLimit;
    std::optional<int> gridSize;
    bool fullSpace = false;
    ClusteringMethod clustering = ClusteringMethod::DBSCAN;

    /// Whether the user gave any of them; the method of the clustering leaves everything else to be found.
    bool isGiven() const;
    /// Sets the values that were given; the others stay as they are. Throws Failure when a lower limit is
    /// then above its upper one, for a radius or density that the clustering has no use for, and for angles
    /// in degrees.
    void applyTo(Parameter& parameter) const;
};

/// A search with the values fixed that were given.
/// \param session  stops it; must live as long as the search
CellSearchOptions searchOptions(const CellOptions& options, Session& session);

}  // namespace vrk
