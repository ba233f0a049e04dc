#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "app/RunVrk.h"

namespace {

TEST(CellInfo, CentredCellAsJson) {
    const VrkResult result =
        runVrk({"cell-info", "12.02", "12.02", "12.02", "90", "90", "90", "--centring", "I", "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_NEAR(json["reduced"]["alpha"].get<double>(), 109.4712, 1e-3);
    EXPECT_NEAR(json["reduced"]["volume"].get<double>(), json["cell"]["volume"].get<double>() / 2.0, 1e-6);
    EXPECT_EQ(json["lattices"][0]["bravais"], "cI");
    EXPECT_NEAR(json["lattices"][0]["conventional"]["c"].get<double>(), 12.02, 1e-6);
    EXPECT_NEAR(json["reciprocal"]["a"].get<double>(), 1.0 / 12.02, 1e-9);
}

TEST(CellInfo, RhombohedralCellInBothSettings) {
    const VrkResult hexagonal =
        runVrk({"cell-info", "5", "5", "7", "90", "90", "120", "--centring", "R", "--json"});
    const auto reduced = nlohmann::json::parse(hexagonal.out)["reduced"];
    const auto text = [&reduced](const char* key) { return reduced[key].dump(); };
    const VrkResult primitive = runVrk({"cell-info", text("a"), text("b"), text("c"), text("alpha"),
                                        text("beta"), text("gamma"), "--centring", "R", "--json"});
    const auto best = nlohmann::json::parse(primitive.out)["lattices"][0];
    EXPECT_EQ(best["bravais"], "hR");
    EXPECT_NEAR(best["symmetrised"]["a"].get<double>(), 5.0, 1e-6);
    EXPECT_NEAR(best["symmetrised"]["c"].get<double>(), 7.0, 1e-6);
}

TEST(CellInfo, WrongInputIsRefused) {
    expectRefused({{"5 6 x 90 90 90", 2, ""},
                   {"5 6 7 90", 2, ""},
                   {"5 6 7 30 30 90", 2, ""},
                   {"5 6 nan 90 90 90", 2, ""},
                   {"no-such-file", 1, ""},
                   {"1e308 1e308 1e308 90 90 90", 1, ""},
                   {"1 1 1 90 90 1e-7", 1, ""},
                   {"1 1 1 90 90 90 --centring Q", 2, ""}},
                  ".", "cell-info ");
}

}  // namespace
