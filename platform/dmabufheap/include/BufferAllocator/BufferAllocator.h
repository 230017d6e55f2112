// BufferAllocator: memory as file descriptors, from the DMA-BUF heaps where the kernel has them.
#pragma once

#include <BufferAllocator/dmabufheap-defs.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

#pragma GCC visibility push(default)

// BufferAllocator: hands out shared memory. Every result is a descriptor of whole pages,
// zero-filled, that can be mapped, duplicated and passed to other processes.
//
// Where the memory of a heap comes from is decided once per process, at the first allocation from
// it that succeeds, so that the inode numbers that identify its buffers all belong to one file
// system. It is the first of these that can be opened or created; why an earlier one cannot does
// not matter:
//
//   heap     /dev/dma_heap/<heap name>, else /dev/dma_heap/system
//   udmabuf  a sealed memfd made a DMA-BUF by /dev/udmabuf
//   memfd    a sealed memfd as it is
//
// Heaps may thus have different sources: one that exists is used beside another that does not. The
// environment variable VX_DMABUF_SOURCE, set to one of the three words, forces one: where it is
// missing, or the word is another, every allocation fails.
//
// Life     made and destroyed at any time; what it handed out may outlive it.
// Threads  all operations: any.
// Owns     the heap devices that it opened, until it is destroyed; never the descriptors that it
//          handed out.
class BufferAllocator {
public:
    BufferAllocator();
    ~BufferAllocator();

    BufferAllocator(const BufferAllocator&) = delete;
    BufferAllocator& operator=(const BufferAllocator&) = delete;

    // A new buffer of `len` bytes, rounded up to whole pages, as a descriptor that the caller
    // closes; negative on failure, after one message to the log that names heap, length and reason,
    // and the source when it was the one that failed: udmabuf, for one, has a limit of 64 MiB.
    // Flags and alignment belong to older kernels and are ignored. Refused: length 0, as the
    // kernel does, and UINT32_MAX or more: UINT32_MAX is what a size that did not fit became on its
    // way here.
    int Alloc(const std::string& heap_name, size_t len, unsigned int heap_flags = 0,
              size_t legacy_align = 0);

    // Alloc from heap "system"; from "system-uncached", which falls back like every heap, when the
    // processor will not touch the buffer.
    int AllocSystem(bool cpu_access, size_t len, unsigned int heap_flags = 0,
                    size_t legacy_align = 0);

    // Brackets around accesses by the processor. 0, or negative; 0 for a plain memfd, which is
    // always coherent.
    int CpuSyncStart(unsigned int dmabuf_fd, SyncType sync_type = kSyncRead);
    int CpuSyncEnd(unsigned int dmabuf_fd, SyncType sync_type = kSyncRead);

    // For kernels without DMA-BUF heaps; nothing to map here: 0.
    int MapNameToIonHeap(const std::string& heap_name, const std::string& ion_heap_name,
                         unsigned int ion_heap_flags = 0, unsigned int legacy_mask = 0,
                         unsigned int legacy_flags = 0);

    // The names under /dev/dma_heap; empty where the kernel has none.
    static std::unordered_set<std::string> GetDmabufHeapList();

    // Labels a buffer for the kernel's statistics, cut to 31 characters. 0, or negative (a memfd
    // has no label).
    static int DmabufSetName(unsigned int dmabuf_fd, const std::string& name);

private:
    int allocate(const std::string& heap_name, size_t len, const char** source);
    int allocateFromHeap(const std::string& heap, size_t len);
    int allocateFromMemfd(const std::string& name, const std::string& udmabuf, size_t len);
    int deviceOf(const std::string& path, int mode);

    std::mutex mLock;                               // guards mDevices
    std::unordered_map<std::string, int> mDevices;  // path -> open descriptor
};

#pragma GCC visibility pop
