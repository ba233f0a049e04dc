/// \file
/// Pixels of the reconstructed volume and Angstrom.
#pragma once

#include "VRKCoreExport.h"

/// The pixel size p is in 1/m per pixel (reciprocal metres that one pixel of the volume spans), so a
/// distance of x pixels is p x / 1e10 in 1/Angstrom and belongs to a spacing of 1e10 / (p x) Angstrom.
class VRKCORE_EXPORT UnitConverter {
public:
    /// A reciprocal length in pixels to the direct length in Angstrom that belongs to it: 1e10 / (p x).
    static double convertPixelToAngstrom(double p, double x) { return 1e10 / (p * x); }
    /// A direct length in Angstrom to the reciprocal length in pixels that belongs to it: 1e10 / (p x).
    static double convertAngstromToPixel(double p, double x) { return 1e10 / (p * x); }
    /// A reciprocal length in pixels to 1/Angstrom: p x / 1e10.
    static double convertPixelToAngstromReziprok(double p, double x) { return p * x / 1e10; }
    /// A reciprocal length in 1/Angstrom to pixels: x 1e10 / p.
    static double convertAngstromReziprokToPixel(double p, double x) { return x * 1e10 / p; }
};
