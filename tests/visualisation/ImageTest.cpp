#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "crystallography/UnitCell.h"
#include "support/SoFar.h"
#include "support/Testing.h"
#include "visualisation/PictureFile.h"
#include "visualisation/ReciprocalSection.h"
#include "visualisation/VolumeProjection.h"
#include "visualisation/VoxOpenCV.h"

namespace {

namespace fs = std::filesystem;

constexpr double kBase[3][3] = {{9.0, 2.0, 1.0}, {-1.0, 8.0, 3.0}, {1.0, -2.0, 10.0}};

std::unique_ptr<VoxMRCData> volumeOf(unsigned width, unsigned height, unsigned depth) {
    return std::unique_ptr<VoxMRCData>(VoxMRCData::Create3D(width, height, depth));
}

void set(VoxMRCData& volume, unsigned x, unsigned y, unsigned z, short value) {
    volume.GetChunkPointer(z)[x * volume.GetHeight() + y] = value;
}

/// Left, top, right and bottom of where two pictures over the same ground differ, and the colour of the one
/// where they differ most.
std::pair<std::array<double, 4>, cv::Vec3b> difference(const ImageOverlay& with, const ImageOverlay& without,
                                                       float ground, SoFar& soFar) {
    const TemporaryFolder folder;
    PlaneImage image(200, 160);
    std::ranges::fill(image.values, ground);
    const auto drawn = [&](const ImageOverlay& overlay) {
        EXPECT_TRUE(VoxOpenCV::SaveImage(image, folder / "o.png", overlay));
        return cv::imread(folder / "o.png");
    };
    const cv::Mat one = drawn(with), other = drawn(without);
    std::array<double, 4> box = {1e9, 1e9, -1, -1};
    cv::Vec3b colour;
    double most = 60;
    for (int y = 0; y < one.rows; ++y)
        for (int x = 0; x < one.cols; ++x) {
            const double apart = cv::norm(one.at<cv::Vec3b>(y, x), other.at<cv::Vec3b>(y, x));
            if (apart > 0) soFar.add(apart * x, apart * y);
            if (apart > 60)
                box = {std::min<double>(box[0], x), std::min<double>(box[1], y), std::max<double>(box[2], x),
                       std::max<double>(box[3], y)};
            if (apart > most) colour = one.at<cv::Vec3b>(y, x);
            most = std::max(most, apart);
        }
    return {box, colour};
}

}  // namespace

TEST(Image, EqualisedImageUsesTheWholeScale) {
    const TemporaryFolder folder;
    // Values of 0 ... 3 are invisible as they are; equalised they span black to white.
    std::vector<int> pixels(64 * 32);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<int>(i % 4);
    const std::string path = folder / "equalised.png";
    ASSERT_TRUE(VoxOpenCV::SaveImageWithEqualizeHist(pixels.data(), 64, 32, path));
    const cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
    ASSERT_EQ(image.size(), cv::Size(64, 32));
    const unsigned char* row = image.ptr(0);
    EXPECT_TRUE(row[0] == 0 && row[1] > 0 && row[2] > row[1] && row[3] == 255);
}

TEST(Image, ContrastShowsWeakSpotsBesideStrongOnes) {
    const TemporaryFolder folder;
    PlaneImage picture(100, 50);
    for (float& value : picture.values)
        value = 1.0F;
    picture.at(10, 5) = 30000.0F;
    picture.at(70, 40) = 20.0F;
    picture.at(0, 0) = std::numeric_limits<float>::quiet_NaN();
    const std::string path = folder / "vrk image's contrast.tga";
    ASSERT_TRUE(VoxOpenCV::SaveTGA(picture, path));
    const std::string bytes = folder.read("vrk image's contrast.tga");
    ASSERT_EQ(bytes.size(), 18u + 100u * 50u);
    const auto grey = [&](std::size_t x, std::size_t y) {
        return static_cast<unsigned char>(bytes[18 + y * 100 + x]);
    };
    EXPECT_EQ(grey(10, 5), 255);
    EXPECT_EQ(grey(0, 0), 0);
    EXPECT_GT(grey(70, 40), grey(50, 20) + 40);
}

/// By the formula, pixel by pixel.
TEST(Image, GreysAreThoseOfTheFormula) {
    std::mt19937 random(20261123);
    std::uniform_real_distribution<float> between(-9.0F, 9.0F);
    for (const float size : {1e-30F, 0.5F, 40.0F, 1e30F}) {
        PlaneImage picture(300, 200);
        for (float& value : picture.values)
            value = size * (std::exp(between(random)) - (between(random) > 7.0F ? 1.0F : 0.0F));
        picture.at(3, 3) = std::numeric_limits<float>::infinity();
        std::vector<float> sorted;
        std::ranges::copy_if(picture.values, std::back_inserter(sorted),
                             [](float value) { return value > 0.0F && std::isfinite(value); });
        std::ranges::sort(sorted);
        const float unit = sorted[(sorted.size() - 1) / 2];
        const auto bright = static_cast<std::size_t>(0.9998 * static_cast<double>(sorted.size() - 1));
        const float white = std::asinh(sorted[bright] / unit);
        const TemporaryFolder folder;
        ASSERT_TRUE(VoxOpenCV::SaveImage(picture, folder / "grey.png", {}));
        const cv::Mat image = cv::imread(folder / "grey.png", cv::IMREAD_UNCHANGED);
        for (int y = 0; y < 200; ++y)
            for (int x = 0; x < 300; ++x) {
                const float value = picture.at(x, y);
                const bool isDark = !(value > 0.0F) || !std::isfinite(value);
                const float scaled = isDark ? 0.0F : 255.0F * std::asinh(value / unit) / white;
                ASSERT_EQ(image.at<unsigned char>(y, x), std::lround(std::min(scaled, 255.0F))) << value;
            }
    }
}

/// The strokes of an H are seven pixels apart and ten high, beginning two pixels behind its place.
TEST(Image, DrawsEverythingInItsPlaceAndColour) {
    const cv::Vec3b white(255, 255, 255), rim(0, 0, 0), line(80, 170, 255), ring(115, 95, 85),
        name(190, 170, 160), grey(230, 230, 230);
    const auto text = [](const char* t, double x = 50, double y = 60) {
        return ImageOverlay{.texts = {{x, y, t}}};
    };
    using Ticks = std::vector<ImageOverlay::Tick>;
    const auto bordered = [](const std::vector<std::string>& captions, const Ticks& bottom = {},
                             const Ticks& left = {}, const char* bottomName = "", const char* leftName = "") {
        return ImageOverlay{.border = {{captions, bottom, left, bottomName, leftName}}};
    };
    const auto arrow = [](bool head, const char* label = "") {
        return ImageOverlay{.lines = {{20, 20, 68, 84, label, head}}};
    };
    struct Row {
        const char* what;
        ImageOverlay with, without;
        std::array<double, 4> box;
        cv::Vec3b colour;
        float ground = 0;
    };
    const ImageOverlay empty = bordered({});
    const Row rows[] = {
        {"title", {.title = "H"}, {}, {10, 10, 17, 20}, white},
        {"text", text("H"), {}, {52, 50, 59, 60}, white},
        {"its rim", text("H"), {}, {50, 48, 62, 62}, rim, 1},
        {"kept inside", text("H", 198, 3), {}, {189, 4, 196, 14}, white},
        {"asterisk", text("H*"), text("H"), {62, 48, 65, 53}, white},
        {"degree", text("H\u00b0"), text("H"), {62, 49, 65, 53}, white},
        {"Angstrom", text("H\u00c5"), text("HA"), {64, 46, 67, 49}, white},
        {"bar over a digit", text("H\u0304"), text("H"), {51, 47, 60, 47}, white},
        {"bars over no letters", text("\u0304*\u0304"), text("*"), {1e9, 1e9, -1, -1}, {}},
        {"unknown signs, one of them cut", text("\u20ac\xe2\x82"), text("???"), {1e9, 1e9, -1, -1}, {}},
        {"no UTF-8", text("\xff"), text("?"), {1e9, 1e9, -1, -1}, {}},
        {"line", arrow(false), {}, {20, 20, 68, 84}, line},
        {"head", arrow(true), arrow(false), {60, 75, 68, 83}, line},
        {"its name", arrow(false, "H"), arrow(false), {76, 70, 83, 80}, line},
        {"guide", {.lines = {{20, 20, 68, 84, "", false, true}}}, {}, {20, 20, 68, 84}, name},
        {"node", {.nodes = {{70, 80, 9}}}, {}, {61, 71, 79, 89}, {90, 200, 90}},
        {"cross", {.crosses = {{70, 80}}}, {}, {67, 77, 73, 83}, {200, 110, 240}},
        {"ring", {.rings = {{90, 80, 40, ""}}}, {}, {50, 40, 130, 120}, ring},
        {"its name", {.rings = {{90, 80, 40, "H"}}}, {.rings = {{90, 80, 40, ""}}}, {110, 43, 120, 53}, name},
        {"elsewhere",
         {.rings = {{180, 80, 40, "H"}}},
         {.rings = {{180, 80, 40, ""}}},
         {150, 43, 160, 53},
         name},
        {"bar", {.bar = {{40, ""}}}, {}, {142, 142, 186, 146}, white},
        {"its rim", {.bar = {{40, ""}}}, {}, {142, 141, 186, 147}, rim, 1},
        {"its name", {.bar = {{40, "H"}}}, {.bar = {{40, ""}}}, {160, 126, 168, 136}, white},
        {"caption", bordered({"", "H"}), empty, {66, 33, 73, 43}, grey},
        {"small one", bordered({std::string(30, 'H')}), empty, {65, 13, 275, 20}, grey},
        {"tick below", bordered({}, {{50, "H"}}), empty, {111, 238, 117, 257}, grey},
        {"tick before", bordered({}, {}, {{30, "H"}}), empty, {47, 104, 63, 113}, grey},
        {"axis below", bordered({}, {}, {}, "H"), empty, {160, 274, 168, 284}, grey},
        {"axis before", bordered({}, {}, {}, "", "H"), empty, {6, 154, 16, 162}, grey}};
    SoFar soFar;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what + testing::PrintToString(row.box));
        const auto [box, colour] = difference(row.with, row.without, row.ground, soFar);
        for (std::size_t i = 0; i < 4; ++i)
            EXPECT_NEAR(box[i], row.box[i], 1.1) << testing::PrintToString(box);
        EXPECT_LT(cv::norm(colour, row.colour), 50) << colour;
    }
    EXPECT_NEAR(soFar.sum(), 152527062, 100);
}

TEST(Image, FailuresNameTheFile) {
    const TemporaryFolder folder;
    fs::create_symlink("/dev/full", folder / "full.PNG");
    const PlaneImage picture(4, 4);
    RecordingLogObserver log;
    EXPECT_FALSE(VoxOpenCV::SaveImage(PlaneImage(), folder / "a.png"));
    for (const char* name : {"/no such folder/a.png", "a.unknown", "png", "full.PNG"})
        EXPECT_FALSE(VoxOpenCV::SaveImage(picture, fs::path(folder / "") / name)) << name;
    EXPECT_FALSE(VoxOpenCV::SaveTGA(picture, "/dev/full"));
    EXPECT_FALSE(VoxOpenCV::SaveImageWithEqualizeHist(nullptr, 4, 4, folder / "b.png"));
    EXPECT_EQ(log.count("could not be written", VRK::Error), 7);
    EXPECT_EQ(log.count("use .png", VRK::Error), 2);
    EXPECT_TRUE(log.has("/no such folder/a.png", VRK::Error));
}

/// Another library reads the same, and nothing of what was cut off.
TEST(PictureFile, HoldsPicturesOfAnyShape) {
    const TemporaryFolder folder;
    const std::string path = folder / "p.png";
    for (const auto& [width, height] : {std::pair(1, 1), {7, 300}, {1100, 3}})
        for (const int channels : {1, 3}) {
            cv::Mat grey(height, width, CV_8U), picture;
            cv::RNG(1).fill(grey, cv::RNG::UNIFORM, 0, 256);
            cv::merge(std::vector<cv::Mat>(static_cast<std::size_t>(channels), grey), picture);
            ASSERT_TRUE(PictureFile::Write(picture.data, width, height, PictureFile::Pixel{channels}, path));
            EXPECT_EQ(cv::norm(picture, cv::imread(path, cv::IMREAD_UNCHANGED), cv::NORM_INF), 0);
            const PictureFile::Grey read = PictureFile::ReadGrey(path);
            EXPECT_EQ(std::pair(read.width, read.height), std::pair(width, height));
            EXPECT_TRUE(std::equal(grey.begin<unsigned char>(), grey.end<unsigned char>(),
                                   read.values.begin(), read.values.end()));
            fs::resize_file(path, fs::file_size(path) / 2);
            EXPECT_TRUE(PictureFile::ReadGrey(path).values.empty());
        }
}

TEST(VolumeProjection, KeepsEachAxisInItsPlace) {
    const auto volume = volumeOf(7, 5, 3);
    set(*volume, 6, 1, 2, 9);
    volume->m_Header.type = MRCType::MRCVOLUME;
    const VoxVolumeData view = VoxVolumeData::fromData(*volume);
    const auto check = [](const auto& data) {
        const std::array<int, 4> shapes[] = {{3, 5, 2, 1}, {7, 3, 6, 2}, {7, 5, 6, 1}};
        for (int axis = 0; axis < 3; ++axis) {
            const auto& [width, height, x, y] = shapes[axis];
            const PlaneImage image = VolumeProjection::maximumAlong(data, axis);
            PlaneImage expected(width, height);
            expected.at(x, y) = 9.0F;
            EXPECT_EQ(std::pair(image.width, image.height), std::pair(width, height));
            EXPECT_EQ(image.values, expected.values);
        }
        EXPECT_TRUE(VolumeProjection::maximumAlong(data, 3).values.empty());
    };
    const std::array<std::string, 3> names = {"zy", "xz", "xy"};  // to the right and down
    for (int axis = 0; axis < 3; ++axis) {
        const auto lines = VolumeProjection::axesOf(PlaneImage(90, 80), axis, 30).lines;
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0].label + lines[1].label, names[static_cast<std::size_t>(axis)]);
        EXPECT_EQ((std::array{lines[0].x0, lines[0].y0, lines[0].x1, lines[0].y1, lines[1].x1, lines[1].y1}),
                  (std::array{12.0, 28.0, 42.0, 28.0, 12.0, 58.0}));
    }
    for (const int axis : {-1, 3})
        EXPECT_TRUE(VolumeProjection::axesOf(PlaneImage(90, 80), axis, 30).lines.empty());
    check(*volume);
    check(view);
    EXPECT_TRUE(VolumeProjection::maximumAlong(VoxMRCData(), 0).values.empty());
}

/// A bright node shows exactly where the overlay marks it; a node of another plane does not show at all.
TEST(ReciprocalSection, ShowsTheNodesOfThePlaneWhereItMarksThem) {
    using Indices = std::array<int, 3>;
    const UnitCell cell(kBase[0], kBase[1], kBase[2], 1.0, false, true, LATTICE::aP);
    const std::array<double, 3> origin = {40.0, 32.0, 30.0};
    const auto volumeWith = [&](const Indices& hkl) {
        auto volume = volumeOf(81, 65, 61);
        std::array<unsigned, 3> place{};
        for (std::size_t axis = 0; axis < 3; ++axis)
            place[axis] = static_cast<unsigned>(std::lround(
                origin[axis] + hkl[0] * kBase[0][axis] + hkl[1] * kBase[1][axis] + hkl[2] * kBase[2][axis]));
        set(*volume, place[0], place[1], place[2], 1000);
        return volume;
    };

    SoFar soFar;
    using Case = std::tuple<const char*, Indices, Indices>;
    for (const auto& [plane, inside, outside] :
         {Case{"hk0", {1, 2, 0}, {1, 2, 1}}, Case{"h0l", {2, 0, 1}, {2, 1, 1}},
          Case{"0kl", {0, -1, 2}, {1, -1, 2}}, Case{"hk1", {2, 1, 1}, {2, 1, 0}},
          Case{"h-1l", {1, -1, 1}, {1, 1, 1}}, Case{"hhl", {2, 2, 1}, {2, 1, 1}},
          Case{"h-hl", {1, -1, 2}, {1, 1, 2}}, Case{"hkk", {2, 1, 1}, {2, 1, 0}}}) {
        ReciprocalSection::Settings settings;
        ASSERT_TRUE(ReciprocalSection::parsePlane(plane, settings));
        settings.size = 161;
        settings.radius = 40.25;

        const auto volume = volumeWith(inside);
        const ReciprocalSection section(*volume, cell, origin);
        const PlaneImage picture = section.sample(settings);
        int bright = 0;
        const ImageOverlay overlay = section.overlay(settings, true);
        soFar.addText(overlay.title);
        for (const ImageOverlay::Line& line : overlay.lines) {
            soFar.addText(line.label);
            soFar.add(line.x0, line.y0, line.x1, line.y1, line.arrow, line.faint);
        }
        soFar.add(overlay.scale->originX, overlay.scale->originY, overlay.scale->perPixel,
                  overlay.scale->height);
        for (const ImageOverlay::Node& node : overlay.nodes) {
            soFar.add(node.x, node.y);
            ASSERT_TRUE(node.x >= 0 && node.y >= 0 && node.x < picture.width && node.y < picture.height);
            const cv::Point place(cvRound(node.x), cvRound(node.y));
            if (place.inside({0, 0, picture.width, picture.height}) && picture.at(place.x, place.y) > 500.0F)
                ++bright;
        }
        EXPECT_EQ(bright, 1) << plane;

        const auto other = volumeWith(outside);
        const PlaneImage black = ReciprocalSection(*other, cell, origin).sample(settings);
        for (float value : black.values)
            ASSERT_FALSE(value > 0.0F) << plane;
    }
    EXPECT_NEAR(soFar.sum(), 93176.8323, 1e-3);
}

/// A point at a height over the plane is as bright as at the nearest place of a slab so thick.
TEST(ReciprocalSection, SlabsAreAsThickAsTheyShould) {
    const UnitCell cell;
    ReciprocalSection::Settings settings;
    settings.size = 41;
    settings.radius = 20.5;
    for (const double thickness : {0.0, 0.5, 3.0, 4.6})
        for (int height = -4; height <= 4; ++height) {
            const auto volume = volumeOf(41, 41, 41);
            set(*volume, 20, 20, static_cast<unsigned>(20 + height), 1000);
            settings.thickness = thickness;
            const double outside = std::abs(height) - thickness / 2;
            const float value = ReciprocalSection(*volume, cell, {20, 20, 20}).sample(settings).at(20, 20);
            EXPECT_NEAR(value, outside < 0 ? 750 : 1000 * std::max(0.0, 1 - outside), outside < 0 ? 251 : 1)
                << thickness << ' ' << height;
        }
    // As thick in a view at half size.
    settings.thickness = 12;
    for (const auto& [height, isSeen] : {std::pair(4U, true), {10U, false}}) {
        const auto volume = volumeOf(41, 41, 41);
        volume->m_Header.type = MRCType::MRCVOLUME;
        std::fill_n(volume->GetChunkPointer(20 + height), 41 * 41, short{1000});
        const VoxVolumeData half = VoxVolumeData::fromData(*volume, 2, VoxVolumeData::Block::Maximum);
        EXPECT_EQ(ReciprocalSection(half, cell).sample(settings).at(20, 20) > 500, isSeen) << height;
    }
}

/// The same plane out of a view as out of its volume, and the nodes where they were at half size.
TEST(ReciprocalSection, CutsViewsLikeTheirVolume) {
    const auto volume = volumeOf(81, 65, 63);
    volume->m_Header.type = MRCType::MRCVOLUME;
    for (unsigned z = 0; z < 63; ++z)
        for (unsigned i = 0; i < 81 * 65; ++i)
            volume->GetChunkPointer(z)[i] = static_cast<short>((z * 5266 + i) * 7919 % 100);
    ReciprocalSection::Settings settings;
    settings.size = 81;
    const UnitCell cell(kBase[0], kBase[1], kBase[2], 1.0, false, true, LATTICE::aP);
    const ReciprocalSection section(*volume, cell, {40.0, 32.0, 31.0});
    const PlaneImage whole = section.sample(settings);

    const VoxVolumeData full = VoxVolumeData::fromData(*volume);
    const PlaneImage same = ReciprocalSection(full, cell).sample(settings);
    for (std::size_t i = 0; i < whole.values.size(); ++i)
        ASSERT_TRUE(same.values[i] == whole.values[i] ||
                    (std::isnan(same.values[i]) && std::isnan(whole.values[i])));

    const VoxVolumeData half = full.reduced(2, VoxVolumeData::Block::Maximum);
    EXPECT_EQ(half.reduction(), 2);
    EXPECT_EQ(half.reduced(2).middle(), VoxVolumeData::fromData(*volume, 4).middle());
    const auto nodes = section.overlay(settings, true).nodes;
    const auto coarse = ReciprocalSection(half, cell).overlay(settings, true).nodes;
    ASSERT_EQ(coarse.size(), nodes.size());
    for (std::size_t i = 0; i < nodes.size(); ++i)
        EXPECT_LT(std::hypot(coarse[i].x - nodes[i].x, coarse[i].y - nodes[i].y), 1);
}

TEST(ReciprocalSection, MarksWhatWasNotMeasuredAndRefusesWhatIsNoPlane) {
    const UnitCell cell;
    const auto volume = volumeOf(9, 9, 9);
    const ReciprocalSection section(*volume, cell, {4.0, 4.0, 4.0});
    ReciprocalSection::Settings settings;
    settings.size = 33;  // half a voxel a pixel
    settings.radius = 8.25;
    const PlaneImage picture = section.sample(settings);
    forEachPixel(33, 33, [&](int x, int y) {
        const bool isMeasured = std::max(std::abs(x - 16), std::abs(y - 16)) <= 8;
        EXPECT_EQ(picture.at(x, y) == 0.0F, isMeasured) << x << ' ' << y;
    });

    settings.v = {2, 0, 0};
    EXPECT_TRUE(section.sample(settings).values.empty());
    EXPECT_TRUE(section.overlay(settings, true).nodes.empty());
    for (const char* name : {"", "hk", "hkl", "h00", "kh0", "hk0x", "hk99999", "0 kl", "hh0", "hhh", "-hkl",
                             "h-kl", "h--hl", "hk-", "hk1.5"})
        EXPECT_FALSE(ReciprocalSection::parsePlane(name, settings)) << name;
}
