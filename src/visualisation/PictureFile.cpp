#include "visualisation/PictureFile.h"

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string_view>

#include <png.h>
#include <zlib.h>

namespace {

using FileHandle = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

/// Says nothing: whoever writes tells the user.
void leaveLibrary(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}
void ignoreRemark(png_structp, png_const_charp) {}

class PngWriter {
public:
    PngWriter()
        : m_png(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, leaveLibrary, ignoreRemark)),
          m_info(m_png ? png_create_info_struct(m_png) : nullptr) {}
    ~PngWriter() { png_destroy_write_struct(&m_png, &m_info); }
    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;

    /// The library jumps back to the first line when it fails: nothing here may have a destructor.
    bool write(const unsigned char* values, int width, int height, PictureFile::Pixel pixel,
               std::FILE* file) const {
        if (!m_info || setjmp(png_jmpbuf(m_png)) != 0) return false;
        const bool isGrey = pixel == PictureFile::Pixel::Grey;
        png_init_io(m_png, file);
        png_set_IHDR(m_png, m_info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                     isGrey ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        // A third faster than the defaults of the fastest level, and hardly larger: enlarged pixels repeat
        // the row above, which leaves runs of zeros.
        png_set_filter(m_png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
        png_set_compression_level(m_png, Z_BEST_SPEED);
        png_set_compression_strategy(m_png, Z_RLE);
        png_write_info(m_png, m_info);
        png_set_bgr(m_png);
        const std::ptrdiff_t rowBytes = std::ptrdiff_t{width} * static_cast<int>(pixel);
        for (std::ptrdiff_t y = 0; y < height; ++y)
            png_write_row(m_png, values + y * rowBytes);
        png_write_end(m_png, nullptr);
        return true;
    }

private:
    png_structp m_png;
    png_infop m_info;
};

}  // namespace

bool PictureFile::IsNamedSo(const std::string& path) {
    constexpr std::string_view kEnding = ".png";
    return path.size() >= kEnding.size() &&
           std::equal(kEnding.begin(), kEnding.end(), path.end() - kEnding.size(),
                      [](char small, char letter) { return small == letter || small - 'a' + 'A' == letter; });
}

bool PictureFile::Write(const unsigned char* values, int width, int height, Pixel pixel,
                        const std::string& path) {
    FileHandle file(std::fopen(path.c_str(), "wb"), std::fclose);
    if (!file) return false;
    const bool isWritten = PngWriter().write(values, width, height, pixel, file.get());
    return std::fclose(file.release()) == 0 && isWritten;
}

PictureFile::Grey PictureFile::ReadGrey(const std::string& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Grey grey;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return grey;
    const std::unique_ptr<png_image, void (*)(png_image*)> release(&image, png_image_free);
    if (image.width > kMostPixels / image.height) return grey;
    image.format = PNG_FORMAT_GRAY;
    grey.values.resize(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, grey.values.data(), 0, nullptr) == 0) return {};
    grey.width = static_cast<int>(image.width);
    grey.height = static_cast<int>(image.height);
    return grey;
}
