/// \file
/// A lattice cell: three base vectors and everything that follows from them.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "VRKCoreExport.h"
#include "crystallography/BravaisTypes.h"

/// A cell in direct space (Angstrom) or in reciprocal space (pixels of the reconstructed volume).
///
/// The cell holds the base vectors as the columns of the orientation matrix; metric, volume and sign class
/// are recomputed whenever the vectors change. Metric entries are A = a.a, B = b.b, C = c.c, D = b.c,
/// E = a.c, F = a.b (not doubled). Metric values are compared with one absolute tolerance, getEps().
///
/// Nothing throws and nothing is checked: a cell of zero volume or with entries that are not finite is
/// representable, and isDegenerate() tells it apart.
class VRKCORE_EXPORT UnitCell {
public:
    /// The unit cube: a primitive reciprocal cell of type aP with pixel size 1.
    UnitCell();
    /// @param pixelsize 1/m per pixel, used only by getReciprocalCell()
    UnitCell(const double a[3], const double b[3], const double c[3], double pixelsize, bool realCell,
             bool primitiv, LATTICE::BravaisTypes type);
    /// Copies vectors, pixel size, flags, quality index, lattice character and type. Null gives the unit
    /// cube.
    explicit UnitCell(const UnitCell* other);
    UnitCell(const UnitCell&) = default;
    UnitCell& operator=(const UnitCell&) = default;

    /// As the constructor from a pointer; null changes nothing.
    void setNewCell(const UnitCell* other);
    /// Replaces vectors and flags; lattice character 0, quality index -1, type aP. Always true.
    bool setNewBase(const double a[3], const double b[3], const double c[3], bool realCell, bool primitiv);

    /// @name Metric
    /// @{
    double getA() const { return m_A; }
    double getB() const { return m_B; }
    double getC() const { return m_C; }
    double getD() const { return m_D; }
    double getE() const { return m_E; }
    double getF() const { return m_F; }
    double getLengthOfA() const;
    double getLengthOfB() const;
    double getLengthOfC() const;
    /// Angles in degrees: alpha between b and c, beta between a and c, gamma between a and b.
    double getAlpha() const;
    double getBeta() const;
    double getGamma() const;
    /// The tolerance of all comparisons of metric values: 1e-5.
    double getEps() const { return m_eps; }
    /// The signs of D, E, F: 1 all positive, 2 none positive, 0 mixed (values within eps count as zero).
    int getType() const { return m_type; }
    /// The volume without its fraction: 123 for 123.9. Limited to the range of int, 0 when undefined.
    int getVolume() const;
    /// The volume in full precision, in the cube of the vectors' unit.
    double getExactVolume() const { return m_volume; }
    /// @}

    /// @name Base vectors
    /// @{
    void get_a(double a[3]) const { getColumn(0, a); }
    void get_b(double b[3]) const { getColumn(1, b); }
    void get_c(double c[3]) const { getColumn(2, c); }
    void getBase(double a[3], double b[3], double c[3]) const;
    /// The base vectors as the columns of a row-major matrix: out[i][j] is component i of vector j.
    void getOrientationMatrix(double out[3][3]) const;
    /// The determinant of the orientation matrix, negative for a left-handed cell.
    double getDeterminant() const;
    bool isRightHanded() const { return getDeterminant() > 0.0; }
    /// True when the orientation matrix is exactly the identity.
    bool isStandartCell() const;
    /// True when an edge is outside 1e-50 to 1e50 (or not finite), where the metric has no numbers for it, or
    /// when the volume is below 1e-6 of the product of the edge lengths (an edge within 6e-5 degrees of the
    /// plane of the others, or two edges that near). Such a cell spans no lattice that can be worked with; a
    /// host asks before it reduces or analyses a cell.
    bool isDegenerate() const;
    /// @}

    /// @name Attributes
    /// @{
    double getPixelsize() const { return m_pixelsize; }
    void setPixelsize(double pixelsize) { m_pixelsize = pixelsize; }
    /// The quality of a lattice-symmetry fit (LatticeSymmetry), -1 when none has been determined.
    double getQualityIndex() const { return m_qualityIndex; }
    void setQualityIndex(double qualityIndex) { m_qualityIndex = qualityIndex; }
    /// The lattice character 1 ... 44, 0 when unknown.
    int getCellCase() const { return m_cellCase; }
    void setCellCase(int cellCase) { m_cellCase = cellCase; }
    LATTICE::BravaisTypes getBravaisType() const { return m_bravaisType; }
    void setBravaisType(LATTICE::BravaisTypes type) { m_bravaisType = type; }
    bool isRealCell() const { return m_realCell; }
    bool isPrimitiv() const { return m_primitiv; }
    void setPrimitiv(bool primitiv) { m_primitiv = primitiv; }
    /// False for a primitive cell, otherwise true when there is a Bravais type.
    bool fitParameterAndBravaisType() const;
    /// Order of ascending quality index, for sorting.
    static bool compareByQualityIndex(UnitCell* x, UnitCell* y);
    /// @}

    /// @name Changing the cell (each resets the quality index to -1)
    /// @{
    /// New base = old base x M: the new a is M[0][0] a + M[1][0] b + M[2][0] c, and so on.
    void transform(const int M[3][3]);
    void transform(const double M[3][3]);
    void set_a(const double a[3]) { setColumn(0, a); }
    void set_b(const double b[3]) { setColumn(1, b); }
    void set_c(const double c[3]) { setColumn(2, c); }
    void scaleA(double factor) { scaleColumn(0, factor); }
    void scaleB(double factor) { scaleColumn(1, factor); }
    void scaleC(double factor) { scaleColumn(2, factor); }
    /// Scales the vector to a length; a vector of length zero has no direction and stays.
    void scaleAtoLength(double length) { scaleColumnToLength(0, length); }
    void scaleBtoLength(double length) { scaleColumnToLength(1, length); }
    void scaleCtoLength(double length) { scaleColumnToLength(2, length); }
    /// Orders the edges (A <= B <= C; equal edges by the size of D, E, F) and makes D, E, F either all
    /// positive or none: steps A1 to A4 of Krivy & Gruber (1976), doi:10.1107/S0567739476000636.
    void normalize();
    /// @}

    /// @name Lattice symmetry (LatticeSymmetry with its default tolerances)
    ///
    /// The symmetry is always that of the crystal's direct lattice. For a reciprocal cell the operations act
    /// on the reciprocal base of the direct cell, so that they commute with getReciprocalCell(): the
    /// conventional reciprocal cell is the reciprocal base of the conventional direct cell (the base in which
    /// reflections of a centred lattice are absent), and its type is that of the reciprocal lattice.
    /// @{
    /// Stores type, lattice character and quality index of LatticeSymmetry::best(). A cell that is
    /// not primitive is judged by the lattice that its type says. A degenerate cell gets type 0.
    void determineBravaisType();
    /// Turns a primitive cell into the conventional cell of LatticeSymmetry::best() and stores type,
    /// lattice character and quality index with it; primitiv stays set for a lattice without centring. A
    /// cell that is not primitive, or is degenerate, stays as it is.
    void transformIntoConventionalCell();
    /// Turns a conventional cell (primitiv not set) into a primitive one of the same lattice, as its type
    /// says. Type, lattice character and quality index stay. Type 0 says nothing, the cell stays as it is.
    void transformIntoPrimitivCell();
    /// @}

    /// The reciprocal cell, owned by the caller: a* = (b x c)/V and so on with each component scaled by
    /// 1e10 / pixelsize, so that pixels become Angstrom and the reverse. The Bravais type changes to that of
    /// the reciprocal lattice; quality index and lattice character go along when they are determined.
    /// Infinite or undefined components for a cell without volume.
    UnitCell* getReciprocalCell() const;

    /// The points h a + k b + l c for |h| <= n[0], |k| <= n[1], |l| <= n[2], h outermost, l innermost.
    ///
    /// Points that the centring of the Bravais type leaves out are skipped: I keeps h + k + l even, F keeps
    /// indices all of one parity, C keeps h + k even, hR keeps nothing (an empty grid), everything else keeps
    /// all. Every point is a new double[3] holding (y, x, z) in this order; arrays that out already holds are
    /// deleted first. The caller deletes the arrays with delete[].
    void getGrid(const int n[3], std::vector<double*>* out) const;

    /// @name Fit to a crystal system: angles within tolAngle degrees of what the system asks, edges that
    /// should be equal within |a - b| <= b tolLength (tolLength is relative).
    /// @{
    bool fitMonoclinicCase(double tolAngle, double tolLength) const;
    bool fitOrthorombicCase(double tolAngle, double tolLength) const;
    bool fitTetragonalCase(double tolAngle, double tolLength) const;
    bool fitHexagonalCase(double tolAngle, double tolLength) const;
    bool fitCubicCase(double tolAngle, double tolLength) const;
    /// @}

    /// @name Text
    /// @{
    /// "a, b, c, alpha, beta, gamma", six significant digits; the angles carry a degree sign (byte 0xB0).
    std::string getParameterAsString() const;
    /// One line: quality index, edges, angles, lattice character, Bravais type.
    std::string getCellInformationAsString() const;
    /// Written to the standard output, or to the stream given.
    void printParameter() const;
    void printParameter(std::ostream& out) const;
    void printMetricTensor() const;
    void printMetricTensor(std::ostream& out) const;
    void printOrientationMatrix() const;
    void printOrientationMatrix(std::ostream& out) const;
    /// @}

private:
    void getColumn(int column, double out[3]) const;
    void setColumn(int column, const double v[3]);
    void scaleColumn(int column, double factor);
    void scaleColumnToLength(int column, double length);
    void setColumns(const double a[3], const double b[3], const double c[3]);
    void update();
    void updateVolume();
    void updateMetricMatrix();
    void updateType();
    void transformByEntries(int m11, int m12, int m13, int m21, int m22, int m23, int m31, int m32, int m33);
    bool normalizeStep();
    void normalizeSigns();

    double m_A = 1.0;
    double m_B = 1.0;
    double m_C = 1.0;
    double m_D = 0.0;
    double m_E = 0.0;
    double m_F = 0.0;
    double m_base[3][3] = {{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}};
    int m_type = 2;
    double m_volume = 1.0;
    double m_eps = 1e-5;
    double m_pixelsize = 1.0;
    double m_qualityIndex = -1.0;
    int m_cellCase = 0;
    bool m_primitiv = true;
    bool m_realCell = false;
    LATTICE::BravaisTypes m_bravaisType = LATTICE::aP;
};
