/// \file
/// Rows become columns: from one in-slice order to the other.
#pragma once

#include <algorithm>
#include <cstddef>

namespace VRK::detail {

/// Writes in[row * columns + column] to out[column * rows + row], in tiles that stay in the cache.
template <typename T>
void transpose(const T* in, std::size_t rows, std::size_t columns, T* out) {
    constexpr std::size_t kTile = 16;
    for (std::size_t rowTile = 0; rowTile < rows; rowTile += kTile)
        for (std::size_t columnTile = 0; columnTile < columns; columnTile += kTile) {
            const std::size_t lastRow = std::min(rowTile + kTile, rows);
            const std::size_t lastColumn = std::min(columnTile + kTile, columns);
            for (std::size_t column = columnTile; column < lastColumn; ++column)
                for (std::size_t row = rowTile; row < lastRow; ++row)
                    out[column * rows + row] = in[row * columns + column];
        }
}

}  // namespace VRK::detail
