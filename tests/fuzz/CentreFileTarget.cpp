/// \file
/// Centres of patterns, for a series of five tilts.
#include "FuzzInput.h"
#include "pipeline/formats/CentreFile.h"
#include "pipeline/frames/SeriesHeader.h"

FUZZ_TARGET(bytes) {
    static const mrcH header = vrk::tiltSeriesHeader(32, 32, {-20.0, -10.0, 0.0, 10.0, 20.0}, 1e7, "");
    fuzz::ByteStream stream(bytes);
    fuzz::refusable([&] {
        for (const PatternCentre& centre : vrk::readCentres(stream, "centres.txt", header))
            fuzz::expect(std::isfinite(centre.x) && std::isfinite(centre.y), "centres are finite");
    });
}
