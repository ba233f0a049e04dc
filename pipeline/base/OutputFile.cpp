#include "pipeline/base/OutputFile.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
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
    m_temporary = m_final;
    m_temporary.replace_extension(".part" + m_final.extension().string());
    // Devices such as /dev/stdout are written to as they are.
    if (std::filesystem::exists(m_final, ignored) && !std::filesystem::is_regular_file(m_final, ignored))
        m_temporary = m_final;
    else
        m_place = announce(m_temporary);
}

void OutputFile::removeAll() noexcept {
    for (const std::atomic<const char*>& name : inTheMaking)
        if (const char* path = name.load()) unlink(path);
}

OutputFile::~OutputFile() {
    std::error_code ignored;
    if (!m_committed && m_temporary != m_final) std::filesystem::remove(m_temporary, ignored);
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
