#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "console/CommandLine.h"
#include "console/Host.h"
#include "foundation/Version.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNothingFound = 3;
constexpr int kStopped = 128;  ///< and the number of the signal, as shells have it

int exitCodeOf(vrk::FailureKind kind) {
    switch (kind) {
        case vrk::FailureKind::Usage:
            return kUsage;
        case vrk::FailureKind::NothingFound:
            return kNothingFound;
        case vrk::FailureKind::Canceled:
            return kStopped + vrk::app::Host::stopSignal();
        case vrk::FailureKind::Failed:
            break;
    }
    return kFailed;
}

int runWords(const std::vector<std::string>& words);

int parseAndRun(vrk::app::Host& host, int argc, char** argv) {
    vrk::app::CommandLine line(
        "vrk", "vrk: from a tilt series of electron diffraction patterns to unit cell and HKL file",
        VRK::kVersion, host.columns());
    vrk::app::addRunCommand(line, host);
    vrk::app::addImportCommand(line, host);
    vrk::app::addBatchCommand(line, host, runWords);
    vrk::app::addInfoCommand(line, host);
    vrk::app::addPreprocessCommand(line, host);
    vrk::app::addTiltAxisCommand(line, host);
    vrk::app::addReconstructCommand(line, host);
    vrk::app::addPeaksCommand(line, host);
    vrk::app::addCellCommand(line, host);
    vrk::app::addIndexCommand(line, host);
    vrk::app::addSectionsCommand(line, host);
    vrk::app::addMergeCommand(line, host);
    vrk::app::addReportCommand(line, host);
    vrk::app::addVerifyCommand(line, host);
    vrk::app::addCellInfoCommand(line, host);
    vrk::app::addSimulateCommand(line, host);
    vrk::app::addCalibrateCommand(line, host);
    vrk::app::addDemoCommand(line, host);
    vrk::app::addCompletionCommand(line, host);
    if (!line.run(argc, argv, host.out(), std::cerr)) return kUsage;
    host.done();
    return kDone;
}

int runHosted(int argc, char** argv) {
    vrk::app::Host host;
    try {
        return parseAndRun(host, argc, argv);
    } catch (const vrk::Failure& failure) {
        host.wipeProgress();
        std::cerr << "vrk: " << failure.what() << '\n';
        return exitCodeOf(failure.kind());
    } catch (const std::bad_alloc&) {
        host.wipeProgress();
        std::cerr << "vrk: " << host.outOfMemory() << '\n';
    } catch (const std::exception& error) {
        host.wipeProgress();
        // The image library has an exception of its own for this.
        const bool isMemory = std::strstr(error.what(), "Insufficient memory") != nullptr;
        std::cerr << "vrk: " << (isMemory ? host.outOfMemory() : error.what()) << '\n';
    }
    return kFailed;
}

/// What the program does with these arguments.
int runWords(const std::vector<std::string>& words) {
    std::vector<std::string> copies = words;
    copies.insert(copies.begin(), "vrk");
    std::vector<char*> arguments;
    for (std::string& word : copies)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    return runHosted(static_cast<int>(copies.size()), arguments.data());
}

/// What is made before main(), such as checks of the option parser, fails with a line, too.
[[noreturn]] void endBeforeMain() {
    std::fputs("vrk: it could not even begin; it takes more memory than it gets\n", stderr);
    std::_Exit(kFailed);
}

std::terminate_handler usualEnd = nullptr;

std::atomic<bool> memoryFailed = false;

/// As without it, an allocation that fails throws.
void noteFailedAllocation() {
    memoryFailed = true;
    throw std::bad_alloc();
}

/// Where functions of the standard library promise not to throw, as those that walk through folders do, an
/// allocation that fails within ends the program.
[[noreturn]] void endAfterFailedAllocation() {
    if (!memoryFailed) {
        usualEnd();
        std::abort();
    }
    vrk::OutputFile::removeAll();
    std::fputs("vrk: more memory is needed than may be taken (--max-memory)\n", stderr);
    std::_Exit(kFailed);
}

/// Runs before all that has no priority.
[[gnu::constructor(101)]] void watchBeginning() {
    usualEnd = std::set_terminate(endBeforeMain);
}

/// Work on frames takes scratch memory of some megabytes thousands of times. To give it back to the system
/// each time, and touch fresh pages the next, takes as long as the work. Series and volumes are larger and go
/// back.
void keepScratchMemory() {
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 64 << 20);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    std::set_new_handler(noteFailedAllocation);
    std::set_terminate(endAfterFailedAllocation);
    keepScratchMemory();
    try {
        return runHosted(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vrk: it could not even begin: %s\n", error.what());
    }
    return kFailed;
}
