#include "pictures/Pictures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <system_error>

#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "visualisation/ReciprocalSection.h"
#include "visualisation/VolumeProjection.h"
#include "visualisation/VoxOpenCV.h"

namespace vrk::app {
namespace {

namespace fs = std::filesystem;

void commitIf(bool saved, OutputFile& file, const fs::path& path) {
    if (!saved)
        throw Failure("cannot write the picture " + path.string() + "; check the folder and the free space");
    file.commit();
}

void save(const PlaneImage& image, const ImageOverlay& overlay, bool tga, fs::path path,
          std::vector<fs::path>& written) {
    path.replace_extension(".png");
    savePicture(image, overlay, path);
    written.push_back(path);
    if (!tga) return;
    path.replace_extension(".tga");
    OutputFile plain(path);
    commitIf(VoxOpenCV::SaveTGA(image, plain.path().string()), plain, path);
    written.push_back(path);
}

ReciprocalSection::Settings planeSettings(const std::string& plane) {
    ReciprocalSection::Settings settings;
    if (!ReciprocalSection::parsePlane(plane, settings))
        throw Failure("\"" + plane +
                          "\" is no plane; write h, k, l with a number or a letter again in one place, for "
                          "instance hk0, h1l or hhl",
                      FailureKind::Usage);
    return settings;
}

std::vector<fs::path> draw(const ReciprocalSection& section, const SectionOptions& options,
                           const fs::path& folder) {
    std::vector<fs::path> written;
    for (const std::string& plane : options.planes) {
        ReciprocalSection::Settings settings = planeSettings(plane);
        settings.thickness = options.thickness;
        settings.size = options.size;
        ImageOverlay overlay = section.overlay(settings, options.nodes);
        overlay.title = plane;
        save(section.sample(settings), overlay, options.tga, folder / plane, written);
    }
    return written;
}

template <typename Data>
std::vector<fs::path> project(const Data& data, bool tga, const fs::path& folder) {
    static constexpr std::array<const char*, 3> kNames = {"projection_x", "projection_y", "projection_z"};
    std::vector<fs::path> written;
    for (int axis = 0; axis < 3; ++axis) {
        const PlaneImage image = VolumeProjection::maximumAlong(data, axis);
        save(image, VolumeProjection::axesOf(image, axis), tga,
             folder / kNames[static_cast<std::size_t>(axis)], written);
    }
    return written;
}

}  // namespace

void savePicture(const PlaneImage& image, const ImageOverlay& overlay, const fs::path& path) {
    OutputFile file(path);
    commitIf(VoxOpenCV::SaveImage(image, file.path().string(), overlay), file, path);
}

void checkPlanes(const std::vector<std::string>& planes) {
    for (const std::string& plane : planes)
        planeSettings(plane);
}

std::vector<fs::path> writeSections(const VoxMRCData& volume, const UnitCell& cell,
                                    const SectionOptions& options, const fs::path& folder) {
    const std::array<double, 3> origin = {0.5 * (volume.GetWidth() - 1.0), 0.5 * (volume.GetHeight() - 1.0),
                                          0.5 * (volume.GetDepth() - 1.0)};
    return draw(ReciprocalSection(volume, cell, origin), options, folder);
}

std::vector<fs::path> writeSections(const VoxVolumeData& view, const UnitCell& cell,
                                    const SectionOptions& options, const fs::path& folder) {
    return draw(ReciprocalSection(view, cell), options, folder);
}

std::vector<fs::path> writeProjections(const VoxMRCData& volume, bool tga, const fs::path& folder) {
    return project(volume, tga, folder);
}

std::vector<fs::path> writeProjections(const VoxVolumeData& view, bool tga, const fs::path& folder) {
    return project(view, tga, folder);
}

void writePattern(const VoxMRCData& series, int slice, std::optional<double> axis, const fs::path& path) {
    const mrcH& header = series.m_Header;
    PlaneImage image(header.nx, header.ny);
    const short* pixels = series.GetChunkPointer(static_cast<unsigned>(slice));
    for (int y = 0; y < header.ny; ++y)
        for (int x = 0; x < header.nx; ++x)
            image.at(x, y) = pixels[static_cast<std::ptrdiff_t>(y) * header.nx + x];

    ImageOverlay overlay;
    std::array<char, 60> title{};
    std::snprintf(title.data(), title.size(), "tilt %.2f", static_cast<double>(header.tilt(slice)));
    overlay.title = title.data();
    const double edge = std::min(header.nx, header.ny);
    const double corner = 0.06 * edge;
    overlay.lines.push_back({corner, header.ny - 3 * corner, 3 * corner, header.ny - 3 * corner, "x"});
    overlay.lines.push_back({corner, header.ny - 3 * corner, corner, header.ny - corner, "y"});
    if (axis) {
        const double t = *axis * std::numbers::pi / 180;
        const double x = 0.4 * edge * -std::sin(t);
        const double y = 0.4 * edge * std::cos(t);
        const double middleX = 0.5 * (header.nx - 1);
        const double middleY = 0.5 * (header.ny - 1);
        std::snprintf(title.data(), title.size(), "axis %.1f", *axis);
        overlay.lines.push_back({middleX - x, middleY - y, middleX + x, middleY + y, title.data()});
    }
    savePicture(image, overlay, path);
}

}  // namespace vrk::app
