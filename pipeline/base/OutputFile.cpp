#include "pipeline/base/OutputFile.h"

#include <fstream>
#include <system_error>
#include <utility>

#include "pipeline/base/Failure.h"

namespace vrk {

OutputFile::OutputFile(std::filesystem::path finalPath) : m_final(std::move(finalPath)) {
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
}

OutputFile::~OutputFile() {
    std::error_code ignored;
    if (!m_committed && m_temporary != m_final) std::filesystem::remove(m_temporary, ignored);
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
