#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "crystallography/CellFileImportExport.h"
#include "pictures/Pictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/frames/DataFiles.h"

namespace vrk::app {
namespace {

struct Options {
    std::string volume;
    std::string cell;
    std::string folder;
    std::string log;
    SectionOptions sections;
    bool primitive = false;
    bool json = false;
};

UnitCell readCell(const Options& options, double pixelSize, Host& host) {
    UnitCell cell;
    if (!CellFileImportExport::loadCellFile(options.cell, &cell, pixelSize))
        throw Failure("cannot read the cell file " + options.cell + ": " + host.session().lastError());
    if (cell.isDegenerate())
        throw Failure("the cell in " + options.cell + " spans no lattice: its vectors lie in one plane");
    if (!options.primitive) cell.transformIntoConventionalCell();
    return cell;
}

void run(const Options& options, Host& host) {
    checkPlanes(options.sections.planes);
    if (!options.log.empty()) host.openLog(options.log);
    // Finer voxels than the pictures' pixels would not be seen.
    const std::unique_ptr<VoxVolumeData> view =
        readVolumeView(options.volume, options.sections.size, host.session());
    const double pixelSize = static_cast<double>(view->header().m_pixelsize) / view->reduction();
    const UnitCell cell = readCell(options, pixelSize > 0.0 ? pixelSize : 1.0, host);
    makeFolder(options.folder);
    std::vector<std::string> files;
    for (const auto& paths : {writeSections(*view, cell, options.sections, options.folder),
                              writeProjections(*view, options.sections.tga, options.folder)})
        for (const auto& path : paths)
            files.push_back(path.string());
    if (options.json)
        host.out() << nlohmann::json({{"files", files}, {"reduction", view->reduction()}}).dump(1) << '\n';
    else
        for (const std::string& file : files)
            host.out() << file << '\n';
}

}  // namespace

void addSectionsCommand(CLI::App& app, Host& host) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("sections", "Draw sections of a volume along lattice planes, and its projections");
    command->add_option("volume", options->volume, "Volume file (.mrc)")->required()->type_name("VOLUME.mrc");
    command->add_option("cell", options->cell, "Cell file, as 'vrk cell' and 'vrk run' write it")
        ->required()
        ->type_name("CELL");
    command->add_option("-o,--output", options->folder, "Folder for the pictures")
        ->required()
        ->type_name("FOLDER");
    command
        ->add_option("--plane", options->sections.planes,
                     "Planes, for instance hk0 h1l hhl h-hl [hk0 h0l 0kl]")
        ->type_name("PLANE");
    command->add_option("--thickness", options->sections.thickness, "Thickness in voxels")
        ->check(CLI::Range(0.0, 100.0))
        ->capture_default_str();
    command
        ->add_option("--size", options->sections.size,
                     "Edge of the pictures in pixels; volumes that are 2, 4 or 8 times as large are read "
                     "reduced, by the brightest voxels")
        ->check(CLI::Range(16, 8192))
        ->capture_default_str();
    command->add_flag("--nodes", options->sections.nodes, "Draw a ring round every lattice node");
    command->add_flag(
        "--primitive", options->primitive,
        "Index the planes by the cell of the file, not by the conventional cell of its lattice");
    command->add_flag("--tga", options->sections.tga, "Write TGA files, too");
    command->add_flag("--json", options->json, "Print the names of the pictures and the reduction as JSON");
    command->add_option("--log", options->log, "Write the library's messages to this file");
    command->footer("Example:\n  vrk sections volume.mrc cell.txt -o pictures --plane hk0 hk1 --nodes");
    command->callback([options, &host] { run(*options, host); });
}

}  // namespace vrk::app
