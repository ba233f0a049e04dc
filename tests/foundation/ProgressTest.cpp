#include "support/Testing.h"

namespace {

/// Counts until it is told to stop.
class Counter : public VoxProgressObservable {
public:
    int run(int steps) {
        setSteps(steps, "counting");
        for (int step = 0; step < steps; ++step) {
            updateStep(step);
            if (canceled()) {
                logMessage("stopped", Vox::Error);
                return step;
            }
        }
        return steps;
    }
};

}  // namespace

TEST(Progress, ReportsStepsAndStopsWhenCanceled) {
    RecordingProgressObserver observer(3);
    Counter counter;
    EXPECT_EQ(counter.run(5), 5) << "without an observer";
    counter.registerObserver(nullptr);
    EXPECT_EQ(counter.run(5), 5);
    counter.registerObserver(&observer);

    EXPECT_EQ(counter.run(5), 2);
    EXPECT_EQ(observer.steps(), 5);
    EXPECT_EQ(observer.titles, std::vector<std::string>{"counting"});
    EXPECT_EQ(observer.updates, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(observer.messages, std::vector<std::string>{"stopped"});
    EXPECT_EQ(static_cast<int>(observer.messageTypes.at(0)), 3);

    // The flag stays set, and a copy carries it and the step count along.
    const RecordingProgressObserver copy = observer;
    EXPECT_TRUE(copy.canceled());
    EXPECT_EQ(copy.steps(), 5);
    EXPECT_EQ(counter.run(5), 0);
}
