#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "crystallography/CellFileImportExport.h"
#include "pictures/Pictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/FileContent.h"

namespace vrk::app {
namespace {

struct SectionsArguments {
    std::string volume;
    std::string cell;
    std::string folder;
    LogOptions log;
    SectionOptions sections;
    bool primitive = false;
    bool json = false;
};

UnitCell readCell(const SectionsArguments& options, double pixelSize, Host& host) {
    refuseUnlessCell(options.cell);
    UnitCell cell;
    if (!CellFileImportExport::loadCellFile(options.cell, &cell, pixelSize))
        throw Failure("cannot read the cell file " + options.cell + ": " + host.session().lastError());
    if (cell.isDegenerate())
        throw Failure("the cell in " + options.cell + " spans no lattice: its vectors lie in one plane");
    if (!options.primitive) cell.transformIntoConventionalCell();
    return cell;
}

/// Edges need a pixel size.
PictureNotes notesOf(const std::string& volume, const UnitCell& cell, double pixelSize) {
    PictureNotes notes{std::filesystem::path(volume).filename().string(), "", pixelSize};
    if (!(pixelSize > 0.0)) return notes;
    const std::unique_ptr<UnitCell> other(cell.isRealCell() ? nullptr : cell.getReciprocalCell());
    const UnitCell& direct = other ? *other : cell;
    notes.cell = cellText(LATTICE::shortName(direct.getBravaisType()),
                          {direct.getLengthOfA(), direct.getLengthOfB(), direct.getLengthOfC(),
                           direct.getAlpha(), direct.getBeta(), direct.getGamma()});
    return notes;
}

void runSectionsCommand(const SectionsArguments& options, Host& host) {
    checkPlanes(options.sections.planes);
    host.openLog(options.log);
    // Finer voxels than the pictures' pixels would not be seen.
    const std::unique_ptr<VoxVolumeData> view =
        readVolumeView(options.volume, options.sections.size, host.session());
    const double pixelSize = static_cast<double>(view->header().m_pixelsize) / view->reduction();
    const UnitCell cell = readCell(options, pixelSize > 0.0 ? pixelSize : 1.0, host);
    makeFolder(options.folder);
    std::vector<std::string> files;
    const PictureNotes notes = notesOf(options.volume, cell, pixelSize);
    for (const auto& paths : {writeSections(*view, cell, options.sections, notes, options.folder),
                              writeProjections(*view, options.sections, notes, options.folder)})
        for (const auto& path : paths)
            files.push_back(path.string());
    if (options.json)
        host.out() << jsonText(nlohmann::ordered_json({{"files", files}, {"reduction", view->reduction()}}),
                               1)
                   << '\n';
    else
        for (const std::string& file : files)
            host.out() << file << '\n';
}

}  // namespace

void addSectionsCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<SectionsArguments>();
    Command command =
        line.command("sections", "Draw sections of a volume along lattice planes, and its projections");
    command.option("volume", options->volume, "Volume file (.mrc)").required().typeName("VOLUME.mrc");
    command.option("cell", options->cell, "Cell file, as 'vrk cell' and 'vrk run' write it")
        .required()
        .typeName("CELL");
    command.option("-o,--output", options->folder, "Folder for the pictures").required().typeName("FOLDER");
    command.option("--plane", options->sections.planes, "Planes, for instance hk0 h1l hhl h-hl [hk0 h0l 0kl]")
        .typeName("PLANE");
    command.option("--thickness", options->sections.thickness, "Thickness in voxels")
        .range(0.0, 100.0)
        .showDefault();
    command
        .option("--size", options->sections.size,
                "Edge of the pictures in pixels, without their margins; volumes that are 2, 4 or 8 times as "
                "large are read "
                "reduced, by the brightest voxels")
        .range(16, 8192)
        .showDefault();
    command.flag("--nodes", options->sections.nodes, "Draw a ring round every lattice node");
    command.flag("--primitive", options->primitive,
                 "Index the planes by the cell of the file, not by the conventional cell of its lattice");
    command.flag("--tga", options->sections.tga, "Write TGA files, too");
    command.flag("--json", options->json, "Print the names of the pictures and the reduction as JSON");
    addLogOptions(command, options->log);
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk sections volume.mrc cell.txt -o pictures --plane hk0 hk1 --nodes");
    command.action([options, &host] { runSectionsCommand(*options, host); });
}

}  // namespace vrk::app
