#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <memory>
#include <new>

#include "commands/Commands.h"
#include "console/HelpFormatter.h"
#include "console/Host.h"
#include "foundation/Version.h"
#include "pipeline/base/Failure.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNothingFound = 3;

int exitCodeOf(vrk::FailureKind kind) {
    switch (kind) {
        case vrk::FailureKind::Usage:
            return kUsage;
        case vrk::FailureKind::NothingFound:
            return kNothingFound;
        case vrk::FailureKind::Failed:
        case vrk::FailureKind::Canceled:
            break;
    }
    return kFailed;
}

int parseAndRun(vrk::app::Host& host, int argc, char** argv) {
    CLI::App app("vrk: from a tilt series of electron diffraction patterns to unit cell and HKL file", "vrk");
    app.set_version_flag("--version", std::string("vrk ") + VRK::kVersion);
    app.require_subcommand(1);
    app.formatter(std::make_shared<vrk::app::HelpFormatter>());
    vrk::app::addRunCommand(app, host);
    vrk::app::addImportCommand(app, host);
    vrk::app::addInfoCommand(app, host);
    vrk::app::addPreprocessCommand(app, host);
    vrk::app::addTiltAxisCommand(app, host);
    vrk::app::addReconstructCommand(app, host);
    vrk::app::addPeaksCommand(app, host);
    vrk::app::addCellCommand(app, host);
    vrk::app::addIndexCommand(app, host);
    vrk::app::addSectionsCommand(app, host);
    vrk::app::addCellInfoCommand(app, host);
    vrk::app::addSimulateCommand(app, host);
    vrk::app::addDemoCommand(app, host);
    vrk::app::addCompletionCommand(app, host);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error, host.out(), std::cerr);
        return code == 0 ? 0 : kUsage;
    }
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    vrk::app::Host host;
    try {
        return parseAndRun(host, argc, argv);
    } catch (const vrk::Failure& failure) {
        host.wipeProgress();
        std::cerr << "vrk: " << failure.what() << '\n';
        return exitCodeOf(failure.kind());
    } catch (const std::bad_alloc&) {
        std::cerr << "vrk: out of memory; bin the series or run on a larger machine\n";
    } catch (const std::exception& error) {
        std::cerr << "vrk: " << error.what() << '\n';
    }
    return kFailed;
}
