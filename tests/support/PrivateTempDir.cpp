// Gives every test process a temporary folder of its own, so that tests may run side by side and still use
// plain file names under testing::TempDir().
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

class PrivateTempDir {
public:
    PrivateTempDir() {
        const char* parent = std::getenv("TEST_TMPDIR");
        std::string path = std::string(parent && *parent ? parent : "/tmp") + "/vrk_test_XXXXXX";
        if (!mkdtemp(path.data())) return;
        m_path = path;
        setenv("TEST_TMPDIR", (path + "/").c_str(), 1);
    }
    ~PrivateTempDir() {
        // A forked child must not take the folder away from its parent.
        if (m_path.empty() || getpid() != m_owner) return;
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    PrivateTempDir(const PrivateTempDir&) = delete;
    PrivateTempDir& operator=(const PrivateTempDir&) = delete;

private:
    std::string m_path;
    pid_t m_owner = getpid();
};

const PrivateTempDir privateTempDir;

}  // namespace
