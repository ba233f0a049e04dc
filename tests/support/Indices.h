/// \file
/// Loops over the nodes of a lattice.
#pragma once

/// Calls back with all indices h, k, l up to these and their opposites, l fastest.
template <typename Use>
void forEachIndex(int mostH, int mostK, int mostL, const Use& use) {
    for (int h = -mostH; h <= mostH; ++h)
        for (int k = -mostK; k <= mostK; ++k)
            for (int l = -mostL; l <= mostL; ++l)
                use(h, k, l);
}

/// Calls back with every x and y of an image, x fastest.
template <typename Size, typename Use>
void forEachPixel(Size width, Size height, const Use& use) {
    for (Size y = 0; y < height; ++y)
        for (Size x = 0; x < width; ++x)
            use(x, y);
}
