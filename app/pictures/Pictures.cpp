#include "pictures/Pictures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <system_error>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "visualisation/PictureFile.h"
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

/// The bare image for programs, where it is wanted.
void saveTga(const PlaneImage& image, fs::path path, std::vector<fs::path>& written) {
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

/// "h-1l" with the bar over the 1.
std::string planeText(const std::string& plane) {
    std::string text;
    for (std::size_t i = 0; i < plane.size(); ++i)
        if (plane[i] != '-')
            text += plane[i];
        else if (++i < plane.size())
            text += plane[i] + std::string("\u0304");
    return text;
}

template <typename Lists>
std::vector<fs::path> joined(const Lists& lists) {
    std::vector<fs::path> all;
    for (const std::vector<fs::path>& list : lists)
        all.insert(all.end(), list.begin(), list.end());
    return all;
}

std::vector<fs::path> draw(const ReciprocalSection& section, const SectionOptions& options,
                           const PictureNotes& notes, const fs::path& folder) {
    std::vector<std::vector<fs::path>> files(options.planes.size());
    VRK::shareItems(files.size(), [&](std::size_t number, std::size_t) {
        const std::string& plane = options.planes[number];
        std::vector<fs::path>& written = files[number];
        ReciprocalSection::Settings settings = planeSettings(plane);
        settings.thickness = options.thickness;
        settings.size = options.size;
        const PlaneImage image = section.sample(settings);
        PictureSheet sheet(image, options.size);
        sheet.overlay() = section.overlay(settings, options.nodes);
        const std::string directions = sheet.overlay().title;
        if (sheet.overlay().scale) sheet.setScale(*sheet.overlay().scale, notes.pixelSize);
        sheet.describe(planeText(plane), notes, directions);
        written.push_back(folder / (plane + ".png"));
        sheet.save(written.back());
        if (options.tga) saveTga(image, folder / plane, written);
    });
    return joined(files);
}

/// \param perPixel  voxels of the volume along the edge of one of the image
template <typename Data>
std::vector<fs::path> project(const Data& data, int axis, double perPixel, const SectionOptions& options,
                              const PictureNotes& notes, const fs::path& folder) {
    const PlaneImage image = VolumeProjection::maximumAlong(data, axis);
    PictureSheet sheet(image, options.size);
    sheet.setScale(
        {sheet.x(0.5 * (image.width - 1)), sheet.y(0.5 * (image.height - 1)), perPixel / sheet.zoom()},
        notes.pixelSize);
    const ImageOverlay axes = VolumeProjection::axesOf(sheet.panel(), axis, 0.5 * sheet.barLength());
    sheet.overlay().lines = axes.lines;
    sheet.describe(axes.title, notes);
    std::vector<fs::path> written = {folder / (std::string("projection_") + "xyz"[axis] + ".png")};
    sheet.save(written.back());
    if (options.tga) saveTga(image, written.back(), written);
    return written;
}

/// \param draw  draws the projection along an axis
template <typename Draw>
std::vector<fs::path> alongAllAxes(Draw draw) {
    std::array<std::vector<fs::path>, 3> files;
    VRK::shareItems(files.size(),
                    [&](std::size_t axis, std::size_t) { files[axis] = draw(static_cast<int>(axis)); });
    return joined(files);
}

}  // namespace

void savePicture(const PlaneImage& image, const ImageOverlay& overlay, const fs::path& path) {
    if (!PictureFile::IsNamedSo(path.string()))
        throw Failure("cannot write the picture " + path.string() + ": it needs a name that ends in .png");
    OutputFile file(path);
    commitIf(VoxOpenCV::SaveImage(image, file.path().string(), overlay), file, path);
}

void checkPlanes(const std::vector<std::string>& planes) {
    for (const std::string& plane : planes)
        planeSettings(plane);
}

std::vector<fs::path> writeSections(const VoxMRCData& volume, const UnitCell& cell,
                                    const SectionOptions& options, const PictureNotes& notes,
                                    const fs::path& folder) {
    const std::array<double, 3> origin = {0.5 * (volume.GetWidth() - 1.0), 0.5 * (volume.GetHeight() - 1.0),
                                          0.5 * (volume.GetDepth() - 1.0)};
    return draw(ReciprocalSection(volume, cell, origin), options, notes, folder);
}

std::vector<fs::path> writeSections(const VoxVolumeData& view, const UnitCell& cell,
                                    const SectionOptions& options, const PictureNotes& notes,
                                    const fs::path& folder) {
    return draw(ReciprocalSection(view, cell), options, notes, folder);
}

std::vector<fs::path> writeProjection(const VoxMRCData& volume, int axis, const SectionOptions& options,
                                      const PictureNotes& notes, const fs::path& folder) {
    return project(volume, axis, 1.0, options, notes, folder);
}

std::vector<fs::path> writeProjections(const VoxMRCData& volume, const SectionOptions& options,
                                       const PictureNotes& notes, const fs::path& folder) {
    return alongAllAxes([&](int axis) { return writeProjection(volume, axis, options, notes, folder); });
}

std::vector<fs::path> writeProjections(const VoxVolumeData& view, const SectionOptions& options,
                                       const PictureNotes& notes, const fs::path& folder) {
    return alongAllAxes(
        [&](int axis) { return project(view, axis, view.reduction(), options, notes, folder); });
}

void writePattern(const VoxMRCData& series, int slice, std::optional<double> axis, const std::string& source,
                  const fs::path& path) {
    const mrcH& header = series.m_Header;
    PlaneImage image(header.nx, header.ny);
    const short* pixels = series.GetChunkPointer(static_cast<unsigned>(slice));
    for (int y = 0; y < header.ny; ++y)
        for (int x = 0; x < header.nx; ++x)
            image.at(x, y) = pixels[static_cast<std::ptrdiff_t>(y) * header.nx + x];

    PictureSheet sheet(image);
    const double middleX = sheet.x(0.5 * (header.nx - 1));
    const double middleY = sheet.y(0.5 * (header.ny - 1));
    // Where the direct beam is, and with it the origin, is not known here.
    sheet.setScale({middleX, middleY, 1.0 / sheet.zoom()}, header.m_pixelsize, false);
    for (std::string* name : {&sheet.overlay().border->bottomName, &sheet.overlay().border->leftName})
        *name += " from the middle";
    sheet.describe(
        formatted("pattern %d, tilt %.2f\u00b0", slice + 1, static_cast<double>(header.tilt(slice))),
        {source, "", 0.0}, axis ? "" : "no tilt axis is stated");
    std::vector<ImageOverlay::Line>& lines = sheet.overlay().lines;
    constexpr double kEdge = PictureSheet::kEdge;
    constexpr double kCorner = 0.04 * kEdge;
    lines.push_back({kCorner, kEdge - 3 * kCorner, 3 * kCorner, kEdge - 3 * kCorner, "x"});
    lines.push_back({kCorner, kEdge - 3 * kCorner, kCorner, kEdge - kCorner, "y"});
    if (axis) {
        const double t = *axis * std::numbers::pi / 180;
        const double x = 0.4 * kEdge * -std::sin(t);
        const double y = 0.4 * kEdge * std::cos(t);
        lines.push_back(
            {middleX - x, middleY - y, middleX + x, middleY + y, formatted("tilt axis %.1f\u00b0", *axis)});
    }
    sheet.save(path);
}

}  // namespace vrk::app
