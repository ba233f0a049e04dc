// A line for each series of a folder, two at a time: screen_folder FOLDER
#include <atomic>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <thread>
#include <vector>

#include "pipeline/Pipeline.h"

namespace {

std::string lineOf(const std::filesystem::path& path) {
    vrk::RunOptions options;
    options.intensities.wanted = false;  // the cell is enough
    const auto series = vrk::TiltSeries::read(path);
    const auto result = series ? vrk::run(*series, options) : series.error();
    if (!result) return path.filename().string() + ": " + result.error().text;
    const vrk::CellRow cell = vrk::conventionalCell(*result);
    std::string line = path.filename().string() + ": " + cell.bravais;
    for (const double number : cell.cell)
        line += ' ' + std::to_string(number);
    return line + ", confidence " + nameOf(result->indexed.verdict.level);
}

}  // namespace

int main(int, char** arguments) {
    std::vector<std::filesystem::path> series;
    for (const auto& entry : std::filesystem::directory_iterator(arguments[1]))
        if (entry.path().extension() == ".mrc") series.push_back(entry.path());

    std::atomic<std::size_t> next = 0;
    std::mutex output;
    const auto work = [&] {
        for (std::size_t i = next++; i < series.size(); i = next++) {
            const std::string line = lineOf(series[i]);
            const std::lock_guard lock(output);
            std::cout << line << '\n';
        }
    };
    std::thread second(work);
    work();
    second.join();
}
