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

namespace {

constexpr char kTag[] = "BufferAllocator";
constexpr char kHeapDirectory[] = "/dev/dma_heap/";
constexpr char kUdmabuf[] = "/dev/udmabuf";
constexpr char kSourceVariable[] = "VX_DMABUF_SOURCE";

enum class Source { Undecided, Heap, Udmabuf, Memfd, Unknown };

std::atomic<Source> sSource{Source::Undecided};

std::string heapPath(const std::string& name) {
    return kHeapDirectory + name;
}

bool mayOpen(const std::string& path, int mode) {
    return access(path.c_str(), mode) == 0;
}

Source decide(const std::string& heapName) {
    if (const char* forced = std::getenv(kSourceVariable)) {
        if (std::strcmp(forced, "heap") == 0) return Source::Heap;
        if (std::strcmp(forced, "udmabuf") == 0) return Source::Udmabuf;
        if (std::strcmp(forced, "memfd") == 0) return Source::Memfd;
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s=%s: expected heap, udmabuf or memfd",
                            kSourceVariable, forced);
        return Source::Unknown;
    }
    if (mayOpen(heapPath(heapName), R_OK) || mayOpen(heapPath(kDmabufSystemHeapName), R_OK)) {
        return Source::Heap;
    }
    return mayOpen(kUdmabuf, R_OK | W_OK) ? Source::Udmabuf : Source::Memfd;
}

// Two threads may decide at the same time; the first answer counts for both.
Source source(const std::string& heapName) {
    Source known = sSource.load();
    if (known != Source::Undecided) return known;
    const Source decided = decide(heapName);
    return sSource.compare_exchange_strong(known, decided) ? decided : known;
}

// Results of system calls as this file hands them on: not negative, or the negative errno.
template <class Call>
int retried(Call call) {
    int result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result == -1 ? -errno : result;
}

int cpuSync(unsigned int fd, uint64_t flags) {
    dma_buf_sync sync = {flags};
    const int result = retried([&] { return ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync); });
    // Not a DMA-BUF, or an emulator of user programs, which knows none: nothing to do.
    return result == -ENOTTY || result == -ENOSYS ? 0 : result;
}

}  // namespace

void vexa_testing::forgetHeapSource() {
    sSource.store(Source::Undecided);
}

BufferAllocator::BufferAllocator() = default;

BufferAllocator::~BufferAllocator() {
    for (const auto& device : mDevices) close(device.second);
}

int BufferAllocator::Alloc(const std::string& heap_name, size_t len, unsigned int, size_t) {
    const int fd = allocate(heap_name, len);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot allocate %zu bytes from heap %s: %s",
                            len, heap_name.c_str(), std::strerror(-fd));
    }
    return fd;
}

int BufferAllocator::AllocSystem(bool cpu_access, size_t len, unsigned int heap_flags,
                                 size_t legacy_align) {
    const bool uncached = !cpu_access && mayOpen(heapPath(kDmabufSystemUncachedHeapName), R_OK);
    return Alloc(uncached ? kDmabufSystemUncachedHeapName : kDmabufSystemHeapName, len, heap_flags,
                 legacy_align);
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
    if (DIR* directory = opendir(kHeapDirectory)) {
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

int BufferAllocator::allocate(const std::string& heap_name, size_t len) {
    if (const int error = vexa_testing::injectedError(vexa_testing::Call::HeapAlloc)) return -error;
    if (len == 0) return -EINVAL;
    if (len >= UINT32_MAX) return -EOVERFLOW;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t rounded = (len + page - 1) / page * page;
    switch (source(heap_name)) {
        case Source::Heap:
            return allocateFromHeap(heap_name, rounded);
        case Source::Udmabuf:
            return allocateFromMemfd(heap_name, rounded, true);
        case Source::Memfd:
            return allocateFromMemfd(heap_name, rounded, false);
        default:
            return -EINVAL;
    }
}

int BufferAllocator::allocateFromHeap(const std::string& heap_name, size_t len) {
    int device = openDevice(heapPath(heap_name), O_RDONLY);
    if (device == -ENOENT) device = openDevice(heapPath(kDmabufSystemHeapName), O_RDONLY);
    if (device < 0) return device;
    dma_heap_allocation_data data = {len, 0, O_RDWR | O_CLOEXEC, 0};
    const int result = retried([&] { return ioctl(device, DMA_HEAP_IOCTL_ALLOC, &data); });
    return result < 0 ? result : static_cast<int>(data.fd);
}

// A sealed memfd behaves like a DMA-BUF in what matters here: its size is fixed.
int BufferAllocator::allocateFromMemfd(const std::string& heap_name, size_t len, bool as_dmabuf) {
    const int memory =
        retried([&] { return memfd_create(heap_name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING); });
    if (memory < 0) return memory;
    int result = retried([&] { return ftruncate(memory, static_cast<off_t>(len)); });
    if (result == 0) {
        result = retried([&] { return fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW); });
    }
    if (result == 0 && !as_dmabuf) return memory;
    if (result == 0) {
        result = openDevice(kUdmabuf, O_RDWR);
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
int BufferAllocator::openDevice(const std::string& path, int flags) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto known = mDevices.find(path);
    if (known != mDevices.end()) return known->second;
    const int device = retried([&] { return open(path.c_str(), flags | O_CLOEXEC); });
    if (device >= 0) mDevices.emplace(path, device);
    return device;
}
