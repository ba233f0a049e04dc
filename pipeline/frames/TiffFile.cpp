#include "pipeline/frames/TiffFile.h"

#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

#include "pipeline/frames/TiffDirectory.h"

namespace vrk {
namespace {

/// The image library reports on the standard error stream; its words join the exception's instead.
class CapturedErrors {
public:
    CapturedErrors() : m_previous(std::cerr.rdbuf(m_text.rdbuf())) {}
    ~CapturedErrors() { std::cerr.rdbuf(m_previous); }
    CapturedErrors(const CapturedErrors&) = delete;
    CapturedErrors& operator=(const CapturedErrors&) = delete;

private:
    std::ostringstream m_text;
    std::streambuf* m_previous;
};

/// Empty when the page cannot be read.
cv::Mat readPage(const std::filesystem::path& path, int page) {
    const CapturedErrors captured;
    try {
        std::vector<cv::Mat> pages;
        if (!cv::imreadmulti(path.string(), pages, page, 1, cv::IMREAD_UNCHANGED) || pages.empty()) return {};
        return pages.front();
    } catch (const cv::Exception&) {
        return {};
    }
}

}  // namespace

bool TiffFile::recognises(const std::string& firstBytes) {
    using namespace std::string_literals;
    return firstBytes.starts_with("II*\0"s) || firstBytes.starts_with("MM\0*"s) ||
           firstBytes.starts_with("II+\0"s) || firstBytes.starts_with("MM\0+"s);
}

TiffFile::TiffFile(const std::filesystem::path& path) : FrameFile(path) {
    for (const TiffPage& page : readTiffPages(path)) {
        checkSize(page.width, page.height);
        FrameInfo info;
        info.width = static_cast<int>(page.width);
        info.height = static_cast<int>(page.height);
        m_infos.push_back(info);
    }
    if (m_infos.empty()) refuse("the TIFF is damaged: it has no pages that can be read");
}

Frame TiffFile::read(int frame) const {
    const cv::Mat page = readPage(m_path, frame);
    const FrameInfo& info = m_infos.at(static_cast<std::size_t>(frame));
    const std::string name = "page " + std::to_string(frame + 1);
    if (page.empty())
        refuse(name +
               " of the TIFF cannot be read: the file is damaged or truncated, or its pixels are not of 8 or "
               "16 bits, "
               "32-bit signed integers or floating-point numbers");
    if (page.channels() != 1) refuse(name + " of the TIFF has colours; export the frames as grey values");
    if (page.cols != info.width || page.rows != info.height) refuse(name + " of the TIFF is damaged");
    Frame result{page.cols, page.rows, std::vector<float>(page.total())};
    cv::Mat target(page.rows, page.cols, CV_32F, result.pixels.data());
    page.convertTo(target, CV_32F);
    return result;
}

}  // namespace vrk
