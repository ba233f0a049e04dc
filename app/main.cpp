#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <memory>
#include <new>

#include "Commands.h"
#include "Failure.h"
#include "HelpFormatter.h"
#include "Host.h"
#include "foundation/Version.h"

namespace {

int parseAndRun(host::Host& host, int argc, char** argv) {
    CLI::App app("vrk: from a tilt series of electron diffraction patterns to unit cell and HKL file", "vrk");
    app.set_version_flag("--version", std::string("vrk ") + VRK::kVersion);
    app.require_subcommand(1);
    app.formatter(std::make_shared<host::HelpFormatter>());
    host::addRunCommand(app, host);
    host::addImportCommand(app, host);
    host::addInfoCommand(app, host);
    host::addPreprocessCommand(app, host);
    host::addTiltAxisCommand(app, host);
    host::addReconstructCommand(app, host);
    host::addPeaksCommand(app, host);
    host::addCellCommand(app, host);
    host::addIndexCommand(app, host);
    host::addSectionsCommand(app, host);
    host::addCellInfoCommand(app, host);
    host::addSimulateCommand(app, host);
    host::addDemoCommand(app, host);
    host::addCompletionCommand(app, host);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error, host.out(), std::cerr);
        return code == 0 ? 0 : static_cast<int>(host::ExitCode::Usage);
    }
    return static_cast<int>(host::ExitCode::Done);
}

}  // namespace

int main(int argc, char** argv) {
    host::Host host;
    try {
        return parseAndRun(host, argc, argv);
    } catch (const host::Failure& failure) {
        host.progress().finish();
        std::cerr << "vrk: " << failure.what() << '\n';
        return static_cast<int>(failure.code());
    } catch (const std::bad_alloc&) {
        std::cerr << "vrk: out of memory; bin the series or run on a larger machine\n";
    } catch (const std::exception& error) {
        std::cerr << "vrk: " << error.what() << '\n';
    }
    return static_cast<int>(host::ExitCode::Failed);
}
