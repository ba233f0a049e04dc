#include "pipeline/base/UnitCheck.h"
#include "support/FailureOf.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

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
    const struct {
        const char* name;
        std::function<void()> check;
        std::string message;  // empty: all is well
    } cases[] = {
        {"1/m", scale(5e7), ""},
        {"edges at the limit", scale(2.6e5), ""},
        {"1/Angstrom", scale(0.005), "1/Angstrom per pixel, which is --pixel-size 5e+07"},
        {"1/nm", scale(0.05), "1/nm per pixel, which is --pixel-size 5e+07"},
        {"Angstrom", scale(200.0), "Angstrom per pixel, which is --pixel-size 5e+07"},
        {"no unit", scale(5e20), "1e7 to 2e8"},
        {"kV", [] { refuseImpossibleVoltage(300.0, 200.0); }, ""},
        {"kV without any in the series", [] { refuseImpossibleVoltage(300.0, 0.0); }, ""},
        {"volts", [] { refuseImpossibleVoltage(200000.0); }, "looks like volts: give --voltage 200"},
        {"neither", [] { refuseImpossibleVoltage(2.0); }, "no microscope"},
        {"ten times off", [] { refuseImpossibleVoltage(20.0, 200.0); }, "states 200 kV"},
        {"ten times above", [] { refuseImpossibleVoltage(2000.0, 200.0); }, "states 200 kV"},
        {"degrees", radians(90.0, 3.0, 3.0), ""},
        {"radians", radians(1.5708, 1.5708, 2.0944), "90, 90 and 120"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        const Refusal refusal = failureOf(one.check);
        EXPECT_EQ(refusal.text.empty(), one.message.empty()) << refusal.text;
        EXPECT_TRUE(refusal.says(one.message)) << refusal.text;
        EXPECT_EQ(refusal.kind == vrk::FailureKind::Usage, !one.message.empty());
    }
}

}  // namespace
