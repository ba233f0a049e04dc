/// \file
/// How lenses distort diffraction patterns.
#pragma once

#include <array>

/// Takes the ideal place of a spot to the one where the detector recorded it, both in pixels from the centre
/// of the pattern, x to the right and y down. First the radial term, p1 = p (1 + radial |p|^2), then the
/// ellipse: along its azimuth a, counted from x towards y, lengths grow by 1 + e, across it they shrink by
/// 1 - e. Microscopes have ellipses of some tenths to two per cent.
struct FrameDistortion {
    double ellipseCosine = 0;  ///< e cos 2a
    double ellipseSine = 0;    ///< e sin 2a
    double radial = 0;         ///< 1/pixel^2

    bool isNone() const { return ellipseCosine == 0 && ellipseSine == 0 && radial == 0; }

    std::array<double, 2> recorded(double x, double y) const {
        const double factor = 1 + radial * (x * x + y * y);
        return {factor * ((1 + ellipseCosine) * x + ellipseSine * y),
                factor * (ellipseSine * x + (1 - ellipseCosine) * y)};
    }
};
