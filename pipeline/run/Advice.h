/// \file
/// What a user can try when a stage of the run finds nothing.
#pragma once

#include <string>

namespace vrk {

std::string whatToTry();

}  // namespace vrk
