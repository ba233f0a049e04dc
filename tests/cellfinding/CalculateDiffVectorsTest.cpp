#include "cellfinding/CalculateDiffVectors.h"

#include "support/Testing.h"

namespace {

using Vector = std::array<double, 3>;
constexpr double kLargest = std::numeric_limits<double>::max();

struct Result {
    std::vector<Vector> vectors;
    Vector min{kLargest, kLargest, kLargest};
    Vector max{-kLargest, -kLargest, -kLargest};
    bool operator==(const Result&) const = default;
};

Result calculate(const std::vector<Vector>& centers, double minLength, double maxLength, bool half) {
    const ReflexVectorPtr list(new ReflexVector);
    for (const Vector& c : centers)
        list->append(ReflexPtr(new Reflex(c[0], c[1], c[2])));
    Parameter parameter;
    parameter.setMinLength(minLength);
    parameter.setMaxLength(maxLength);
    Result result;
    const std::unique_ptr<std::vector<ClusterPoint<double>*>> vectors(
        CalculateDiffVectors::calculateDiffVectors(list.get(), &parameter, result.min.data(),
                                                   result.max.data(), half));
    for (ClusterPoint<double>* vector : *vectors) {
        EXPECT_EQ(vector->getClusterID(), -1);
        result.vectors.push_back({vector->getData(0), vector->getData(1), vector->getData(2)});
        delete vector;
    }
    return result;
}

/// All pairs, each vector turned so that its first coordinate other than 0 is positive if asked for.
Result calculatePlainly(const std::vector<Vector>& centers, double minLength, double maxLength, bool half) {
    Result result;
    for (std::size_t i = 0; i < centers.size(); ++i)
        for (std::size_t j = i + 1; j < centers.size(); ++j)
            for (const double sign : {1.0, -1.0}) {
                Vector d;
                for (std::size_t k = 0; k < 3; ++k)
                    d[k] = sign * (centers[j][k] - centers[i][k]);
                const double length = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
                if (!(length > minLength && length < maxLength)) continue;
                if (half && d < Vector{0.0, 0.0, 0.0}) continue;
                result.vectors.push_back(d);
                for (std::size_t k = 0; k < 3; ++k) {
                    result.min[k] = std::min(result.min[k], d[k]);
                    result.max[k] = std::max(result.max[k], d[k]);
                }
            }
    return result;
}

TEST(CalculateDiffVectorsTest, EqualsTheDoubleLoopForAnyReach) {
    std::mt19937 random(3);
    std::uniform_real_distribution<> coordinate(-60.0, 60.0);
    std::vector<Vector> centers;
    for (int i = 0; i < 500; ++i) {
        centers.push_back({coordinate(random), coordinate(random), coordinate(random)});
        if (i % 2)
            for (double& x : centers.back())
                x = std::round(x / 5.0) * 5.0;
    }
    centers.push_back(centers[3]);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    centers.insert(centers.begin() + 100, {{nan, 0.0, 0.0}, {0.0, 1.0, -INFINITY}, {1e200, 0.0, 0.0}});
    std::vector<Vector> flat = centers;
    flat.erase(flat.begin() + 100, flat.begin() + 103);
    // Many vectors are as long as a limit.
    for (const bool half : {true, false})
        for (const double minLength : {3.0, 5.0})
            for (const double maxLength : {1e-3, 5.0, 12.0, 30.0, 100.0, 1e9})
                for (const auto* list : {&centers, &flat}) {
                    const Result result = calculate(*list, minLength, maxLength, half);
                    ASSERT_TRUE(result == calculatePlainly(*list, minLength, maxLength, half)) << maxLength;
                    ASSERT_EQ(result.vectors.empty(), maxLength <= minLength);
                }
}

TEST(CalculateDiffVectorsTest, HasNothingWithoutReflections) {
    Parameter parameter;
    ReflexVector none;
    EXPECT_EQ(CalculateDiffVectors::calculateDiffVectors(&none, &parameter, nullptr, nullptr, true), nullptr);
    EXPECT_EQ(CalculateDiffVectors::calculateDiffVectors(nullptr, &parameter, nullptr, nullptr, true),
              nullptr);
}

}  // namespace
