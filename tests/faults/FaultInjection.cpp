// Loaded before a program (LD_PRELOAD): lets calls of the system fail. What fails is in the environment:
//   VRK_FAULT_MALLOC=N  the N-th allocation returns none
//   VRK_FAULT_WRITE=N   writing to files fails from the N-th time on: no space left
//   VRK_FAULT_READ=N    the N-th reading from a file fails: input/output error
//   VRK_FAULT_SHORT=1   reading and writing stop before the end, each time elsewhere, or are interrupted
//   VRK_FAULT_CLOCK=1   the time of day jumps to and fro by hours
//   VRK_FAULT_STOP=N    the program stops (SIGSTOP) at the N-th allocation
//   VRK_FAULT_COUNT=F   into the file F at the end: how many allocations, writes and reads there were
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
}

namespace {

std::atomic<long> allocations{0}, writes{0}, reads{0}, calls{0};
long failingAllocation = 0, stoppingAllocation = 0, failingWrite = 0, failingRead = 0;
bool isShort = false, jumps = false;
const char* countFile = nullptr;
std::atomic<bool> ready{false};

long number(const char* name) {
    const char* text = std::getenv(name);
    return text ? std::atol(text) : 0;
}

struct Settings {
    Settings() {
        failingAllocation = number("VRK_FAULT_MALLOC");
        stoppingAllocation = number("VRK_FAULT_STOP");
        failingWrite = number("VRK_FAULT_WRITE");
        failingRead = number("VRK_FAULT_READ");
        isShort = number("VRK_FAULT_SHORT") != 0;
        jumps = number("VRK_FAULT_CLOCK") != 0;
        countFile = std::getenv("VRK_FAULT_COUNT");
        // Programs that it starts are left in peace.
        unsetenv("LD_PRELOAD");
        ready = true;
    }
    ~Settings() {
        ready = false;
        if (!countFile) return;
        if (std::FILE* file = std::fopen(countFile, "w")) {
            std::fprintf(file, "%ld %ld %ld\n", allocations.load(), writes.load(), reads.load());
            std::fclose(file);
        }
    }
} settings;

bool allocationFails() {
    if (!ready) return false;
    const long allocation = ++allocations;
    if (allocation == stoppingAllocation) raise(SIGSTOP);
    return allocation == failingAllocation;
}

bool isFile(int descriptor) {
    struct stat state = {};
    return fstat(descriptor, &state) == 0 && S_ISREG(state.st_mode);
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

/// How much of it goes through; nothing where the call is interrupted.
std::size_t part(std::size_t count) {
    if (!isShort || count < 2) return count;
    const long call = ++calls;
    if (call % 5 == 0) return 0;
    return 1 + (count - 1) / static_cast<std::size_t>(1 + call % 3);
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    if (allocationFails()) return errno = ENOMEM, nullptr;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    if (allocationFails()) return errno = ENOMEM, nullptr;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
    if (allocationFails()) return errno = ENOMEM, nullptr;
    return __libc_realloc(memory, size);
}

ssize_t write(int descriptor, const void* data, std::size_t count) {
    static const auto real = next<ssize_t (*)(int, const void*, std::size_t)>("write");
    if (!ready || !isFile(descriptor)) return real(descriptor, data, count);
    if (++writes >= failingWrite && failingWrite > 0) return errno = ENOSPC, -1;
    const std::size_t some = part(count);
    if (some == 0 && count > 0) return errno = EINTR, -1;
    return real(descriptor, data, some);
}

ssize_t writev(int descriptor, const iovec* pieces, int count) {
    static const auto real = next<ssize_t (*)(int, const iovec*, int)>("writev");
    if (!ready || !isFile(descriptor)) return real(descriptor, pieces, count);
    if (++writes >= failingWrite && failingWrite > 0) return errno = ENOSPC, -1;
    if (isShort && count > 0 && pieces[0].iov_len > 0)
        return write(descriptor, pieces[0].iov_base, pieces[0].iov_len);
    return real(descriptor, pieces, count);
}

ssize_t read(int descriptor, void* data, std::size_t count) {
    static const auto real = next<ssize_t (*)(int, void*, std::size_t)>("read");
    if (!ready || !isFile(descriptor)) return real(descriptor, data, count);
    if (++reads == failingRead) return errno = EIO, -1;
    const std::size_t some = part(count);
    if (some == 0 && count > 0) return errno = EINTR, -1;
    return real(descriptor, data, some);
}

int clock_gettime(clockid_t clock, timespec* result) {
    static const auto real = next<int (*)(clockid_t, timespec*)>("clock_gettime");
    const int answer = real(clock, result);
    if (ready && jumps && clock == CLOCK_REALTIME) result->tv_sec += (++calls % 3 - 1) * 3600 * 7;
    return answer;
}
}
