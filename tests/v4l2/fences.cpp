// A node library: test/fences sends pictures on before they are finished, with a real fence of the
// kernel on their memory. It comes from the device of the module vgem.
#include <vxkit/Node.h>
#include <vxkit/Text.h>

#include <drm.h>
#include <drm_mode.h>
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <deque>

namespace {

using namespace vxkit;

// Of the kernel's drm/vgem_drm.h, which Debian does not install.
struct drm_vgem_fence_attach {
    uint32_t handle, flags, out_fence, pad;
};
struct drm_vgem_fence_signal {
    uint32_t fence, flags;
};
constexpr uint32_t kWrites = 1;
constexpr unsigned long kAttach = DRM_IOWR(DRM_COMMAND_BASE + 1, drm_vgem_fence_attach);
constexpr unsigned long kSignal = DRM_IOW(DRM_COMMAND_BASE + 2, drm_vgem_fence_signal);

class FencesNode : public Node {
public:
    using Node::Node;
    ~FencesNode() override { close(mDevice); }

private:
    struct Pending {
        std::shared_ptr<vexa::VXSharedWork> work;
        drm_vgem_fence_signal fence;
    };

    void open() override { mDevice = ::open("/dev/dri/card0", O_RDWR | O_CLOEXEC); }

    void process(const SharedWorks& inputs) override {
        for (const auto& input : inputs) {
            mPending.push_back({input, {addFence(bufferOf(*input).buffer().fd()), 0}});
            complement(*input);
            send(shareOf(*input));
            wakeUp(30);
        }
    }

    // The oldest picture is finished.
    void wake() override {
        complement(*mPending.front().work);
        call(mDevice, kSignal, &mPending.front().fence);
        mPending.pop_front();
    }

    static const PoolBuffer& bufferOf(const vexa::VXSharedWork& work) {
        return *infoOf<PoolBuffer>(work.frameInfo());
    }

    static void complement(const vexa::VXSharedWork& work) {
        auto* const bytes = bufferOf(work).mapping()->vaddr();
        for (size_t i = 0; i < bufferOf(work).buffer().size(); ++i) bytes[i] = ~bytes[i];
    }

    // Adds a writer's fence to the memory `file`; its number in vgem.
    uint32_t addFence(int file) const {
        drm_mode_create_dumb other = {16, 16, 32, 0, 0, 0, 0};
        call(mDevice, DRM_IOCTL_MODE_CREATE_DUMB, &other);
        drm_vgem_fence_attach fence = {other.handle, kWrites, 0, 0};
        call(mDevice, kAttach, &fence);
        drm_prime_handle prime = {other.handle, DRM_CLOEXEC, -1};
        call(mDevice, DRM_IOCTL_PRIME_HANDLE_TO_FD, &prime);
        dma_buf_export_sync_file exported = {DMA_BUF_SYNC_READ, -1};
        call(prime.fd, DMA_BUF_IOCTL_EXPORT_SYNC_FILE, &exported);
        dma_buf_import_sync_file imported = {DMA_BUF_SYNC_WRITE, exported.fd};
        call(file, DMA_BUF_IOCTL_IMPORT_SYNC_FILE, &imported);
        close(exported.fd);
        close(prime.fd);
        return fence.out_fence;
    }

    static void call(int file, unsigned long request, void* argument) {
        if (ioctl(file, request, argument) != 0) throw Failure("a fence: " + errnoText(errno));
    }

    int mDevice = -1;
    std::deque<Pending> mPending;
};

const Registered<FencesNode> kType("test/fences", "sends unfinished pictures with fences", 1, 1);

}  // namespace
