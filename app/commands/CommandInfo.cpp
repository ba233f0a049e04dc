#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VoxCore/DataModel/VoxHistogram.h"
#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "pictures/Pictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/FileReport.h"

namespace vrk::app {
namespace {

using Json = nlohmann::ordered_json;

struct InfoArguments {
    std::string file;
    bool json = false;
    bool slices = false;
    std::string picture;
    std::optional<double> axis;
};

struct Column {
    SliceValue value;
    const char* name;
};

constexpr std::array<Column, mrcH::kSliceValueCount> kColumns = {
    {{SliceValue::TiltAngle, "a_tilt"},
     {SliceValue::SecondTilt, "b_tilt"},
     {SliceValue::StageX, "x_stage"},
     {SliceValue::StageY, "y_stage"},
     {SliceValue::StageZ, "z_stage"},
     {SliceValue::Defocus, "defocus"},
     {SliceValue::ExposureTime, "exp_time"},
     {SliceValue::MeanIntensity, "mean_int"},
     {SliceValue::TiltAxis, "tilt_axis"},
     {SliceValue::Magnification, "magnification"},
     {SliceValue::MicroscopeType, "microscope_type"},
     {SliceValue::PixelSize, "pixel_size"},
     {SliceValue::GunType, "gun_type"},
     {SliceValue::LensType, "lens_type"},
     {SliceValue::MicroscopeNumber, "d_number"},
     {SliceValue::HighTension, "high_tension"},
     {SliceValue::DiffractionLens, "diffraction_lens"}}};

bool isSeries(const mrcH& header) {
    return header.type == MRCType::TILT_SERIES;
}

/// Bytes of a file as a line that a terminal can show.
std::string printable(std::string_view bytes) {
    std::string text(bytes.substr(0, bytes.find('\0')));
    for (char& c : text)
        if (c < ' ' || c > '~') c = '?';
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::vector<std::string> labels(const mrcH& header) {
    std::vector<std::string> all;
    for (std::size_t i = 0; i < 10; ++i) {
        std::string label = printable(std::string_view(header.labl.data() + 80 * i, 80));
        if (!label.empty()) all.push_back(std::move(label));
    }
    return all;
}

Json headerAsJson(const mrcH& h) {
    return {{"nx", h.nx},
            {"ny", h.ny},
            {"nz", h.nz},
            {"mode", h.mode},
            {"start", {h.nxstart, h.nystart, h.nzstart}},
            {"intervals", {h.mx, h.my, h.mz}},
            {"cell_lengths", {h.xlen, h.ylen, h.zlen}},
            {"cell_angles", {h.alpha, h.beta, h.gamma}},
            {"axes", {h.mapc, h.mapr, h.maps}},
            {"density", {{"min", h.amin}, {"max", h.amax}, {"mean", h.amean}, {"rms", h.rms}}},
            {"ispg", h.ispg},
            {"nsymbt", h.nsymbt},
            {"next", h.next},
            {"origin", {h.xorgin, h.yorgin, h.zorgin}},
            {"labels", labels(h)}};
}

Json slicesAsJson(const mrcH& header, const FileReport& report) {
    Json all = Json::array();
    for (int z = 0; z < header.nz; ++z) {
        const SliceReport& s = report.slices[static_cast<std::size_t>(z)];
        Json slice = {
            {"slice", z}, {"min", s.minimum}, {"max", s.maximum}, {"mean", s.mean}, {"clipped", s.saturated}};
        if (header.next > 0)
            for (const Column& column : kColumns)
                slice[column.name] = header.value(column.value, z);
        all.push_back(std::move(slice));
    }
    return all;
}

void printJson(Host& host, const InfoArguments& options, const VoxMRCData& data, std::uintmax_t bytes,
               const FileReport& report) {
    const mrcH& header = data.m_Header;
    const VoxHistogram<short>& histogram = *data.m_Histogram;
    Json json = {{"path", options.file},
                 {"type", isSeries(header) ? "tilt series" : "volume"},
                 {"bytes", bytes},
                 {"header", headerAsJson(header)},
                 {"pixel_size", header.m_pixelsize}};
    if (isSeries(header))
        json["tilt"] = {{"first", report.tilts.first},
                        {"last", report.tilts.last},
                        {"step", report.tilts.step},
                        {"smallest_step", report.tilts.smallestStep},
                        {"largest_step", report.tilts.largestStep},
                        {"regular", report.tilts.regular},
                        {"axis", header.value(SliceValue::TiltAxis, 0)},
                        {"high_tension_kv", header.value(SliceValue::HighTension, 0)}};
    json["values"] = {{"min", report.minimum},       {"max", report.maximum},
                      {"mean", report.mean},         {"clipped", report.saturated},
                      {"negative", report.negative}, {"histogram", histogram.m_Bins}};
    if (options.slices) json["slices"] = slicesAsJson(header, report);
    json["warnings"] = report.warnings;
    host.out() << jsonText(json, 1) << '\n';
}

void printLine(Host& host, const char* name, const std::string& text) {
    std::array<char, 20> padded{};
    std::snprintf(padded.data(), padded.size(), "  %-14s", name);
    host.out() << padded.data() << text << '\n';
}

template <class... Numbers>
std::string row(const Numbers&... numbers) {
    std::string text;
    ((text += text.empty() ? "" : " ", text += shortNumber(static_cast<double>(numbers))), ...);
    return text;
}

void printTilts(Host& host, const mrcH& header, const TiltReport& tilts) {
    std::string text = shortNumber(tilts.first) + " to " + shortNumber(tilts.last) + " degrees";
    if (header.nz > 1 && tilts.finite) {
        text += tilts.regular
                    ? ", regular steps of " + shortNumber(tilts.step, 4)
                    : ", steps of " + shortNumber(tilts.smallestStep, 4) + " to " +
                          shortNumber(tilts.largestStep, 4) + ", mostly " + shortNumber(tilts.step, 4);
    }
    printLine(host, "tilts", text);
    const float axis = header.value(SliceValue::TiltAxis, 0);
    printLine(host, "tilt axis",
              axis != 0 ? shortNumber(axis) + " degrees from the image's y axis" : "not stated");
    const float tension = header.value(SliceValue::HighTension, 0);
    printLine(host, "high tension", tension > 0 ? shortNumber(tension) + " kV" : "not stated");
}

void printPixelSize(Host& host, const mrcH& header) {
    if (!(header.m_pixelsize > 0) || !std::isfinite(header.m_pixelsize)) {
        printLine(host, "pixel size", "not stated");
        return;
    }
    const double perAngstrom = static_cast<double>(header.m_pixelsize) * 1e-10;
    printLine(host, "pixel size",
              pixelSizeText(header.m_pixelsize) +
                  " per pixel; d = " + shortNumber(2 / (perAngstrom * std::min(header.nx, header.ny)), 3) +
                  " Angstrom at the edge");
}

void printHeader(Host& host, const mrcH& h) {
    printLine(host, "mode", std::to_string(h.mode) + (h.mode == 1 ? " (16-bit signed)" : ""));
    printLine(host, "start", row(h.nxstart, h.nystart, h.nzstart));
    printLine(host, "intervals", row(h.mx, h.my, h.mz));
    printLine(host, "cell",
              row(h.xlen, h.ylen, h.zlen) + " Angstrom, " + row(h.alpha, h.beta, h.gamma) + " degrees");
    printLine(host, "axes", row(h.mapc, h.mapr, h.maps));
    printLine(host, "density",
              row(h.amin, h.amax, h.amean) + " (minimum, maximum, mean), rms " + shortNumber(h.rms));
    printLine(host, "ispg, nsymbt", row(h.ispg, h.nsymbt));
    printLine(host, "origin", row(h.xorgin, h.yorgin, h.zorgin));
    for (const std::string& label : labels(h))
        printLine(host, "label", label);
}

/// Sixteen ranges of equal width with bars as long as the logarithm of the counts.
void printHistogram(Host& host, const VoxHistogram<short>& histogram) {
    if (histogram.m_MinValue == histogram.m_MaxValue) return;
    constexpr std::size_t rows = 16;
    constexpr double longest = 40;
    const std::size_t binsPerRow = histogram.m_Bins.size() / rows;
    std::array<double, rows> counts{};
    for (std::size_t i = 0; i < rows * binsPerRow; ++i)
        counts[i / binsPerRow] += histogram.m_Bins[i];
    const double most = *std::max_element(counts.begin(), counts.end());
    const double range = static_cast<double>(histogram.m_MaxValue) - histogram.m_MinValue;
    host.out() << "\nhistogram (from this value on, number of voxels; bars are logarithmic)\n";
    for (std::size_t r = 0; r < rows; ++r) {
        // The last bin holds the maximum alone, so 255 bins span the range.
        const double from =
            histogram.m_MinValue + std::ceil(static_cast<double>(r * binsPerRow) * range / 255);
        const auto bar =
            static_cast<std::size_t>(std::lround(longest * std::log1p(counts[r]) / std::log1p(most)));
        std::array<char, 40> line{};
        std::snprintf(line.data(), line.size(), "  %6.0f %11.0f", from, counts[r]);
        host.out() << line.data() << (bar > 0 ? "  " : "") << std::string(bar, '#') << '\n';
    }
}

std::size_t columnWidth(const Column& column) {
    return std::max<std::size_t>(11, std::string_view(column.name).size() + 2);
}

/// Columns of the extended header that are 0 everywhere are left out.
void printSlices(Host& host, const mrcH& header, const FileReport& report) {
    std::vector<Column> columns;
    for (const Column& column : kColumns) {
        const auto& values = header.sliceValues[static_cast<std::size_t>(column.value)];
        if (std::any_of(values.begin(), values.end(), [](float v) { return v != 0; }))
            columns.push_back(column);
    }
    const auto cell = [&host](const std::string& text, std::size_t width) {
        host.out() << std::string(width > text.size() ? width - text.size() : 1, ' ') << text;
    };
    host.out() << "\nslices\n  slice";
    for (const Column& column : columns)
        cell(column.name, columnWidth(column));
    for (const char* name : {"min", "max", "mean", "clipped"})
        cell(name, 10);
    host.out() << '\n';
    for (int z = 0; z < header.nz; ++z) {
        const SliceReport& slice = report.slices[static_cast<std::size_t>(z)];
        cell(std::to_string(z), 7);
        for (const Column& column : columns)
            cell(shortNumber(header.value(column.value, z)), columnWidth(column));
        cell(std::to_string(slice.minimum), 10);
        cell(std::to_string(slice.maximum), 10);
        cell(shortNumber(slice.mean, 5), 10);
        cell(std::to_string(slice.saturated), 10);
        host.out() << '\n';
    }
}

void printText(Host& host, const InfoArguments& options, const VoxMRCData& data, std::uintmax_t bytes,
               const FileReport& report) {
    const mrcH& header = data.m_Header;
    host.out() << printable(options.file) << ": " << (isSeries(header) ? "tilt series, " : "volume, ")
               << header.nz << (isSeries(header) ? " patterns" : " layers") << " of " << header.nx << " x "
               << header.ny << '\n';
    printLine(host, "file",
              std::to_string(bytes) + " bytes: header 1024, extended header " + std::to_string(header.next) +
                  ", data " + std::to_string(2ULL * data.GetDataSize()));
    if (isSeries(header)) printTilts(host, header, report.tilts);
    printPixelSize(host, header);
    printLine(host, "values",
              std::to_string(report.minimum) + " to " + std::to_string(report.maximum) + ", mean " +
                  shortNumber(report.mean, 5));
    host.out() << "\nheader\n";
    printHeader(host, header);
    printHistogram(host, *data.m_Histogram);
    if (options.slices) printSlices(host, header, report);
    host.out() << (report.warnings.empty() ? "\nno warnings\n" : "\nwarnings\n");
    for (const std::string& warning : report.warnings)
        host.out() << "  " << warning << '\n';
}

/// The pattern next to 0 degrees, with the axis that was given or that the series states.
void drawPattern(const InfoArguments& options, const VoxMRCData& data) {
    const mrcH& header = data.m_Header;
    if (!isSeries(header))
        throw Failure(options.file + " is a volume, which has no patterns; 'vrk sections' draws it");
    int flattest = 0;
    for (int z = 1; z < header.nz; ++z)
        if (std::abs(header.tilt(z)) < std::abs(header.tilt(flattest))) flattest = z;
    std::optional<double> axis = options.axis;
    const double stated = header.value(SliceValue::TiltAxis, 0);
    if (!axis && stated != 0) axis = stated;
    writePattern(data, flattest, axis, std::filesystem::path(options.file).filename().string(),
                 options.picture);
}

void runInfo(Host& host, const InfoArguments& options) {
    // The report names every oddity itself.
    const QuietLog quiet(host.session(), QuietLog::Keep::UntilReleased);
    const std::unique_ptr<VoxMRCData> data = readMRC(options.file, host.session());
    const std::uintmax_t bytes = std::filesystem::file_size(options.file);
    const FileReport report = inspect(*data, bytes);
    if (!options.picture.empty()) drawPattern(options, *data);
    if (options.json)
        printJson(host, options, *data, bytes, report);
    else
        printText(host, options, *data, bytes, report);
}

}  // namespace

void addInfoCommand(CommandLine& line, Host& host) {
    const auto options = std::make_shared<InfoArguments>();
    Command command = line.command("info", "Show what an MRC file holds and what is odd about it");
    command.option("file", options->file, "Tilt series or volume (MRC)").required();
    command.flag("--json", options->json, "Print JSON and nothing else");
    command.flag("--slices", options->slices, "Add a table with the values of every slice");
    command
        .option("--picture", options->picture,
                "Draw the pattern next to 0 degrees, with the tilt axis where one is known")
        .typeName("FILE.png");
    command.option("--axis", options->axis, "Axis to draw, degrees [as the series states]");
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk info series.mrc --slices --picture pattern.png");
    command.action([&host, options] { runInfo(host, *options); });
}

}  // namespace vrk::app
