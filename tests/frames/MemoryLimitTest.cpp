// How much memory may be taken, and who asks.
#include "pipeline/base/MemoryLimit.h"

#include "pipeline/base/Failure.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/FrameSource.h"
#include "support/Testing.h"

namespace {

constexpr std::uint64_t kMiB = 1 << 20;

TEST(MemoryLimit, WhatIsFreeIsTheLeastThatAnyoneLeaves) {
    using Files = std::vector<std::pair<const char*, const char*>>;
    // The group is what proc/self/cgroup says; free are KiB.
    using Case = std::tuple<const char*, const char*, Files, std::uint64_t>;
    const std::vector<Case> cases = {
        {"no groups", "", {}, 8000},
        {"of one's own, with files that may go",
         "0::/a/b\n",
         {{"a/b/memory.max", "4096000"},
          {"a/b/memory.current", "2048000"},
          {"a/b/memory.stat", "anon 7\ninactive_file 1024000\n"}},
         3000},
        {"without a limit in one that has",
         "0::/a/b\n",
         {{"a/b/memory.max", "max"}, {"a/memory.max", "2048000"}},
         2000},
        {"used up", "0::/a\n", {{"a/memory.max", "1024000"}, {"a/memory.current", "2048000"}}, 0},
        {"more than there is", "0::/\n", {{"memory.max", "99999999999"}}, 8000},
        {"earlier kind",
         "3:cpu:/x\n4:memory:/c\n0::/\n",
         {{"memory/c/memory.limit_in_bytes", "3072000"}, {"memory/c/memory.usage_in_bytes", "1024000"}},
         2000},
    };
    for (const auto& [name, group, files, free] : cases) {
        SCOPED_TRACE(name);
        const TemporaryFolder root;
        std::filesystem::create_directories(root / "proc/self");
        root.write("proc/meminfo", "MemTotal: 9000 kB\nMemAvailable:    8000 kB\n");
        root.write("proc/self/cgroup", group);
        for (const auto& [file, text] : files) {
            const std::string path = std::string("sys/fs/cgroup/") + file;
            std::filesystem::create_directories(std::filesystem::path(root / path).parent_path());
            root.write(path, text);
        }
        EXPECT_EQ(vrk::freeMemory(root / ".") / 1024, free);
    }
}

TEST(MemoryLimit, TakesSizesAndShares) {
    EXPECT_EQ(vrk::memoryFromText("1.5M", 0), 3 * kMiB / 2);
    EXPECT_EQ(vrk::memoryFromText("4G", 0), 4096 * kMiB);
    EXPECT_EQ(vrk::memoryFromText("25%", 400), 100U);
    for (const char* bad : {"", "M", "4", "-1G", "0G", "nanG", "1Q", "101%", "4 GB"})
        EXPECT_THROW(vrk::memoryFromText(bad, 400), vrk::Failure) << bad;
}

TEST(MemoryLimit, IsAskedBeforeMemoryIsTaken) {
    const TemporaryFolder folder;
    ASSERT_EQ(std::system(("head -c 60000000 /dev/zero | gzip -1 > " + (folder / "zeros.gz")).c_str()), 0);
    const vrk::FrameSource packed(folder / "zeros.gz");
    {
        const vrk::MemoryLimit limit(vrk::residentMemory() + 100 * kMiB);
        // What is resident changes with what others want of the memory.
        EXPECT_NO_THROW(vrk::requireMemory(20 * kMiB, "they"));
        EXPECT_THROW(vrk::requireMemory(4096 * kMiB, "they"), vrk::Failure);
        const std::uint32_t sizes[] = {30000, 30000, 4};
        folder.write("s.mrc", {reinterpret_cast<const char*>(sizes), sizeof sizes});
        EXPECT_THROW(vrk::requireMemoryToRead(folder / "s.mrc"), vrk::Failure);
        EXPECT_THROW(packed.open(), vrk::Failure) << "it is there twice while it grows";
    }
    EXPECT_NO_THROW(vrk::requireMemory(110 * kMiB, "they"));
    EXPECT_EQ(packed.open()->size(), 60000000U);
}

}  // namespace
