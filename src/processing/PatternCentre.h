/// \file
/// Where the direct beam hits a pattern of a series.
#pragma once

/// The centre of one pattern, in pixels from the middle of the first one, x to the right, y down the file.
struct PatternCentre {
    enum class Source {
        None,        ///< nothing found, nothing known
        Beam,        ///< the beam and its halo
        Pattern,     ///< inversion symmetry of the whole pattern
        Neighbours,  ///< interpolated between other patterns
        Given,       ///< by the caller
        Lattice      ///< from the places of its spots in the lattice
    };

    double x = 0;
    double y = 0;
    double error = 0;     ///< standard uncertainty of a coordinate, pixels; 0 when Given
    double symmetry = 0;  ///< correlation of the pattern with its inversion about the centre
    Source source = Source::None;
    bool jumped = false;    ///< the beam moved abruptly between the pattern before and this one
    bool doubtful = false;  ///< it may lie elsewhere: the series shows too little of the beam

    /// The pattern itself shows it.
    bool found() const { return source == Source::Beam || source == Source::Pattern; }
};
