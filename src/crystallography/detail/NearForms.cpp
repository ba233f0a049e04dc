#include "crystallography/detail/NearForms.h"

namespace VRK::detail {
namespace {

/// One of each pair of opposite vectors with entries -1, 0, 1.
constexpr std::array<Vector, 13> kHalfOfNeighbours = {{{0, 0, 1},
                                                       {0, 1, -1},
                                                       {0, 1, 0},
                                                       {0, 1, 1},
                                                       {1, -1, -1},
                                                       {1, -1, 0},
                                                       {1, -1, 1},
                                                       {1, 0, -1},
                                                       {1, 0, 0},
                                                       {1, 0, 1},
                                                       {1, 1, -1},
                                                       {1, 1, 0},
                                                       {1, 1, 1}}};

/// The ways to turn the axes round in pairs. D changes with b and c, so the signs of D, E, F are those of
/// a, b, c.
constexpr int kSigns[4][3] = {{1, 1, 1}, {1, -1, -1}, {-1, 1, -1}, {-1, -1, 1}};

}  // namespace

NearForms::NearForms(const Metric& shortest, double looseness) : m_loose(looseness) {
    constexpr std::size_t usual = 64;
    m_forms.reserve(usual);
    collectShortVectors(shortest);
    const auto vectors = [this](std::size_t edge) {
        return std::span(m_edges[edge].vectors).first(m_edges[edge].count);
    };
    for (const Short& a : vectors(0))
        for (const Short& b : vectors(1))
            for (const Short& c : vectors(2))
                addTriple(a, b, c);
}

void NearForms::collectShortVectors(const Metric& shortest) {
    const double squares[3] = {shortest.A, shortest.B, shortest.C};
    for (const Vector& v : kHalfOfNeighbours) {
        const Lowered lowered(v, shortest);
        const double squared = lowered.dot(v);
        for (std::size_t i = 0; i < 3; ++i)
            if (squared <= squares[i] * (1.0 + m_loose))
                m_edges[i].vectors[m_edges[i].count++] = {v, lowered, squared};
    }
}

void NearForms::addTriple(const Short& a, const Short& b, const Short& c) {
    if (a.squared > b.squared * (1.0 + m_loose) || b.squared > c.squared * (1.0 + m_loose)) return;
    Axes axes = {a.vector, b.vector, c.vector};
    const std::int64_t det = determinant(axes);
    if (det != 1 && det != -1) return;
    if (det < 0)
        for (Vector& v : axes)
            v = negated(v);
    addSigns(axes, {a.squared, b.squared, c.squared, c.lowered.dot(b.vector), c.lowered.dot(a.vector),
                    b.lowered.dot(a.vector)});
}

void NearForms::addSigns(const Axes& axes, const Metric& m) {
    const double squared = m_loose * m_loose;
    const bool zeroD = m.D * m.D < squared * (m.B * m.C);
    const bool zeroE = m.E * m.E < squared * (m.A * m.C);
    const bool zeroF = m.F * m.F < squared * (m.A * m.B);
    for (const auto& sign : kSigns) {
        const double D = sign[0] * m.D;
        const double E = sign[1] * m.E;
        const double F = sign[2] * m.F;
        const bool fitsFormI = (D > 0.0 || zeroD) && (E > 0.0 || zeroE) && (F > 0.0 || zeroF);
        const bool fitsFormII = (D < 0.0 || zeroD) && (E < 0.0 || zeroE) && (F < 0.0 || zeroF);
        if (!fitsFormI && !fitsFormII) continue;
        NearForm& form = m_forms.emplace_back();
        form.metric = {m.A, m.B, m.C, D, E, F};
        form.fitsFormI = fitsFormI;
        form.fitsFormII = fitsFormII;
        for (std::size_t i = 0; i < 3; ++i) {
            for (std::size_t k = 0; k < 3; ++k)
                form.axes[i][k] = sign[i] * axes[i][k];
            form.names[i] = nameOf(form.axes[i]);
        }
    }
}

}  // namespace VRK::detail
