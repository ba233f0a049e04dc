/// \file
/// Calls of the library from Python: without the interpreter's lock, with progress, warnings and Ctrl-C.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/Pipeline.h"

namespace vrk::python {

namespace py = pybind11;

/// Any bytes as text: names of files need not be UTF-8.
py::str textOf(const std::string& text);

/// Makes the exceptions and the warning of the module.
void addExceptions(py::module_& module);
/// Raises the exception of the error's kind.
[[noreturn]] void raise(const Error& error);
/// Warns with the module's warning, at the place of the user's call.
void warn(const std::string& text);

/// Tells Python how far the work is and stops it when a callback raises or a signal arrives. Lives where the
/// interpreter's lock is held; called where it is not.
class PythonObserver : public Observer {
public:
    /// \param progress  called with part, parts, name, share; or None
    /// \param log       called with text and level; or None
    PythonObserver(py::object progress, py::object log);

    void partBegan(int number, int count, const std::string& name, int stages) override;
    void partsEnded() override;
    void stageBegan(const std::string& name) override;
    void progressed(int step, int steps) override;
    void warned(const std::string& text, bool isError) override;
    void logged(const char* message, VRK::MessageType type) override;
    bool canceled() override;

    /// Raises what stopped the work; otherwise warns of what it warned of.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    bool isDue(Clock::time_point& last) const;
    /// Runs what calls Python; what it raises stops the work.
    template <typename Call>
    void inPython(Call call);
    void tell();

    py::object m_progress;
    py::object m_log;
    std::vector<std::string> m_warnings;
    std::exception_ptr m_raised;
    bool m_stop = false;
    int m_part = 0;
    int m_parts = 0;
    std::string m_name;
    double m_share = 0.0;
    Clock::time_point m_told;
    Clock::time_point m_asked;
};

/// The value of what the work returns for an observer; raises its error.
template <typename Work>
auto call(py::object progress, py::object log, Work work) {
    PythonObserver observer(std::move(progress), std::move(log));
    auto result = [&] {
        const py::gil_scoped_release unlocked;
        return work(static_cast<Observer&>(observer));
    }();
    observer.finish();
    if (!result) raise(result.error());
    if constexpr (!std::is_void_v<decltype(result.value())>) return std::move(result).value();
}

void addSeries(py::module_& module);
void addRun(py::module_& module);
void addCells(py::module_& module);
void addMerging(py::module_& module);
void addSimulation(py::module_& module);

}  // namespace vrk::python
