/// \file
/// Counts the memory that a program takes with new. To be included by the one source of a benchmark.
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace counted_memory {

inline std::atomic<std::size_t> g_used{0};
inline std::atomic<std::size_t> g_peak{0};

inline void* counted(void* block) {
    if (!block) throw std::bad_alloc();
    const std::size_t used = g_used += malloc_usable_size(block);
    if (used > g_peak) g_peak = used;
    return block;
}

inline void uncounted(void* block) {
    if (block) g_used -= malloc_usable_size(block);
    std::free(block);
}

/// The most that was in use at a time since this object was made, in bytes, beyond what was in use then.
class Peak {
public:
    Peak() : m_before(g_used) { g_peak = m_before; }
    std::size_t bytes() const { return g_peak - m_before; }

private:
    std::size_t m_before;
};

}  // namespace counted_memory

void* operator new(std::size_t size) {
    return counted_memory::counted(std::malloc(size > 0 ? size : 1));
}
void* operator new[](std::size_t size) {
    return counted_memory::counted(std::malloc(size > 0 ? size : 1));
}
void operator delete(void* block) noexcept {
    counted_memory::uncounted(block);
}
void operator delete[](void* block) noexcept {
    counted_memory::uncounted(block);
}
void operator delete(void* block, std::size_t) noexcept {
    counted_memory::uncounted(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    counted_memory::uncounted(block);
}
