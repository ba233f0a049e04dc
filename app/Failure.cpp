#include "Failure.h"

namespace host {

Failure::Failure(const std::string& text, ExitCode code) : std::runtime_error(text), m_code(code) {}

}  // namespace host
