#include "console/MemoryOption.h"

#include "pipeline/base/Failure.h"
#include "pipeline/base/MemoryLimit.h"

namespace vrk::app {

void addMemoryOption(Command& command, Host* host) {
    const auto take = [host](const std::string& text) {
        const std::uint64_t bytes = memoryFromText(text, freeMemory());
        if (!host) return;
        if (bytes <= residentMemory())
            throw Failure("--max-memory " + text + " is less than the " + memoryText(residentMemory()) +
                              " that the program takes by itself",
                          FailureKind::Usage);
        host->limitMemory(bytes);
    };
    command
        .parsedOption(
            "--max-memory", take,
            "Memory that may be taken at most, as 500M, 4G or 50% of what is free; input that needs more is "
            "refused [80%]")
        .typeName("SIZE");
}

}  // namespace vrk::app
