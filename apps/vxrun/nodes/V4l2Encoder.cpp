// The encoders of codec/v4l2. The device reads the pictures of the graph in place, and writes access
// units into the buffers of the node's pool.
#include "Text.h"
#include "V4l2Codec.h"
#include "V4l2Queue.h"

#include <vxkit/Decoder.h>
#include <vxkit/Encoder.h>
#include <vxkit/Poller.h>

#include <linux/videodev2.h>

#include <cstring>
#include <initializer_list>
#include <map>
#include <optional>

namespace vxrun {
namespace {

class V4l2Encoder : public Encoder {
public:
    using Encoder::Encoder;
    std::vector<std::string> getPreferredAllocatorTypes() override { return {"dmabuf"}; }

private:
    using Side = V4l2Device::Side;

    void open() override {
        // The type's description is that of both halves.
        for (const ConfigKey* const key :
             std::initializer_list<const ConfigKey*>{&kFormat, &kTolerateErrors}) {
            if (isGiven(*key)) throw Failure("config '" + key->name + "': an encoder has none");
        }
        if (!entries().empty()) {
            throw Failure("entry '" + entries().front().key + "': an encoder has none",
                          Verdict::NotSupported);
        }
        mDevice.emplace(V4l2Device::Search{false, requiredConfig(kV4l2Codec), config(kV4l2Device)});
        mDevice->setControls(config(kV4l2Controls));
        mDevice->subscribe();
        mUnitFormat.code = mDevice->code();
        mPoller.emplace(resumer());
    }

    // ---- Pictures ----

    void encode(const Frame& picture, uint64_t number) override {
        if (!mPictures) openQueues(picture);
        collectPictures();
        auto buffer = bufferOf(picture.info);
        if (buffer != nullptr && !mPictures->isReady(buffer->buffer())) {
            pause("the fence of picture " + std::to_string(number));
            mPoller->watch({mPictures->fencesOf(buffer->buffer())});
            if (buffer->buffer().isFenceValid()) wakeUp(1);  // it has no handle to wait on
            return;
        }
        if (!mPictures->isFull() && mCopies) buffer = copied(picture);
        if (mPictures->isFull() || buffer == nullptr) {
            pause(mDevice->path());
            watch();
            return;
        }
        mTimes[number] = picture.info.timestamp;
        mPictures->queue(std::move(buffer), mStored.size, number);
        if (!mPictures->isOn()) mPictures->stream(true);
    }
    void wake() override { resumer()(); }

    // The pool's buffer of a picture; null for one of another kind of node.
    static std::shared_ptr<PoolBuffer> bufferOf(const vexa::VXFrameInfo& frame) {
        for (const auto& info : frame.mInfos) {
            if (auto buffer = std::dynamic_pointer_cast<PoolBuffer>(info)) return buffer;
        }
        return nullptr;
    }

    void openQueues(const Frame& first) {
        const StreamInfo& stream = first.stream;
        const auto* const origin = infoOf<PoolBuffer>(first.info);
        const auto* const surface =
            origin != nullptr ? dynamic_cast<const vexa::VXGraphicBuffer*>(&origin->buffer())
                              : nullptr;
        V4l2Format wanted;
        mUnitFormat.width = wanted.width = static_cast<uint32_t>(stream.picture.width);
        mUnitFormat.height = wanted.height = static_cast<uint32_t>(stream.picture.height);
        mUnitFormat = mDevice->setFormat(Side::CAPTURE, mUnitFormat);
        const bool isStored =
            surface != nullptr && poolFormatOf(stream.picture.pixels) != kSurfaceFormat;
        V4l2Format own = wanted;
        if (isStored) {
            own.code = v4l2CodeOf(stream.picture.pixels);
            own.width = surface->stride();
            own.height = surface->sliceHeight();
            own.stride =
                surface->stride() * static_cast<uint32_t>(stream.picture.pixels.bytesPerSample());
            own.size = static_cast<uint32_t>(surface->capacity());
            mStored = mDevice->setFormat(Side::OUTPUT, own);
        }
        mCopies = !isStored || mStored.code != own.code || mStored.stride != own.stride ||
                  mStored.height != own.height || mStored.size > own.size;
        if (mCopies) {
            wanted.code = v4l2CodeOf(stream.picture.pixels.planar());
            if (wanted.code != 0) mStored = mDevice->setFormat(Side::OUTPUT, wanted);
            if (wanted.code == 0 || mStored.code != wanted.code) {
                throw Failure(
                    mDevice->path() + ": does not encode " + stream.picture.pixels.planar().name,
                    Verdict::NotSupported);
            }
            mCopyPool = newPool(PictureFormat::block(static_cast<int>(mStored.size)), resumer());
        }
        mDevice->setVisibleSize(wanted.width, wanted.height);
        if (stream.timeBase.num > 0) {
            mDevice->setFrameRate(static_cast<uint32_t>(stream.timeBase.den),
                                  static_cast<uint32_t>(stream.timeBase.num));
        }
        mStream->codec = config(kV4l2Codec);
        mStream->picture = {{}, stream.picture.width, stream.picture.height};
        mStream->timeBase = stream.timeBase;
        mStream->frameRate = {stream.timeBase.den, stream.timeBase.num};
        mStream->sar = stream.sar;
        const auto slots = static_cast<unsigned>(config(kSlots));
        mPictures.emplace(*mDevice, Side::OUTPUT);
        mPictures->request(slots);
        mUnitPool = newPool(
            PictureFormat::block(static_cast<int>(mDevice->format(Side::CAPTURE).size)), resumer());
        mUnits.emplace(*mDevice, Side::CAPTURE);
        mUnits->request(slots);
        refill();
        mUnits->stream(true);
    }

    // The picture in the driver's layout; null when no buffer is free.
    std::shared_ptr<PoolBuffer> copied(const Frame& picture) {
        std::shared_ptr<PoolBuffer> block;
        if (mCopyPool->fetch(&block) != vexa::VX_OK) return nullptr;
        ++block->record().copied;
        copyStored(mStored, picture, block->mapping()->vaddr());
        return block;
    }

    void collectPictures() {
        while (mPictures->dequeue()) continue;
    }

    // ---- Access units ----

    bool next() override {
        if (!mPictures) return false;
        for (;;) {
            collectPictures();
            mDevice->takeSourceChange();
            refill();
            const auto done = mUnits->dequeue();
            if (!done) break;
            mHasLast = mHasLast || done->result.isLast;
            if (done->result.bytes == 0) continue;
            giveUnit(done->result, done->buffer);
            return true;
        }
        if (mIsDraining && !mHasLast) pause(mDevice->path());
        watch();
        return false;
    }

    void giveUnit(const V4l2Device::Buffer& result, const std::shared_ptr<PoolBuffer>& buffer) {
        const auto unit = std::make_shared<UnitInfo>();
        const auto time = mTimes.find(result.timestamp);
        if (time != mTimes.end()) {
            unit->pts = static_cast<int64_t>(time->second);
            mTimes.erase(time);
        }
        unit->dts = unit->pts;
        unit->isKey = result.isKey;
        buffer->buffer().setFilledRange(0, result.bytes);
        vexa::VXFrameInfo frame;
        frame.timestamp = static_cast<uint64_t>(std::max<int64_t>(unit->pts, 0));
        frame.mInfos = {mStream, unit};
        giveFilled(buffer, std::move(frame));
    }

    void refill() {
        std::shared_ptr<PoolBuffer> buffer;
        while (!mUnits->isFull() && mUnitPool->fetch(&buffer) == vexa::VX_OK) {
            mUnits->queue(std::move(buffer), 0, 0);
        }
    }

    void drain() override {
        if (!mPictures) return;
        mIsDraining = true;
        mDevice->startDrain();
    }

    void watch() {
        short events = POLLPRI;
        if (mPictures->isOn() && !mPictures->isEmpty()) events |= POLLOUT;
        if (!mUnits->isEmpty() && !mHasLast) events |= POLLIN;
        mPoller->watch({{events != POLLPRI ? mDevice->file() : -1, events, 0}});
    }

    std::optional<V4l2Device> mDevice;
    V4l2Format mUnitFormat;
    // [event thread]
    V4l2Format mStored;    // of the pictures in the device's buffers
    bool mCopies = false;  // pictures: the driver's layout is not theirs
    std::shared_ptr<Pool> mCopyPool, mUnitPool;
    std::optional<V4l2Queue> mPictures, mUnits;
    std::map<uint64_t, uint64_t> mTimes;  // by number: of the pictures inside
    const std::shared_ptr<BitstreamInfo> mStream = std::make_shared<BitstreamInfo>();
    bool mIsDraining = false;
    bool mHasLast = false;
    // Last, so that it ends first.
    std::optional<Poller> mPoller;
};

}  // namespace

std::unique_ptr<vexa::VXNode> newV4l2Encoder(NodeArguments arguments) {
    return makeNode<V4l2Encoder>(std::move(arguments));
}

}  // namespace vxrun
