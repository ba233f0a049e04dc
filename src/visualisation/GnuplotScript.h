/// \file
/// A plot as a gnuplot script with its data files, and its picture where gnuplot is installed.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VRKCoreExport.h"

/// Collects data and commands of one plot, then writes them into a folder as `<name>.plt`, `<name>_1.dat`,
/// `<name>_2.dat`, ... and renders `<name>.png`.
///
/// The script names its data and its picture without a folder and is run with the folder as working
/// directory, so that a user can move the folder and render again with `gnuplot <name>.plt`. Neither a shell
/// nor the user's gnuplot settings take part; folders with blanks, quotes or line breaks in their names work.
///
/// \code
/// GnuplotScript plot(folder, "score");
/// const std::string data = plot.addData("angle score", rows, 2);
/// plot.addCommand("set xlabel " + GnuplotScript::quoted("angle (degrees)"));
/// plot.addCommand("plot " + data + " using 1:2 with linespoints title 'score'");
/// plot.render();
/// \endcode
class VRKCORE_EXPORT GnuplotScript {
public:
    /// \param folder  an existing folder, "" for the current one
    /// \param name    the stem of the file names; must not contain a slash
    /// \param width   of the picture in pixels
    /// \param height  of the picture in pixels
    GnuplotScript(std::string folder, std::string name, int width = 960, int height = 720);

    /// Adds a data file.
    /// \param comment  becomes the first line, behind a number sign; usually the names of the columns
    /// \param values   row by row; values that are not finite become gaps
    /// \param columns  at least 1; what does not fill a last row is left out
    /// \returns the file's name, quoted, for use in plot commands
    std::string addData(std::string_view comment, std::span<const double> values, std::size_t columns);

    /// Adds one line to the script. Terminal and output are set already.
    void addCommand(std::string command);

    /// Writes script and data, replacing earlier files.
    /// \returns false, with an error logged, when a file cannot be written or the disk is full
    bool save() const;

    /// Writes script and data, then runs gnuplot.
    /// \returns true when the picture has been made. False after a failed save(), when gnuplot reports an
    ///          error (logged as a warning with gnuplot's words), and when gnuplot is not installed (a note
    ///          says how to render the script later; script and data are there then).
    bool render() const;

    /// Full paths of the script and of the picture.
    std::string scriptPath() const;
    std::string imagePath() const;

    /// A gnuplot string in single quotes, in which gnuplot interprets nothing.
    static std::string quoted(std::string_view text);

private:
    struct DataFile {
        std::string name;
        std::string text;
    };

    std::string pathOf(const std::string& fileName) const;
    std::string scriptText() const;

    std::string m_folder;
    std::string m_name;
    int m_width;
    int m_height;
    std::vector<DataFile> m_data;
    std::vector<std::string> m_commands;
};
