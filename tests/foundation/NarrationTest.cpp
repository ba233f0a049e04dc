// Who hears the narration of the library.

#include <thread>

#include "crystallography/NiggliReduction.h"
#include "crystallography/UnitCell.h"
#include "foundation/Narration.h"
#include "support/Testing.h"

namespace {

UnitCell cell() {
    const double a[3] = {5, 0, 0};
    const double b[3] = {1, 6, 0};
    const double c[3] = {0, 2, 7};
    return UnitCell(a, b, c, 1.0, true, true, LATTICE::aP);
}

void reduce() {
    UnitCell reduced = cell();
    NiggliReduction::niggliReduction(&reduced, 0);
}

TEST(Narration, IsSilentInTheThreadThatAsksForIt) {
    std::ostringstream own;
    testing::internal::CaptureStdout();
    {
        const VRK::QuietNarration quiet;
        { const VRK::QuietNarration again; }
        reduce();
        VRK::narration() << "lost";
        NiggliReduction::setNarration(&own);
        reduce();
        NiggliReduction::setNarration(&std::cout);
        std::thread([] { VRK::narration() << "heard "; }).join();
    }
    VRK::narration() << "aloud";
    std::cout.flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "heard aloud");
    EXPECT_NE(own.str().find("Niggli"), std::string::npos) << "a stream of the host's own is served";
}

}  // namespace
