#include <rapidcheck.h>

#include "VoxCore/DataModel/VoxPoint2DFloat.h"
#include "VoxCore/DataModel/VoxPoint3D.h"
#include "VoxCore/DataModel/VoxPoint3DDouble.h"
#include "VoxCore/DataModel/VoxPoint3DFloat.h"
#include "VoxCore/DataModel/VoxPoint3DShort.h"
#include "support/Testing.h"

namespace {

template <typename P, typename S>
P point(const std::vector<S>& c) {
    if constexpr (P::kDimensions == 2)
        return P(c[0], c[1]);
    else
        return P(c[0], c[1], c[2]);
}

template <typename P>
class Points : public testing::Test {};
using AllPoints = testing::Types<VoxPoint2DFloat, VoxPoint3DFloat, VoxPoint3DDouble, VoxPoint3DShort,
                                 VoxPoint3D<unsigned char>>;
TYPED_TEST_SUITE(Points, AllPoints);

TYPED_TEST(Points, CalculateElementByElement) {
    using P = TypeParam;
    using S = decltype(P::x);
    EXPECT_TRUE(rc::check([] {
        const auto a = *rc::gen::container<std::vector<S>>(3, rc::gen::arbitrary<S>());
        const auto b = *rc::gen::container<std::vector<S>>(3, rc::gen::nonZero<S>());
        const P p = point<P>(a);
        const P q = point<P>(b);
        RC_ASSERT((p == q) == (p.x == q.x && p.y == q.y && p[P::kDimensions - 1] == q[P::kDimensions - 1]));
        RC_ASSERT((p != q) == !(p == q));
        for (std::size_t i = 0; i < P::kDimensions; ++i) {
            const int d = static_cast<int>(i);
            RC_ASSERT((p + q)[d] == static_cast<S>(a[i] + b[i]));
            RC_ASSERT((p - q)[d] == static_cast<S>(a[i] - b[i]));
            RC_ASSERT((p * q)[d] == static_cast<S>(a[i] * b[i]));
            RC_ASSERT((p / q)[d] == static_cast<S>(a[i] / b[i]));
            RC_ASSERT((p + b[0])[d] == static_cast<S>(a[i] + b[0]));
            RC_ASSERT((p - b[0])[d] == static_cast<S>(a[i] - b[0]));
            RC_ASSERT((p * b[0])[d] == static_cast<S>(a[i] * b[0]));
            RC_ASSERT((p / b[0])[d] == static_cast<S>(a[i] / b[0]));
        }
    }));
}

TEST(RealPoints, MeasureAndNormalize) {
    VoxPoint2DFloat p(3, 4);
    EXPECT_EQ(p.length(), 5);
    EXPECT_EQ(p.distance({3, 5}), 1);
    p.normalize();
    EXPECT_EQ(p, VoxPoint2DFloat(0.6f, 0.8f));
    VoxPoint3DDouble origin;
    origin.normalize();
    EXPECT_EQ(origin, VoxPoint3DDouble(0, 0, 0));
    VoxPoint3DFloat q(1, -2.5f, 2e10f);
    EXPECT_EQ((-q).toString(), "-1 2.5 -2e+10");
    EXPECT_EQ(VoxPoint3DDouble(1.23456789, 0, -7).toString(), "1.23457 0 -7");
    EXPECT_NEAR(VoxPoint3DDouble(1, 2, 2).length(), 3, 1e-15);
    double coordinates[3];
    q.GetArray(coordinates);
    EXPECT_EQ(coordinates[1], -2.5);
    q[2] = 7;
    EXPECT_EQ(q.z, 7);
}

TEST(VoxPoint3DShort, IsOrderedOnlyInAllCoordinates) {
    using P = VoxPoint3DShort;
    EXPECT_TRUE(P(1, 1, 1) < P(2, 2, 2));
    EXPECT_TRUE(P(2, 2, 2) > P(1, 1, 1));
    EXPECT_FALSE(P(1, 3, 1) < P(2, 2, 2));
    EXPECT_FALSE(P(1, 3, 1) > P(2, 2, 2));
    EXPECT_TRUE(P().NearBy(P(2, -2, 2), 2));
    EXPECT_FALSE(P().NearBy(P(3, 0, 0), 2));
    EXPECT_TRUE(P(-32768, 0, 0).NearBy(P(32767, 0, 0), 65535));
    EXPECT_EQ(P(3, -1, 7).Print(), "(3,-1,7)");
    EXPECT_EQ(P(1, 2, 3).ScalProd(P(4, -5, 6)), 12);
    EXPECT_EQ(P(1, 2, 3).Distance(P(1, 5, 7)), 5);
    EXPECT_EQ(-P(1, -2, -32768), P(-1, 2, -32768));
}

}  // namespace
