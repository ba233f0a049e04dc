/// \file
/// Which pixels of a centred series hold something that was recorded.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "processing/PatternCentre.h"
#include "processing/ShadowMask.h"

class VoxMRCData;

/// The border that comes into the patterns when they are moved to their centres, the padding of frames that
/// were not square, and what beam stop and detector cross covered. Their pixels are no counts of 0: nothing
/// is known of them.
///
/// Positions are those of the moved patterns, whole numbers are the middles of pixels.
class VRKCORE_EXPORT RecordedPixels {
public:
    /// The part of a frame that comes from the detector, pixels.
    struct Area {
        int left, top, width, height;
    };

    /// Of patterns all pixels of which were recorded.
    RecordedPixels() = default;
    /// \param width    of the patterns
    /// \param area     of the frames before they were moved
    /// \param shadows  of these frames, or empty
    /// \param centres  to which VoxMRCstemProcessing::moveToCentre() moved them
    RecordedPixels(int width, int height, const Area& area, const ShadowMask& shadows,
                   const std::vector<PatternCentre>& centres);

    /// Follows a pattern that is moved once more: the place at (x, y) from its middle comes to lie there.
    void recentre(unsigned pattern, double x, double y);
    /// Everything was recorded.
    bool empty() const { return m_lost.empty(); }
    int width() const { return m_width; }
    int height() const { return m_height; }
    /// Whether it belongs to a series of this shape.
    bool fits(const VoxMRCData& series) const;
    /// 1 for each pixel of a pattern that was not recorded, or whose value comes from such a pixel in part; 0
    /// elsewhere, and everywhere for numbers that no pattern has.
    /// \param mask  width x height values, x fastest
    void notRecorded(unsigned pattern, unsigned char* mask) const;
    /// Whether a pixel that was not recorded lies within \p reach pixels of a place. Places outside of the
    /// pattern are not recorded.
    bool isCut(unsigned pattern, double x, double y, double reach) const;

private:
    struct Move {
        double x, y;  ///< pixels
    };
    bool isLost(const Move& move, int x, int y) const;

    int m_width = 0;
    int m_height = 0;
    std::vector<unsigned char> m_lost;  ///< of the frames before they were moved
    bool m_anyLost = false;
    std::vector<Move> m_moves;
};
