#include "pipeline/base/MemoryLimit.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <sstream>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/NumberText.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();
constexpr double kShare = 0.8;

thread_local std::uint64_t limit = 0;  // 0: none given

/// The number behind a name in a file of names and numbers, or the file's only number; \p otherwise for none,
/// and for "max".
std::uint64_t numberIn(const std::string& path, const std::string& name, std::uint64_t otherwise) {
    std::ifstream file(path);
    std::uint64_t number = 0;
    if (name.empty()) return file >> number ? number : otherwise;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        if (words >> first >> number && first == name) return number;
    }
    return otherwise;
}

struct GroupFiles {
    const char* most;
    const char* used;
    const char* reclaimable;  ///< in memory.stat: files that the system forgets when memory is short
};
constexpr GroupFiles kUnified = {"memory.max", "memory.current", "inactive_file"};
constexpr GroupFiles kEarlier = {"memory.limit_in_bytes", "memory.usage_in_bytes", "total_inactive_file"};

/// What a group and those around it leave.
std::uint64_t leftByGroup(const fs::path& top, fs::path group, const GroupFiles& files) {
    std::uint64_t left = kUnlimited;
    for (group = group.relative_path();; group = group.parent_path()) {
        // Where every program begins, and with hardly any memory left: joining paths then crashes in some
        // versions of the standard library.
        const std::string folder = top.string() + '/' + group.string() + '/';
        const std::uint64_t most = numberIn(folder + files.most, "", kUnlimited);
        std::uint64_t used = numberIn(folder + files.used, "", 0);
        used -= std::min(used, numberIn(folder + "memory.stat", files.reclaimable, 0));
        if (most != kUnlimited) left = std::min(left, most - std::min(most, used));
        if (group.empty()) return left;
    }
}

std::uint64_t leftByGroups(const fs::path& root) {
    const fs::path top = root / "sys/fs/cgroup";
    std::uint64_t left = kUnlimited;
    std::ifstream groups(root / "proc/self/cgroup");
    // "0::/path" or "4:memory:/path"
    for (std::string line; std::getline(groups, line);) {
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (second == std::string::npos) continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const fs::path group = line.substr(second + 1);
        if (controllers.empty())
            left = std::min(left, leftByGroup(top, group, kUnified));
        else if (controllers == "memory")
            left = std::min(left, leftByGroup(top / "memory", group, kEarlier));
    }
    return left;
}

}  // namespace

std::uint64_t residentMemory() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t pages = 0;
    file >> pages >> pages;
    return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::uint64_t freeMemory(const fs::path& root) {
    constexpr std::uint64_t kKiB = 1024;
    const std::uint64_t available =
        numberIn(root.string() + "/proc/meminfo", "MemAvailable:", kUnlimited / kKiB) * kKiB;
    return std::min(available, leftByGroups(root));
}

std::uint64_t memoryFromText(const std::string& text, std::uint64_t free) {
    constexpr double kKiB = 1024.0;
    const char unit = text.empty() ? ' ' : text.back();
    const double factor = unit == 'K'   ? kKiB
                          : unit == 'M' ? kKiB * kKiB
                          : unit == 'G' ? kKiB * kKiB * kKiB
                          : unit == 'T' ? kKiB * kKiB * kKiB * kKiB
                          : unit == '%' ? static_cast<double>(free) / 100.0
                                        : 0.0;
    double number = 0.0;
    const double bytes =
        parseNumber(text.substr(0, text.size() - (text.empty() ? 0 : 1)), number) ? number * factor : 0.0;
    if (!(bytes >= 1.0) || (unit == '%' && number > 100.0))
        throw Failure(
            "--max-memory takes a size such as 500M or 4G, or a share of what is free such as 50%, not '" +
                text + "'",
            FailureKind::Usage);
    constexpr std::uint64_t most = kUnlimited / 2;
    return bytes < static_cast<double>(most) ? static_cast<std::uint64_t>(bytes) : kUnlimited;
}

std::string memoryText(std::uint64_t bytes) {
    constexpr double kMiB = 1024.0 * 1024.0;
    const double size = static_cast<double>(bytes) / kMiB;
    return size < 1024.0 ? formatted("%.1f MiB", size) : formatted("%.1f GiB", size / 1024.0);
}

MemoryLimit::MemoryLimit(std::uint64_t bytes) : m_before(limit) {
    limit = bytes;
}

MemoryLimit::~MemoryLimit() {
    limit = m_before;
}

std::uint64_t memoryLeft() {
    if (limit == 0) return static_cast<std::uint64_t>(kShare * static_cast<double>(freeMemory()));
    const std::uint64_t taken = residentMemory();
    return limit - std::min(limit, taken);
}

void requireMemory(std::uint64_t bytes, const std::string& what) {
    // Reading what is free takes longer than taking so little.
    constexpr std::uint64_t kLittle = std::uint64_t{1} << 24;
    if (bytes < kLittle) return;
    const std::uint64_t left = memoryLeft();
    if (bytes <= left) return;
    throw Failure(what + " need " + memoryText(bytes) + " of memory, and " + memoryText(left) +
                  " may be taken" + (limit > 0 ? " of " + memoryText(limit) + " (--max-memory)" : "") +
                  "; bin or sum the frames ('vrk import --bin 2'), or use a machine with more");
}

}  // namespace vrk
