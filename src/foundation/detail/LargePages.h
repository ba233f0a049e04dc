/// \file
/// Large memory pages for data that is written from one end to the other, small ones for what is not.
#pragma once

#include <cstddef>

#ifdef __linux__
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#endif

namespace VRK::detail {

#ifdef __linux__
/// Tells the system how memory will be used, from the page on that it begins in. Nothing depends on whether
/// the system does anything about it.
inline void advise(void* memory, std::size_t bytes, int advice) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::size_t intoPage = reinterpret_cast<std::uintptr_t>(memory) % page;
    madvise(static_cast<char*>(memory) - intoPage, bytes + intoPage, advice);
}
#endif

/// Asks the system to back fresh memory with large pages. Touching hundreds of megabytes for the first time
/// in pages of 4 KiB takes longer than computing what is stored there. Neighbouring blocks share large pages
/// when all of them ask.
inline void preferLargePages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) {
#ifdef MADV_HUGEPAGE
    advise(memory, bytes, MADV_HUGEPAGE);
#endif
}

/// Takes that back for memory of which a good part is never written: in small pages that part takes no memory
/// and no time.
inline void preferSmallPages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) {
#ifdef MADV_NOHUGEPAGE
    advise(memory, bytes, MADV_NOHUGEPAGE);
#endif
}

}  // namespace VRK::detail
