// Interpolation, sub-volumes, planes, plain copies, matrices and text.

#include "VoxCore/DataModel/VoxImageList.h"
#include "VoxCore/DataModel/VoxImageListStorageSliced.h"
#include "support/PlainVolume.h"
#include "support/Testing.h"

namespace {

TEST(VoxArrayInside, EndsAtTheLastVoxelAndAtTheMask) {
    const ArrayPtr<short> a(VoxArray<short>::Create3D(4, 5, 40, Storage_Auto));
    EXPECT_TRUE(a->Inside(2.9f, 3.9f, 39.0f)) << "the shift is lost in places from 32 on";
    EXPECT_FALSE(a->Inside(std::nanf(""), 0, 0));
    EXPECT_TRUE(a->Inside(3, 4, 39));
    for (const auto& [x, y, z] : {std::tuple{4, 4, 39}, {3, 5, 39}, {3, 4, 40}, {-1, 0, 0}})
        EXPECT_FALSE(a->Inside(x, y, z)) << x << ' ' << y << ' ' << z;
    EXPECT_FALSE(VoxArray<short>().Inside(0.0f, 0, 0));

    a->SetMask(VoxArray<bool>::Create3D(4, 5, 40, Storage_Contiguous));
    a->GetMask()->SetValue(true, 1, 2, 3);
    EXPECT_TRUE(a->Inside(1, 2, 3));
    EXPECT_FALSE(a->Inside(1, 2, 4));
    EXPECT_TRUE(a->Inside(1.49f, 1.51f, 3.0f));
    EXPECT_FALSE(a->Inside(1.51f, 1.51f, 3.0f));
    EXPECT_FALSE(a->GetMask()->GetValue(1.0f, 2.0f, 3.0f)) << "a fraction of true is truncated";
}

TEST(VoxArrayViews, SubVolumesContinueBeyondTheEdge) {
    EXPECT_TRUE(rc::check([] {
        RandomVolume v(*rc::gen::elementOf(kMethods), 2);
        const auto start = rc::gen::inRange(0U, 8U);
        const unsigned x0 = *start, y0 = *start, z0 = *start;
        const ArrayPtr<short> block(v.array->GetSubVolume(x0, y0, z0, 3, 4, 5));
        // Some are whole numbers, some lie before the first voxel.
        const auto fraction =
            rc::gen::map(rc::gen::inRange(-20, 200), [](int i) { return 0.01f * static_cast<float>(i); });
        const float fx = *fraction, fy = *fraction, fz = *fraction;
        const ArrayPtr<short> between(v.array->GetSubVolume(fx, fy, fz, 3, 4, 5));
        forEachVoxel(3, 4, 5, [&](unsigned x, unsigned y, unsigned z) {
            const bool inside = x0 + x < v.w && y0 + y < v.h && z0 + z < v.d;
            RC_ASSERT(block->GetValue(x, y, z) == (inside ? v.at(x0 + x, y0 + y, z0 + z) : 0));
            const float px = fx + static_cast<float>(x);
            const float py = fy + static_cast<float>(y);
            const float pz = fz + static_cast<float>(z);
            RC_ASSERT(v.array->Inside(px, py, pz) == v.inside(px, py, pz));
            if (!v.inside(px, py, pz)) return;
            RC_ASSERT(v.array->GetValue(px, py, pz) == v.sample(px, py, pz));
            RC_ASSERT(between->GetValue(x, y, z) == v.sample(px, py, pz));
        });
    }));
    const ArrayPtr<short> flat(VoxArray<short>::Create3D(3, 3, 3, Storage_Auto));
    *flat = short{8};
    EXPECT_EQ(ArrayPtr<short>(flat->GetSubVolume(-9.0f, 1e30f, std::nanf(""), 2, 2, 2))->Sum(), 64);
}

TEST(VoxArrayViews, PlanesGoOutAndIn) {
    EXPECT_TRUE(rc::check([] {
        RandomVolume v(*rc::gen::elementOf(kMethods));
        const unsigned axis = *rc::gen::inRange(0U, 3U);
        const unsigned index = *rc::gen::inRange(0U, v.array->GetDimSize(axis));
        const ArrayPtr<short> plane(v.array->GetHyperPlane(axis, index, *rc::gen::elementOf(kMethods)));
        RC_ASSERT(plane->GetWidth() == v.array->GetDimSize((axis + 1) % 3));
        RC_ASSERT(plane->GetHeight() == v.array->GetDimSize((axis + 2) % 3));
        const ArrayPtr<short> target(v.array->Clone());
        *target = short{0};
        RC_ASSERT(target->SetHyperPlane(*plane, axis, index));
        forEachVoxel(v.w, v.h, v.d, [&](unsigned x, unsigned y, unsigned z) {
            const unsigned p[] = {x, y, z};
            const bool on = p[axis] == index;
            RC_ASSERT(target->GetValue(x, y, z) == (on ? v.at(x, y, z) : 0));
            if (on) RC_ASSERT(plane->GetValue(p[(axis + 1) % 3], p[(axis + 2) % 3]) == v.at(x, y, z));
        });
        RC_ASSERT(v.array->GetHyperPlane(axis, v.array->GetDimSize(axis), Storage_Auto) == nullptr);
        RC_ASSERT(v.array->GetHyperPlane(3, 0, Storage_Auto) == nullptr);
        RC_ASSERT(!target->SetHyperPlane(*v.array, axis, index));
    }));
}

TEST(VoxArrayViews, TransformsUnderAnAffineMap) {
    EXPECT_TRUE(rc::check([] {
        RandomVolume v(*rc::gen::elementOf(kMethods), 2);
        const bool masked = *rc::gen::arbitrary<bool>();
        if (masked) {
            v.array->SetMask(VoxArray<bool>::Create3D(v.w, v.h, v.d, *rc::gen::elementOf(kMethods)));
            *v.array->GetMask() = true;
        }
        const ArrayPtr<short> map(VoxArray<short>::CreateMatrix(4, 4, *rc::gen::elementOf(kMethods)));
        for (unsigned r = 0; r < 3; ++r)
            for (unsigned c = 0; c < 4; ++c)
                map->SetValue(*rc::gen::inRange<short>(-1, 2), r, c);
        const ArrayPtr<short> result(v.array->GetTransformedVolume(*map));
        RC_ASSERT(result->GetStorageMethod() == v.array->GetStorageMethod());
        RC_ASSERT((result->GetMask() != nullptr) == masked);
        forEachVoxel(v.w, v.h, v.d, [&](unsigned x, unsigned y, unsigned z) {
            float p[3];
            for (unsigned r = 0; r < 3; ++r)
                p[r] = static_cast<float>(map->GetValue(r, 0U) * static_cast<int>(x) +
                                          map->GetValue(r, 1U) * static_cast<int>(y) +
                                          map->GetValue(r, 2U) * static_cast<int>(z) + map->GetValue(r, 3U));
            const bool inside = v.inside(p[0], p[1], p[2]);
            RC_ASSERT(result->GetValue(x, y, z) == (inside ? v.sample(p[0], p[1], p[2]) : 0));
            if (masked) RC_ASSERT(result->GetMask()->GetValue(x, y, z) == inside);
        });
    }));
    const ArrayPtr<short> small(VoxArray<short>::CreateMatrix(3, 3, Storage_Auto));
    EXPECT_EQ(small->GetTransformedVolume(*small), nullptr);
}

TEST(VoxArrayViews, PlainCopiesFollowTheChunks) {
    const ArrayPtr<short> a(VoxArray<short>::Create3D(130, 2, 3, Storage_Auto));
    for (unsigned i = 0; i < a->GetDataSize(); ++i)
        (*a)[i] = static_cast<short>(i);
    const std::unique_ptr<short[]> all(a->ToArray());
    for (unsigned i = 0; i < a->GetDataSize(); ++i)
        ASSERT_EQ(all[i], static_cast<short>(i));

    const std::unique_ptr<std::vector<short*>> chunks(a->ToVectorArray());
    const VoxImageListStorageSliced<short> images(130, 2, 3, chunks.get());
    EXPECT_EQ(images.getImage(2), a->GetChunkPointer(2));
    EXPECT_EQ(images.getImage(3), nullptr);
    EXPECT_EQ(images.getSize(), 780);
    const VoxImageList<short> list(130, 2, 3, all.get());
    EXPECT_EQ(list.getImageWidth() * 10 + list.getImageHeight(), 1302);
    EXPECT_EQ(list.getData() + list.getSize(), all.get() + 780);

    const ArrayPtr<unsigned char> bytes(VoxArray<unsigned char>::Create2D(2, 3, Storage_Auto));
    bytes->SetValue(65, 0, 2);
    testing::internal::CaptureStdout();
    const std::unique_ptr<unsigned char[]> chunk(bytes->ToArrayByChunk(2));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "VoxArray::ToArrayByChunk(): chunk 2\n val 0=65 val 1=0");
    EXPECT_EQ(chunk[0], 65);
}

ArrayPtr<double> matrix(unsigned rows, unsigned columns, std::vector<double> byRow,
                        StorageMethod method = Storage_Auto) {
    ArrayPtr<double> m(VoxArray<double>::CreateMatrix(rows, columns, method));
    for (unsigned i = 0; i < byRow.size(); ++i)
        m->SetValue(byRow[i], i / columns, i % columns);
    return m;
}

TEST(VoxArrayMatrix, MultipliesTransposesAndCuts) {
    const ArrayPtr<double> a = matrix(2, 3, {1, 2, 3, 4, 5, 6});
    const ArrayPtr<double> b = matrix(3, 2, {1, 0, 2, 1, 0, 3}, Storage_Contiguous);
    EXPECT_EQ(*ArrayPtr<double>(a->MatrixMul(*b)), *matrix(2, 2, {5, 11, 14, 23}));
    EXPECT_EQ(a->MatrixMul(*a), nullptr);
    EXPECT_FALSE(a->MatrixMul(*b, *a));
    EXPECT_EQ(*ArrayPtr<double>(a->MatrixTranspose()), *matrix(3, 2, {1, 4, 2, 5, 3, 6}));
    EXPECT_EQ(*ArrayPtr<double>(a->GetSubMatrix(0, 1, 2, 2)), *matrix(2, 2, {2, 3, 5, 6}));
    EXPECT_EQ(a->GetSubMatrix(1, 1, 2, 1), nullptr);
    EXPECT_FALSE(a->SetSubMatrix(1, 2, *matrix(1, 2, {0, 0})));
    EXPECT_TRUE(a->SetSubMatrix(0, 2, *matrix(2, 1, {7, 8})));
    EXPECT_EQ(a->ToString(), "     1.0000      2.0000      7.0000 \n     4.0000      5.0000      8.0000 \n");
    a->SetIdentity();
    EXPECT_EQ(*a, *matrix(2, 3, {1, 0, 0, 0, 1, 0}));
}

TEST(VoxArrayMatrix, ReshapesInTheOrderOfTheFlatIndex) {
    const ArrayPtr<double> a = matrix(2, 3, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(*ArrayPtr<double>(a->Reshape(3)), *matrix(3, 2, {1, 2, 3, 4, 5, 6}));
    const ArrayPtr<double> byColumn = matrix(2, 3, {1, 3, 5, 2, 4, 6}, Storage_Contiguous);
    EXPECT_EQ(*ArrayPtr<double>(byColumn->Reshape(6)), *matrix(6, 1, {1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(a->Reshape(0), nullptr);
}

TEST(VoxArrayText, ShowsSliceZeroOnly) {
    const ArrayPtr<short> a(VoxArray<short>::Create3D(2, 2, 2, Storage_Auto));
    *a = short{-3};
    a->SetValue(12, 0, 1, 0);
    EXPECT_EQ(a->ToString(), "    -3.0000     12.0000 \n    -3.0000     -3.0000 \n");
    EXPECT_EQ(VoxArray<short>().ToString(), "");
}

}  // namespace
