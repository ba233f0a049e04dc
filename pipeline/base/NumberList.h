/// \file
/// Numbers in option values and text files.
#pragma once

#include <string>
#include <vector>

namespace vrk {

/// The numbers of "a,b,c" or "a:b:c". Throws Failure (usage) naming \p option when a piece is not a finite
/// number.
std::vector<double> numbersOf(const std::string& text, char separator, const std::string& option);

/// The number that the whole text spells, with blanks around it. False when it does not or is not finite.
bool parseNumber(const std::string& text, double& value);

}  // namespace vrk
