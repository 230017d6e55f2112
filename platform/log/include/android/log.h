// <android/log.h>: the part of Android's log that this project uses, for a Linux host.
//
// Names, signatures and results are the device's. All functions: [any thread]; set the logger
// before threads start, since a device does not synchronize it (here it is atomic).
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Numbers of the device; the letters are what the default writer prints.
typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT = 1,
    ANDROID_LOG_VERBOSE = 2,  // V
    ANDROID_LOG_DEBUG = 3,    // D
    ANDROID_LOG_INFO = 4,     // I
    ANDROID_LOG_WARN = 5,     // W
    ANDROID_LOG_ERROR = 6,    // E
    ANDROID_LOG_FATAL = 7,    // F
    ANDROID_LOG_SILENT = 8,   // not for messages: as a minimum priority it blocks all
} android_LogPriority;

// Log one message. Formatted text beyond 1023 characters is cut; a null tag becomes the name of the
// program; errno is kept. The result is 1 when the message went to the logger, else negative.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));
int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap)
    __attribute__((__format__(printf, 3, 0)));
int __android_log_write(int prio, const char* tag, const char* text);

// What a logger receives; lives for the call only.
struct __android_log_message {
    size_t struct_size;   // sizeof(__android_log_message) at the caller
    int32_t buffer_id;    // 0, the main log
    int32_t priority;     // an android_LogPriority
    const char* tag;      // never null
    const char* file;     // null
    uint32_t line;        // 0
    const char* message;  // never null
};
typedef void (*__android_logger_function)(const struct __android_log_message* log_message);

// Every message that is let through goes to `logger` from now on; null puts the default back.
void __android_log_set_logger(__android_logger_function logger);

// The default: one line to standard error in one write(2), with time, priority letter, thread id,
// tag and text, so that lines of several threads stay whole.
void __android_log_stderr_logger(const struct __android_log_message* log_message);

// Messages below the minimum priority are dropped. At first it is ANDROID_LOG_DEFAULT, "not set",
// and everything is let through. The setter returns the old one.
int32_t __android_log_set_minimum_priority(int32_t priority);
int32_t __android_log_get_minimum_priority(void);

// 1 when a message of priority `prio` is let through, else 0. `default_prio` is the threshold for
// as long as no minimum priority has been set.
int __android_log_is_loggable(int prio, const char* tag, int default_prio);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
