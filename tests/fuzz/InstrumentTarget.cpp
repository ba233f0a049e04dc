/// \file
/// The geometry of an instrument: what is read is written and read again as the same.
#include "FuzzInput.h"
#include "pipeline/formats/InstrumentFile.h"

FUZZ_TARGET(bytes) {
    fuzz::refusable([&] {
        const vrk::InstrumentCalibration first = vrk::readInstrument(fuzz::textOf(bytes), "instrument.json");
        const std::string text = vrk::instrumentText(first);
        const vrk::InstrumentCalibration again = vrk::readInstrument(text, "instrument.json");
        fuzz::expect(vrk::instrumentText(again) == text, "a geometry outlives its file");
        const FrameDistortion distortion = first.distortionAt(first.pixelSize);
        fuzz::expect(std::isfinite(distortion.radial + distortion.ellipseCosine), "distortion is finite");
    });
}
