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
