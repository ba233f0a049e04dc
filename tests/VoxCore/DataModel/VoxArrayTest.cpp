#include "VoxCore/DataModel/VoxArray/VoxArray.h"

#include "support/PlainVolume.h"
#include "support/Testing.h"

namespace {

TEST(VoxArray, SpreadsItsElementsOverChunks) {
    constexpr unsigned kHalfMebi = 1U << 19;  // shorts in a MiB
    const std::tuple<std::vector<unsigned>, StorageMethod, StorageMethod, unsigned, unsigned> cases[] = {
        {{7}, Storage_Auto, Storage_Interleaved, 1, 7},
        {{4, 5}, Storage_Auto, Storage_BySlice, 5, 4},
        {{4, 5, 6}, Storage_Auto, Storage_BySlice, 6, 20},
        {{2, 3, 4, 5}, Storage_Auto, Storage_Interleaved, 1, 120},
        {{4, 5, 6}, Storage_Contiguous, Storage_Contiguous, 1, 120},
        {{kHalfMebi - 1}, Storage_Interleaved, Storage_Interleaved, 1, kHalfMebi - 1},
        {{kHalfMebi / 2, 3}, Storage_Interleaved, Storage_Interleaved, 2, 3 * kHalfMebi / 4},
        {{2 * kHalfMebi}, Storage_Interleaved, Storage_Interleaved, 2, kHalfMebi},
        {{kHalfMebi, 1, 3}, Storage_Interleaved, Storage_Interleaved, 4, 3 * kHalfMebi / 4},
        {{3 * kHalfMebi + 1}, Storage_Interleaved, Storage_Interleaved, 4, 3 * kHalfMebi / 4},
        {{}, Storage_Auto, Storage_Interleaved, 0, 0},
        {{0, 10, 10}, Storage_Auto, Storage_BySlice, 10, 0},
        {{10, 10, 0}, Storage_Auto, Storage_BySlice, 0, 0},
    };
    for (const auto& [dims, asked, resolved, chunks, chunkSize] : cases) {
        SCOPED_TRACE(testing::PrintToString(dims));
        const ArrayPtr<short> a(VoxArray<short>::Create(dims, asked));
        ASSERT_TRUE(a);
        EXPECT_EQ(a->GetStorageMethod(), resolved);
        EXPECT_EQ(a->GetChunkCount(), chunks);
        EXPECT_EQ(a->GetChunkSize(), chunkSize);
        EXPECT_EQ(a->GetDims(), dims);
        EXPECT_EQ(a->Sum(), 0);
        EXPECT_EQ(ArrayPtr<short>(a->Clone())->GetDims(), dims);
    }
}

TEST(VoxArray, FindsEveryElementByItsCoordinates) {
    for (const StorageMethod method : kMethods) {
        for (const std::vector<unsigned>& dims : {std::vector{3U, 5U}, {2U, 3U, 4U}, {512U, 4U, 512U}}) {
            const ArrayPtr<short> a(VoxArray<short>::Create(dims, method));
            const unsigned step = 1 + dims[0] / 8;
            forEachVoxel(dims[0] / step, dims[1], dims.size() == 3 ? dims[2] : 1,
                         [&](unsigned i, unsigned y, unsigned z) {
                             const unsigned x = i * step;
                             const Place place = placeOf(method, dims, a->GetChunkCount(), {x, y, z});
                             ASSERT_EQ(dims.size() == 3 ? &a->GetValue(x, y, z) : &a->GetValue(x, y),
                                       &a->GetValueByChunk(place.chunk, place.position));
                         });
            for (unsigned i = 0; i < a->GetDataSize(); i += 1 + a->GetDataSize() / 999) {
                const unsigned c = i % a->GetChunkCount();
                ASSERT_EQ(&(*a)[i], a->GetChunkPointer(c) + i / a->GetChunkCount());
            }
        }
    }
    const ArrayPtr<short> a(VoxArray<short>::Create3D(2, 3, 4, Storage_Auto));
    EXPECT_EQ(a->GetOffset(0), 1u);
    EXPECT_EQ(a->GetOffset(2), 6u);
    a->SetValue(5, VoxPoint3D<unsigned>(1, 2, 3));
    EXPECT_EQ(a->GetValue(1, 2, 3), 5);
    EXPECT_EQ(a->GetChunkPointer(3)[3 * 1 + 2], 5);
    EXPECT_EQ(&a->GetValue(1, 2), a->GetChunkPointer(0) + 3 * 1 + 2) << "two indices mean slice 0";
}

TEST(VoxArray, RefusesWhatCannotBeAllocated) {
    const unsigned most = std::numeric_limits<unsigned>::max();
    const std::tuple<std::vector<unsigned>, StorageMethod, const char*> cases[] = {
        {{100000, 100000, 100000}, Storage_Auto, " MB memory in100000 chunks.\n\n"},
        {{65536, 65536}, Storage_Contiguous, "8192 MB memory in1 chunks.\n\n"},
        {{most, most, most, most, most}, Storage_BySlice, " MB memory in4294967295 chunks.\n\n"},
    };
    for (const auto& [dims, method, tail] : cases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(VoxArray<short>::Create(dims, method), nullptr);
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(text.starts_with("\n\nERROR: VoxArray::Init() : Could not allocate ")) << text;
        EXPECT_TRUE(text.ends_with(tail)) << text;
    }
}

TEST(VoxArray, CopiesShareMemoryAndFreeItOnce) {
    const ArrayPtr<short> a(VoxArray<short>::Create3D(2, 2, 2, Storage_Auto));
    a->SetMask(VoxArray<bool>::Create3D(2, 2, 2, Storage_Auto));
    {
        VoxArray<short> view(*a);
        EXPECT_FALSE(view.GetShallow());
        view.SetShallow(true);
        view.SetValue(9, 1, 1, 1);
        view.ReleaseMemory();
        EXPECT_EQ(view.GetChunkCount(), 2u);
        EXPECT_EQ(view.GetMask(), a->GetMask());
    }
    EXPECT_EQ(a->GetValue(1, 1, 1), 9);
    const ArrayPtr<short> clone(a->Clone());
    *clone = short{1};
    EXPECT_EQ(a->Sum(), 9);
    EXPECT_NE(clone->GetMask(), a->GetMask());

    *a->GetMask() = true;
    a->Replace(3, *a->GetMask());
    a->Replace(4, *a->GetMask());
    EXPECT_EQ(a->Sum(), 32);
    *a = *clone;
    EXPECT_EQ(*a, *clone);

    VoxArray<short> nothing;
    a->ReleaseMemory();
    EXPECT_TRUE(a->GetShallow());
    for (const VoxArray<short>* empty : {a.get(), &nothing})
        EXPECT_EQ(empty->GetDimCount() + empty->GetChunkCount() + empty->GetDataSize(), 0u);
    EXPECT_EQ(nothing.GetChunkSize(), 0u);
    EXPECT_EQ(*a, *clone) << "an array without chunks equals any other";
    EXPECT_EQ(nothing, *clone);
}

template <typename T>
class VoxArrayArithmetic : public testing::Test {};
using Numbers = testing::Types<short, unsigned char, float, double, bool>;
TYPED_TEST_SUITE(VoxArrayArithmetic, Numbers);

template <typename T>
std::vector<T> elements(const VoxArray<T>& a) {
    const std::unique_ptr<T[]> all(a.ToArray());
    return std::vector<T>(all.get(), all.get() + a.GetDataSize());
}

TYPED_TEST(VoxArrayArithmetic, IsThatOfTheElements) {
    using T = TypeParam;
    EXPECT_TRUE(rc::check([] {
        const auto dims = *rc::gen::container<std::vector<unsigned>>(3, rc::gen::inRange(1U, 6U));
        const ArrayPtr<T> a(VoxArray<T>::Create(dims, *rc::gen::elementOf(kMethods)));
        const ArrayPtr<T> b(a->Clone());
        for (unsigned i = 0; i < a->GetDataSize(); ++i) {
            a->SetValue(*rc::gen::arbitrary<T>(), i);
            b->SetValue(*rc::gen::nonZero<T>(), i);
        }
        const std::vector<T> as = elements(*a);
        const std::vector<T> bs = elements(*b);
        const T s = *rc::gen::nonZero<T>();
        const auto check = [&](auto inPlace, auto onElements) {
            const ArrayPtr<T> result(a->Clone());
            inPlace(*result);
            std::vector<T> expected(as.size());
            for (std::size_t i = 0; i < as.size(); ++i)
                expected[i] = static_cast<T>(onElements(as[i], bs[i]));
            RC_ASSERT(elements(*result) == expected);
        };
        check([&](auto& r) { r += *b; }, [](T x, T y) { return x + y; });
        check([&](auto& r) { r -= *b; }, [](T x, T y) { return x - y; });
        check([&](auto& r) { r *= *b; }, [](T x, T y) { return T(1) == T(2) ? x && y : x * y; });
        check([&](auto& r) { r /= *b; }, [](T x, T y) { return x / y; });
        check([&](auto& r) { r += s; }, [s](T x, T) { return x + s; });
        check([&](auto& r) { r -= s; }, [s](T x, T) { return x - s; });
        check([&](auto& r) { r *= s; }, [s](T x, T) { return T(1) == T(2) ? x && s : x * s; });
        check([&](auto& r) { r /= s; }, [s](T x, T) { return x / s; });
        check([&](auto& r) { r.LimitMinValue(s, bs[0]); }, [&](T x, T) { return x < s ? bs[0] : x; });
        check([&](auto& r) { r.LimitMaxValue(s, bs[0]); }, [&](T x, T) { return x > s ? bs[0] : x; });
        check([&](auto& r) { r = s; }, [s](T, T) { return s; });
        check([&](auto& r) { r = *b; }, [](T, T y) { return y; });
        RC_ASSERT((*a == *b) == (as == bs));

        // The sums in the order in which the chunks lie, which decides the last bits of real numbers.
        T sum{};
        T product{};
        for (unsigned i = 0; i < a->GetDataSize(); ++i) {
            const unsigned c = i / a->GetChunkSize(), j = i % a->GetChunkSize();
            sum = static_cast<T>(sum + a->GetValueByChunk(c, j));
            const T term = static_cast<T>(a->GetValueByChunk(c, j) * +b->GetValueByChunk(c, j));
            product = static_cast<T>(product + term);
        }
        RC_ASSERT(a->Sum() == sum);
        RC_ASSERT(VoxArray<T>::ScalarProduct(*a, *b) == product);
    }));
}

TYPED_TEST(VoxArrayArithmetic, LimitsSkipExcludedValues) {
    using T = TypeParam;
    EXPECT_TRUE(rc::check([] {
        const unsigned n = *rc::gen::inRange(1U, 40U);
        const ArrayPtr<T> a(VoxArray<T>::Create2D(n, 2, *rc::gen::elementOf(kMethods)));
        const auto few = rc::gen::element<T>(T(0), T(1), T(2), T(-3), T(200));
        for (unsigned i = 0; i < a->GetDataSize(); ++i)
            a->SetValue(*rc::gen::oneOf(rc::gen::arbitrary<T>(), few), i);
        const auto excluded = *rc::gen::container<std::vector<T>>(few);
        std::vector<T> left = elements(*a);
        std::erase_if(left, [&](T v) { return std::ranges::count(excluded, v) > 0; });
        if (left.empty()) return;
        RC_ASSERT(a->GetMinValue(excluded) == *std::ranges::min_element(left));
        RC_ASSERT(a->GetMaxValue(excluded) == *std::ranges::max_element(left));
    }));
}

TEST(VoxArray, WarnsWhenEveryValueIsExcluded) {
    const ArrayPtr<short> a(VoxArray<short>::Create2D(3, 3, Storage_Auto));
    testing::internal::CaptureStdout();
    EXPECT_EQ(a->GetMinValue({7, 0}), 7);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nWARNING: VoxCore/DataModel/VoxArray/VoxArray(947)\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(a->GetMaxValue({0}), 0);
    EXPECT_EQ(VoxArray<float>().GetMaxValue({}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nWARNING: __FILE__(__LINE__)\n\nWARNING: __FILE__(__LINE__)\n");
}

TEST(VoxArray, WeighsItsVoxels) {
    for (const StorageMethod method : kMethods) {
        const ArrayPtr<short> a(VoxArray<short>::Create3D(5, 6, 7, method));
        EXPECT_EQ(a->GetCentreOfMass(), VoxPoint3D<short>(0, 0, 0)) << "nothing has no centre";
        a->SetValue(30, 1, 2, 3);
        a->SetValue(10, 4, 2, 6);
        EXPECT_EQ(a->GetMoment000(), 40);
        EXPECT_EQ(a->GetMoment100(), 30 * 1 + 10 * 4);
        EXPECT_EQ(a->GetMoment010(), 40 * 2);
        EXPECT_EQ(a->GetMoment001(), 30 * 3 + 10 * 6);
        EXPECT_EQ(a->GetCentreOfMass(), VoxPoint3D<short>(1, 2, 3)) << "integer division";

        const ArrayPtr<double> image(VoxArray<double>::Create2D(4, 3, method));
        image->SetValue(1, 3, 1);
        image->SetValue(1, 2, 2);
        EXPECT_EQ(image->GetCentreOfMass(), VoxPoint3D<double>(2.5, 1.5, 0));
    }
}

TEST(VoxArray, HoldsColours) {
    using Colour = VoxPoint3D<unsigned char>;
    const ArrayPtr<Colour> a(VoxArray<Colour>::Create3D(2, 2, 2, Storage_Auto));
    *a = Colour(10, 20, 250);
    *a += Colour(1, 2, 10);
    EXPECT_EQ(a->GetValue(1, 1, 1), Colour(11, 22, 4));
    EXPECT_EQ(a->Sum(), Colour(88, 176, 32));
    a->SetValue(Colour(31, 0, 4), 1, 0, 0);
    EXPECT_EQ(a->GetValue(0.5f, 0.0f, 0.0f), Colour(21, 10, 4));
    EXPECT_EQ(a->GetMinValue({}), Colour(11, 22, 4));
    EXPECT_EQ(VoxArray<Colour>().GetCentreOfMass().x, Colour());
    const ArrayPtr<Colour> one(VoxArray<Colour>::Create1D(1, Storage_Auto));
    one->SetValue(Colour(1, 2, 3), 0);
    EXPECT_EQ(one->ToString(), "     1.0000      2.0000      3.0000 \n");
}

}  // namespace
