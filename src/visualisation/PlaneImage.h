/// \file
/// A grey-value picture in floating point, before it is scaled to the 8 bits of a file.
#pragma once

#include <cstddef>
#include <optional>
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

/// What is drawn over a picture and round it. Positions are in pixels of the picture, 0 being the middle of a
/// pixel. Texts are UTF-8: ASCII, Angstrom and degree signs and bars over characters (the combining macron
/// U+0304 behind them) are drawn, asterisks are raised, anything else becomes a question mark.
struct ImageOverlay {
    /// An arrow from (x0, y0) to (x1, y1), or a plain line, with a label at its end.
    struct Line {
        double x0, y0, x1, y1;
        std::string label;
        bool arrow = true;
        bool faint = false;  ///< a guide for the eye
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
    /// A thin, wide ring that stands for a length, with its name where the ring is inside of the picture.
    struct Ring {
        double x, y;
        double radius;
        std::string label;
    };
    /// A length to compare with, drawn into the lower right corner.
    struct Bar {
        double length = 0.0;
        std::string label;
    };
    struct Tick {
        double position;
        std::string label;
    };
    struct Text {
        double x, y;  ///< left end of the baseline
        std::string text;
    };
    /// Lines of text above the picture, and ticks along its lower and left edge, in margins of their own.
    struct Border {
        static constexpr int kLeft = 64, kRight = 12, kTop = 78, kBottom = 58;  ///< pixels

        std::vector<std::string> captions;  ///< up to three
        std::vector<Tick> bottom, left;
        std::string bottomName, leftName;
    };
    /// Where the origin lies in the picture of a plane, and how long a pixel is.
    struct Scale {
        double originX, originY;  ///< of the plane's point that is closest to the origin
        double perPixel;          ///< in units of the caller: voxels, 1/Angstrom ...
        double height = 0.0;      ///< of the plane over the origin, in the same units
    };

    std::string title = {};
    std::vector<Line> lines = {};
    std::vector<Node> nodes = {};
    std::vector<Cross> crosses = {};
    std::vector<Ring> rings = {};
    std::vector<Text> texts = {};
    std::optional<Bar> bar = {};
    std::optional<Border> border = {};
    std::optional<Scale> scale = {};  ///< for whoever adds rings, bar and ticks; draws nothing
};
