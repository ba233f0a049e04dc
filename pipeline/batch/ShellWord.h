/// \file
/// Words of command lines that users and engines are given.
#pragma once

#include <string>

namespace vrk {

/// \returns the word in quotes, so that a shell takes it as it is; in one line where it holds no line end
std::string shellWord(const std::string& word);

}  // namespace vrk
