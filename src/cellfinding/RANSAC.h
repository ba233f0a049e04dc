/// \file
/// Straight lines through points that lie on them only roughly, among others that do not.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Line.h"
#include "cellfinding/Point.h"

/// Random sample consensus (M. A. Fischler, R. C. Bolles: Random sample consensus, Commun. ACM 24, 1981,
/// 381-395, doi:10.1145/358669.358692). A line through two points drawn at random (through the origin and
/// one point for rows of a lattice) is judged by the points near it; the best of many draws is fitted to its
/// inliers until these no longer change. Points count the more the nearer they are, in units of their own
/// uncertainty, which makes the choice among similar draws sharp (P. H. S. Torr, A. Zisserman: MLESAC,
/// doi:10.1006/cviu.1999.0832). One line after the other is found among the points that earlier lines left.
class VRKCORE_EXPORT RANSAC {
public:
    struct Settings {
        int mostLines = 1;
        /// An inlier is nearer to the line than this many times its uncertainty.
        double tolerance = 2.5;
        int leastInliers = 3;
        bool throughOrigin = false;
        /// With this probability the draws hit two inliers of the best line at least once; their number
        /// follows from it and from the share of inliers.
        double confidence = 0.999;
        int mostDraws = 2000;
        /// Equal seeds give equal lines, on every machine.
        unsigned seed = 1;
    };

    struct FittedLine {
        /// Through the centre of its inliers (or the origin) along a unit vector.
        Line<double> line;
        /// Places in the list of points, ascending.
        std::vector<int> inliers;
        /// Root mean square distance of the inliers, weighted with their certainty; in units of the points.
        double rms;
    };

    /// Replaces \p lines by at most mostLines lines, the one with most support first. A line that fewer than
    /// leastInliers points support ends the search.
    /// \param points         all of one dimension, at least 2; the caller's
    /// \param uncertainties  the standard deviation of each point, above 0; null: 1 for all
    /// \returns false, with one error in the log and \p lines as they were, for null arguments, points that
    ///          are null, have another dimension than the first or coordinates that are no numbers, lists of
    ///          unequal lengths, uncertainties that are not above 0, and settings out of range (counts and
    ///          draws below 1, a confidence not between 0 and 1, a tolerance not above 0)
    ///
    /// The time goes with the number of points times draws times lines.
    static bool fitLines(const std::vector<Point<double>*>* points, const std::vector<double>* uncertainties,
                         const Settings& settings, std::vector<FittedLine>* lines);
};
