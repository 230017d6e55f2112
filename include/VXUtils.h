// VXUtils: the result vocabularies of the library, its log gate and small file utilities.
//
// Two vocabularies, never mixed: VXError is the status of one library operation, VexaError the
// result of a whole test run, which reaches an application as a name.
#pragma once

#include <android/log.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

// Marks what libvxbase exports; everything else in it is hidden. Every public type carries it,
// since a type that is held in std::any or cast across the library's border needs one type
// identity.
#define VX_EXPORT __attribute__((visibility("default")))

namespace vexa {

// Sizes, delays and ids pass between these types in signatures, bundles and log formats.
static_assert(sizeof(unsigned long) == sizeof(uint64_t) && sizeof(size_t) == sizeof(uint64_t),
              "libvxbase is made for 64-bit ABIs");

// Status of a library operation. Positive values are the Linux errno numbers of the same meaning
// (<asm-generic/errno-base.h>, <asm-generic/errno.h>), negative values are the library's own.
// Callers compare the numbers and applications print them: they never change.
enum VX_EXPORT VXError : int32_t {
    VX_OK = 0,
    VX_ERROR = -1,              // generic failure, e.g. a value missing from an event's bundle
    VX_BAD_VALUE = -2,          // a required pointer is null or a name is unknown
    VX_NO_FREE_SLOT = -3,       // a pool is at its slot limit and holds no free buffer
    VX_NO_FREE_BUFFER = -4,     // nothing free, but a new buffer may be made; internal to a pool
    VX_NOT_FOUND = 2,           // ENOENT: the looked-up item is absent
    VX_NO_MEMORY = 12,          // ENOMEM: an object could not be made
    VX_INCOMPATIBLE = 13,       // EACCES: an input port refused a connection
    VX_BAD_ADDRESS = 14,        // EFAULT: a null object where one must be
    VX_ALREADY_EXISTS = 17,     // EEXIST: the name is taken
    VX_NO_INIT = 19,            // ENODEV: a component that the operation needs does not exist
    VX_INVALID_OPERATION = 95,  // EOPNOTSUPP: not allowed in the current state
};

// Result of a test run. Applications print it by name (errorName). UNKNOWN_ERROR stands apart so
// that the numbers before it can grow.
enum VX_EXPORT VexaError : uint32_t {
    CORRUPT_DESCR = 0x1001,
    NODE_NOT_FOUND = 0x1002,
    GRAPH_BUILD_FAIL = 0x1003,
    NODE_FAIL_INIT = 0x1004,
    NODE_FAIL_START = 0x1005,
    NODE_FAIL_STOP = 0x1006,
    NODE_FAIL_ASYNC = 0x1007,
    CRC_MISMATCH = 0x1008,
    INFO_VALIDATION_FAIL = 0x1009,
    NODE_FAIL_CONFIG = 0x100A,
    NODE_FAIL_FATAL = 0x100B,
    UNKNOWN_ERROR = 0xFFFFF,
};

// The rows of the table below. Constants, so they are there before any constructor runs.
inline constexpr std::pair<VexaError, const char*> kVexaErrorRows[] = {
    {CORRUPT_DESCR, "CORRUPT_DESCR"},
    {NODE_NOT_FOUND, "NODE_NOT_FOUND"},
    {GRAPH_BUILD_FAIL, "GRAPH_BUILD_FAIL"},
    {NODE_FAIL_INIT, "NODE_FAIL_INIT"},
    {NODE_FAIL_START, "NODE_FAIL_START"},
    {NODE_FAIL_STOP, "NODE_FAIL_STOP"},
    {NODE_FAIL_ASYNC, "NODE_FAIL_ASYNC"},
    {CRC_MISMATCH, "CRC_MISMATCH"},
    {INFO_VALIDATION_FAIL, "INFO_VALIDATION_FAIL"},
    {NODE_FAIL_CONFIG, "NODE_FAIL_CONFIG"},
    {NODE_FAIL_FATAL, "NODE_FAIL_FATAL"},
    {UNKNOWN_ERROR, "UNKNOWN_ERROR"},
};

// One copy per including source, built before main and only read afterwards.  [any thread]
static const std::unordered_map<VexaError, std::string> gVexaErrorNames(std::begin(kVexaErrorRows),
                                                                        std::end(kVexaErrorRows));

// The name of `code`; "UNKNOWN_ERROR" for a number that the table does not hold. It reads the rows,
// so it may be called from the constructors of static objects, too.  [any thread]
inline std::string errorName(VexaError code) {
    for (const auto& [known, name] : kVexaErrorRows) {
        if (known == code) return name;
    }
    return "UNKNOWN_ERROR";
}

// ---- Logging ----------------------------------------------------------------------------------
//
// The library's messages go to the Android log, each gated by one bit of gVXLogLevel. The bits are
// independent of each other; 0x04 is kept free.
enum VXLogBit : uint32_t {
    VX_LOG_ERROR = 0x01,    // errors, guard failures            priority ERROR
    VX_LOG_WARNING = 0x02,  // warnings                          priority WARN
    VX_LOG_DEBUG = 0x08,    // build, run, allocator, buffers    priority DEBUG
    VX_LOG_TRACE = 0x10,    // per node, "[name] ..."            priority DEBUG
};

// The mask. 0 (silence) until vxUpdateLogLevel() is called.
extern VX_EXPORT std::atomic<uint32_t> gVXLogLevel;

// Reads the mask, in hexadecimal, from the system property "vendor.vexa.log.msg" (default "3":
// errors and warnings; text that is not a hexadecimal number counts as 0), stores it in gVXLogLevel
// and returns it. The library never calls it: the application does, at start-up and whenever the
// property has changed.  [any thread]
VX_EXPORT uint32_t vxUpdateLogLevel();

// A message of the module whose tag is the `kLogTag` in scope. The gate is one load and one test;
// arguments are evaluated behind it.
#define VX_LOG_TAGGED(bit, priority, tag, ...)                           \
    do {                                                                 \
        if (::vexa::gVXLogLevel.load(std::memory_order_relaxed) & (bit)) \
            __android_log_print(priority, tag, __VA_ARGS__);             \
    } while (0)
#define VX_LOGE(...) VX_LOG_TAGGED(::vexa::VX_LOG_ERROR, ANDROID_LOG_ERROR, kLogTag, __VA_ARGS__)
#define VX_LOGW(...) VX_LOG_TAGGED(::vexa::VX_LOG_WARNING, ANDROID_LOG_WARN, kLogTag, __VA_ARGS__)
#define VX_LOGD(...) VX_LOG_TAGGED(::vexa::VX_LOG_DEBUG, ANDROID_LOG_DEBUG, kLogTag, __VA_ARGS__)
#define VX_LOGT(...) VX_LOG_TAGGED(::vexa::VX_LOG_TRACE, ANDROID_LOG_DEBUG, kLogTag, __VA_ARGS__)

// Guard failure: when `condition` holds, logs its source text and line and returns `result` from
// the function. The return does not depend on the log mask; locks are released by their
// destructors. The text is taken in the outermost macro, where names that are macros have not been
// replaced.
#define VX_FAIL_IF_TEXT(tag, text, condition, result)                                          \
    do {                                                                                       \
        if (condition) {                                                                       \
            VX_LOG_TAGGED(::vexa::VX_LOG_ERROR, ANDROID_LOG_ERROR, tag, "%s : Line# %d", text, \
                          __LINE__);                                                           \
            return result;                                                                     \
        }                                                                                      \
    } while (0)
#define VX_FAIL_IF_TAGGED(tag, condition, result) \
    VX_FAIL_IF_TEXT(tag, #condition, condition, result)
#define VX_FAIL_IF(condition, result) VX_FAIL_IF_TEXT(kLogTag, #condition, condition, result)

// ---- Files ------------------------------------------------------------------------------------

// Reads the whole file `path` into `*content`, which is emptied first. False when `content` is null
// or the file cannot be opened; a read error after that is true with what was read. Memory is
// reserved for the size that the file states, within bounds, so that a directory, a pipe or a file
// that grows does no harm.  [any thread]
VX_EXPORT bool ReadFileToString(const std::string& path, std::string* content);

// ---- Locks ------------------------------------------------------------------------------------
//
// Mutexes that clang's -Wthread-safety can check: data names the lock that guards it with
// VX_GUARDED_BY, and VXLocker holds a lock for a scope.
#if defined(__clang__)
#define VX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VX_THREAD_ANNOTATION(x)
#endif
#define VX_GUARDED_BY(lock) VX_THREAD_ANNOTATION(guarded_by(lock))

// VXBasicMutex: a standard mutex with the annotations.
//
// Life     as long as what it guards; destroyed unlocked.
// Threads  any.
template <typename Mutex>
class VX_THREAD_ANNOTATION(capability("mutex")) VXBasicMutex {
public:
    void lock() VX_THREAD_ANNOTATION(acquire_capability()) { mMutex.lock(); }
    void unlock() VX_THREAD_ANNOTATION(release_capability()) { mMutex.unlock(); }

private:
    Mutex mMutex;
};
using VXMutex = VXBasicMutex<std::mutex>;
using VXRecursiveMutex = VXBasicMutex<std::recursive_mutex>;

// VXLocker: holds a lock for a scope.
//
// Life     one scope; the mutex outlives it.
// Threads  the one that made it.
// Owns     the lock, not the mutex.
template <typename Mutex>
class VX_THREAD_ANNOTATION(scoped_lockable) VXLocker {
public:
    explicit VXLocker(Mutex& mutex) VX_THREAD_ANNOTATION(acquire_capability(mutex))
        : mMutex(mutex) {
        mMutex.lock();
    }
    ~VXLocker() VX_THREAD_ANNOTATION(release_capability()) { mMutex.unlock(); }
    VXLocker(const VXLocker&) = delete;
    VXLocker& operator=(const VXLocker&) = delete;

private:
    Mutex& mMutex;
};

// ---- Objects ----------------------------------------------------------------------------------

// VXObject: the named base of graphs, nodes, ports and regulators.
//
// Life     that of the object which derives from it. Never copied.
// Threads  any: the name never changes.
// Owns     its name.
class VX_EXPORT VXObject {
public:
    explicit VXObject(const std::string& name) : mName(name) {}
    virtual ~VXObject();

    VXObject(const VXObject&) = delete;
    VXObject& operator=(const VXObject&) = delete;

    const std::string& name() const { return mName; }  // [any thread]

private:
    const std::string mName;
};

}  // namespace vexa
