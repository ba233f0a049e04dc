#include "pipeline/batch/Thumbnail.h"

#include "pipeline/batch/BatchPage.h"
#include "support/Testing.h"
#include "visualisation/PictureFile.h"

TEST(Thumbnail, IsTheMiddleOfTheFirstPictureThatCanBeReadAndStandsInThePage) {
    const TemporaryFolder own;
    const vrk::BatchFolder folder(own / "batch");
    const std::string job = "one", thumbnail = folder.thumbnail(job).string();
    const std::filesystem::path result = folder.result(job);
    for (const auto& path : {result, folder.record(job).parent_path()})
        std::filesystem::create_directories(path);
    vrk::Collection collection;
    collection.rows.emplace_back().name = job;
    collection.rows[0].facts.emplace();
    const auto stands = [&](const std::string& picture) {
        return says(batchPage(collection, folder), "src=\"data:image/" + picture);
    };
    std::ofstream(folder.earlierThumbnail(job)) << "x";
    std::ofstream(result / "hk0.png") << "no picture";
    vrk::writeThumbnail(result, thumbnail);
    EXPECT_TRUE(stands("jpeg;base64,eA==\""));
    int brightness = 90;
    for (const char* name : {"projection_z.png", "hk0.png"}) {
        std::vector<unsigned char> values(200 * 100);
        for (std::size_t i = 0; i < values.size(); ++i)
            values[i] = static_cast<unsigned char>(i % 200 / 50 % 3 == 0 ? 0 : brightness);
        ASSERT_TRUE(
            PictureFile::Write(values.data(), 200, 100, PictureFile::Pixel::Grey, (result / name).string()));
        vrk::writeThumbnail(result, thumbnail);
        const PictureFile::Grey grey = PictureFile::ReadGrey(thumbnail);
        EXPECT_TRUE(grey.width == 96 && grey.height == 96);
        EXPECT_EQ(grey.values, std::vector<unsigned char>(96 * 96, static_cast<unsigned char>(brightness++)));
        EXPECT_TRUE(stands("png;base64,iVBORw0KGgo"));
    }
}
