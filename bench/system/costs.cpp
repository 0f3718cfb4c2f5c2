// What a process costs: the scheduler's and the kernel's own accounts under
// /proc, perf counters for instructions, and the counting allocator's file.

#include <dirent.h>
#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "bench.h"

namespace bench {

namespace {

std::vector<std::string> threads(pid_t pid) {
    std::vector<std::string> tids;
    if (DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str())) {
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] != '.') {
                tids.emplace_back(e->d_name);
            }
        }
        closedir(dir);
    }
    return tids;
}

std::uint64_t field(const std::string& path, const std::string& name) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, name.size(), name) == 0) {
            return std::strtoull(line.c_str() + name.size(), nullptr, 10);
        }
    }
    return 0;
}

}  // namespace

std::uint64_t cpu_ns(pid_t pid) {
    std::uint64_t total = 0;
    for (const auto& tid : threads(pid)) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + tid + "/schedstat");
        std::uint64_t ns = 0;
        if (in >> ns) {
            total += ns;
        }
    }
    return total;
}

std::uint64_t wakeups(pid_t pid) {
    std::uint64_t total = 0;
    for (const auto& tid : threads(pid)) {
        // run time, wait time, number of times the thread was put on a CPU
        std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + tid + "/schedstat");
        std::uint64_t run = 0;
        std::uint64_t wait = 0;
        std::uint64_t slices = 0;
        if (in >> run >> wait >> slices) {
            total += slices;
        }
    }
    return total;
}

std::uint64_t self_cpu_ns() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    auto ns = [](const timeval& tv) {
        return static_cast<std::uint64_t>(tv.tv_sec) * 1000000000ULL +
               static_cast<std::uint64_t>(tv.tv_usec) * 1000ULL;
    };
    return ns(ru.ru_utime) + ns(ru.ru_stime);
}

std::size_t vm_rss_bytes(pid_t pid) {
    return field("/proc/" + std::to_string(pid) + "/status", "VmRSS:") * 1024;
}

std::vector<std::string> alloc_env(const std::string& path) {
#ifdef BENCH_ALLOC_COUNTER
    std::ofstream(path, std::ios::binary) << std::string(2 * sizeof(std::uint64_t), '\0');
    return {"LD_PRELOAD=" BENCH_ALLOC_COUNTER, "BENCH_ALLOC_COUNTS=" + path};
#else
    (void)path;
    return {};
#endif
}

Costs& Costs::operator+=(const Costs& more) {
    cpu_ns += more.cpu_ns;
    reads += more.reads;
    writes += more.writes;
    max_reads += more.max_reads;
    instructions += more.instructions;
    news += more.news;
    mallocs += more.mallocs;
    return *this;
}

Costs Costs::operator-(const Costs& before) const {
    return {cpu_ns - before.cpu_ns,
            reads - before.reads,
            writes - before.writes,
            max_reads - before.max_reads,
            instructions - before.instructions,
            news - before.news,
            mallocs - before.mallocs};
}

CostMeter::CostMeter(pid_t pid, const std::string& alloc_counts) : m_pid(pid) {
    for (const auto& tid : threads(pid)) {
        perf_event_attr attr{};
        attr.type = PERF_TYPE_HARDWARE;
        attr.size = sizeof attr;
        attr.config = PERF_COUNT_HW_INSTRUCTIONS;
        attr.exclude_kernel = 1;
        attr.exclude_hv = 1;
        const long fd = syscall(SYS_perf_event_open, &attr, std::atoi(tid.c_str()), -1, -1,
                                PERF_FLAG_FD_CLOEXEC);
        if (fd < 0) {  // none in this container or on this CPU: no counts at all
            for (int open_fd : m_counters) {
                close(open_fd);
            }
            m_counters.clear();
            break;
        }
        m_counters.push_back(static_cast<int>(fd));
    }
    const int fd = alloc_counts.empty() ? -1 : open(alloc_counts.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        void* map = mmap(nullptr, 2 * sizeof(std::uint64_t), PROT_READ, MAP_SHARED, fd, 0);
        if (map != MAP_FAILED) {
            m_alloc = static_cast<const std::atomic<std::uint64_t>*>(map);
        }
        close(fd);
    }
}

CostMeter::~CostMeter() {
    for (int fd : m_counters) {
        close(fd);
    }
    if (m_alloc != nullptr) {
        munmap(const_cast<std::atomic<std::uint64_t>*>(m_alloc), 2 * sizeof(std::uint64_t));
    }
}

Costs CostMeter::now() const {
    Costs c;
    c.cpu_ns = cpu_ns(m_pid);
    const std::string base = "/proc/" + std::to_string(m_pid);
    c.reads = field(base + "/io", "syscr:");
    c.writes = field(base + "/io", "syscw:");
    for (const auto& tid : threads(m_pid)) {
        c.max_reads = std::max(c.max_reads, field(base + "/task/" + tid + "/io", "syscr:"));
    }
    for (int fd : m_counters) {
        std::uint64_t n = 0;
        if (read(fd, &n, sizeof n) == static_cast<ssize_t>(sizeof n)) {
            c.instructions += n;
        }
    }
    if (m_alloc != nullptr) {
        c.news = m_alloc[0].load(std::memory_order_relaxed);
        c.mallocs = m_alloc[1].load(std::memory_order_relaxed);
    }
    return c;
}

}  // namespace bench
