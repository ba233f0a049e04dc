/// \file
/// Where a series does not show the pattern: beam stop, gaps of the detector.
#pragma once

#include <vector>

#include "VRKCoreExport.h"

class VoxMRCData;
namespace VRK::detail {
struct SeriesMean;
}

/// The shadows that all patterns of a series share.
///
/// A beam stop is told by its outline and level, not by zeros: it may let a part of the beam through or lie
/// on a pedestal of scattered counts. In the mean of the patterns it is a region that is darker than what
/// surrounds it (by a quarter at least, and by far more than the noise) with an edge as sharp as the detector
/// allows; the halo of the beam, rings of ice and the dark between reflections have no such edge. Straight
/// parallel edges make it a bar, which is followed to the border of the frame from which it is held, also
/// where a pedestal makes it brighter than the pattern; a round outline makes it a disc, which is completed.
/// Rows and columns that are darker or brighter than their neighbours all along are the cross of a detector
/// that is put together from several.
///
/// The patterns must be as recorded: shadows of patterns that were already moved against each other are
/// smeared in the mean and not found.
class VRKCORE_EXPORT ShadowMask {
public:
    /// Straight and of one width, from one end to the other. Pixels.
    struct Bar {
        double x0, y0, x1, y1;
        double width;
    };
    struct Disc {
        double x, y, radius;
    };

    /// Nothing is shadowed.
    ShadowMask() = default;
    /// Looks at a series of patterns, x fastest. A null or empty series has no shadows.
    explicit ShadowMask(const VoxMRCData* series);

    bool empty() const { return m_pixels.empty(); }
    int width() const { return m_width; }
    int height() const { return m_height; }
    /// width x height values, x fastest: 255 in the shadow, 0 elsewhere. Null when the mask is empty. The
    /// mask's own.
    const unsigned char* pixels() const { return m_pixels.empty() ? nullptr : m_pixels.data(); }

    const std::vector<Bar>& bars() const { return m_bars; }
    const std::vector<Disc>& discs() const { return m_discs; }
    /// Numbers of the rows and of the columns that belong to a cross, ascending.
    const std::vector<int>& rows() const { return m_rows; }
    const std::vector<int>& columns() const { return m_columns; }

private:
    friend class VoxMRCstemProcessing;
    static ShadowMask of(const VRK::detail::SeriesMean& mean);

    int m_width = 0;
    int m_height = 0;
    std::vector<unsigned char> m_pixels;
    std::vector<Bar> m_bars;
    std::vector<Disc> m_discs;
    std::vector<int> m_rows;
    std::vector<int> m_columns;
};
