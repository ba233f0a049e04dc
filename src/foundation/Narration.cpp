#include "foundation/Narration.h"

#include <iostream>

namespace VRK {
namespace {

thread_local int silences = 0;

}  // namespace

std::ostream& narration() {
    if (silences == 0) return std::cout;
    thread_local std::ostream nowhere(nullptr);
    return nowhere;
}

QuietNarration::QuietNarration() {
    ++silences;
}

QuietNarration::~QuietNarration() {
    --silences;
}

}  // namespace VRK
