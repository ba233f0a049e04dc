#include "pipeline/integration/SeriesGeometry.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <cmath>

#include "pipeline/base/Angle.h"
#include "pipeline/base/SmallMatrices.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

Matrix3d inverseTransposed(const Matrix3d& matrix) {
    return matrix.inverse().transpose();
}

double angleBetween(const Vector3d& a, const Vector3d& b) {
    return std::atan2(a.cross(b).norm(), a.dot(b)) / kDegree;
}

std::array<double, 6> tiedCell(std::array<double, 6> cell, LATTICE::BravaisTypes type) {
    using namespace LATTICE;
    if (type == aP || type == NoBravaisType) return cell;
    cell[3] = cell[5] = 90;
    if (type == mP || type == mC) return cell;
    cell[4] = 90;
    if (type == oP || type == oI || type == oC || type == oF) return cell;
    const bool cubic = type == cP || type == cI || type == cF;
    const double edge = cubic ? (cell[0] + cell[1] + cell[2]) / 3 : (cell[0] + cell[1]) / 2;
    cell[0] = cell[1] = edge;
    if (cubic) cell[2] = edge;
    if (type == hP || type == hR) cell[5] = 120;
    return cell;
}

}  // namespace

std::array<double, 6> directCell(const Matrix3d& reciprocal) {
    const Matrix3d direct = inverseTransposed(reciprocal);
    const Vector3d a = direct.col(0), b = direct.col(1), c = direct.col(2);
    return {a.norm(), b.norm(), c.norm(), angleBetween(b, c), angleBetween(a, c), angleBetween(a, b)};
}

std::array<double, 6> SeriesGeometry::cell() const {
    return directCell(reciprocal);
}

FrameView::FrameView(const SeriesGeometry& geometry, const FramePose& frame)
    : m_geometry(geometry),
      m_tilt(frame.tilt),
      m_centreX(frame.centreX),
      m_centreY(frame.centreY),
      m_cosPitch(std::cos(geometry.axisPitch)),
      m_sinPitch(std::sin(geometry.axisPitch)),
      m_cosAxis(std::cos(geometry.axisAngle) / geometry.pixelSize),
      m_sinAxis(std::sin(geometry.axisAngle) / geometry.pixelSize),
      m_curvature(geometry.handedness * geometry.wavelength / 2),
      m_u(std::cos(frame.tilt), 0, std::sin(frame.tilt)),
      m_flat(-std::sin(frame.tilt), 0, std::cos(frame.tilt)) {
    m_n = m_cosPitch * m_flat + m_sinPitch * Vector3d::UnitY();
    m_v = m_cosPitch * Vector3d::UnitY() - m_sinPitch * m_flat;
}

SpotPlace FrameView::place(const Vector3d& g) const {
    const double u = g.dot(m_u);
    const double v = g.dot(m_v);
    const LensDistortion& lens = m_geometry.distortion;
    const double q = u * u + v * v;
    const double bentU = u * (1 + lens.stretch + lens.radial * q) + v * (lens.shear - lens.spiral * q);
    const double bentV = v * (1 - lens.stretch + lens.radial * q) + u * (lens.shear + lens.spiral * q);
    return {m_centreX + bentU * m_cosAxis - bentV * m_sinAxis,
            m_centreY + bentU * m_sinAxis + bentV * m_cosAxis, g.dot(m_n) - m_curvature * g.squaredNorm(),
            -u * m_cosPitch};
}

FrameView::Derivatives FrameView::derivatives(const Vector3d& g, const std::vector<Matrix3d>& strains) const {
    const LensDistortion& lens = m_geometry.distortion;
    const double u = g.dot(m_u);
    const double v = g.dot(m_v);
    const double q = u * u + v * v;
    // Of u', v' with respect to u, v, and from there to the frame.
    const double uu = 1 + lens.stretch + lens.radial * (q + 2 * u * u) - 2 * lens.spiral * u * v;
    const double uv = lens.shear + 2 * lens.radial * u * v - lens.spiral * (q + 2 * v * v);
    const double vu = lens.shear + 2 * lens.radial * u * v + lens.spiral * (q + 2 * u * u);
    const double vv = 1 - lens.stretch + lens.radial * (q + 2 * v * v) + 2 * lens.spiral * u * v;
    Derivatives d = Derivatives::Zero();
    const auto setBent = [&](int column, double du, double dv) {
        d(0, column) = du * m_cosAxis - dv * m_sinAxis;
        d(1, column) = du * m_sinAxis + dv * m_cosAxis;
    };
    const auto setMove = [&](int column, double du, double dv, double ds) {
        setBent(column, uu * du + uv * dv, vu * du + vv * dv);
        d(2, column) = ds;
    };
    const auto setPoint = [&](int column, const Vector3d& dg) {
        setMove(column, dg.dot(m_u), dg.dot(m_v), dg.dot(m_n) - 2 * m_curvature * g.dot(dg));
    };
    setPoint(TurnX, Vector3d(0, -g.z(), g.y()));
    setPoint(TurnY, Vector3d(g.z(), 0, -g.x()));
    setPoint(TurnZ, Vector3d(-g.y(), g.x(), 0));
    for (std::size_t i = 0; i < strains.size(); ++i)
        setPoint(Strain + static_cast<int>(i), strains[i] * g);
    setMove(Tilt, g.dot(m_flat), m_sinPitch * u, -m_cosPitch * u);
    d.col(TiltScale) = m_tilt * d.col(Tilt);
    setMove(AxisPitch, 0, -g.dot(m_n), v);
    setBent(Stretch, u, -v);
    setBent(Shear, v, u);
    setBent(Radial, u * q, v * q);
    setBent(Spiral, -v * q, u * q);
    const double bentU = u * (1 + lens.stretch + lens.radial * q) + v * (lens.shear - lens.spiral * q);
    const double bentV = v * (1 - lens.stretch + lens.radial * q) + u * (lens.shear + lens.spiral * q);
    setBent(AxisAngle, -bentV, bentU);
    d(0, CentreX) = 1;
    d(1, CentreY) = 1;
    return d;
}

std::vector<Matrix3d> latticeStrains(const Matrix3d& reciprocal, LATTICE::BravaisTypes type) {
    using namespace LATTICE;
    const auto dyad = [](const Vector3d& a, const Vector3d& b) {
        return Matrix3d(0.5 * (a * b.transpose() + b * a.transpose()));
    };
    const Vector3d b = reciprocal.col(1).normalized();
    const Vector3d c = reciprocal.col(2).normalized();
    switch (type) {
        case cP:
        case cI:
        case cF:
            return {Matrix3d::Identity()};
        case tP:
        case tI:
        case hP:
        case hR:
            return {Matrix3d::Identity() - dyad(c, c), dyad(c, c)};
        case oP:
        case oI:
        case oC:
        case oF: {
            const Vector3d a = reciprocal.col(0).normalized();
            return {dyad(a, a), dyad(b, b), dyad(c, c)};
        }
        case mP:
        case mC: {
            const Vector3d across = b.cross(c);
            return {dyad(across, across), dyad(b, b), dyad(c, c), 2 * dyad(across, c)};
        }
        default: {
            const Vector3d x = Vector3d::UnitX(), y = Vector3d::UnitY(), z = Vector3d::UnitZ();
            return {dyad(x, x), dyad(y, y), dyad(z, z), 2 * dyad(x, y), 2 * dyad(x, z), 2 * dyad(y, z)};
        }
    }
}

Matrix3d standardVectors(const std::array<double, 6>& cell) {
    const double cosAlpha = std::cos(cell[3] * kDegree);
    const double cosBeta = std::cos(cell[4] * kDegree);
    const double cosGamma = std::cos(cell[5] * kDegree);
    const double sinGamma = std::sin(cell[5] * kDegree);
    const double y = (cosAlpha - cosBeta * cosGamma) / sinGamma;
    Matrix3d vectors;
    vectors.col(0) = cell[0] * Vector3d(1, 0, 0);
    vectors.col(1) = cell[1] * Vector3d(cosGamma, sinGamma, 0);
    vectors.col(2) = cell[2] * Vector3d(cosBeta, y, std::sqrt(1 - cosBeta * cosBeta - y * y));
    return vectors;
}

Matrix3d tiedVectors(const Matrix3d& reciprocal, LATTICE::BravaisTypes type) {
    const std::array<double, 6> cell = tiedCell(directCell(reciprocal), type);
    const Matrix3d standard = inverseTransposed(standardVectors(cell));
    return nearestRotation(reciprocal * standard.transpose()) * standard;
}

SeriesGeometry moved(const SeriesGeometry& geometry, const GeometryStep& step) {
    SeriesGeometry result = geometry;
    Matrix3d strain = Matrix3d::Identity();
    const std::vector<Matrix3d> strains = latticeStrains(geometry.reciprocal, geometry.ties);
    for (std::size_t i = 0; i < strains.size(); ++i)
        strain += step(FrameView::Strain + static_cast<Eigen::Index>(i)) * strains[i];
    const Vector3d turn = step.head<3>();
    const double angle = turn.norm();
    const Matrix3d rotation = angle > 0 ? Eigen::AngleAxisd(angle, turn / angle).toRotationMatrix()
                                        : Matrix3d(Matrix3d::Identity());
    result.reciprocal = rotation * strain * geometry.reciprocal;
    result.axisAngle += step(FrameView::AxisAngle);
    result.axisPitch += step(FrameView::AxisPitch);
    result.distortion.stretch += step(FrameView::Stretch);
    result.distortion.shear += step(FrameView::Shear);
    result.distortion.radial += step(FrameView::Radial);
    result.distortion.spiral += step(FrameView::Spiral);
    for (FramePose& frame : result.frames)
        frame.tilt *= 1 + step(FrameView::TiltScale);
    return result;
}

}  // namespace vrk
