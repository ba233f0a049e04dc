#include "TiffFile.h"

#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

namespace host {
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

int countPages(const std::filesystem::path& path) {
    const CapturedErrors captured;
    try {
        return static_cast<int>(cv::imcount(path.string(), cv::IMREAD_UNCHANGED));
    } catch (const cv::Exception&) {
        return 0;
    }
}

}  // namespace

bool TiffFile::recognises(const std::string& firstBytes) {
    using namespace std::string_literals;
    return firstBytes.starts_with("II*\0"s) || firstBytes.starts_with("MM\0*"s) ||
           firstBytes.starts_with("II+\0"s) || firstBytes.starts_with("MM\0+"s);
}

TiffFile::TiffFile(const std::filesystem::path& path) : FrameFile(path) {
    const int pages = countPages(path);
    const cv::Mat first = pages > 0 ? readPage(path, 0) : cv::Mat();
    if (first.empty())
        refuse(
            "the TIFF cannot be read; it is damaged, truncated or of a kind other than grey pages of 8, 16 "
            "or 32 bits");
    if (first.channels() != 1) refuse("the TIFF has colours; export the frames as grey values");
    checkSize(first.cols, first.rows);
    FrameInfo info;
    info.width = first.cols;
    info.height = first.rows;
    m_infos.assign(static_cast<std::size_t>(pages), info);
}

Frame TiffFile::read(int frame) const {
    const cv::Mat page = readPage(m_path, frame);
    const std::string name = "page " + std::to_string(frame + 1);
    if (page.empty()) refuse(name + " cannot be read; the file is damaged or truncated");
    if (page.channels() != 1 || page.cols != m_infos[0].width || page.rows != m_infos[0].height)
        refuse(name + " has another size than the first page");
    Frame result{page.cols, page.rows, std::vector<float>(page.total())};
    cv::Mat target(page.rows, page.cols, CV_32F, result.pixels.data());
    page.convertTo(target, CV_32F);
    return result;
}

}  // namespace host
