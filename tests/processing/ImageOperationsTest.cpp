#include "processing/ImageOperations.h"

#include "support/Testing.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Floats = std::vector<float>;
using Morphology = ImageOperations::Morphology;

constexpr int kWidth = 61;
constexpr int kHeight = 43;
constexpr auto kPixels = std::size_t{kWidth} * kHeight;

std::size_t at(int x, int y) {
    return static_cast<std::size_t>(y) * kWidth + static_cast<std::size_t>(x);
}

template <typename T>
ImageView<T> view(const std::vector<T>& pixels) {
    return {pixels.data(), kWidth, kHeight};
}

template <typename T>
std::vector<T> noise(unsigned seed, int lowest, int highest) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> value(lowest, highest);
    std::vector<T> pixels(kPixels);
    for (T& pixel : pixels)
        pixel = static_cast<T>(value(random));
    return pixels;
}

/// Extreme of the disc about every pixel; the outermost pixels go on beyond the image.
template <typename T>
std::vector<T> plainExtreme(const std::vector<T>& image, int radius, bool largest) {
    std::vector<T> result(kPixels);
    forEachPixel(kWidth, kHeight, [&](int x, int y) {
        T extreme = image[at(x, y)];
        for (int dy = -radius; dy <= radius; ++dy) {
            const int reach = static_cast<int>(std::lrint(std::sqrt(radius * radius - dy * dy)));
            for (int dx = -reach; dx <= reach; ++dx) {
                const T value =
                    image[at(std::clamp(x + dx, 0, kWidth - 1), std::clamp(y + dy, 0, kHeight - 1))];
                extreme = largest ? std::max(extreme, value) : std::min(extreme, value);
            }
        }
        result[at(x, y)] = extreme;
    });
    return result;
}

template <typename T>
void compareWithPlain(unsigned seed) {
    const std::vector<T> image = noise<T>(seed, 0, 255);
    Bytes mask(kPixels), expected(kPixels);
    ASSERT_TRUE(ImageOperations::threshold(view(image), T{100}, mask.data()));
    std::transform(image.begin(), image.end(), expected.begin(), [](T v) { return v > 100 ? 255 : 0; });
    EXPECT_EQ(mask, expected);

    for (const int radius : {0, 1, 3}) {
        const std::vector<T> eroded = plainExtreme(image, radius, false);
        const std::vector<T> dilated = plainExtreme(image, radius, true);
        const std::vector<std::pair<Morphology, std::vector<T>>> cases = {
            {Morphology::Erode, eroded},
            {Morphology::Dilate, dilated},
            {Morphology::Open, plainExtreme(eroded, radius, true)},
            {Morphology::Close, plainExtreme(dilated, radius, false)}};
        for (const auto& [operation, plain] : cases) {
            std::vector<T> inPlace = image;
            ASSERT_TRUE(ImageOperations::morphology(view(inPlace), operation, radius, inPlace.data()));
            EXPECT_EQ(inPlace, plain) << "operation " << static_cast<int>(operation) << ", radius " << radius;
        }
    }
}

/// 1 inside a circle, falling to 0 within a pixel.
Bytes ring(double x, double y, double radius) {
    Bytes image(kPixels);
    forEachPixel(kWidth, kHeight, [&](int px, int py) {
        image[at(px, py)] =
            static_cast<unsigned char>(200 * std::clamp(radius + 0.5 - std::hypot(px - x, py - y), 0.0, 1.0));
    });
    return image;
}

Floats blob(double x, double y, double sigma) {
    Floats image(kPixels);
    forEachPixel(kWidth, kHeight, [&](int px, int py) {
        image[at(px, py)] = static_cast<float>(
            std::exp(-((px - x) * (px - x) + 1.5 * (py - y) * (py - y)) / (2 * sigma * sigma)));
    });
    return image;
}

}  // namespace

TEST(ImageOperations, ThresholdAndMorphologyDoWhatThePlainOnesDo) {
    compareWithPlain<unsigned char>(1);
    compareWithPlain<short>(2);
    compareWithPlain<float>(3);
}

TEST(ImageOperations, FindsGroupsOfPixelsThatTouchAtACornerAtLeast) {
    const std::string picture =
        "1..1.22.."
        ".11...2.."
        "......2.3"
        "4.......3";
    Bytes mask;
    for (const char sign : picture)
        mask.push_back(sign == '.' ? 0 : static_cast<unsigned char>(sign));
    std::vector<int> labels(mask.size());
    std::map<char, std::array<double, 7>> found;
    for (const auto& region : ImageOperations::connectedComponents({mask.data(), 9, 4}, labels.data())) {
        const auto first = std::find(labels.begin(), labels.end(), region.label);
        ASSERT_NE(first, labels.end());
        const char sign = picture[static_cast<std::size_t>(first - labels.begin())];
        for (std::size_t i = 0; i < labels.size(); ++i)
            EXPECT_EQ(labels[i] == region.label, picture[i] == sign) << i;
        found[sign] = {1.0 * region.area,   1.0 * region.left, 1.0 * region.top, 1.0 * region.width,
                       1.0 * region.height, region.x,          region.y};
    }
    EXPECT_EQ(found, (decltype(found){{'1', {4, 0, 0, 4, 2, 1.5, 0.5}},
                                      {'2', {4, 5, 0, 2, 3, 5.75, 0.75}},
                                      {'3', {2, 8, 2, 1, 2, 8, 2.5}},
                                      {'4', {1, 0, 3, 1, 1, 0, 3}}}));
    EXPECT_EQ(std::count(labels.begin(), labels.end(), 0), 25);
}

TEST(ImageOperations, FindsEdgesLinesAndCirclesWhereTheyAre) {
    // A step of 10 per pixel at x = 20 whatever the direction of the image's axes.
    Floats step(kPixels);
    forEachPixel(kWidth, kHeight, [&](int x, int y) {
        step[at(x, y)] = x < 20 ? 0.0F : x == 20 ? 10.0F : 20.0F;
    });
    Bytes edges(kPixels);
    ASSERT_TRUE(ImageOperations::edges(view(step), 0, 5, 9, edges.data()));
    for (int y = 2; y < kHeight - 2; ++y)
        for (int x = 2; x < kWidth - 2; ++x)
            EXPECT_EQ(edges[at(x, y)], x == 20 ? 255 : 0) << x << ' ' << y;
    const auto lines = ImageOperations::lines(view(edges), {});
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].x0, 20);
    EXPECT_EQ(lines[0].x1, 20);
    EXPECT_GE(lines[0].length(), kHeight - 3);
    // The gradient stays below the threshold.
    ASSERT_TRUE(ImageOperations::edges(view(step), 0, 10.5, 11, edges.data()));
    EXPECT_EQ(std::count(edges.begin(), edges.end(), 255), 0);

    for (const auto& [x, y, radius] : {std::array{30.0, 21.0, 12.0}, std::array{17.4, 25.6, 9.0}}) {
        ImageOperations::CircleSearch search;
        search.largest = 20;
        const auto circles = ImageOperations::circles(view(ring(x, y, radius)), search);
        ASSERT_EQ(circles.size(), 1U);
        EXPECT_NEAR(circles[0].x, x, 0.7);
        EXPECT_NEAR(circles[0].y, y, 0.7);
        EXPECT_NEAR(circles[0].radius, radius, 0.8);
    }
}

TEST(ImageOperations, FindsTemplatesAndShiftsToAFractionOfAPixel) {
    const Floats sample = blob(30, 21, 3);
    const int size = 15;
    Floats cut;
    forEachPixel(size, size,
                 [&](int x, int y) { cut.push_back(sample[at(30 - size / 2 + x, 21 - size / 2 + y)]); });
    for (const auto& [x, y] : {std::pair{40.0, 11.0}, std::pair{22.3, 25.7}}) {
        const Floats image = blob(x, y, 3);
        const ImageOperations::Match match =
            ImageOperations::matchTemplate(view(image), {cut.data(), size, size});
        EXPECT_NEAR(match.x, x, 0.1);
        EXPECT_NEAR(match.y, y, 0.1);
        EXPECT_GT(match.score, 0.98);
    }
    constexpr int kLarge = 160;
    std::mt19937 random(5);
    Floats grains(kLarge * kLarge), moved(grains.size());
    for (float& grain : grains)
        grain = static_cast<float>(random() % 100);
    forEachPixel(kLarge, kLarge, [&](int x, int y) {
        moved[static_cast<std::size_t>((y + kLarge - 2) % kLarge * kLarge + (x + 3) % kLarge)] =
            grains[static_cast<std::size_t>(y * kLarge + x)];
    });
    const ImageOperations::Shift shift =
        ImageOperations::phaseCorrelation({grains.data(), kLarge, kLarge}, {moved.data(), kLarge, kLarge});
    EXPECT_NEAR(shift.x, 3, 0.2);
    EXPECT_NEAR(shift.y, -2, 0.2);
    EXPECT_GT(shift.response, 0.2);
}

TEST(ImageOperations, LooksAtTheImagesOfAList) {
    std::vector<short> pixels(3 * kPixels);
    pixels[kPixels + at(5, 7)] = 9;
    const VoxImageList<short> images(kWidth, kHeight, 3, pixels.data());
    Bytes mask(kPixels);
    ASSERT_TRUE(ImageOperations::threshold(ImageView<short>::of(images, 1), short{8}, mask.data()));
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 255), 1);
    EXPECT_EQ(mask[at(5, 7)], 255);
    for (const int image : {-1, 3})
        EXPECT_TRUE(ImageView<short>::of(images, image).empty());
}

TEST(ImageOperations, RefusesWhatItCannotDo) {
    const Floats image(kPixels);
    const Bytes bytes(kPixels);
    Bytes mask(kPixels, 7);
    Floats values(kPixels, 7);
    const ImageView<float> none;
    const ImageView<float> flat{image.data(), 0, 5};
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
    RecordingLogObserver log;
    using Operations = ImageOperations;
    EXPECT_FALSE((ImageView<float>{image.data(), 1, 1}.empty()));
    EXPECT_FALSE(Operations::threshold(none, 1.0F, mask.data()));
    EXPECT_FALSE(Operations::threshold(flat, 1.0F, mask.data()));
    EXPECT_FALSE(Operations::threshold(view(image), 1.0F, nullptr));
    EXPECT_FALSE(Operations::morphology(view(image), Morphology::Open, -1, values.data()));
    EXPECT_FALSE(Operations::edges(view(image), -1, 1, 2, mask.data()));
    EXPECT_FALSE(Operations::edges(view(image), 1, 0, 2, mask.data()));
    EXPECT_FALSE(Operations::edges(view(image), 1, kNan, 2, mask.data()));
    EXPECT_FALSE(Operations::edges(view(image), 1, 3, 2, mask.data()));
    EXPECT_TRUE(Operations::connectedComponents({}, nullptr).empty());
    EXPECT_TRUE(Operations::lines(view(bytes), {.shortest = 0}).empty());
    EXPECT_TRUE(Operations::circles(view(bytes), {.smallest = 9, .largest = 5}).empty());
    EXPECT_TRUE(Operations::circles(view(bytes), {.roundness = kNan}).empty());
    EXPECT_LE(Operations::matchTemplate({image.data(), 4, 4}, view(image)).score, -1);
    EXPECT_LE(Operations::phaseCorrelation(view(image), {image.data(), 4, 4}).response, 0);
    EXPECT_EQ(log.count("ImageOperations::", VRK::Error), 14);
    EXPECT_TRUE(std::all_of(mask.begin(), mask.end(), [](unsigned char v) { return v == 7; }));
    EXPECT_TRUE(std::all_of(values.begin(), values.end(), [](float v) { return v == 7; }));
}
