/// \file
/// What the library tells on the standard output beside its messages, and how a host silences it.
#pragma once

#include <iosfwd>

#include "VRKCoreExport.h"

namespace VRK {

/// The standard output; in a thread that holds a QuietNarration a stream that goes nowhere.
VRKCORE_EXPORT std::ostream& narration();

/// While it lives, nothing of what this thread calls narrates on the standard output: the logger when it is
/// made, the reduction of cells, histograms, grids. A logger that was made in silence is deleted in silence.
/// May be nested. A stream given to NiggliReduction::setNarration() is served all the same.
class VRKCORE_EXPORT QuietNarration {
public:
    QuietNarration();
    ~QuietNarration();
    QuietNarration(const QuietNarration&) = delete;
    QuietNarration& operator=(const QuietNarration&) = delete;
};

}  // namespace VRK
