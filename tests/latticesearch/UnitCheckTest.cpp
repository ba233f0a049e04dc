#include "pipeline/base/UnitCheck.h"

#include <unistd.h>

#include "pipeline/base/FolderLock.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/OutputFile.h"
#include "support/FailureOf.h"

namespace {

TEST(UnitCheck, NamesTheLikelyUnit) {
    using vrk::refuseImpossibleScale;
    using vrk::refuseImpossibleVoltage;
    using vrk::refuseRadians;
    // Edges of 10 and 20 Angstrom for 5e7 1/m per pixel.
    const auto scale = [](double pixelSize) {
        return [=] { refuseImpossibleScale({5e8 / pixelSize, 5e8 / pixelSize, 1e9 / pixelSize}, pixelSize); };
    };
    const auto radians = [](double alpha, double beta, double gamma) {
        return [=] { refuseRadians({alpha, beta, gamma}); };
    };
    const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
        {"1/m", scale(5e7), ""},
        {"edges at the limit", scale(2.6e5), ""},
        {"1/Angstrom", scale(0.005), "1/Angstrom per pixel, which is --pixel-size 5e+07"},
        {"1/nm", scale(0.05), "1/nm per pixel, which is --pixel-size 5e+07"},
        {"Angstrom", scale(200.0), "Angstrom per pixel, which is --pixel-size 5e+07"},
        {"no unit", scale(5e20), "1e7 to 2e8"},
        {"edges too long", scale(2.4e5), "1e7 to 2e8"},
        {"shortest edges", scale(9.9e8), ""},
        {"edges too short", scale(1.1e9), "1e7 to 2e8"},
        {"kV", [] { refuseImpossibleVoltage(300.0, 200.0); }, ""},
        {"kV without any in the series", [] { refuseImpossibleVoltage(300.0, 0.0); }, ""},
        {"volts", [] { refuseImpossibleVoltage(200000.0); }, "looks like volts: give --voltage 200"},
        {"neither", [] { refuseImpossibleVoltage(2.0); }, "no microscope"},
        {"least", [] { refuseImpossibleVoltage(10.0); }, ""},
        {"too low", [] { refuseImpossibleVoltage(9.9); }, "in kV, 10 to 3000"},
        {"most", [] { refuseImpossibleVoltage(3000.0); }, ""},
        {"too high", [] { refuseImpossibleVoltage(3001.0); }, "no microscope"},
        {"nearly five times below", [] { refuseImpossibleVoltage(41.0, 200.0); }, ""},
        {"five times below", [] { refuseImpossibleVoltage(40.0, 200.0); }, "states 200 kV"},
        {"nearly five times above", [] { refuseImpossibleVoltage(990.0, 200.0); }, ""},
        {"five times above", [] { refuseImpossibleVoltage(1000.0, 200.0); }, "states 200 kV"},
        {"degrees", radians(90.0, 3.0, 3.0), ""},
        {"small degrees", radians(3.15, 3.0, 3.0), ""},
        {"large radians", radians(3.14, 3.0, 3.0), "look like radians"},
        {"radians", radians(1.5708, 1.5708, 2.0944), "90, 90 and 120"},
    };
    for (const auto& [name, check, message] : cases) {
        SCOPED_TRACE(name);
        const Refusal refusal = failureOf(check);
        EXPECT_EQ(refusal.text.empty(), message.empty()) << refusal.text;
        EXPECT_TRUE(refusal.says(message)) << refusal.text;
        EXPECT_EQ(refusal.kind == vrk::FailureKind::Usage, !message.empty());
    }
}

TEST(OutputFile, ThatIsInTheMakingGoesWithTheProgram) {
    const TemporaryFolder folder;
    const vrk::OutputFile one(folder / "one.txt"), other(folder / "other.txt");
    EXPECT_TRUE(std::filesystem::exists(one.path()) && std::filesystem::exists(other.path()));
    vrk::OutputFile::removeAll();
    EXPECT_TRUE(std::filesystem::is_empty(folder / "."));
}

TEST(MemoryText, CountsInPowersOfTwo) {
    EXPECT_EQ(vrk::memoryText(1536 << 10), "1.5 MiB");
    EXPECT_EQ(vrk::memoryText(1280 << 20), "1.2 GiB");
}

TEST(FolderLock, IsHeldOnceAndGoesWithItsOwner) {
    const TemporaryFolder folder;
    const std::function<void()> actions[] = {[&] { vrk::FolderLock::refuseHeld(folder / "."); },
                                             [&] { const vrk::FolderLock another(folder / "."); }};
    auto lock = std::make_unique<vrk::FolderLock>(folder / ".");
    EXPECT_EQ(folder.read(vrk::FolderLock::kFile), std::to_string(getpid()) + "\n");
    for (const bool isHeld : {true, false}) {
        for (const auto& action : actions)
            EXPECT_EQ(failureOf(action).text.empty(), !isHeld);
        lock.reset();
        EXPECT_TRUE(std::filesystem::is_empty(folder / "."));
    }
}

}  // namespace
