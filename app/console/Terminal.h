/// \file
/// What a stream's terminal can show.
#pragma once

#include <string>

namespace vrk::app {

/// Whether a line on this stream can be written over: a terminal that is not dumb.
bool canRewriteLines(int descriptor);

/// Columns of the stream's terminal, else what COLUMNS says; 0 when neither is known.
int columnsOf(int descriptor);

/// The beginning of a text that fits into so many columns, not cut within a character of UTF-8.
std::string fitted(const std::string& text, int columns);

}  // namespace vrk::app
