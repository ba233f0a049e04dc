/// \file
/// What a caller may decide of a run. Everything has a value that lets the run find out by itself.
#pragma once

#include <filesystem>
#include <optional>

#include "pipeline/formats/InstrumentFile.h"
#include "pipeline/geometry/RotationMode.h"
#include "pipeline/run/CellOptions.h"
#include "pipeline/run/SearchOptions.h"

namespace vrk {

/// Where the direction of the tilt axis comes from.
struct AxisChoice {
    enum class Source {
        Series,  ///< what the series states; along y when it states nothing
        Given,
        AlongY,
        Search
    };
    Source source = Source::Series;
    double angle = 0.0;     ///< degrees, of Given
    double accuracy = 0.1;  ///< finest step of the search, degrees
    /// Receives the plots of the search.
    std::filesystem::path folder;
};

/// What a caller may decide of the intensities.
struct IntensityChoice {
    bool wanted = true;
    std::optional<double> dMin;        ///< Angstrom; found from the data otherwise
    std::optional<double> gain;        ///< counts that one electron makes
    std::optional<RotationMode> mode;  ///< found from the rocking curves otherwise
};

/// Where the centres of the patterns come from.
struct CentreChoice {
    enum class Source {
        Search,
        Given,  ///< one for all patterns
        File,   ///< CentreFile.h
        Middle  ///< the middle of the frames: the patterns stay where they are
    };
    Source source = Source::Search;
    double x = 0.0, y = 0.0;     ///< of Given, pixels from the middle of the first one
    std::filesystem::path file;  ///< of File
};

struct RunOptions {
    CentreChoice centre;
    AxisChoice axis;
    std::optional<double> pixelSize;                  ///< 1/m per pixel, instead of the series'
    std::optional<double> kiloVolts;                  ///< instead of the series'
    std::filesystem::path fineCalibration;            ///< file with calibrated pixel sizes; empty: none
    std::optional<InstrumentCalibration> instrument;  ///< geometry that is known of the instrument
    SearchOptions search;
    CellOptions cell;
    IntensityChoice intensities;
    int jobs = 0;                   ///< threads, the calling one included; 0: as many as there are cores
    std::optional<int> volumeSize;  ///< longest edge of the volume, voxels (VolumeBound.h)
    int crystals = 2;               ///< that are looked for, at most; 1: the first alone
};

}  // namespace vrk
