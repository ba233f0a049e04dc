// Put before sources that include gemmi's CIF documents when Clang compiles them against libstdc++. A class
// there has a vector of a type that is complete only later, which Clang refuses where the members of
// std::vector are constexpr. (A function of vectors of bool was declared constexpr before; these sources have
// no such vectors, it gets another name.)
#pragma once

#include <algorithm>
#include <string>

#pragma push_macro("_GLIBCXX20_CONSTEXPR")
#undef _GLIBCXX20_CONSTEXPR
#define _GLIBCXX20_CONSTEXPR
#define __fill_a1 __fill_bits
#include <vector>
#undef __fill_a1
#pragma pop_macro("_GLIBCXX20_CONSTEXPR")
