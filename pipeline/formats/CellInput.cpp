#include "pipeline/formats/CellInput.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "crystallography/CellFileImportExport.h"
#include "crystallography/SpaceMath.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/frames/FileContent.h"

namespace vrk {
namespace {

using Matrix = std::array<std::array<double, 3>, 3>;

/// Primitive axes as columns in the axes of the centred cell.
const std::map<char, Matrix>& primitiveAxes() {
    static const std::map<char, Matrix> axes = {
        {'P', {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}},
        {'A', {{{1, 0, 0}, {0, 0.5, -0.5}, {0, 0.5, 0.5}}}},
        {'B', {{{0.5, 0, 0.5}, {0, 1, 0}, {-0.5, 0, 0.5}}}},
        {'C', {{{0.5, 0.5, 0}, {-0.5, 0.5, 0}, {0, 0, 1}}}},
        {'I', {{{-0.5, 0.5, 0.5}, {0.5, -0.5, 0.5}, {0.5, 0.5, -0.5}}}},
        {'F', {{{0, 0.5, 0.5}, {0.5, 0, 0.5}, {0.5, 0.5, 0}}}},
        {'R', {{{2.0 / 3, -1.0 / 3, -1.0 / 3}, {1.0 / 3, 1.0 / 3, -2.0 / 3}, {1.0 / 3, 1.0 / 3, 1.0 / 3}}}},
    };
    return axes;
}

CellInput inputOf(const UnitCell& cell, char centring) {
    CellInput input;
    input.cell = cell;
    input.centring = centring;
    input.primitive = cell;
    const bool isRhombohedralAxes = centring == 'R' && !cell.fitHexagonalCase(5.0, 0.1);
    const Matrix& matrix = primitiveAxes().at(isRhombohedralAxes ? 'P' : centring);
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            input.toPrimitive[i][j] = matrix[i][j];
    input.primitive.transform(input.toPrimitive);
    input.primitive.setPrimitiv(true);
    return input;
}

/// A cell file of version 2 carries reciprocal vectors in pixels and direct edges in Angstrom; together they
/// tell the pixel size. 0 when the file does not say.
double pixelSizeOf(const std::filesystem::path& path, const UnitCell& reciprocal) {
    std::ifstream in(path);
    std::array<char, 256> line{};
    for (int i = 0; i < 10; ++i)
        if (!in.getline(line.data(), line.size())) break;
    if (in.bad()) throw Failure("cannot read " + path.string() + " to its end");
    if (!in) return 0.0;
    double edge = 0.0;
    std::istringstream(line.data()) >> edge;
    UnitCell unscaled(reciprocal);
    unscaled.setPixelsize(1.0);
    const std::unique_ptr<UnitCell> direct(unscaled.getReciprocalCell());
    return edge > 0.0 ? direct->getLengthOfA() / edge : 0.0;
}

}  // namespace

CellInput cellFromNumbers(const std::vector<double>& numbers, char centring) {
    if (!primitiveAxes().contains(centring))
        throw Failure(std::string("there is no centring ") + centring + "; use P, A, B, C, I, F or R",
                      FailureKind::Usage);
    refuseRadians({numbers.at(3), numbers.at(4), numbers.at(5)});
    double base[3][3];
    const SpaceDimensions dimensions = {numbers.at(0), numbers.at(1), numbers.at(2),
                                        numbers.at(3), numbers.at(4), numbers.at(5)};
    if (!SpaceMath::BaseVectors(dimensions, base))
        throw Failure(
            "no cell has these edges and angles; edges must be above 0 and each angle smaller than the sum "
            "of the other two",
            FailureKind::Usage);
    const UnitCell cell(base[0], base[1], base[2], 1.0, true, centring == 'P', LATTICE::aP);
    if (cell.isDegenerate())
        throw Failure(
            "this cell spans no lattice: its edges lie in one plane, or are far beyond any crystal");
    return inputOf(cell, centring);
}

std::array<double, 6> cellNumbers(const std::string& text, const std::string& option) {
    const std::vector<double> numbers = numbersOf(text, ',', option);
    std::array<double, 6> cell{};
    if (numbers.size() != cell.size())
        throw Failure(option + " takes six numbers, a,b,c,alpha,beta,gamma, not " + text, FailureKind::Usage);
    std::copy(numbers.begin(), numbers.end(), cell.begin());
    return cell;
}

CellInput cellFromFile(const std::filesystem::path& path, double pixelSize) {
    refuseUnlessCell(path);
    UnitCell reciprocal;
    if (!CellFileImportExport::loadCellFile(path.string(), &reciprocal, pixelSize))
        throw Failure("cannot read a cell from " + path.string() +
                      "; it must be a cell file of version 1 or 2");
    if (reciprocal.isDegenerate())
        throw Failure(path.string() + " holds no cell: numbers are missing or its vectors lie in one plane");
    if (pixelSize == 0.0) pixelSize = pixelSizeOf(path, reciprocal);
    if (!(pixelSize > 0.0) || !std::isfinite(pixelSize))
        throw Failure(path.string() + " does not tell its pixel size; give it with --pixel-size",
                      FailureKind::Usage);
    reciprocal.setPixelsize(pixelSize);
    const std::unique_ptr<UnitCell> direct(reciprocal.getReciprocalCell());
    if (direct->isDegenerate())
        throw Failure(path.string() + " holds no cell of a crystal: its edges are far too long or too short");
    return inputOf(*direct, 'P');
}

}  // namespace vrk
