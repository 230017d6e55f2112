#include "Libav.h"

#include "Text.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <cstdio>
#include <set>
#include <utility>

namespace vxrun {

std::string libavText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_strerror(error, text, sizeof text);
    return text;
}

Libav<AVFrame> newPicture(AVPixelFormat pixels, int width, int height) {
    auto picture = made(av_frame_alloc());
    picture->format = pixels;
    picture->width = width;
    picture->height = height;
    if (av_frame_get_buffer(picture.get(), 0) < 0) throw std::bad_alloc();
    return picture;
}

Libav<SwsContext> newScaler(const AVFrame& from, const AVFrame& to, const std::string& flags) {
    auto scaler = made(sws_alloc_context());
    for (const auto& [key, value] :
         {std::pair("srcw", from.width), std::pair("srch", from.height),
          std::pair("src_format", from.format), std::pair("dstw", to.width),
          std::pair("dsth", to.height), std::pair("dst_format", to.format)}) {
        av_opt_set_int(scaler.get(), key, value, 0);
    }
    av_opt_set(scaler.get(), "sws_dither", "none", 0);
    if (av_opt_set(scaler.get(), "sws_flags", flags.c_str(), 0) < 0) {
        throw Failure("config 'flags': libswscale does not know all of " + quote(flags));
    }
    if (sws_init_context(scaler.get(), nullptr, nullptr) < 0) {
        const auto text = [](const AVFrame& picture) {
            return concat(picture.width, "x", picture.height, " ",
                          av_get_pix_fmt_name(static_cast<AVPixelFormat>(picture.format)));
        };
        throw Failure("libswscale does not convert " + text(from) + " to " + text(to),
                      Verdict::NotSupported);
    }
    return scaler;
}

LibavOptions::LibavOptions(const std::string& text) : mText(text) {
    const int result = av_dict_parse_string(&mOptions, text.c_str(), "=", ":", 0);
    if (result == 0) return;
    av_dict_free(&mOptions);
    throw Failure("config 'options': expected key=value:key=value, got " + quote(text));
}

void LibavOptions::preset(const char* key, const std::string& value) {
    if (!value.empty()) av_dict_set(&mOptions, key, value.c_str(), AV_DICT_DONT_OVERWRITE);
}

void LibavOptions::check(int result, const std::string& subject) const {
    if (result < 0) {
        throw Failure(subject + " does not open" +
                      (mText.empty() ? "" : " with the options " + quote(mText)) + ": " +
                      libavText(result));
    }
    const AVDictionaryEntry* const left = av_dict_get(mOptions, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    if (left != nullptr) throw Failure(subject + " has no option " + quote(left->key));
}

void CodecLog::attach(AVCodecContext* codec) {
    takeOver();
    codec->opaque = this;  // the copies that a codec makes for its threads keep it
}

std::string CodecLog::takeFirstError(const std::string& otherwise) {
    std::lock_guard<std::mutex> lock(mLock);
    return mFirst.empty() ? otherwise : std::exchange(mFirst, {});
}

static thread_local CodecLog* tListener = nullptr;

void CodecLog::listenHere() {
    tListener = this;
}

// The logs that live. A codec that a node library opened has an `opaque` of its own, which is none.
static std::mutex sLogsLock;
static std::set<const void*> sLogs;  // guarded by sLogsLock

CodecLog::CodecLog() {
    std::lock_guard<std::mutex> lock(sLogsLock);
    sLogs.insert(this);
}

CodecLog::~CodecLog() {
    if (tListener == this) tListener = nullptr;
    std::lock_guard<std::mutex> lock(sLogsLock);
    sLogs.erase(this);
}

static CodecLog* logOf(void* opaque) {
    std::lock_guard<std::mutex> lock(sLogsLock);
    return sLogs.count(opaque) > 0 ? static_cast<CodecLog*>(opaque) : nullptr;
}

static thread_local std::function<void(const std::string&)> tTrace;

void CodecLog::traceHere(std::function<void(const std::string& line)> take) {
    tTrace = std::move(take);
}

static std::string lineOf(const char* format, va_list arguments) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::string line = text;
    line.erase(line.find_last_not_of(" \n") + 1);
    return line;
}

void CodecLog::write(void* object, int level, const char* format, va_list arguments) {
    if (tTrace && object != nullptr && level <= AV_LOG_INFO &&
        *static_cast<const AVClass**>(object) == av_bsf_get_class()) {
        tTrace(lineOf(format, arguments));
        return;
    }
    if (level > AV_LOG_ERROR) return;
    // What logs is an object that begins with a pointer to its class.
    const bool isCodec =
        object != nullptr && *static_cast<const AVClass**>(object) == avcodec_get_class();
    auto* const log = isCodec ? logOf(static_cast<AVCodecContext*>(object)->opaque) : tListener;
    if (log == nullptr) return;  // a codec of the demuxer's, or what no one listens to
    const std::string line = lineOf(format, arguments);
    std::lock_guard<std::mutex> lock(log->mLock);
    if (log->mFirst.empty()) log->mFirst = line;
}

void CodecLog::takeOver() {
    av_log_set_callback(CodecLog::write);
}

}  // namespace vxrun
