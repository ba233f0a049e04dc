/// \file
/// TIFF frames, one or several pages.
#include <tiffio.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {
namespace {

/// A TIFF that is open, with the library's last complaint.
class OpenTiff {
public:
    explicit OpenTiff(std::unique_ptr<FrameBytes> bytes) : m_bytes(std::move(bytes)) {
        TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
        TIFFOpenOptionsSetErrorHandlerExtR(options, keepComplaint, this);
        TIFFOpenOptionsSetWarningHandlerExtR(options, ignore, nullptr);
        constexpr std::uint64_t oneFrame = std::uint64_t{1} << 31;
        TIFFOpenOptionsSetMaxSingleMemAlloc(
            options, static_cast<tmsize_t>(std::min(oneFrame, mostUnpacked(fileSize()))));
        // Mapping is off (m): the file may shrink under us.
        m_tiff = TIFFClientOpenExt("", "rm", this, read, write, seek, close, size, nullptr, nullptr, options);
        TIFFOpenOptionsFree(options);
    }
    ~OpenTiff() {
        if (m_tiff) TIFFClose(m_tiff);
    }
    OpenTiff(const OpenTiff&) = delete;
    OpenTiff& operator=(const OpenTiff&) = delete;

    TIFF* get() const { return m_tiff; }
    std::uint64_t fileSize() const { return m_bytes->size(); }
    /// ": what the library says", or nothing.
    std::string complaint() const { return m_complaint.empty() ? "" : ": " + m_complaint; }

private:
    static OpenTiff& self(thandle_t handle) { return *static_cast<OpenTiff*>(handle); }
    /// What cannot be read is told as the end of the file: libtiff counts a result of -1 as bytes that it
    /// has, and writes before its buffer.
    static tmsize_t read(thandle_t handle, void* target, tmsize_t count) {
        OpenTiff& file = self(handle);
        const std::uint64_t there = file.m_position < file.fileSize() ? file.fileSize() - file.m_position : 0;
        const auto wanted = std::min(static_cast<std::uint64_t>(std::max<tmsize_t>(count, 0)), there);
        if (!file.m_bytes->read(file.m_position, {static_cast<char*>(target), wanted})) return 0;
        file.m_position += wanted;
        return static_cast<tmsize_t>(wanted);
    }
    static tmsize_t write(thandle_t, void*, tmsize_t) { return -1; }
    static toff_t seek(thandle_t handle, toff_t offset, int whence) {
        OpenTiff& file = self(handle);
        const std::uint64_t base = whence == SEEK_CUR   ? file.m_position
                                   : whence == SEEK_END ? file.fileSize()
                                                        : 0;
        return file.m_position = base + offset;
    }
    static int close(thandle_t) { return 0; }
    static toff_t size(thandle_t handle) { return self(handle).fileSize(); }

    static int keepComplaint(TIFF*, void* file, const char* /*module*/, const char* format,
                             std::va_list arguments) {
        char text[200];
        std::vsnprintf(text, sizeof text, format, arguments);
        std::string& complaint = static_cast<OpenTiff*>(file)->m_complaint;
        if (complaint.empty()) complaint = text;
        return 1;
    }
    static int ignore(TIFF*, void*, const char*, const char*, std::va_list) { return 1; }

    std::unique_ptr<FrameBytes> m_bytes;
    std::uint64_t m_position = 0;
    std::string m_complaint;
    TIFF* m_tiff = nullptr;
};

/// What a directory says about its pixels.
struct Layout {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint16_t bits = 1;
    std::uint16_t samples = 1;
    std::uint16_t format = SAMPLEFORMAT_UINT;
    std::uint16_t photometric = PHOTOMETRIC_MINISBLACK;
    std::uint16_t compression = COMPRESSION_NONE;

    explicit Layout(TIFF* tiff) {
        TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
        TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
        TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
        TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
        TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
        TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric);
        TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &compression);
    }

    bool coloured() const {
        return samples != 1 || photometric == PHOTOMETRIC_PALETTE || photometric == PHOTOMETRIC_RGB;
    }
    std::optional<PixelType> type() const {
        using enum PixelType;
        if (format == SAMPLEFORMAT_IEEEFP)
            return bits == 16   ? std::optional(Float16)
                   : bits == 32 ? std::optional(Float32)
                   : bits == 64 ? std::optional(Float64)
                                : std::nullopt;
        if (format != SAMPLEFORMAT_INT && format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID)
            return std::nullopt;
        const bool isSigned = format == SAMPLEFORMAT_INT;
        switch (bits) {
            case 8:
                return isSigned ? Int8 : UInt8;
            case 16:
                return isSigned ? Int16 : UInt16;
            case 32:
                return isSigned ? Int32 : UInt32;
            case 64:
                return isSigned ? Int64 : UInt64;
            default:
                return std::nullopt;
        }
    }
};

/// Grey pages of 8 to 64 bits, integers signed or not and floating-point numbers, in every compression that
/// libtiff knows, in strips or tiles. TIFF says nothing about tilt or pixel size.
class TiffFile : public FrameFile {
public:
    explicit TiffFile(FrameSource source);

private:
    Frame readFrame(int frame) const override;
    std::vector<float> readPixels(OpenTiff& tiff, const Layout& layout, PixelType type) const;
    void readRows(OpenTiff& tiff, const Layout& layout, PixelType type, std::vector<float>& pixels) const;
    void readTiles(OpenTiff& tiff, const Layout& layout, PixelType type, std::vector<float>& pixels) const;
    [[noreturn]] void refusePixels(const OpenTiff& tiff) const;
    [[noreturn]] void refusePage(std::size_t page, const std::string& reason) const {
        refuse("page " + std::to_string(page) + " of the TIFF " + reason);
    }

    std::vector<toff_t> m_directories;
};

// libtiff has brought the pixels into the byte order of this machine.
constexpr bool kBigEndianHost = std::endian::native == std::endian::big;

constexpr const char* kDoNotFit = "its strips or tiles do not fit its pages; the TIFF is damaged";

FrameFormat::Match recogniseTiff(const FileStart& start) {
    using namespace std::string_view_literals;
    for (const std::string_view mark : {"II*\0"sv, "MM\0*"sv, "II+\0"sv, "MM\0+"sv})
        if (start.bytes.starts_with(mark)) return FrameFormat::Match::Yes;
    return FrameFormat::Match::No;
}

const FrameFormat::Registration kTiff({"TIFF", recogniseTiff, FrameFormat::openAs<TiffFile>});

TiffFile::TiffFile(FrameSource source) : FrameFile(std::move(source)) {
    OpenTiff tiff(this->source().open());
    if (!tiff.get()) refuse("the TIFF is damaged: it has no pages that can be read" + tiff.complaint());
    constexpr std::size_t most = 100000;
    do {
        const Layout layout(tiff.get());
        const std::size_t page = m_infos.size() + 1;
        checkSize(layout.width, layout.height);
        if (layout.coloured()) refusePage(page, "has colours; export the frames as grey values");
        const std::optional<PixelType> type = layout.type();
        if (!type)
            refusePage(page,
                       "has pixels of " + std::to_string(layout.bits) +
                           " bits in a form that is not read; integers and floating-point numbers of 8, "
                           "16, 32 and 64 bits are");
        const std::uint64_t bytes = std::uint64_t{layout.width} * layout.height * bytesOf(*type);
        if (layout.compression == COMPRESSION_NONE && bytes > tiff.fileSize())
            refusePage(page, "is truncated: its pixels need " + std::to_string(bytes) +
                                 " bytes, the whole file has " + std::to_string(tiff.fileSize()));
        FrameInfo info;
        info.width = static_cast<int>(layout.width);
        info.height = static_cast<int>(layout.height);
        m_infos.push_back(info);
        m_directories.push_back(TIFFCurrentDirOffset(tiff.get()));
    } while (m_infos.size() < most && TIFFReadDirectory(tiff.get()));
    if (!tiff.complaint().empty())
        m_damage = "only the first " + std::to_string(m_infos.size()) +
                   " pages of the TIFF can be read; the rest is damaged or truncated" + tiff.complaint();
}

/// The pixels of a page, by rows. Memory is touched as the pixels come: a packed page may announce any size.
std::vector<float> TiffFile::readPixels(OpenTiff& tiff, const Layout& layout, PixelType type) const {
    std::vector<float> pixels;
    pixels.reserve(std::size_t{layout.width} * layout.height);
    if (TIFFIsTiled(tiff.get()))
        readTiles(tiff, layout, type, pixels);
    else
        readRows(tiff, layout, type, pixels);
    return pixels;
}

void TiffFile::refusePixels(const OpenTiff& tiff) const {
    refuse("the pixels of a page cannot be read; the TIFF is damaged or truncated" + tiff.complaint());
}

void TiffFile::readRows(OpenTiff& tiff, const Layout& layout, PixelType type,
                        std::vector<float>& pixels) const {
    std::vector<char> row(layout.width * bytesOf(type));
    if (TIFFScanlineSize(tiff.get()) != static_cast<tmsize_t>(row.size())) refuse(kDoNotFit);
    for (std::uint32_t y = 0; y < layout.height; ++y) {
        if (TIFFReadScanline(tiff.get(), row.data(), y, 0) < 0) refusePixels(tiff);
        pixels.resize(pixels.size() + layout.width);
        decodePixels(row, type, kBigEndianHost, std::span(pixels).last(layout.width));
    }
}

/// Copies what the tiles have in common with the page; they may stick out of it.
void TiffFile::readTiles(OpenTiff& tiff, const Layout& layout, PixelType type,
                         std::vector<float>& pixels) const {
    TIFF* const file = tiff.get();
    std::uint32_t tileWidth = 0;
    std::uint32_t tileHeight = 0;
    TIFFGetField(file, TIFFTAG_TILEWIDTH, &tileWidth);
    TIFFGetField(file, TIFFTAG_TILELENGTH, &tileHeight);
    const std::size_t pixel = layout.bits / 8U;
    const tmsize_t tileBytes = TIFFTileSize(file);
    constexpr tmsize_t largest = tmsize_t{1} << 28;
    if (tileBytes <= 0 || tileBytes > largest ||
        static_cast<std::uint64_t>(tileBytes) != std::uint64_t{tileWidth} * tileHeight * pixel)
        refuse(kDoNotFit);
    std::vector<char> tile(static_cast<std::size_t>(tileBytes));
    for (std::uint32_t y = 0; y < layout.height; y += tileHeight) {
        const std::uint32_t rows = std::min(tileHeight, layout.height - y);
        pixels.resize(pixels.size() + std::size_t{rows} * layout.width);
        for (std::uint32_t x = 0; x < layout.width; x += tileWidth) {
            if (TIFFReadTile(file, tile.data(), x, y, 0, 0) < tileBytes) refusePixels(tiff);
            const std::size_t columns = std::min(tileWidth, layout.width - x);
            for (std::uint32_t row = 0; row < rows; ++row)
                decodePixels(std::span(tile).subspan(std::size_t{row} * tileWidth * pixel), type,
                             kBigEndianHost,
                             std::span(pixels).subspan((std::size_t{y} + row) * layout.width + x, columns));
        }
    }
}

Frame TiffFile::readFrame(int frame) const {
    const auto page = static_cast<std::size_t>(frame);
    OpenTiff tiff(source().open());
    if (!tiff.get() || !TIFFSetSubDirectory(tiff.get(), m_directories.at(page)))
        refusePage(page + 1, "cannot be read" + tiff.complaint());
    const Layout layout(tiff.get());
    const std::optional<PixelType> type = layout.type();
    const FrameInfo& info = m_infos[page];
    if (!type || layout.coloured() || static_cast<int>(layout.width) != info.width ||
        static_cast<int>(layout.height) != info.height)
        refusePage(page + 1, "changed while the file was read");
    Frame result{info.width, info.height, readPixels(tiff, layout, *type)};
    if (layout.photometric == PHOTOMETRIC_MINISWHITE && layout.format != SAMPLEFORMAT_IEEEFP) {
        const float white = std::ldexp(1.0F, layout.bits) - 1;
        for (float& value : result.pixels)
            value = white - value;
    }
    return result;
}

}  // namespace
}  // namespace vrk
