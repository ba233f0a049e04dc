#include "console/ProgressLine.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "console/Terminal.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr int kUsualColumns = 80;
constexpr int kLongestBar = 30;
constexpr int kShortestBar = 8;

long secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

ProgressLine::ProgressLine() : m_rewrites(canRewriteLines(STDERR_FILENO)) {}

void ProgressLine::startOver() {
    m_stage = 0;
    m_share = 0.0;
    m_partStart = Clock::now();
}

void ProgressLine::partBegan(int number, int count, const std::string& name, int stages) {
    leavePlainLine();
    if (number <= m_number) {
        m_again = name;
    } else {
        m_number = number;
        m_count = count;
        m_name = name;
        m_again.clear();
    }
    m_stages = std::max(stages, 1);
    startOver();
    draw();
}

void ProgressLine::partsEnded() {
    leavePlainLine();
    wipe();
    m_number = 0;
    m_name.clear();
    m_again.clear();
    startOver();
}

void ProgressLine::stageBegan(const std::string& name) {
    ++m_stage;
    if (m_number > 0) return;
    m_name = name;
    m_stages = 1;
    startOver();
    m_stage = 1;
    draw();
}

void ProgressLine::progressed(int step, int steps) {
    if (steps <= 0) return;
    const double ofStage = std::clamp(static_cast<double>(step) / steps, 0.0, 1.0);
    m_share = std::max(m_share, std::min(1.0, (std::max(m_stage, 1) - 1 + ofStage) / m_stages));
    draw();
}

void ProgressLine::stageEnded() {
    if (m_number == 0) wipe();
}

void ProgressLine::tick() {
    if (m_isShown) draw();
}

void ProgressLine::wipe() {
    if (m_isShown) std::cerr << "\r\x1b[K" << std::flush;
    m_isShown = false;
    m_shownPercent = -1;
}

void ProgressLine::draw() {
    if (!m_rewrites || m_name.empty()) return;
    const int percent = static_cast<int>(100.0 * m_share);
    const long second = secondsSince(m_start);
    if (m_isShown && percent == m_shownPercent && second == m_shownSecond) return;
    m_shownPercent = percent;
    m_shownSecond = second;
    const int columns = columnsOf(STDERR_FILENO);
    // The last column stays free: some terminals go to the next line with it.
    std::cerr << '\r' << text((columns > 0 ? columns : kUsualColumns) - 1) << "\x1b[K" << std::flush;
    m_isShown = true;
}

std::string ProgressLine::text(int columns) const {
    std::string head = m_number > 0 ? formatted("%d/%d ", m_number, m_count) : std::string();
    head += m_name;
    if (!m_again.empty()) head += ", again: " + m_again;
    std::string tail = formatted(" %ld:%02ld", m_shownSecond / 60, m_shownSecond % 60);
    // Work that does not tell how far it is has no share, and what is done again no bar.
    const bool isMeasured = m_share > 0.0;
    if (isMeasured) tail = formatted(" %d %%", m_shownPercent) + tail;
    const int room = columns - static_cast<int>(head.size() + tail.size()) - 3;
    if (isMeasured && m_again.empty() && room >= kShortestBar) {
        const int width = std::min(room, kLongestBar);
        const auto filled = static_cast<std::size_t>(m_share * width);
        tail = " [" + std::string(filled, '#') + std::string(static_cast<std::size_t>(width) - filled, '.') +
               "]" + tail;
    }
    return fitted(fitted(head, std::max(0, columns - static_cast<int>(tail.size()))) + tail, columns);
}

void ProgressLine::leavePlainLine() const {
    if (m_rewrites || m_number == 0) return;
    constexpr double kShort = 1.0;
    const std::chrono::duration<double> seconds = Clock::now() - m_partStart;
    if (!m_again.empty() && seconds.count() < kShort) return;
    std::cerr << formatted("%d/%d ", m_number, m_count) << (m_again.empty() ? m_name : "again: " + m_again)
              << formatted(", %.1f s\n", seconds.count());
}

}  // namespace vrk::app
