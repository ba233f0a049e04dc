// From a file to a cell: file_to_cell SERIES.mrc
#include <iostream>

#include "pipeline/Pipeline.h"

int main(int, char** arguments) try {
    const vrk::TiltSeries series = vrk::TiltSeries::read(arguments[1]).value();
    const vrk::RunResult result = vrk::run(series).value();
    const vrk::CellRow cell = vrk::conventionalCell(result);
    std::cout << cell.bravais;
    for (const double number : cell.cell)
        std::cout << ' ' << number;
    std::cout << '\n';
} catch (const vrk::Failure& failure) {
    std::cerr << failure.what() << '\n';
    return 1;
}
