#include "console/JobsOption.h"

namespace vrk::app {

void addJobsOption(Command& command, int& jobs) {
    command.option("--jobs", jobs, "Threads that share the work; results do not depend on them [all cores]")
        .range(1, 256);
}

}  // namespace vrk::app
