#include "support/Testing.h"

TEST(Logger, IsOneAndSpeaksOnceOnCreation) {
    testing::internal::CaptureStdout();
    VRKLogger* first = VRKLogger::getInstance();
    first->log("nobody listens", VRK::Error, VRK::Information);
    EXPECT_EQ(VRKLogger::getInstance(), first);
    // The other cases of this program may have created the logger already, but then it says nothing.
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(text.empty() || text == "  >> constructor VRKLogger\n  << constructor VRKLogger\n") << text;
}

TEST(Logger, SendsEveryKindOfMessageUnchanged) {
    RecordingLogObserver observer;
    VRKLogger::getInstance()->testAllLogMessage();

    using namespace VRK;
    const std::vector<RecordingLogObserver::Message> expected = {
        {"----------- Test all log message ----------------", Normal, Information},
        {"test without type", Normal, Information},
        {"test VRK::Normal", Normal, Information},
        {"test VRK::Important", Important, Information},
        {"test VRK::Warning", Warning, Information},
        {"test VRK::Critical", Critical, Information},
        {"test VRK::Error", Error, Information},
        {"test VRK::Debug", Debug, Information},
        {"test VRK::Debug , VRK::ObjectControl", Debug, ObjectControl},
        {"test VRK::Debug , VRK::MethodControl", Debug, MethodControl},
        {"test VRK::Debug , VRK::LoopControl", Debug, LoopControl},
        {"test VRK::Debug , VRK::Test_misc", Debug, Test_misc},
        {"test VRK::Debug , VRK::Gui_Interaction", Debug, Gui_Interaction},
        {"test VRK::Debug , VRK::Information", Debug, Information},
        {"----------- END Test all log message ----------------", Normal, Information}};
    EXPECT_EQ(observer.messages, expected);
    EXPECT_EQ(static_cast<int>(observer.messages[4].type), 5);
}

TEST(Logger, ReplacesAndDetachesItsObserver) {
    RecordingLogObserver first;
    {
        RecordingLogObserver second;
        VRKLogger::getInstance()->log(std::string("to the second"), VRK::Normal, VRK::Information);
        EXPECT_EQ(second.messages.size(), 1u);
    }
    VRKLogger::getInstance()->log("to nobody", VRK::Normal, VRK::Information);
    EXPECT_TRUE(first.messages.empty());
}
