/// \file
/// Operations on images that the preprocessing is made of: threshold, morphology, connected components,
/// edges, lines and circles, template matching, phase correlation.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "processing/ImageView.h"

/// Works on plain arrays and on the images of a list (ImageView::of()). The work is the image library's, in
/// the caller's thread; these functions fix shapes, units and failures. Coordinates are those of ImageView.
///
/// Results go to arrays of the caller's with as many pixels as the image; they may be the image itself. Masks
/// are 255 where something is so and 0 elsewhere; every value but 0 counts as set in a mask that is read.
/// Beyond the image its outermost pixels go on. An empty image, a null array, or a setting outside its range
/// gives false or an empty result and an error in the log; the results are untouched then.
class VRKCORE_EXPORT ImageOperations {
public:
    /// Greyscale morphology; on masks the usual binary one.
    enum class Morphology {
        Erode,   ///< the smallest value of the disc about a pixel
        Dilate,  ///< the largest one
        Open,    ///< erode, then dilate: what is bright and narrower than the disc goes
        Close    ///< dilate, then erode: what is dark and narrower than the disc goes
    };

    /// A group of set pixels that touch along edges or at corners.
    struct Region {
        int label;  ///< of its pixels, 1 and up
        int area;   ///< pixels
        int left, top, width, height;
        double x, y;  ///< mean of its pixels
    };
    struct Line {
        double x0, y0, x1, y1;
        double length() const;
    };
    struct Circle {
        double x, y, radius;
    };
    struct LineSearch {
        double shortest = 30;  ///< pixels
        double widestGap = 3;  ///< between pixels of one line, pixels
        int votes = 20;        ///< edge pixels on a line, at least
    };
    struct CircleSearch {
        double smallest = 5;     ///< radius, pixels
        double largest = 100;    ///< radius, pixels
        double apart = 10;       ///< distance of the middles of two circles, pixels
        double roundness = 0.8;  ///< share of a circle that its edge supports, 0 to 1
        double edge = 100;       ///< height of an edge that counts, grey values of 0 to 255
    };
    /// Where a template fits best.
    struct Match {
        double x = 0, y = 0;  ///< of the template's middle in the image, to a fraction of a pixel
        double score = -1;    ///< correlation coefficient, -1 to 1
    };
    struct Shift {
        double x = 0, y = 0;  ///< pixels
        double response = 0;  ///< share of the correlation that lies in the peak, 0 to 1
    };

    /// Sets what is above the level.
    template <typename T>
    static bool threshold(const ImageView<T>& image, T level, unsigned char* mask);

    /// \tparam T      unsigned char, short or float
    /// \param radius  of the disc, pixels; 0 copies
    template <typename T>
    static bool morphology(const ImageView<T>& image, Morphology operation, int radius, T* result);

    /// \param labels  0 where nothing is set, else the label of the pixel's region; may be null
    /// \returns the regions in the order of their labels
    static std::vector<Region> connectedComponents(const ImageView<unsigned char>& mask, int* labels);

    /// Edges by the method of J. Canny, IEEE Trans. PAMI 8 (1986) 679, doi:10.1109/TPAMI.1986.4767851: ridges
    /// of the gradient of the smoothed image, one pixel wide.
    /// \param sigma  of the smoothing, pixels; 0 does without
    /// \param low    gradient along which an edge goes on, values per pixel
    /// \param high   gradient at which it begins
    static bool edges(const ImageView<float>& image, double sigma, double low, double high,
                      unsigned char* mask);

    /// Straight lines of an edge image by the progressive probabilistic Hough transformation (J. Matas, C.
    /// Galambos, J. Kittler, Comput. Vis. Image Underst. 78 (2000) 119, doi:10.1006/cviu.1999.0831), in steps
    /// of 1 pixel and 1 degree. Repeatable.
    static std::vector<Line> lines(const ImageView<unsigned char>& edges, const LineSearch& search);

    /// Circles of a grey image by the gradient Hough transformation, the best supported first.
    static std::vector<Circle> circles(const ImageView<unsigned char>& image, const CircleSearch& search);

    /// Finds a smaller image in a larger one by the normalised correlation coefficient.
    static Match matchTemplate(const ImageView<float>& image, const ImageView<float>& sample);

    /// The shift that takes the first of two images of one size to the second, by phase correlation (C. D.
    /// Kuglin, D. C. Hines, Proc. IEEE Conf. Cybern. Soc. (1975) 163) of the images under a Hann window.
    static Shift phaseCorrelation(const ImageView<float>& first, const ImageView<float>& second);
};
