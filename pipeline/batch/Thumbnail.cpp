#include "pipeline/batch/Thumbnail.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace vrk {

void writeThumbnail(const std::filesystem::path& result, const std::filesystem::path& thumbnail) {
    constexpr int kEdge = 96;
    constexpr int kQuality = 80;
    for (const char* name : {"hk0.png", "projection_z.png"})
        try {
            if (!std::filesystem::exists(result / name)) continue;
            const cv::Mat picture = cv::imread((result / name).string(), cv::IMREAD_GRAYSCALE);
            if (picture.empty()) continue;
            const int edge = std::min(picture.cols, picture.rows);
            const cv::Rect middle((picture.cols - edge) / 2, (picture.rows - edge) / 2, edge, edge);
            cv::Mat small;
            cv::resize(picture(middle), small, {kEdge, kEdge}, 0, 0, cv::INTER_AREA);
            cv::imwrite(thumbnail.string(), small, {cv::IMWRITE_JPEG_QUALITY, kQuality});
            return;
        } catch (const std::exception&) {  // no picture, no ornament
            continue;
        }
}

}  // namespace vrk
