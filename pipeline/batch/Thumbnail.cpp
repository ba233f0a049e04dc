#include "pipeline/batch/Thumbnail.h"

#include <algorithm>
#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "visualisation/PictureFile.h"

namespace vrk {

void writeThumbnail(const std::filesystem::path& result, const std::filesystem::path& thumbnail) {
    constexpr int kEdge = 96;
    for (const char* name : {"hk0.png", "projection_z.png"})
        try {
            PictureFile::Grey grey = PictureFile::ReadGrey((result / name).string());
            if (grey.values.empty()) continue;
            const cv::Mat picture(grey.height, grey.width, CV_8U, grey.values.data());
            const int edge = std::min(picture.cols, picture.rows);
            const cv::Rect middle((picture.cols - edge) / 2, (picture.rows - edge) / 2, edge, edge);
            cv::Mat small;
            cv::resize(picture(middle), small, {kEdge, kEdge}, 0, 0, cv::INTER_AREA);
            PictureFile::Write(small.data, kEdge, kEdge, PictureFile::Pixel::Grey, thumbnail.string());
            return;
        } catch (const std::exception&) {  // no picture, no ornament
            continue;
        }
}

}  // namespace vrk
