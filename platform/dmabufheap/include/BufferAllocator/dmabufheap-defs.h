// Names shared by the users of <BufferAllocator/BufferAllocator.h>.
#pragma once

// What the processor is about to do with a buffer, or has done. The numbers are DMA_BUF_SYNC_READ
// and DMA_BUF_SYNC_WRITE of <linux/dma-buf.h>.
typedef enum { kSyncRead = 1, kSyncWrite = 2, kSyncReadWrite = 3 } SyncType;

static const char kDmabufSystemHeapName[] = "system";
static const char kDmabufSystemUncachedHeapName[] = "system-uncached";
