#include "VoxCore/DataModel/VoxMRCData.h"

#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using Data = std::unique_ptr<VoxMRCData>;

TEST(VoxMRCData, IsCreatedSlicedOrNotAtAll) {
    using Message = RecordingLogObserver::Message;
    const Message enter{">> VoxMRCData* Create3D", VRK::Debug, VRK::ObjectControl};
    const Message leave{"<< VoxMRCData* Create3D", VRK::Debug, VRK::ObjectControl};
    RecordingLogObserver log;

    EXPECT_EQ(VoxMRCData::Create3D(0, 10, 10), nullptr);
    EXPECT_EQ(VoxMRCData::Create3D(10, 10, 0), nullptr);
    EXPECT_EQ(log.messages, (std::vector{enter, enter}));

    log.messages.clear();
    const Data data(VoxMRCData::Create3D(4, 5, 6));
    EXPECT_EQ(log.messages, (std::vector{enter, leave}));
    EXPECT_EQ(data->GetStorageMethod(), Storage_BySlice);
    EXPECT_EQ(data->GetChunkCount(), 6u);
    EXPECT_EQ(data->m_Histogram, nullptr);

    log.messages.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(VoxMRCData::Create3D(1000000, 1000000, 1000000), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not allocate"), std::string::npos);
    EXPECT_EQ(log.messages, (std::vector{enter, leave}));
}

// Run with the sanitizers, this also tells leaks and what is freed twice.
TEST(VoxMRCData, CopiesShareTheHistogramWhateverIsDestroyedFirst) {
    const auto filled = [](short value) {
        Data data(VoxMRCData::Create3D(2, 2, 2));
        *data = value;
        data->m_Histogram = new VoxHistogram<short>(data.get(), 8, {});
        return data;
    };
    for (const bool sourceFirst : {true, false}) {
        Data source = filled(4), target = filled(5);
        source->m_Header.nx = 2;
        *target = *source;
        *target = *source;
        EXPECT_EQ(target->m_Histogram, source->m_Histogram);
        EXPECT_EQ(target->m_Header.nx, 2);
        *source = short{1};
        EXPECT_EQ(target->Sum(), 32);

        auto view = std::make_unique<VoxMRCData>(*source);
        EXPECT_EQ(view->GetChunkPointer(0), source->GetChunkPointer(0));
        EXPECT_EQ(view->m_Histogram, source->m_Histogram);
        view->SetShallow(true);
        view.reset();

        VoxHistogram<short>* const shared = source->m_Histogram;
        (sourceFirst ? source : target).reset();
        EXPECT_EQ((sourceFirst ? target : source)->m_Histogram->m_Bins, shared->m_Bins);
    }
    const Data source = filled(1), replaced = filled(2), emptied = filled(3);
    *replaced = *source;
    replaced->m_Histogram = new VoxHistogram<short>(replaced.get(), 4, {});
    *emptied = *source;
    emptied->m_Histogram = nullptr;
    *emptied = *replaced;
    EXPECT_EQ(emptied->m_Histogram->m_BinCount, 4);
    EXPECT_EQ(source->m_Histogram->m_BinCount, 8);
}

TEST(VoxMRCData, PrintsItsHeaders) {
    const Data data(VoxMRCData::Create3D(1, 1, 1));
    mrcH& h = data->m_Header;
    h.nx = 512, h.ny = 256, h.nz = 2;
    h.amin = -3.5f, h.amax = 99, h.amean = 12.25f;
    h.tiltangles = {1, 2, 3, 4, 5, 6.5f};
    h.stamp = {'D', '\0', '\n', '\0'};
    std::ranges::copy(std::string("a label"), h.labl.begin());
    h.setValue(SliceValue::TiltAngle, 1, -30.5f);
    h.setValue(SliceValue::PixelSize, 1, 2.5f);
    h.setValue(SliceValue::DiffractionLens, 1, 40);
    RecordingLogObserver log;
    data->print_MRCHeader();
    data->print_Extended_MRCHeader();
    h.nz = 2000000000;
    data->print_Extended_MRCHeader();
    ASSERT_EQ(log.messages.size(), 3u);
    for (const char* part :
         {"Number of columns/rows/sections (nx,ny,nz): 512 256 2\nMode: 0\n",
          "\nMinimum density value: -3.5\nMaximum density value: 99\nMean density value: 12.25\nispg: 0\n",
          "\nnint: 12.25\nnreal: -3.5\n", "\ntilt angles: 1 : 2 : 3 : 4 : 5 : 6.5\nxorgin: 0\n",
          "stamp[4]: D..\nrms: 0\nnlabl: 0\nlabl[800]: a label\n"})
        EXPECT_NE(log.messages[0].text.find(part), std::string::npos) << part << log.messages[0].text;
    SoFar soFar;
    soFar.addText(log.messages[0].text);
    EXPECT_NEAR(soFar.sum(), 731.766736, 1e-4);
    EXPECT_TRUE(log.messages[1].text.ends_with(
        "\nSlice 0: 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0\n"
        "Slice 1: -30.5 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 0 | 2.5 | 0 | 0 | 0 | 0 | 0 | 0 | 40\n"));
    EXPECT_EQ(std::ranges::count(log.messages[2].text, '\n'), 3 + mrcH::kMaxSlices);
}

}  // namespace
