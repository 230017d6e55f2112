#include "V4l2Device.h"

#include "Text.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace vxrun {
namespace {

// Once more after a signal: 0, or an errno number.
int tryCall(int file, unsigned long request, void* argument) {
    int result;
    do {
        result = ioctl(file, request, argument);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

const std::pair<const char*, uint32_t> kCodecs[] = {
    {"fwht", V4L2_PIX_FMT_FWHT},   {"h264", V4L2_PIX_FMT_H264}, {"hevc", V4L2_PIX_FMT_HEVC},
    {"vp8", V4L2_PIX_FMT_VP8},     {"vp9", V4L2_PIX_FMT_VP9},   {"mpeg2video", V4L2_PIX_FMT_MPEG2},
    {"mpeg4", V4L2_PIX_FMT_MPEG4}, {"h263", V4L2_PIX_FMT_H263}, {"vc1", V4L2_PIX_FMT_VC1_ANNEX_G},
    {"mjpeg", V4L2_PIX_FMT_MJPEG}};

const std::pair<uint32_t, const char*> kLayouts[] = {
    {V4L2_PIX_FMT_NV12, "nv12"},      {V4L2_PIX_FMT_P010, "p010le"},
    {V4L2_PIX_FMT_NV21, "nv21"},      {V4L2_PIX_FMT_NV16, "nv16"},
    {V4L2_PIX_FMT_YUV420, "yuv420p"}, {V4L2_PIX_FMT_YUV422P, "yuv422p"},
    {V4L2_PIX_FMT_GREY, "gray"}};

}  // namespace

static uint32_t codeOf(const std::string& codec) {
    for (const auto& [name, code] : kCodecs) {
        if (codec == name) return code;
    }
    throw Failure("V4L2 has no codec " + quote(codec), Verdict::NotSupported);
}

std::optional<PixelFormat> pixelsOfV4l2(uint32_t code) {
    for (const auto& [known, name] : kLayouts) {
        if (code == known) return findPixelFormat(name);
    }
    return std::nullopt;
}

uint32_t v4l2CodeOf(const PixelFormat& pixels) {
    for (const auto& [code, name] : kLayouts) {
        if (pixels.name == name) return code;
    }
    return 0;
}

// Calls visit(offset, plane, row) for each row of a picture: where it is in the driver's buffer.
template <typename Visitor>
static void forEachStoredRow(const V4l2Format& stored, const PictureFormat& format, Visitor visit) {
    size_t start = 0;
    for (int p = 0; p < format.pixels.planes; ++p) {
        const bool isChroma = p > 0;
        const int shiftX = isChroma && format.pixels.planes == 3 ? format.pixels.chromaShiftX : 0;
        const int shiftY = isChroma ? format.pixels.chromaShiftY : 0;
        const size_t stride = stored.stride >> shiftX;
        for (int y = 0; y < format.rows(p); ++y) {
            visit(start + stride * static_cast<size_t>(y), p, y);
        }
        start += stride * (stored.height >> shiftY);
    }
}

void copyStored(const V4l2Format& stored, const uint8_t* from, const FrameView& to) {
    forEachStoredRow(stored, to.format(), [&](size_t offset, int plane, int y) {
        std::memcpy(to.row(plane, y), from + offset, to.format().rowBytes(plane));
    });
}

void copyStored(const V4l2Format& stored, const FrameView& from, uint8_t* to) {
    forEachStoredRow(stored, from.format(), [&](size_t offset, int plane, int y) {
        std::memcpy(to + offset, from.row(plane, y), from.format().rowBytes(plane));
    });
}

std::string fourccText(uint32_t code) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) text += static_cast<char>(code >> shift & 0x7f);
    return printable(text);
}

// ---- Finding -----------------------------------------------------------------------------------

// Why the open device is not the one; empty when it is.
std::string V4l2Device::refusal(const Search& search) {
    v4l2_capability capability{};
    const int error = tryCall(mFile, VIDIOC_QUERYCAP, &capability);
    if (error != 0) return errnoText(error);
    const auto textOf = [](const auto& field) {
        const auto* const text = reinterpret_cast<const char*>(field);
        return printable(std::string(text, strnlen(text, sizeof field)));
    };
    mDriver = textOf(capability.driver) + ", " + textOf(capability.card);
    const bool isPath = search.name.find('/') != std::string::npos;
    if (!isPath && mDriver.find(search.name) == std::string::npos) return mDriver;
    const uint32_t caps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                              ? capability.device_caps
                              : capability.capabilities;
    mIsMultiPlanar = (caps & V4L2_CAP_VIDEO_M2M_MPLANE) != 0;
    if ((caps & (V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE)) == 0) {
        return mDriver + ": not a codec";
    }
    const auto codes = formatCodes(mIsDecoder ? OUTPUT : CAPTURE);
    if (std::find(codes.begin(), codes.end(), mCode) != codes.end()) return "";
    return concat(mDriver, ": no ", mIsDecoder ? "decoder" : "encoder", " of ", search.codec);
}

V4l2Device::V4l2Device(const Search& search)
    : mCode(codeOf(search.codec)), mIsDecoder(search.isDecoder) {
    namespace fs = std::filesystem;
    std::vector<std::string> paths;
    if (search.name.find('/') != std::string::npos) {
        paths.push_back(search.name);
    } else {
        std::error_code none;
        for (const auto& entry : fs::directory_iterator("/dev", none)) {
            if (entry.path().filename().string().rfind("video", 0) == 0) {
                paths.push_back(entry.path());
            }
        }
        std::sort(paths.begin(), paths.end());
    }
    std::string seen;
    for (const std::string& path : paths) {
        mFile = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        const std::string reason = mFile < 0 ? errnoText(errno) : refusal(search);
        if (reason.empty()) {
            mPath = path;
            return;
        }
        if (mFile >= 0) close(mFile);
        seen += concat(seen.empty() ? " (" : "; ", path, ": ", reason);
    }
    throw Failure(concat("no V4L2 ", mIsDecoder ? "decoder" : "encoder", " of ", search.codec, seen,
                         seen.empty() ? "" : ")"),
                  Verdict::NotSupported);
}

V4l2Device::~V4l2Device() {
    close(mFile);
}

// ---- Formats -----------------------------------------------------------------------------------

uint32_t V4l2Device::typeOf(Side side) const {
    if (side == OUTPUT) {
        return mIsMultiPlanar ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT;
    }
    return mIsMultiPlanar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

void V4l2Device::call(unsigned long request, void* argument, const char* what) const {
    const int error = tryCall(mFile, request, argument);
    if (error != 0) throw Failure(concat(mPath, ": ", what, ": ", errnoText(error)));
}

std::vector<uint32_t> V4l2Device::formatCodes(Side side) const {
    std::vector<uint32_t> codes;
    v4l2_fmtdesc format{};
    format.type = typeOf(side);
    for (; tryCall(mFile, VIDIOC_ENUM_FMT, &format) == 0; ++format.index) {
        codes.push_back(format.pixelformat);
    }
    return codes;
}

static V4l2Format plainOf(const v4l2_format& format, bool isMultiPlanar) {
    if (!isMultiPlanar) {
        const v4l2_pix_format& pix = format.fmt.pix;
        return {pix.pixelformat, pix.width, pix.height, pix.bytesperline, pix.sizeimage};
    }
    const v4l2_pix_format_mplane& pix = format.fmt.pix_mp;
    return {pix.pixelformat, pix.width, pix.height, pix.plane_fmt[0].bytesperline,
            pix.plane_fmt[0].sizeimage};
}

V4l2Format V4l2Device::format(Side side) const {
    v4l2_format format{};
    format.type = typeOf(side);
    call(VIDIOC_G_FMT, &format, "VIDIOC_G_FMT");
    return plainOf(format, mIsMultiPlanar);
}

V4l2Format V4l2Device::setFormat(Side side, const V4l2Format& wanted) const {
    v4l2_format format{};
    format.type = typeOf(side);
    call(VIDIOC_G_FMT, &format, "VIDIOC_G_FMT");
    if (mIsMultiPlanar) {
        v4l2_pix_format_mplane& pix = format.fmt.pix_mp;
        pix.pixelformat = wanted.code;
        pix.width = wanted.width;
        pix.height = wanted.height;
        pix.num_planes = 1;
        pix.plane_fmt[0].bytesperline = wanted.stride;
        pix.plane_fmt[0].sizeimage = wanted.size;
    } else {
        v4l2_pix_format& pix = format.fmt.pix;
        pix.pixelformat = wanted.code;
        pix.width = wanted.width;
        pix.height = wanted.height;
        pix.bytesperline = wanted.stride;
        pix.sizeimage = wanted.size;
    }
    call(VIDIOC_S_FMT, &format, "VIDIOC_S_FMT");
    return plainOf(format, mIsMultiPlanar);
}

// Selections have the single-planar types, whatever the device.
void V4l2Device::visibleSize(uint32_t* width, uint32_t* height) const {
    v4l2_selection selection{};
    selection.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    selection.target = V4L2_SEL_TGT_COMPOSE;
    call(VIDIOC_G_SELECTION, &selection, "VIDIOC_G_SELECTION");
    *width = selection.r.width;
    *height = selection.r.height;
}

void V4l2Device::setVisibleSize(uint32_t width, uint32_t height) const {
    v4l2_selection selection{};
    selection.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    selection.target = V4L2_SEL_TGT_CROP;
    selection.r = {0, 0, width, height};
    call(VIDIOC_S_SELECTION, &selection, "VIDIOC_S_SELECTION");
}

void V4l2Device::setFrameRate(uint32_t num, uint32_t den) const {
    v4l2_streamparm parameters{};
    parameters.type = typeOf(OUTPUT);
    parameters.parm.output.timeperframe = {den, num};
    tryCall(mFile, VIDIOC_S_PARM, &parameters);  // many devices have no use for it
}

void V4l2Device::setControls(const std::vector<std::string>& controls) const {
    for (const std::string& text : controls) {
        char* end = nullptr;
        v4l2_ext_control control{};
        control.id = static_cast<uint32_t>(std::strtoul(text.c_str(), &end, 0));
        if (*end != '=' || end == text.c_str())
            throw Failure("expected ID=VALUE, got " + quote(text));
        control.value = static_cast<int32_t>(std::strtol(end + 1, &end, 0));
        if (*end != '\0') throw Failure("expected ID=VALUE, got " + quote(text));
        v4l2_ext_controls set{};
        set.which = V4L2_CTRL_WHICH_CUR_VAL;
        set.count = 1;
        set.controls = &control;
        call(VIDIOC_S_EXT_CTRLS, &set, ("the control " + text).c_str());
    }
}

// ---- Buffers -----------------------------------------------------------------------------------

unsigned V4l2Device::request(Side side, unsigned count) const {
    v4l2_requestbuffers request{};
    request.type = typeOf(side);
    request.memory = V4L2_MEMORY_DMABUF;
    request.count = count;
    call(VIDIOC_REQBUFS, &request, "VIDIOC_REQBUFS");
    return request.count;
}

void V4l2Device::stream(Side side, bool on) const {
    int type = static_cast<int>(typeOf(side));
    call(on ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &type,
         on ? "VIDIOC_STREAMON" : "VIDIOC_STREAMOFF");
}

void V4l2Device::queue(Side side, const Buffer& buffer) const {
    v4l2_plane plane{};
    v4l2_buffer queued{};
    queued.type = typeOf(side);
    queued.memory = V4L2_MEMORY_DMABUF;
    queued.index = buffer.index;
    queued.timestamp.tv_sec = static_cast<time_t>(buffer.timestamp / 1000000);
    queued.timestamp.tv_usec = static_cast<suseconds_t>(buffer.timestamp % 1000000);
    if (mIsMultiPlanar) {
        plane.m.fd = buffer.fd;
        plane.bytesused = static_cast<uint32_t>(buffer.bytes);
        plane.length = static_cast<uint32_t>(buffer.capacity);
        queued.m.planes = &plane;
        queued.length = 1;
    } else {
        queued.m.fd = buffer.fd;
        queued.bytesused = static_cast<uint32_t>(buffer.bytes);
        queued.length = static_cast<uint32_t>(buffer.capacity);
    }
    call(VIDIOC_QBUF, &queued, "VIDIOC_QBUF");
}

std::optional<V4l2Device::Buffer> V4l2Device::dequeue(Side side) const {
    v4l2_plane plane{};
    v4l2_buffer taken{};
    taken.type = typeOf(side);
    taken.memory = V4L2_MEMORY_DMABUF;
    if (mIsMultiPlanar) {
        taken.m.planes = &plane;
        taken.length = 1;
    }
    const int error = tryCall(mFile, VIDIOC_DQBUF, &taken);
    if (error == EAGAIN || error == EPIPE) return std::nullopt;  // EPIPE: the last has been taken
    if (error != 0) throw Failure(mPath + ": VIDIOC_DQBUF: " + errnoText(error));
    Buffer buffer;
    buffer.index = taken.index;
    buffer.bytes = mIsMultiPlanar ? plane.bytesused : taken.bytesused;
    buffer.timestamp = static_cast<uint64_t>(taken.timestamp.tv_sec) * 1000000 +
                       static_cast<uint64_t>(taken.timestamp.tv_usec);
    buffer.isKey = (taken.flags & V4L2_BUF_FLAG_KEYFRAME) != 0;
    buffer.isLast = (taken.flags & V4L2_BUF_FLAG_LAST) != 0;
    buffer.isError = (taken.flags & V4L2_BUF_FLAG_ERROR) != 0;
    return buffer;
}

// ---- Events ------------------------------------------------------------------------------------

void V4l2Device::subscribe() const {
    for (const uint32_t type : {V4L2_EVENT_SOURCE_CHANGE, V4L2_EVENT_EOS}) {
        v4l2_event_subscription subscription{};
        subscription.type = type;
        tryCall(mFile, VIDIOC_SUBSCRIBE_EVENT, &subscription);  // an encoder has no source change
    }
}

bool V4l2Device::takeSourceChange() const {
    bool hasChanged = false;
    v4l2_event event{};
    while (tryCall(mFile, VIDIOC_DQEVENT, &event) == 0) {
        hasChanged =
            hasChanged || (event.type == V4L2_EVENT_SOURCE_CHANGE &&
                           (event.u.src_change.changes & V4L2_EVENT_SRC_CH_RESOLUTION) != 0);
    }
    return hasChanged;
}

bool V4l2Device::startDrain() const {
    v4l2_decoder_cmd decoder{};
    decoder.cmd = V4L2_DEC_CMD_STOP;
    v4l2_encoder_cmd encoder{};
    encoder.cmd = V4L2_ENC_CMD_STOP;
    const int error = mIsDecoder ? tryCall(mFile, VIDIOC_DECODER_CMD, &decoder)
                                 : tryCall(mFile, VIDIOC_ENCODER_CMD, &encoder);
    if (error != 0 && error != EBUSY) {
        throw Failure(mPath + ": the command to drain: " + errnoText(error));
    }
    return error == 0;
}

}  // namespace vxrun
