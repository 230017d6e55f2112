#include "Libav.h"

#include <cstdio>
#include <utility>

namespace vxrun {

std::string libavText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_strerror(error, text, sizeof text);
    return text;
}

void CodecLog::attach(AVCodecContext* codec) {
    takeOver();
    codec->opaque = this;  // the copies that a codec makes for its threads keep it
}

std::string CodecLog::take() {
    std::lock_guard<std::mutex> lock(mLock);
    return std::exchange(mFirst, {});
}

void CodecLog::write(void* object, int level, const char* format, va_list arguments) {
    // What logs is an object that begins with a pointer to its class.
    if (level > AV_LOG_ERROR || object == nullptr) return;
    if (*static_cast<const AVClass**>(object) != avcodec_get_class()) return;
    auto* const log = static_cast<CodecLog*>(static_cast<AVCodecContext*>(object)->opaque);
    if (log == nullptr) return;  // a codec of the demuxer's
    char text[256];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::string line = text;
    line.erase(line.find_last_not_of(" \n") + 1);
    std::lock_guard<std::mutex> lock(log->mLock);
    if (log->mFirst.empty()) log->mFirst = line;
}

void CodecLog::takeOver() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(CodecLog::write); });
}

}  // namespace vxrun
