#include "console/LogOption.h"

namespace vrk::app {

void addLogOptions(Command& command, LogOptions& options) {
    command.option("--log", options.file, "Write the messages of the work to this file").typeName("FILE");
    addLogLevelOption(command, options);
}

void addLogLevelOption(Command& command, LogOptions& options) {
    command
        .option("--log-level", options.level,
                "What the log holds: errors alone, warnings too, messages too, or every step")
        .oneOf({"error", "warning", "info", "debug"})
        .showDefault();
}

}  // namespace vrk::app
