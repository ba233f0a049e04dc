/// \file
/// What somebody who mistyped a word may have meant.
#pragma once

#include <string>
#include <vector>

namespace vrk::app {

/// The words that are most like the one typed: the same but for case, dashes and underscores, else those
/// that begin with it, else those that a slip or two makes of it. Empty when nothing comes near.
std::vector<std::string> wordsLike(const std::string& typed, const std::vector<std::string>& words);

/// "; did you mean --eps or --gain?", or nothing.
std::string didYouMean(const std::string& typed, const std::vector<std::string>& words);

}  // namespace vrk::app
