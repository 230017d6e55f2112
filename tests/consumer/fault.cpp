// A user's test: how a program meets an allocation that fails.
#include <VXBuffer.h>
#include <vexa_testing/Faults.h>

#include <cerrno>

int main() {
    const auto pool = vexa::VXLinearBufferPool::Create("dmabuf", vexa::DEFAULT);
    pool->setSize(16);
    std::shared_ptr<vexa::VXBuffer> buffer;
    vexa_testing::failCall(vexa_testing::Call::HeapAlloc, 1, ENOMEM);
    if (pool->fetch(&buffer) != vexa::VX_NO_MEMORY) return 1;
    return pool->fetch(&buffer) == vexa::VX_OK ? 0 : 1;
}
