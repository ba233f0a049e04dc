/// \file
/// Reduction and symmetry analysis of random cells of all Bravais types in random bases. spglib reduces the
/// same cells in the same run.
#include <benchmark/benchmark.h>

#include <array>
#include <iostream>
#include <streambuf>
#include <vector>

extern "C" {
#include <spglib.h>
}

#include "../tests/crystallography/RandomLattice.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/NiggliReduction.h"

namespace {

using namespace testing_support;

/// One of these runs in a circle, about as many as do among any.
std::vector<UnitCell> randomCells(double length, double angle) {
    RandomLattice random(3);
    std::vector<UnitCell> cells;
    for (std::size_t i = 0; i < 1400; ++i) {
        UnitCell cell = random.primitive(kAllBravaisTypes[i % kAllBravaisTypes.size()]);
        if (length > 0.0) cell = random.disturbed(cell, length, angle);
        cell.transform(raw(random.unimodular(6)));
        cells.push_back(cell);
    }
    return cells;
}

void countCells(benchmark::State& state, std::size_t cells) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(cells));
}

void reduceAll(benchmark::State& state) {
    const std::vector<UnitCell> cells = randomCells(0.0, 0.0);
    for (auto _ : state)
        for (UnitCell cell : cells) {
            NiggliReduction::niggliReduction(&cell, 0);
            benchmark::DoNotOptimize(cell);
        }
    countCells(state, cells.size());
}

void niggliNullStream(benchmark::State& state) {
    NiggliReduction::setNarration(nullptr);
    reduceAll(state);
    NiggliReduction::setNarration(&std::cout);
}
BENCHMARK(niggliNullStream);

/// Takes every character and throws it away, so that the text must be formatted.
void niggliDiscardedText(benchmark::State& state) {
    class : public std::streambuf {
        int_type overflow(int_type c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    } sink;
    std::ostream stream(&sink);
    NiggliReduction::setNarration(&stream);
    reduceAll(state);
    NiggliReduction::setNarration(&std::cout);
}
BENCHMARK(niggliDiscardedText);

void niggliSpglib(benchmark::State& state) {
    const std::vector<UnitCell> cells = randomCells(0.0, 0.0);
    for (auto _ : state)
        for (const UnitCell& cell : cells) {
            double lattice[3][3];
            cell.getOrientationMatrix(lattice);
            benchmark::DoNotOptimize(spg_niggli_reduce(lattice, 1e-5));
        }
    countCells(state, cells.size());
}
BENCHMARK(niggliSpglib);

void latticeSymmetry(benchmark::State& state, double length, double angle) {
    const std::vector<UnitCell> cells = randomCells(length, angle);
    for (auto _ : state)
        for (const UnitCell& cell : cells)
            benchmark::DoNotOptimize(LatticeSymmetry::analyse(cell));
    countCells(state, cells.size());
}
BENCHMARK_CAPTURE(latticeSymmetry, exact, 0.0, 0.0);
BENCHMARK_CAPTURE(latticeSymmetry, noisy, 0.005, 0.5);

/// The lattice with the most nearly reduced bases.
void latticeSymmetryFaceCentredCubic(benchmark::State& state) {
    RandomLattice random(2);
    const UnitCell cell = random.primitive(LATTICE::cF);
    for (auto _ : state)
        benchmark::DoNotOptimize(LatticeSymmetry::analyse(cell));
    countCells(state, 1);
}
BENCHMARK(latticeSymmetryFaceCentredCubic);

}  // namespace
