#include "Calls.h"

namespace vrk::python {
namespace {

/// The types of the module, kept for the life of the process.
struct Types {
    PyObject* failure = nullptr;
    PyObject* usage = nullptr;
    PyObject* nothingFound = nullptr;
    PyObject* canceled = nullptr;
    PyObject* warning = nullptr;
} types;

PyObject* addType(py::module_& module, const char* name, const char* text, const py::tuple& bases) {
    PyObject* type =
        PyErr_NewExceptionWithDoc((std::string("vrkcore.") + name).c_str(), text, bases.ptr(), nullptr);
    if (!type) throw py::error_already_set();
    module.add_object(name, type);
    return type;
}

const char* levelName(VRK::MessageType type) {
    switch (type) {
        case VRK::Error:
        case VRK::Critical:
            return "error";
        case VRK::Warning:
            return "warning";
        case VRK::Debug:
            return "debug";
        default:
            return "info";
    }
}

}  // namespace

py::str textOf(const std::string& text) {
    PyObject* decoded = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
    if (!decoded) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(decoded);
}

void addExceptions(py::module_& module) {
    const auto base = [](PyObject* type) { return py::reinterpret_borrow<py::object>(type); };
    types.failure = addType(module, "Failure",
                            "Input that cannot be processed. The text says what was wrong and what to try.",
                            py::make_tuple(base(PyExc_RuntimeError)));
    types.usage = addType(module, "UsageError", "Settings or arrays that make no sense.",
                          py::make_tuple(base(types.failure), base(PyExc_ValueError)));
    types.nothingFound = addType(module, "NothingFound", "No reflections, or no lattice among them.",
                                 py::make_tuple(base(types.failure)));
    types.canceled =
        addType(module, "Canceled", "The work was stopped.", py::make_tuple(base(types.failure)));
    types.warning = addType(module, "VRKWarning", "What a user should know of data or results.",
                            py::make_tuple(base(PyExc_UserWarning)));
}

void raise(const Error& error) {
    PyObject* type = types.failure;
    if (error.kind == FailureKind::Usage) type = types.usage;
    if (error.kind == FailureKind::NothingFound) type = types.nothingFound;
    if (error.kind == FailureKind::Canceled) type = types.canceled;
    PyErr_SetObject(type, textOf(error.text).ptr());
    throw py::error_already_set();
}

void warn(const std::string& text) {
    constexpr int kCallerOfTheModule = 2;
    const std::string decoded = textOf(text);
    if (PyErr_WarnEx(types.warning, decoded.c_str(), kCallerOfTheModule) != 0) throw py::error_already_set();
}

PythonObserver::PythonObserver(py::object progress, py::object log)
    : m_progress(std::move(progress)), m_log(std::move(log)) {
    for (py::object* callback : {&m_progress, &m_log})
        if (*callback && callback->is_none()) *callback = py::object();
}

bool PythonObserver::isDue(Clock::time_point& last) const {
    constexpr std::chrono::milliseconds kOften(50);
    const Clock::time_point now = Clock::now();
    if (now - last < kOften) return false;
    last = now;
    return true;
}

template <typename Call>
void PythonObserver::inPython(Call call) {
    if (m_stop) return;
    const py::gil_scoped_acquire locked;
    try {
        call();
    } catch (...) {
        m_raised = std::current_exception();
        m_stop = true;
    }
}

void PythonObserver::tell() {
    inPython([&] { m_progress(m_part, m_parts, textOf(m_name), m_share); });
}

void PythonObserver::partBegan(int number, int count, const std::string& name, int /*stages*/) {
    m_part = number;
    m_parts = count;
    m_name = name;
    m_share = 0.0;
    if (m_progress) tell();
}

void PythonObserver::partsEnded() {
    m_part = m_parts;
    m_share = 1.0;
    if (m_progress) tell();
}

void PythonObserver::stageBegan(const std::string& name) {
    if (m_part == 0) m_name = name;
}

void PythonObserver::progressed(int step, int steps) {
    m_share = steps > 0 ? static_cast<double>(step) / steps : 0.0;
    if (m_progress && isDue(m_told)) tell();
}

void PythonObserver::warned(const std::string& text, bool /*isError*/) {
    m_warnings.push_back(text);
}

void PythonObserver::logged(const char* message, VRK::MessageType type) {
    if (m_log) inPython([&] { m_log(textOf(message), levelName(type)); });
}

bool PythonObserver::canceled() {
    if (!m_stop && isDue(m_asked))
        inPython([] {
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        });
    return m_stop;
}

void PythonObserver::finish() {
    if (m_raised) std::rethrow_exception(m_raised);
    for (const std::string& text : m_warnings)
        warn(text);
}

}  // namespace vrk::python
