/// \file
/// Peak files and plain lists of positions.
#include "FuzzInput.h"
#include "pipeline/formats/PeakList.h"
#include "reflections/PeakFileImportExport.h"
#include "reflections/ReflexVector.h"

FUZZ_TARGET(bytes) {
    static fuzz::MemoryFile file;
    const std::string& path = file.hold(bytes);
    fuzz::refusable([&] {
        const vrk::PeakList peaks = vrk::readPeaks(path);
        fuzz::expect(!peaks.reflections->empty(), "a list has reflections");
        for (Reflex* reflex : *peaks.reflections)
            for (int axis = 0; axis < 3; ++axis)
                fuzz::expect(std::isfinite(reflex->getCenter(axis)), "positions are finite");
    });
}
