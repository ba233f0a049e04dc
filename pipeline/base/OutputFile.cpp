#include "pipeline/base/OutputFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

/// The names of the files in the making, where a signal handler finds them.
std::array<std::atomic<const char*>, 64> inTheMaking;

/// \returns its place; one past the last when all are taken
std::size_t announce(const std::filesystem::path& path) {
    const char* name = strdup(path.c_str());
    for (std::size_t i = 0; i < inTheMaking.size(); ++i) {
        const char* none = nullptr;
        if (inTheMaking[i].compare_exchange_strong(none, name)) return i;
    }
    std::free(const_cast<char*>(name));
    return inTheMaking.size();
}

constexpr const char* kMark = ".part-";

constexpr std::size_t kRandom = 6;

/// That nobody else can know before, for a name that is safe in a folder which others write to.
std::string randomName() {
    constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device device;
    std::uniform_int_distribution<std::size_t> letter(0, kLetters.size() - 1);
    std::string name;
    for (std::size_t i = 0; i < kRandom; ++i)
        name += kLetters[letter(device)];
    return name;
}

/// What killed programs left of a file in the making: nobody has a lock on it.
void removeLeftovers(const std::filesystem::path& target) {
    const std::filesystem::path folder = target.has_parent_path() ? target.parent_path() : ".";
    const std::string begin = target.stem().string() + kMark;
    const std::string end = target.extension().string();
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.size() != begin.size() + kRandom + end.size() || !name.starts_with(begin) ||
            !name.ends_with(end))
            continue;
        const int left = open(entry->path().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (left < 0) continue;
        if (flock(left, LOCK_EX | LOCK_NB) == 0) unlink(entry->path().c_str());
        close(left);
    }
}

void forget(std::size_t place) {
    if (place < inTheMaking.size()) std::free(const_cast<char*>(inTheMaking[place].exchange(nullptr)));
}

}  // namespace

OutputFile::OutputFile(std::filesystem::path finalPath)
    : m_final(std::move(finalPath)), m_place(inTheMaking.size()) {
    std::error_code ignored;
    const std::filesystem::path folder = m_final.has_parent_path() ? m_final.parent_path() : ".";
    if (!std::filesystem::is_directory(folder, ignored))
        throw Failure("cannot write " + m_final.string() + ": the folder " + folder.string() +
                      " does not exist; make it first or name another");
    if (std::filesystem::is_directory(m_final, ignored))
        throw Failure("cannot write " + m_final.string() + ": it is a folder; name a file");
    // Devices such as /dev/stdout are written to as they are.
    if (std::filesystem::exists(m_final, ignored) && !std::filesystem::is_regular_file(m_final, ignored)) {
        m_temporary = m_final;
        return;
    }
    removeLeftovers(m_final);
    // Another program may take a file for a leftover before it is locked: once more then.
    do {
        if (m_lock >= 0) close(m_lock);
        m_temporary =
            folder / (m_final.stem().string() + kMark + randomName() + m_final.extension().string());
        m_lock = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (m_lock < 0 && errno != EEXIST)
            throw Failure("cannot write " + m_final.string() + ": " + std::strerror(errno) +
                          "; check the folder's permissions and the free space");
        if (m_lock >= 0) flock(m_lock, LOCK_EX | LOCK_NB);
    } while (m_lock < 0 || !std::filesystem::exists(m_temporary, ignored));
    m_place = announce(m_temporary);
}

void OutputFile::removeAll() noexcept {
    for (const std::atomic<const char*>& name : inTheMaking)
        if (const char* path = name.load()) unlink(path);
}

OutputFile::~OutputFile() {
    std::error_code ignored;
    if (!m_committed && m_temporary != m_final) std::filesystem::remove(m_temporary, ignored);
    if (m_lock >= 0) close(m_lock);
    forget(m_place);
}

void OutputFile::commit() {
    m_committed = true;
    if (m_temporary == m_final) return;
    std::error_code error;
    std::filesystem::rename(m_temporary, m_final, error);
    if (error)
        throw Failure("cannot write " + m_final.string() + ": " + error.message() +
                      "; check the folder's permissions and the free space");
}

void writeText(const std::string& text, const std::filesystem::path& path) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (file) file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    if (!file)
        throw Failure("cannot write " + path.string() + " completely; check the folder and the free space");
}

void makeFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!std::filesystem::is_directory(folder, error))
        throw Failure("cannot make the folder " + folder.string() +
                      "; check that no file has this name and that its parent may be written to");
}

}  // namespace vrk
