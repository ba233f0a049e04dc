#include "processing/detail/InversionSums.h"

#include <opencv2/imgproc.hpp>

namespace VRK::detail {

cv::Mat_<float> inversionSums(const cv::Mat_<float>& image) {
    cv::Mat_<float> padded(cv::getOptimalDFTSize(2 * image.rows), cv::getOptimalDFTSize(2 * image.cols),
                           0.0F);
    image.copyTo(padded(cv::Rect({0, 0}, image.size())));
    cv::Mat spectrum;
    cv::dft(padded, spectrum);
    cv::mulSpectrums(spectrum, spectrum, spectrum, 0);
    cv::Mat_<float> sums;
    cv::dft(spectrum, sums, cv::DFT_INVERSE | cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
    cv::GaussianBlur(sums, sums, cv::Size(), 1.0);
    // Position s holds the sum over all pairs of pixels whose positions add up to s.
    return sums(cv::Rect(image.cols / 2, image.rows / 2, image.cols, image.rows));
}

}  // namespace VRK::detail
