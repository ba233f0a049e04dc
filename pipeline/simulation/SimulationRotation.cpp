#include "pipeline/simulation/SimulationRotation.h"

#include <cmath>
#include <numbers>

namespace vrk {

Vector3 operator*(const Matrix3& matrix, const Vector3& vector) {
    return {dot(matrix[0], vector), dot(matrix[1], vector), dot(matrix[2], vector)};
}

Matrix3 operator*(const Matrix3& a, const Matrix3& b) {
    Matrix3 result{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            for (std::size_t k = 0; k < 3; ++k)
                result[i][j] += a[i][k] * b[k][j];
    return result;
}

double dot(const Vector3& a, const Vector3& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Vector3 cross(const Vector3& a, const Vector3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

Vector3 unit(const Vector3& vector) {
    const double length = std::sqrt(dot(vector, vector));
    return {vector[0] / length, vector[1] / length, vector[2] / length};
}

Matrix3 rotationAbout(const Vector3& axis, double degrees) {
    const double angle = degrees * std::numbers::pi / 180;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    const auto [x, y, z] = axis;
    return {{{c + x * x * (1 - c), x * y * (1 - c) - z * s, x * z * (1 - c) + y * s},
             {x * y * (1 - c) + z * s, c + y * y * (1 - c), y * z * (1 - c) - x * s},
             {x * z * (1 - c) - y * s, y * z * (1 - c) + x * s, c + z * z * (1 - c)}}};
}

Matrix3 eulerRotation(const Vector3& angles) {
    return rotationAbout({0, 0, 1}, angles[0]) * rotationAbout({1, 0, 0}, angles[1]) *
           rotationAbout({0, 0, 1}, angles[2]);
}

Matrix3 randomRotation(SimulationRandom random) {
    const double u = random.uniform();
    const double angle1 = 2 * std::numbers::pi * random.uniform();
    const double angle2 = 2 * std::numbers::pi * random.uniform();
    const double x = std::sqrt(1 - u) * std::sin(angle1);
    const double y = std::sqrt(1 - u) * std::cos(angle1);
    const double z = std::sqrt(u) * std::sin(angle2);
    const double w = std::sqrt(u) * std::cos(angle2);
    return {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
             {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
             {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}}};
}

}  // namespace vrk
