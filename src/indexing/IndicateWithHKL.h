/// \file
/// Miller indices for reflections, how far each lies from its node, and plots of both.
#pragma once

#include <string>
#include <vector>

#include "VRKCoreExport.h"

class ReflexVector;
class UnitCell;
class VoxMRCData;

/// Indexes reflection lists with a cell.
class VRKCORE_EXPORT IndicateWithHKL {
public:
    /// Number of values that indicate() writes to its result array.
    static constexpr int kResultSize = 8;

    /// Gives every reflection the indices of the nearest node of the cell's lattice when all three fractional
    /// indices lie within the tolerance of integers. Indices of an earlier run are cleared first.
    ///
    /// The displacement of a reflection is its position minus that of the node, in voxels of the volume
    /// frame.
    ///
    /// \param volume      not read; may be null
    /// \param cell        base vectors in the unit of the positions: a reciprocal cell in voxels (a direct
    ///                    cell is warned of). A left-handed cell is used as it is, with a warning; one that
    ///                    is not primitive is turned into a primitive cell, with a warning.
    /// \param reflections indexed in place; the order stays
    /// \param origin      place of 000 in voxels, three coordinates
    /// \param mode        which centre of a reflection is its position, as in Reflex::getCenter(): 1
    ///                    brightest voxel, 2 mean of the voxels, 3 intensity-weighted mean; any other value
    ///                    takes getCenter(axis)
    /// \param tolerance   a fractional index farther than this from an integer makes "not indexed"
    /// \param result      null or kResultSize values over the indexed reflections, voxels: mean length of the
    ///                    displacement, means of its absolute components in x, y, z, then the root mean
    ///                    squares of the length and of the components. All 0 when nothing is indexed.
    /// \param out1        lengths of the displacements of the indexed reflections, in list order
    /// \param out2,out3,out4  absolute x, y and z components of the same displacements
    /// \param out5,out6,out7,out8  the same for reflections that could not be indexed. Null is allowed for
    ///                    each; all others are cleared first. A reflection at a position that is not finite,
    ///                    or an empty place of the list, appears in none of them.
    /// \returns the number of indexed reflections; -1, with an error logged, without a list, cell or origin
    ///          (nothing is changed then) and for a singular cell (nothing is indexed then)
    ///
    /// Indices that do not fit an int are "not indexed". Logs the means over all reflections at finite
    /// positions: "Delta_Z" of the displacement's length, "Delta_h", "Delta_k", "Delta_l" of its absolute x,
    /// y, z component, where a component above half the length of a, b, c counts as its distance to the next
    /// node, and "Delta_Z2" ... "Delta_l2" of their squares.
    static int indicate(VoxMRCData* volume, UnitCell* cell, ReflexVector* reflections, double* const origin,
                        int mode, double tolerance, double* result, std::vector<double>* out1,
                        std::vector<double>* out2, std::vector<double>* out3, std::vector<double>* out4,
                        std::vector<double>* out5, std::vector<double>* out6, std::vector<double>* out7,
                        std::vector<double>* out8);

    /// \name Plots
    /// Each writes a gnuplot script with its data files into an existing folder ("" is the current one) and
    /// renders a PNG of the same name where gnuplot is installed. They take the indices from the list and
    /// measure displacements from the lattice that fits the indexed reflections best, so they show scatter
    /// and distortion, not a wrong origin. Positions are those of Reflex::getCenter(axis, 3).
    /// \returns false, with a message logged, when a file could not be written or rendered, or when fewer
    /// than six reflections are indexed or their indices lie in a plane
    /// @{

    /// "indicateEvaluation.plt": displacements as a histogram and against the distance from the origin, the
    /// indexed fraction by distance, and the scatter along x, y, z.
    static bool generateEvaluationPlot(ReflexVector* reflections, const std::string& folder = "");

    /// "hklPlot.plt": the indexed reflections projected along a*, b*, c* (colour: mean intensity on a
    /// logarithmic scale), then generatePlotOfOne() for h, k and l.
    static bool generateHKLplot(ReflexVector* reflections, const std::string& folder = "");

    /// "hPlot.plt", "kPlot.plt" or "lPlot.plt": number of reflections and mean intensity for each value of
    /// that index (absences show), and the deviation of the fractional index from the integer (a wrong length
    /// or a distortion shows as a slope or a bend).
    /// \param index  0 for h, 1 for k, 2 for l
    static bool generatePlotOfOne(ReflexVector* reflections, int index, const std::string& folder = "");
    /// @}
};
