/// \file
/// Runs library code that damaged input can crash where a crash does no harm.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace vrk::detail {

/// A child of this process that answers requests until it is destroyed. What goes wrong in it, a crash, a
/// hang, memory without bound, ends the child alone.
class SeparateProcess {
public:
    /// Sends the answer.
    using Reply = std::function<void(std::span<const char> bytes)>;
    using Answer = std::function<void(const std::string& request, const Reply& reply)>;

    /// \param answer    called in the child only; replies once
    /// \param patience  milliseconds that it may say nothing when it is asked
    explicit SeparateProcess(const Answer& answer, int patience = 120'000);
    ~SeparateProcess();
    SeparateProcess(const SeparateProcess&) = delete;
    SeparateProcess& operator=(const SeparateProcess&) = delete;

    /// For the child: ends it when it takes more time of the processor than this from now on, ten times as
    /// much in a build with a sanitizer. Waiting for disks does not count.
    static void allowSeconds(double seconds);
    /// For the child: refuses it memory beyond this and what it has.
    static void allowMemory(std::uint64_t bytes);

    /// Empty when the child has died, has said nothing for too long or has more to say than \p most bytes;
    /// it is dead then.
    std::optional<std::string> ask(const std::string& request, std::size_t most);
    /// The same for an answer of known length.
    bool ask(const std::string& request, std::span<char> answer);
    /// Why the child has died, for users: what of it was too much; empty when that is not known.
    const std::string& excess() const { return m_excess; }

private:
    template <typename Receive>
    bool askAnd(const std::string& request, const Receive& receive);
    void end();

    pid_t m_child = -1;
    int m_socket = -1;
    std::string m_excess;
    int m_patience;
};

}  // namespace vrk::detail
