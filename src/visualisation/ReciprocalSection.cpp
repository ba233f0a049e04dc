#include "visualisation/ReciprocalSection.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "crystallography/UnitCell.h"

namespace {

using Vector = std::array<double, 3>;

Vector operator+(const Vector& a, const Vector& b) {
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
Vector operator*(double f, const Vector& a) {
    return {f * a[0], f * a[1], f * a[2]};
}
double dot(const Vector& a, const Vector& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
double norm(const Vector& a) {
    return std::sqrt(dot(a, a));
}
Vector cross(const Vector& a, const Vector& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

/// Indices as in print, those below zero with a bar: "1 1\u0304 0".
std::string nameOf(const std::array<int, 3>& hkl) {
    std::string name;
    for (const int index : hkl) {
        name += name.empty() ? "" : " ";
        for (const char digit : std::to_string(std::abs(index)))
            name += std::string(1, digit) + (index < 0 ? "\u0304" : "");
    }
    return name;
}

/// The name of an axis of the picture: a*, b*, c* or the indices of its first node.
std::string axisName(const std::array<int, 3>& hkl) {
    static constexpr std::array<const char*, 3> kNames = {"a*", "b*", "c*"};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        std::array<int, 3> unit = {0, 0, 0};
        unit[axis] = 1;
        if (hkl == unit) return kNames[axis];
    }
    return nameOf(hkl);
}

std::array<Vector, 3> reciprocalBase(UnitCell cell) {
    const std::unique_ptr<UnitCell> reciprocal(cell.isRealCell() ? cell.getReciprocalCell() : nullptr);
    std::array<Vector, 3> base;
    (reciprocal ? *reciprocal : cell).getBase(base[0].data(), base[1].data(), base[2].data());
    return base;
}

}  // namespace

ReciprocalSection::ReciprocalSection(const VoxMRCData& volume, const UnitCell& cell,
                                     const std::array<double, 3>& origin)
    : m_width(static_cast<int>(volume.GetWidth())),
      m_height(static_cast<int>(volume.GetHeight())),
      m_depth(static_cast<int>(volume.GetDepth())),
      m_stepX(m_height),
      m_stepY(1),
      m_reduction(1.0),
      m_halfExtent(0.5 * std::max({m_width, m_height, m_depth})),
      m_base(reciprocalBase(cell)),
      m_origin(origin) {
    for (unsigned z = 0; z < volume.GetDepth(); ++z)
        m_slices.push_back(volume.GetChunkPointer(z));
}

ReciprocalSection::ReciprocalSection(const VoxVolumeData& view, const UnitCell& cell)
    : m_width(static_cast<int>(view.width())),
      m_height(static_cast<int>(view.height())),
      m_depth(static_cast<int>(view.depth())),
      m_stepX(1),
      m_stepY(m_width),
      m_reduction(view.reduction()),
      m_halfExtent(0.5 + *std::max_element(view.middle().begin(), view.middle().end())),
      m_base(reciprocalBase(cell)),
      m_origin(view.middle()) {
    for (Vector& vector : m_base)
        vector = (1.0 / m_reduction) * vector;
    const std::size_t area = std::size_t{view.width()} * view.height();
    for (std::size_t z = 0; z < view.depth(); ++z)
        m_slices.push_back(view.voxels().data() + z * area);
}

Vector ReciprocalSection::node(const std::array<int, 3>& hkl) const {
    return static_cast<double>(hkl[0]) * m_base[0] + static_cast<double>(hkl[1]) * m_base[1] +
           static_cast<double>(hkl[2]) * m_base[2];
}

ReciprocalSection::PictureFrame ReciprocalSection::frameOf(const Settings& settings) const {
    PictureFrame frame{};
    const Vector u = node(settings.u);
    const Vector v = node(settings.v);
    const Vector w = node(settings.w);
    const Vector uv = cross(u, v);
    const double area = norm(uv);
    if (!(area > 1e-9 * norm(u) * norm(v)) || settings.size < 1 || m_slices.empty()) return frame;
    frame.normal = (1.0 / area) * uv;
    if (settings.level != 0 && std::abs(dot(frame.normal, w)) < 1e-9 * norm(w)) return frame;
    frame.right = (1.0 / norm(u)) * u;
    frame.up = cross(frame.normal, frame.right);
    // The foot of the origin's perpendicular on the plane is the middle of the picture.
    frame.centre = m_origin + (settings.level * dot(frame.normal, w)) * frame.normal;
    const double radius = settings.radius > 0.0 ? settings.radius / m_reduction : m_halfExtent;
    frame.voxelsPerPixel = 2.0 * radius / settings.size;
    frame.valid = true;
    return frame;
}

float ReciprocalSection::interpolate(float x, float y, float z) const {
    // Also refuses positions that are not numbers.
    if (!(x >= 0.0F && y >= 0.0F && z >= 0.0F && x <= static_cast<float>(m_width - 1) &&
          y <= static_cast<float>(m_height - 1) && z <= static_cast<float>(m_depth - 1)))
        return std::numeric_limits<float>::quiet_NaN();
    const int x0 = static_cast<int>(x);
    const int y0 = static_cast<int>(y);
    const int z0 = static_cast<int>(z);
    const float fx = x - static_cast<float>(x0);
    const float fy = y - static_cast<float>(y0);
    const float fz = z - static_cast<float>(z0);
    // On the last voxel of an axis its weight is one, so that the next one may be any.
    const std::ptrdiff_t stepX = x0 + 1 < m_width ? m_stepX : 0;
    const std::ptrdiff_t stepY = y0 + 1 < m_height ? m_stepY : 0;
    const std::ptrdiff_t at = x0 * m_stepX + y0 * m_stepY;
    const short* const lower = m_slices[static_cast<std::size_t>(z0)] + at;
    const short* const upper = m_slices[static_cast<std::size_t>(std::min(z0 + 1, m_depth - 1))] + at;
    const auto between = [](float a, float b, float f) { return a + f * (b - a); };
    const auto plane = [&](const short* p) {
        return between(between(p[0], p[stepY], fy), between(p[stepX], p[stepX + stepY], fy), fx);
    };
    return between(plane(lower), plane(upper), fz);
}

PlaneImage ReciprocalSection::sample(const Settings& settings) const {
    const PictureFrame frame = frameOf(settings);
    if (!frame.valid) return {};
    PlaneImage image(settings.size, settings.size);
    const double thickness = settings.thickness / m_reduction;
    const int layers = thickness > 0.0 ? 1 + static_cast<int>(std::ceil(thickness)) : 1;
    const double spacing = layers > 1 ? thickness / (layers - 1) : 0.0;
    const double middle = 0.5 * (settings.size - 1);
    const Vector step = frame.voxelsPerPixel * frame.right;
    for (int row = 0; row < settings.size; ++row) {
        const Vector start = frame.centre + (frame.voxelsPerPixel * (middle - row)) * frame.up +
                             (-middle * frame.voxelsPerPixel) * frame.right +
                             (-0.5 * spacing * (layers - 1)) * frame.normal;
        float* const pixels = &image.at(0, row);
        std::fill(pixels, pixels + settings.size, std::numeric_limits<float>::quiet_NaN());
        for (int layer = 0; layer < layers; ++layer) {
            const Vector from = start + (layer * spacing) * frame.normal;
            for (int column = 0; column < settings.size; ++column) {
                const float value = interpolate(static_cast<float>(from[0] + column * step[0]),
                                                static_cast<float>(from[1] + column * step[1]),
                                                static_cast<float>(from[2] + column * step[2]));
                // What is not measured, on either side, compares as false.
                if (!(value <= pixels[column]) && value == value) pixels[column] = value;
            }
        }
    }
    return image;
}

ImageOverlay ReciprocalSection::overlay(const Settings& settings, bool nodes) const {
    ImageOverlay result;
    const PictureFrame frame = frameOf(settings);
    if (!frame.valid) return result;
    const double middle = 0.5 * (settings.size - 1);
    const auto place = [&](const Vector& g) {
        const Vector fromCentre = g + m_origin + (-1.0) * frame.centre;
        return std::array<double, 2>{middle + dot(fromCentre, frame.right) / frame.voxelsPerPixel,
                                     middle - dot(fromCentre, frame.up) / frame.voxelsPerPixel};
    };
    result.title = axisName(settings.u) + " right, " + axisName(settings.v) + " up, level " +
                   std::to_string(settings.level) + " of " + axisName(settings.w);
    const Vector level = static_cast<double>(settings.level) * node(settings.w);
    result.scale = {middle, middle, frame.voxelsPerPixel * m_reduction,
                    std::abs(dot(frame.normal, level)) * m_reduction};
    const auto zero = place(level);
    const double reach = 0.42 * settings.size * frame.voxelsPerPixel;
    for (const std::array<int, 3>& axis : {settings.u, settings.v}) {
        const Vector g = node(axis);
        const auto end = place(level + (reach / norm(g)) * g);
        result.lines.push_back({zero[0], zero[1], end[0], end[1], "", false, true});
        // The arrow has the length of the vector, or of the least multiple that can be seen.
        constexpr double kVisible = 24.0;
        const int times = static_cast<int>(std::ceil(kVisible * frame.voxelsPerPixel / norm(g)));
        const auto tip = place(level + static_cast<double>(std::max(times, 1)) * g);
        result.lines.push_back({zero[0], zero[1], tip[0], tip[1],
                                (times > 1 ? std::to_string(times) + " " : "") + axisName(axis)});
    }
    if (!nodes) return result;

    const double longest = std::max(norm(node(settings.u)), norm(node(settings.v)));
    const double rows = norm(cross(node(settings.u), node(settings.v))) / longest;
    // Rings that would touch tell nothing.
    if (!(rows / frame.voxelsPerPixel >= 6.0)) return result;
    const int most = static_cast<int>(std::ceil(0.75 * settings.size * frame.voxelsPerPixel / rows));
    for (int i = -most; i <= most; ++i)
        for (int j = -most; j <= most; ++j) {
            const auto at = place(level + static_cast<double>(i) * node(settings.u) +
                                  static_cast<double>(j) * node(settings.v));
            if (at[0] >= 0.0 && at[1] >= 0.0 && at[0] < settings.size && at[1] < settings.size)
                result.nodes.push_back({at[0], at[1]});
        }
    return result;
}

bool ReciprocalSection::parsePlane(const char* name, Settings& settings) {
    // Each place holds its own letter, which runs freely, but for one: a whole number, or an earlier letter.
    static constexpr std::array<char, 3> kLetters = {'h', 'k', 'l'};
    const char* const end = name + std::strlen(name);
    std::array<std::array<int, 3>, 3> steps{};  // of the free letters
    int level = 0;
    int bound = 0;
    std::size_t boundPlace = 0;
    for (std::size_t place = 0; place < 3; ++place) {
        if (name != end && *name == kLetters[place]) {
            steps[place][place] = 1;
            ++name;
            continue;
        }
        boundPlace = place;
        ++bound;
        const bool negative = name != end && *name == '-';
        const auto own = kLetters.begin() + static_cast<std::ptrdiff_t>(place);
        const auto letter = std::find(kLetters.begin(), own, name[negative ? 1 : 0]);
        if (letter != own) {
            steps[static_cast<std::size_t>(letter - kLetters.begin())][place] = negative ? -1 : 1;
            name += negative ? 2 : 1;
            continue;
        }
        const auto parsed = std::from_chars(name, end, level);
        if (parsed.ec != std::errc() || std::abs(level) > 1000) return false;
        name = parsed.ptr;
    }
    if (name != end || bound != 1) return false;

    settings.u = steps[boundPlace == 0 ? 1 : 0];
    settings.v = steps[boundPlace == 2 ? 1 : 2];
    settings.w = {0, 0, 0};
    settings.w[boundPlace] = 1;
    settings.level = level;
    return true;
}
