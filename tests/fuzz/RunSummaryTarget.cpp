/// \file
/// summary.json, as far as it is read back.
#include "FuzzInput.h"
#include "pipeline/run/RunFolder.h"

FUZZ_TARGET(bytes) {
    fuzz::refusable([&] {
        const vrk::RunStatement run = vrk::readRunSummary(fuzz::textOf(bytes), "folder");
        fuzz::expect(run.input.lattice.basis.allFinite(), "vectors are finite");
    });
}
