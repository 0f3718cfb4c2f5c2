// Preloaded into ipcd by the system benchmark (LD_PRELOAD): counts heap
// allocations into a file the benchmark maps while ipcd runs,
// BENCH_ALLOC_COUNTS=path (two 64-bit counters: operator new, then every
// malloc, calloc and realloc). operator new is ipcd's own C++ code and the
// C++ libraries it calls (protobuf); libmosquitto, being C, only mallocs.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
}

namespace {

std::atomic<std::uint64_t>* g_counts = nullptr;

__attribute__((constructor)) void attach() {
    const char* path = std::getenv("BENCH_ALLOC_COUNTS");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void* map = mmap(nullptr, 2 * sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map != MAP_FAILED) {
        g_counts = static_cast<std::atomic<std::uint64_t>*>(map);
    }
}

void count(int which) {
    if (g_counts != nullptr) {
        g_counts[which].fetch_add(1, std::memory_order_relaxed);
    }
}

void* counted_new(std::size_t size) {
    count(0);
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
    count(1);
    return __libc_malloc(size);
}
void* calloc(std::size_t n, std::size_t size) {
    count(1);
    return __libc_calloc(n, size);
}
void* realloc(void* old, std::size_t size) {
    count(1);
    return __libc_realloc(old, size);
}
}

void* operator new(std::size_t size) {
    return counted_new(size);
}
void* operator new[](std::size_t size) {
    return counted_new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    count(0);
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    count(0);
    return std::malloc(size == 0 ? 1 : size);
}
