/// \file
/// How far the work is, on one line.
#pragma once

#include <chrono>
#include <string>

namespace vrk::app {

/// A line on the standard error stream that is written over as the work goes on:
///
///     6/9 search the cell [##########..........] 52 % 0:14
///
/// with the part of the work, its share and the time since the start of the program. The bar never goes back:
/// what is done again, in parts that came before, is named behind the part, with its share. Where lines
/// cannot be written over, each part leaves one plain line with its time when it is done (of what is done
/// again, what takes longer than a second), and stages without parts nothing.
class ProgressLine {
public:
    ProgressLine();

    void partBegan(int number, int count, const std::string& name, int stages);
    void partsEnded();
    void stageBegan(const std::string& name);
    void progressed(int step, int steps);
    void stageEnded();
    /// Shows the time where a second has gone by.
    void tick();
    /// Wipes the line, so that a message has it for itself.
    void wipe();

private:
    using Clock = std::chrono::steady_clock;

    void draw();
    std::string text(int columns) const;
    void leavePlainLine() const;
    void startOver();

    bool m_rewrites;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_partStart = Clock::now();
    std::string m_name;   ///< of the part, or of the stage where there are no parts
    std::string m_again;  ///< the part that is done again
    int m_number = 0;     ///< of the part; 0: none
    int m_count = 0;
    int m_stages = 1;
    int m_stage = 0;       ///< stages of the part that have begun
    double m_share = 0.0;  ///< of the part that is done
    bool m_isShown = false;
    int m_shownPercent = -1;
    long m_shownSecond = -1;
};

}  // namespace vrk::app
