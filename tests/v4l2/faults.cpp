// Preloaded: the kernel's codec device fails as hardware does. VIDEO_FAULT=busy: another program has
// opened it; VIDEO_FAULT=silent: after ten buffers it does nothing any more.
#include <dlfcn.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <string>

extern "C" int ioctl(int file, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    static const auto next =
        reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
    static const char* const set = getenv("VIDEO_FAULT");
    static const std::string fault = set != nullptr ? set : "";
    static int queued = 0;
    if (fault == "busy" && request == VIDIOC_QUERYCAP) {
        errno = EBUSY;
        return -1;
    }
    if (fault == "silent" && request == VIDIOC_QBUF && ++queued > 10) return 0;
    return next(file, request, argument);
}
