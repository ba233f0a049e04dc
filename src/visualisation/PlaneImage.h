/// \file
/// A grey-value picture in floating point, before it is scaled to the 8 bits of a file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// x runs fastest and to the right, y downwards. Values that are not finite mean "not measured".
struct PlaneImage {
    PlaneImage() = default;
    PlaneImage(int imageWidth, int imageHeight)
        : width(imageWidth),
          height(imageHeight),
          values(static_cast<std::size_t>(imageWidth) * static_cast<std::size_t>(imageHeight)) {}

    float& at(int x, int y) { return values[index(x, y)]; }
    float at(int x, int y) const { return values[index(x, y)]; }

    int width = 0;
    int height = 0;
    std::vector<float> values;

private:
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
    }
};

/// What is drawn over a picture. Positions are in pixels of the picture, 0 being the middle of a pixel.
struct ImageOverlay {
    /// An arrow from (x0, y0) to (x1, y1), or a plain line, with a label at its end.
    struct Line {
        double x0, y0, x1, y1;
        std::string label;
        bool arrow = true;
    };
    /// A ring.
    struct Node {
        double x, y;
        double radius = 5.0;
    };
    /// A small cross, in a colour of its own.
    struct Cross {
        double x, y;
    };

    std::string title;
    std::vector<Line> lines;
    std::vector<Node> nodes;
    std::vector<Cross> crosses;
};
