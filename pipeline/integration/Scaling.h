/// \file
/// Scales of the frames by symmetry equivalents, and the rejection of what does not fit.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Observation.h"

namespace vrk {

/// A smooth scale over the frames,
///
///     I(observed) = exp(k(frame) - 2 b(frame) (1 / (2 d))^2) I,
///
/// with k linear between knots some ten frames or degrees apart and b between knots three times as far apart.
struct ScaleModel {
    std::vector<double> frames;  ///< places of the knots of k, in frames
    std::vector<double> k;
    std::vector<double> decayFrames;  ///< and of b
    std::vector<double> b;            ///< square Angstrom
    int pairs = 0;                    ///< observations with equivalents that it rests on
    int rounds = 0;

    /// What an observation at this frame and spacing is to be divided by.
    double factor(double frame, double spacing) const;
};

/// Fits the scale to the differences between equivalents (W. C. Hamilton, J. S. Rollett and R. A. Sparks,
/// Acta Cryst. 18 (1965) 129, doi:10.1107/S0365110X65000233, with the unique intensities eliminated),
/// robustly, held smooth and near 1 by restraints whose strength is estimated along. A scale that explains no
/// more than its number of free parameters would by chance is 1 everywhere. The scale does not change the
/// mean intensity. \param spacingOfKnots  frames between knots of k
ScaleModel fitScales(std::span<const Observation> observations, const LaueRotations& rotations,
                     double firstFrame, double lastFrame, double spacingOfKnots);

/// Divides intensities and uncertainties by the scale.
void applyScales(std::span<Observation> observations, const ScaleModel& model);

/// How the scatter of equivalents goes beyond counting statistics:
///
///     variance = a (sigma^2 + (b I)^2),
///
/// with I the mean of the equivalents. Uncertainties are never made smaller: a is at least 1.
struct ErrorModel {
    double a = 1;
    double b = 0;
    int pairs = 0;  ///< deviations that it rests on; too few leave it at 1 and 0

    double sigma(double sigma, double intensity) const;
};

/// Fits the model to the squared deviations from the means of equivalents, by classes of intensity. Friedel
/// mates are equivalents in every group, so that it can always be known.
ErrorModel fitErrors(std::span<const Observation> observations, const LaueRotations& rotations);

/// Enlarges the uncertainties.
void applyErrors(std::span<Observation> observations, const LaueRotations& rotations,
                 const ErrorModel& model);

/// Marks observations that leave the weighted mean of at least two equivalents by more than six standard
/// deviations of the difference. \returns how many
int markOutliers(std::span<Observation> observations, const LaueRotations& rotations);

}  // namespace vrk
