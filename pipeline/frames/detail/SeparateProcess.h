/// \file
/// Runs library code that damaged input can crash where a crash does no harm.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace vrk::detail {

/// A child of this process that answers requests until it is destroyed. What goes wrong in it, a crash, a
/// hang, memory without bound, ends the child alone.
class SeparateProcess {
public:
    using Answer = std::function<std::string(const std::string& request)>;

    /// \param answer  called in the child only
    explicit SeparateProcess(const Answer& answer);
    ~SeparateProcess();
    SeparateProcess(const SeparateProcess&) = delete;
    SeparateProcess& operator=(const SeparateProcess&) = delete;

    /// For the child: ends it when it takes more time of the processor than this from now on. Waiting for
    /// disks does not count.
    static void allowSeconds(int seconds);

    /// Empty when the child has died, or has said nothing for two minutes; it is dead then.
    std::optional<std::string> ask(const std::string& request);

private:
    void end();

    pid_t m_child = -1;
    int m_socket = -1;
};

}  // namespace vrk::detail
