#include "crystallography/UnitCell.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>

#include "crystallography/BasicMath.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitConverter.h"
#include "crystallography/detail/Centring.h"
#include "crystallography/detail/NumberText.h"
#include "crystallography/detail/Tolerance.h"
#include "foundation/VRKLogger.h"

namespace {

using VRK::detail::equal;
using VRK::detail::greaterThan;

constexpr char kDegreeSign = '\xB0';

double angleInDegrees(const double u[3], const double v[3]) {
    return BasicMath::ConvertAngleFromRadianToDegree(BasicMath::CalcAngleBetweenAandB(u, v));
}

bool isNear(double angle, double wanted, double tolerance) {
    return std::abs(angle - wanted) <= tolerance;
}

bool isEqualLength(double a, double b, double tolerance) {
    return std::abs(a - b) <= b * tolerance;
}

bool isEven(int n) {
    return n % 2 == 0;
}

bool isLatticePoint(LATTICE::BravaisTypes type, int h, int k, int l) {
    switch (type) {
        case LATTICE::cI:
        case LATTICE::tI:
        case LATTICE::oI:
            return isEven(h + k + l);
        case LATTICE::cF:
        case LATTICE::oF:
            return isEven(h + k) && isEven(h + l) && isEven(k + l);
        case LATTICE::oC:
        case LATTICE::mC:
            return isEven(h + k);
        case LATTICE::hR:
            return false;
        default:
            return true;
    }
}

}  // namespace

UnitCell::UnitCell() {
    update();
}

UnitCell::UnitCell(const double a[3], const double b[3], const double c[3], double pixelsize, bool realCell,
                   bool primitiv, LATTICE::BravaisTypes type)
    : m_pixelsize(pixelsize), m_primitiv(primitiv), m_realCell(realCell), m_bravaisType(type) {
    setColumns(a, b, c);
}

UnitCell::UnitCell(const UnitCell* other) {
    update();
    setNewCell(other);
}

void UnitCell::setNewCell(const UnitCell* other) {
    if (!other) return;
    double a[3], b[3], c[3];
    other->getBase(a, b, c);
    const double qualityIndex = other->m_qualityIndex;
    setColumns(a, b, c);
    m_pixelsize = other->m_pixelsize;
    m_primitiv = other->m_primitiv;
    m_realCell = other->m_realCell;
    m_qualityIndex = qualityIndex;
    m_cellCase = other->m_cellCase;
    m_bravaisType = other->m_bravaisType;
}

bool UnitCell::setNewBase(const double a[3], const double b[3], const double c[3], bool realCell,
                          bool primitiv) {
    setColumns(a, b, c);
    m_realCell = realCell;
    m_primitiv = primitiv;
    m_cellCase = 0;
    m_bravaisType = LATTICE::aP;
    return true;
}

double UnitCell::getLengthOfA() const {
    return std::sqrt(m_A);
}

double UnitCell::getLengthOfB() const {
    return std::sqrt(m_B);
}

double UnitCell::getLengthOfC() const {
    return std::sqrt(m_C);
}

double UnitCell::getAlpha() const {
    double b[3], c[3];
    get_b(b);
    get_c(c);
    return angleInDegrees(b, c);
}

double UnitCell::getBeta() const {
    double a[3], c[3];
    get_a(a);
    get_c(c);
    return angleInDegrees(a, c);
}

double UnitCell::getGamma() const {
    double a[3], b[3];
    get_a(a);
    get_b(b);
    return angleInDegrees(a, b);
}

int UnitCell::getVolume() const {
    constexpr double largest = std::numeric_limits<int>::max();
    if (std::isnan(m_volume)) return 0;
    return static_cast<int>(std::min(m_volume, largest));
}

void UnitCell::getBase(double a[3], double b[3], double c[3]) const {
    get_a(a);
    get_b(b);
    get_c(c);
}

void UnitCell::getOrientationMatrix(double out[3][3]) const {
    std::copy_n(&m_base[0][0], 9, &out[0][0]);
}

double UnitCell::getDeterminant() const {
    return BasicMath::Determinant(m_base);
}

bool UnitCell::isStandartCell() const {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (m_base[i][j] != (i == j ? 1.0 : 0.0)) return false;
    return true;
}

bool UnitCell::isDegenerate() const {
    constexpr double flat = 1e-6;
    constexpr double shortest = 1e-50;
    constexpr double longest = 1e50;
    double unit[3][3];
    double vectors[3][3];
    getBase(vectors[0], vectors[1], vectors[2]);
    for (int i = 0; i < 3; ++i) {
        const double length = std::hypot(vectors[i][0], vectors[i][1], vectors[i][2]);
        if (!(length > shortest && length < longest)) return true;
        for (int j = 0; j < 3; ++j)
            unit[i][j] = vectors[i][j] / length;
    }
    return !(std::abs(BasicMath::Determinant(unit)) > flat);
}

bool UnitCell::fitParameterAndBravaisType() const {
    return !m_primitiv && m_bravaisType != LATTICE::NoBravaisType;
}

bool UnitCell::compareByQualityIndex(UnitCell* x, UnitCell* y) {
    return x->m_qualityIndex < y->m_qualityIndex;
}

void UnitCell::getColumn(int column, double out[3]) const {
    for (int i = 0; i < 3; ++i)
        out[i] = m_base[i][column];
}

void UnitCell::setColumn(int column, const double v[3]) {
    for (int i = 0; i < 3; ++i)
        m_base[i][column] = v[i];
    update();
}

void UnitCell::setColumns(const double a[3], const double b[3], const double c[3]) {
    for (int i = 0; i < 3; ++i) {
        m_base[i][0] = a[i];
        m_base[i][1] = b[i];
        m_base[i][2] = c[i];
    }
    update();
}

void UnitCell::scaleColumn(int column, double factor) {
    for (auto& row : m_base)
        row[column] *= factor;
    update();
}

void UnitCell::scaleColumnToLength(int column, double length) {
    double v[3];
    getColumn(column, v);
    const double current = BasicMath::Norm(v);
    if (current > 0.0) scaleColumn(column, length / current);
}

void UnitCell::update() {
    updateVolume();
    updateMetricMatrix();
    updateType();
    m_qualityIndex = -1.0;
}

void UnitCell::updateVolume() {
    m_eps = 1e-5;
    m_volume = std::abs(getDeterminant());
}

void UnitCell::updateMetricMatrix() {
    double a[3], b[3], c[3];
    getBase(a, b, c);
    m_A = BasicMath::Dot(a, a);
    m_B = BasicMath::Dot(b, b);
    m_C = BasicMath::Dot(c, c);
    m_D = BasicMath::Dot(b, c);
    m_E = BasicMath::Dot(a, c);
    m_F = BasicMath::Dot(a, b);
}

void UnitCell::updateType() {
    const int positive = (2.0 * m_D - m_eps > 0.0) + (2.0 * m_E - m_eps > 0.0) + (2.0 * m_F - m_eps > 0.0);
    m_type = positive == 3 ? 1 : positive == 0 ? 2 : 0;
}

void UnitCell::transform(const int M[3][3]) {
    double matrix[3][3];
    std::copy_n(&M[0][0], 9, &matrix[0][0]);
    transform(matrix);
}

void UnitCell::transform(const double M[3][3]) {
    BasicMath::MatrixProduct(m_base, M, m_base);
    update();
}

void UnitCell::transformByEntries(int m11, int m12, int m13, int m21, int m22, int m23, int m31, int m32,
                                  int m33) {
    const int matrix[3][3] = {{m11, m12, m13}, {m21, m22, m23}, {m31, m32, m33}};
    transform(matrix);
}

void UnitCell::normalize() {
    constexpr int limit = 1000;
    for (int i = 0; i < limit && normalizeStep(); ++i) {
    }
    update();
}

bool UnitCell::normalizeStep() {
    const auto isAfter = [this](double length1, double length2, double offset1, double offset2) {
        return greaterThan(length1, length2, m_eps) ||
               (equal(length1, length2, m_eps) && greaterThan(std::abs(offset1), std::abs(offset2), m_eps));
    };
    // The transformation of the vectors recomputes the metric, so nothing needs to be swapped by hand.
    if (isAfter(m_A, m_B, 2.0 * m_D, 2.0 * m_E)) transformByEntries(0, -1, 0, -1, 0, 0, 0, 0, -1);
    if (isAfter(m_B, m_C, 2.0 * m_E, 2.0 * m_F)) {
        transformByEntries(-1, 0, 0, 0, 0, -1, 0, -1, 0);
        return true;
    }
    normalizeSigns();
    return false;
}

void UnitCell::normalizeSigns() {
    const double offDiagonal[3] = {2.0 * m_D, 2.0 * m_E, 2.0 * m_F};
    int signs[3] = {1, 1, 1};
    int positive = 0;
    int lastZero = -1;
    for (int i = 0; i < 3; ++i) {
        if (offDiagonal[i] - m_eps > 0.0)
            ++positive;
        else if (!(offDiagonal[i] < -m_eps))
            lastZero = i;
    }
    if (positive == 3 || (positive == 1 && lastZero < 0)) {
        for (int i = 0; i < 3; ++i)
            signs[i] = offDiagonal[i] < -m_eps ? -1 : 1;
    } else {
        for (int i = 0; i < 3; ++i)
            signs[i] = offDiagonal[i] - m_eps > 0.0 ? -1 : 1;
        if (signs[0] * signs[1] * signs[2] < 0) {
            if (lastZero >= 0)
                signs[lastZero] = -1;
            else
                VRKLogger::getInstance()->log("Error during normalisation of the unit cell.", VRK::Error,
                                              VRK::Information);
        }
    }
    transformByEntries(signs[0], 0, 0, 0, signs[1], 0, 0, 0, signs[2]);
}

void UnitCell::determineBravaisType() {
    UnitCell primitive(*this);
    primitive.transformIntoPrimitivCell();
    const LatticeCharacter character = LatticeSymmetry::best(primitive);
    m_bravaisType = m_realCell ? character.bravaisType : LATTICE::reciprocalType(character.bravaisType);
    m_cellCase = character.number;
    m_qualityIndex = character.qualityIndex;
}

void UnitCell::transformIntoConventionalCell() {
    if (!m_primitiv) return;
    const LatticeCharacter character = LatticeSymmetry::best(*this);
    if (character.number != 0) *this = LatticeSymmetry::conventionalCell(*this, character);
}

void UnitCell::transformIntoPrimitivCell() {
    if (m_primitiv || m_bravaisType == LATTICE::NoBravaisType) return;
    const LATTICE::BravaisTypes direct = m_realCell ? m_bravaisType : LATTICE::reciprocalType(m_bravaisType);
    const VRK::detail::Centring& centring = VRK::detail::centringOf(direct);
    double matrix[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix[i][j] = m_realCell ? double(centring.toPrimitive[i][j]) / centring.denominator
                                      : double(centring.fromPrimitive[j][i]);
    const double qualityIndex = m_qualityIndex;
    transform(matrix);
    m_qualityIndex = qualityIndex;
    m_primitiv = true;
}

UnitCell* UnitCell::getReciprocalCell() const {
    double direct[3][3];
    getBase(direct[0], direct[1], direct[2]);
    double reciprocal[3][3];
    for (int i = 0; i < 3; ++i) {
        BasicMath::Cross(direct[(i + 1) % 3], direct[(i + 2) % 3], reciprocal[i]);
        for (double& x : reciprocal[i]) {
            const double inverse = 1.0 / (x / m_volume);
            x = m_realCell ? UnitConverter::convertAngstromToPixel(m_pixelsize, inverse)
                           : UnitConverter::convertPixelToAngstrom(m_pixelsize, inverse);
        }
    }
    auto cell = std::make_unique<UnitCell>(reciprocal[0], reciprocal[1], reciprocal[2], m_pixelsize,
                                           !m_realCell, m_primitiv, LATTICE::reciprocalType(m_bravaisType));
    if (m_qualityIndex >= 0.0) cell->m_qualityIndex = m_qualityIndex;
    if (m_cellCase >= 1 && m_cellCase <= 44) cell->m_cellCase = m_cellCase;
    return cell.release();
}

void UnitCell::getGrid(const int n[3], std::vector<double*>* out) const {
    for (const double* point : *out)
        delete[] point;
    out->clear();
    for (int h = -n[0]; h <= n[0]; ++h)
        for (int k = -n[1]; k <= n[1]; ++k)
            for (int l = -n[2]; l <= n[2]; ++l) {
                if (!isLatticePoint(m_bravaisType, h, k, l)) continue;
                const double hkl[3] = {double(h), double(k), double(l)};
                auto point = std::make_unique<double[]>(3);
                point[0] = BasicMath::Dot(m_base[1], hkl);
                point[1] = BasicMath::Dot(m_base[0], hkl);
                point[2] = BasicMath::Dot(m_base[2], hkl);
                out->push_back(point.get());
                point.release();
            }
}

bool UnitCell::fitMonoclinicCase(double tolAngle, double) const {
    return isNear(getAlpha(), 90.0, tolAngle) && isNear(getGamma(), 90.0, tolAngle);
}

bool UnitCell::fitOrthorombicCase(double tolAngle, double tolLength) const {
    return fitMonoclinicCase(tolAngle, tolLength) && isNear(getBeta(), 90.0, tolAngle);
}

bool UnitCell::fitTetragonalCase(double tolAngle, double tolLength) const {
    return fitOrthorombicCase(tolAngle, tolLength) &&
           isEqualLength(getLengthOfA(), getLengthOfB(), tolLength);
}

bool UnitCell::fitHexagonalCase(double tolAngle, double tolLength) const {
    return isNear(getAlpha(), 90.0, tolAngle) && isNear(getBeta(), 90.0, tolAngle) &&
           isNear(getGamma(), 120.0, tolAngle) && isEqualLength(getLengthOfA(), getLengthOfB(), tolLength);
}

bool UnitCell::fitCubicCase(double tolAngle, double tolLength) const {
    return fitTetragonalCase(tolAngle, tolLength) &&
           isEqualLength(getLengthOfB(), getLengthOfC(), tolLength) &&
           isEqualLength(getLengthOfA(), getLengthOfC(), tolLength);
}

std::string UnitCell::getParameterAsString() const {
    std::ostringstream text;
    text << getLengthOfA() << ", " << getLengthOfB() << ", " << getLengthOfC() << ", " << getAlpha()
         << kDegreeSign << ", " << getBeta() << kDegreeSign << ", " << getGamma() << kDegreeSign;
    return text.str();
}

std::string UnitCell::getCellInformationAsString() const {
    std::ostringstream text;
    text << m_qualityIndex << ".  a=" << getLengthOfA() << "  b=" << getLengthOfB()
         << "  c=" << getLengthOfC() << "  alpha=" << getAlpha() << "  beta=" << getBeta()
         << "  gamma=" << getGamma() << "  -  " << m_cellCase << "  -  " << LATTICE::shortName(m_bravaisType);
    return text.str();
}

void UnitCell::printParameter() const {
    printParameter(std::cout);
}

void UnitCell::printParameter(std::ostream& out) const {
    std::string text = "cell parameter:\n";
    VRK::detail::append(text, "A = ", getLengthOfA(), "  B = ", getLengthOfB(), "  C = ", getLengthOfC());
    VRK::detail::append(text, "\nAlpha = ", getAlpha(), "  Beta = ", getBeta(), "  Gamma = ", getGamma());
    out << text << '\n';
}

void UnitCell::printMetricTensor() const {
    printMetricTensor(std::cout);
}

void UnitCell::printMetricTensor(std::ostream& out) const {
    std::string text = "metric tensor:";
    VRK::detail::append(text, "\nS_11 = ", m_A, "  S_12 = ", m_F, "  S_13 = ", m_E);
    VRK::detail::append(text, "\nS_21 = ", m_F, "  S_22 = ", m_B, "  S_23 = ", m_D);
    VRK::detail::append(text, "\nS_31 = ", m_E, "  S_32 = ", m_D, "  S_33 = ", m_C);
    out << text << '\n';
}

void UnitCell::printOrientationMatrix() const {
    printOrientationMatrix(std::cout);
}

void UnitCell::printOrientationMatrix(std::ostream& out) const {
    const auto& m = m_base;
    std::string text = "orientation matrix:";
    VRK::detail::append(text, "\nA_11 = ", m[0][0], "  A_12 = ", m[0][1], "  A_13 = ", m[0][2]);
    VRK::detail::append(text, "\nA_21 = ", m[1][0], "  A_22 = ", m[1][1], "  A_23 = ", m[1][2]);
    VRK::detail::append(text, "\nA_31 = ", m[2][0], "  A_32 = ", m[2][1], "  A_33 = ", m[2][2]);
    out << text << '\n';
}
