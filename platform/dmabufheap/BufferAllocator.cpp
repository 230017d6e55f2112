#include <BufferAllocator/BufferAllocator.h>
#include <android/log.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vexa_testing/Faults.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace {

constexpr char kTag[] = "BufferAllocator";
constexpr char kSourceVariable[] = "VX_DMABUF_SOURCE";
constexpr int kHeapMode = O_RDONLY | O_CLOEXEC;
constexpr int kUdmabufMode = O_RDWR | O_CLOEXEC;

// Results of system calls as this file hands them on: not negative, or the negative errno.
template <class Call>
int retried(Call call) {
    int result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result == -1 ? -errno : result;
}

// ---- Sources ------------------------------------------------------------------------------------

enum class Kind { Heap, Udmabuf, Memfd, Unknown };

// Where the memory of a heap comes from.
struct Source {
    Kind kind;
    const char* word;    // as the environment variable and the log have it
    std::string device;  // empty: none
};

struct Sources {
    std::string devices = "/dev";  // another folder for tests, while nothing else runs
    std::mutex lock;               // held while the source of a heap is being decided
    std::unordered_map<std::string, Source> decided;  // guarded by lock; by the name of the heap
};

// Never destroyed: memory may be asked for while the process ends.
Sources& sources() {
    static Sources* sSources = new Sources;
    return *sSources;
}

std::string heapsDirectory() {
    return sources().devices + "/dma_heap/";
}

int openDevice(const std::string& path, int mode) {
    return retried([&] { return open(path.c_str(), mode); });
}

bool isThere(const Source& source) {
    if (source.device.empty()) return true;
    const int device =
        openDevice(source.device, source.kind == Kind::Heap ? kHeapMode : kUdmabufMode);
    if (device >= 0) close(device);
    return device >= 0;
}

// The first source that is there and not ruled out by the environment; when none is, the last that
// is not ruled out, whose absence the allocation then reports.
Source decide(const std::string& heap) {
    const Source candidates[] = {
        {Kind::Heap, "heap", heapsDirectory() + heap},
        {Kind::Heap, "heap", heapsDirectory() + kDmabufSystemHeapName},
        {Kind::Udmabuf, "udmabuf", sources().devices + "/udmabuf"},
        {Kind::Memfd, "memfd", ""},
    };
    const char* forced = std::getenv(kSourceVariable);
    Source chosen = {Kind::Unknown, forced, ""};
    for (const Source& candidate : candidates) {
        if (forced != nullptr && std::strcmp(forced, candidate.word) != 0) continue;
        chosen = candidate;
        if (isThere(candidate)) break;
    }
    return chosen;
}

int cpuSync(unsigned int fd, uint64_t flags) {
    dma_buf_sync sync = {flags};
    const int result = retried([&] { return ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync); });
    // Not a DMA-BUF, or an emulator of user programs, which knows none: nothing to do.
    return result == -ENOTTY || result == -ENOSYS ? 0 : result;
}

}  // namespace

void vexa_testing::forgetSources(const std::string& devices) {
    std::lock_guard<std::mutex> lock(sources().lock);
    sources().devices = devices;
    sources().decided.clear();
}

BufferAllocator::BufferAllocator() = default;

BufferAllocator::~BufferAllocator() {
    for (const auto& device : mDevices) close(device.second);
}

int BufferAllocator::Alloc(const std::string& heap_name, size_t len, unsigned int, size_t) {
    const char* source = nullptr;  // the one that was tried
    const int fd = allocate(heap_name, len, &source);
    if (fd < 0 && source == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot allocate %zu bytes from heap %s: %s",
                            len, heap_name.c_str(), std::strerror(-fd));
    } else if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "cannot allocate %zu bytes from heap %s: %s; source: %s "
                            "(%s=heap, udmabuf or memfd chooses one)",
                            len, heap_name.c_str(), std::strerror(-fd), source, kSourceVariable);
    }
    return fd;
}

int BufferAllocator::AllocSystem(bool cpu_access, size_t len, unsigned int heap_flags,
                                 size_t legacy_align) {
    return Alloc(cpu_access ? kDmabufSystemHeapName : kDmabufSystemUncachedHeapName, len,
                 heap_flags, legacy_align);
}

int BufferAllocator::CpuSyncStart(unsigned int dmabuf_fd, SyncType sync_type) {
    return cpuSync(dmabuf_fd, DMA_BUF_SYNC_START | sync_type);
}

int BufferAllocator::CpuSyncEnd(unsigned int dmabuf_fd, SyncType sync_type) {
    return cpuSync(dmabuf_fd, DMA_BUF_SYNC_END | sync_type);
}

int BufferAllocator::MapNameToIonHeap(const std::string&, const std::string&, unsigned int,
                                      unsigned int, unsigned int) {
    return 0;
}

std::unordered_set<std::string> BufferAllocator::GetDmabufHeapList() {
    std::unordered_set<std::string> names;
    if (DIR* directory = opendir(heapsDirectory().c_str())) {
        while (const dirent* entry = readdir(directory)) {
            if (entry->d_name[0] != '.') names.insert(entry->d_name);
        }
        closedir(directory);
    }
    return names;
}

int BufferAllocator::DmabufSetName(unsigned int dmabuf_fd, const std::string& name) {
    const std::string cut = name.substr(0, DMA_BUF_NAME_LEN - 1);
    return retried([&] { return ioctl(dmabuf_fd, DMA_BUF_SET_NAME_B, cut.c_str()); });
}

int BufferAllocator::allocate(const std::string& heap_name, size_t len, const char** source) {
    if (const int error = vexa_testing::injectedError(vexa_testing::Call::HeapAlloc)) return -error;
    if (len == 0) return -EINVAL;
    if (len >= UINT32_MAX) return -EOVERFLOW;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t rounded = (len + page - 1) / page * page;
    const auto allocateFrom = [&](const Source& asked) {
        *source = asked.word;
        switch (asked.kind) {
            case Kind::Heap:
                return allocateFromHeap(asked.device, rounded);
            case Kind::Udmabuf:
            case Kind::Memfd:
                return allocateFromMemfd(heap_name, asked.device, rounded);
            default:
                return -EINVAL;
        }
    };
    std::unique_lock<std::mutex> lock(sources().lock);
    auto& decided = sources().decided;
    const auto known = decided.find(heap_name);
    if (known != decided.end()) {
        lock.unlock();
        return allocateFrom(known->second);
    }
    // A failure decides nothing: it may only be a lack of descriptors that kept a device closed.
    const Source chosen = decide(heap_name);
    const int fd = allocateFrom(chosen);
    if (fd >= 0) decided.emplace(heap_name, chosen);
    return fd;
}

int BufferAllocator::allocateFromHeap(const std::string& heap, size_t len) {
    const int device = deviceOf(heap, kHeapMode);
    if (device < 0) return device;
    dma_heap_allocation_data data = {len, 0, O_RDWR | O_CLOEXEC, 0};
    const int result = retried([&] { return ioctl(device, DMA_HEAP_IOCTL_ALLOC, &data); });
    return result < 0 ? result : static_cast<int>(data.fd);
}

// A sealed memfd behaves like a DMA-BUF in what matters here: its size is fixed. Without a
// `udmabuf` it is handed out as it is.
int BufferAllocator::allocateFromMemfd(const std::string& name, const std::string& udmabuf,
                                       size_t len) {
    const int memory =
        retried([&] { return memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING); });
    if (memory < 0) return memory;
    int result = retried([&] { return ftruncate(memory, static_cast<off_t>(len)); });
    if (result == 0) {
        result = retried([&] { return fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW); });
    }
    if (result == 0 && udmabuf.empty()) return memory;
    if (result == 0) {
        result = deviceOf(udmabuf, kUdmabufMode);
    }
    if (result >= 0) {
        const int device = result;
        udmabuf_create data = {static_cast<uint32_t>(memory), UDMABUF_FLAGS_CLOEXEC, 0, len};
        result = retried([&] { return ioctl(device, UDMABUF_CREATE, &data); });
    }
    close(memory);
    return result;
}

// The descriptor of the device `path`, opened at its first use, or the negative errno.
int BufferAllocator::deviceOf(const std::string& path, int mode) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto known = mDevices.find(path);
    if (known != mDevices.end()) return known->second;
    const int device = openDevice(path, mode);
    if (device >= 0) mDevices.emplace(path, device);
    return device;
}
