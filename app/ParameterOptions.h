/// \file
/// The settings of reflection search and cell finding as command-line options, the same for every command
/// that takes them.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <optional>

#include "cellfinding/Parameter.h"

namespace host {

/// What a user may set of the reflection search. Values that were not given are empty.
struct SearchOptions {
    std::optional<double> threshold;
    std::optional<int> minVoxels;
    std::optional<int> maxVoxels;
    std::optional<double> zeroBeam;    ///< radius in voxels; 0 switches the cut off
    std::optional<double> resolution;  ///< radius in voxels; 0 switches the limit off
    std::optional<int> centre;

    /// Sets the values that were given; the others stay as they are. Throws Failure when a lower limit is
    /// then above its upper one.
    void applyTo(Parameter& parameter) const;
};

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

    /// Whether the user gave any of them.
    bool isGiven() const;
    /// Sets the values that were given; the others stay as they are. Throws Failure when a lower limit is
    /// then above its upper one.
    void applyTo(Parameter& parameter) const;
};

/// Adds the options to a command, with their ranges and, where \p showDefaults asks for it, with the values
/// that hold when an option is not given. The struct must live until the command line has been read.
void addSearchOptions(CLI::App& command, SearchOptions& options, bool showDefaults);
void addCellOptions(CLI::App& command, CellOptions& options, bool showDefaults);

/// The settings in use, under the names of the options with underscores. What is switched off is null.
nlohmann::ordered_json searchSettings(const Parameter& parameter);
nlohmann::ordered_json cellSettings(const Parameter& parameter);

}  // namespace host
