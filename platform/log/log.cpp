#include <android/log.h>
#include <errno.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

constexpr int kTextMax = 1023;  // what a device keeps of a formatted message
constexpr int kTagMax = 255;    // longest tag in a line of the default writer

std::atomic<__android_logger_function> sLogger{__android_log_stderr_logger};
std::atomic<int32_t> sMinimumPriority{ANDROID_LOG_DEFAULT};

// Messages report failures, so logging one must not change the errno that comes next.
class ErrnoKeeper {
public:
    ~ErrnoKeeper() { errno = mErrno; }

private:
    const int mErrno = errno;
};

char letterOf(int32_t priority) {
    const char letters[] = "??VDIWEFS";
    return priority >= 0 && priority < static_cast<int32_t>(sizeof(letters)) - 1 ? letters[priority]
                                                                                 : '?';
}

bool isLoggable(int prio) {
    return __android_log_is_loggable(prio, nullptr, ANDROID_LOG_VERBOSE) != 0;
}

int handOver(int prio, const char* tag, const char* text) {
    const __android_log_message message = {
        sizeof(__android_log_message),
        0,
        prio,
        tag != nullptr ? tag : program_invocation_short_name,
        nullptr,
        0,
        text,
    };
    sLogger.load()(&message);
    return 1;
}

}  // namespace

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int result = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    ErrnoKeeper keeper;
    if (!isLoggable(prio)) return -EPERM;
    char text[kTextMax + 1] = {};
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
    vsnprintf(text, sizeof(text), fmt, ap);
    return handOver(prio, tag, text);
}

int __android_log_write(int prio, const char* tag, const char* text) {
    ErrnoKeeper keeper;
    if (!isLoggable(prio)) return -EPERM;
    return handOver(prio, tag, text != nullptr ? text : "");
}

void __android_log_set_logger(__android_logger_function logger) {
    sLogger = logger != nullptr ? logger : __android_log_stderr_logger;
}

void __android_log_stderr_logger(const struct __android_log_message* log_message) {
    ErrnoKeeper keeper;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char line[kTextMax + kTagMax + 64];
    const int length =
        snprintf(line, sizeof(line), "%02d-%02d %02d:%02d:%02d.%03ld %c %ld %.*s: %.*s\n",
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                 now.tv_nsec / 1000000, letterOf(log_message->priority), syscall(SYS_gettid),
                 kTagMax, log_message->tag, kTextMax, log_message->message);
    // If standard error is closed or full, a complaint cannot be written either.
    if (write(STDERR_FILENO, line, static_cast<size_t>(length)) < 0) return;
}

int32_t __android_log_set_minimum_priority(int32_t priority) {
    return sMinimumPriority.exchange(priority);
}

int32_t __android_log_get_minimum_priority(void) {
    return sMinimumPriority;
}

int __android_log_is_loggable(int prio, const char*, int default_prio) {
    const int32_t minimum = sMinimumPriority;
    return prio >= (minimum != ANDROID_LOG_DEFAULT ? minimum : default_prio);
}
