#include "pipeline/base/Failure.h"

#include <sstream>

namespace vrk {

Failure::Failure(const std::string& text, FailureKind kind) : std::runtime_error(text), m_kind(kind) {}

void refuseUnlessAscending(const std::string& what, double smallest, double largest) {
    if (smallest <= largest) return;
    std::ostringstream text;
    text << "--min-" << what << ' ' << smallest << " is larger than --max-" << what << ' ' << largest;
    throw Failure(text.str(), FailureKind::Usage);
}

}  // namespace vrk
