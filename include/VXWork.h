// VXWork: the unit of work that travels through a graph, and the information attached to it.
//
// A node makes a VXWork, which it owns alone and may write. The node's regulator turns it into a
// VXSharedWork, which is read-only and shared by every consumer, and whose release is reported to
// the producer after the last consumer is done with it.
#pragma once

#include <VXUtils.h>

#include <any>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace vexa {

// Copies `count` bytes from `src` to `dst`, which has room for `dstSize` bytes. Returns `count`, or
// 0 when a pointer is null or the room is too small (nothing is copied then, not even a part). A
// `count` of 0 returns 0 as well.  [any thread]
VX_EXPORT size_t memcpy_s(void* dst, size_t dstSize, const void* src, size_t count);

// VXAuxInfo: typed values by name, read-only. A name holds one value of one type, which is read
// back with exactly the type that it was stored with.
//
// Life     copied whole when a work is shared, so values are cheap and self-contained.
// Threads  any number of readers at once, or one writer.
// Owns     its values.
//
// Designed for a handful of keys per work, up to about ten: a look-up is linear.
class VX_EXPORT VXAuxInfo {
public:
    VXAuxInfo() = default;
    VXAuxInfo(const VXAuxInfo&) = default;
    VXAuxInfo& operator=(const VXAuxInfo&) = default;
    virtual ~VXAuxInfo();

    // Copies the value of `key` to `*val`.
    //   VX_OK         written
    //   VX_BAD_VALUE  `val` is null
    //   VX_NOT_FOUND  no such key; not logged, so optional keys can be probed for
    //   VX_ERROR      the value has another type; `*val` is untouched
    template <typename T>
    VXError get(const std::string& key, T* val) const {
        VX_FAIL_IF(val == nullptr, VX_BAD_VALUE);
        const Entries::Entry* entry = mEntries.find(key);
        if (entry == nullptr) return VX_NOT_FOUND;
        const T* stored = valueOf<T>(*entry);
        if (stored == nullptr) return VX_ERROR;
        *val = *stored;
        return VX_OK;
    }

protected:
    static constexpr char kLogTag[] = "Vexa:VXNode";

    // The entries by key. In place of a hash map, which would be five allocations and half of a
    // hop: most works hold the library's own "_res_id" alone, and few ever hold more than a
    // handful.
    class Entries {
    public:
        struct Entry {
            template <typename T>
            Entry(const std::string& k, T&& v) : key(k), value(std::forward<T>(v)) {}
            std::string key;
            std::any value;
        };

        const Entry* find(const std::string& key) const {
            if (mFirst.has_value() && mFirst->key == key) return &*mFirst;
            for (const Entry& entry : mMore) {
                if (entry.key == key) return &entry;
            }
            return nullptr;
        }
        Entry* find(const std::string& key) {
            return const_cast<Entry*>(std::as_const(*this).find(key));
        }
        // Adds a key that is not there.
        template <typename T>
        void emplace(const std::string& key, T&& value) {
            if (!mFirst.has_value()) {
                mFirst.emplace(key, std::forward<T>(value));
            } else {
                mMore.emplace_back(key, std::forward<T>(value));
            }
        }

    private:
        std::optional<Entry> mFirst;
        std::vector<Entry> mMore;
    };

    // The value of `entry`; null, with a message, when it has another type.
    template <typename T>
    static const T* valueOf(const Entries::Entry& entry) {
        const T* value = std::any_cast<T>(&entry.value);
        if (value == nullptr) {
            VX_LOGE("VXAuxInfo::get : %s stored with different type !", entry.key.c_str());
        }
        return value;
    }

    Entries mEntries;
};

// VXEditableAuxInfo: aux info that its one owner may write.
//
// Life     as long as its work; a copy is independent of it.
// Threads  one at a time.
// Owns     its values.
class VX_EXPORT VXEditableAuxInfo : public VXAuxInfo {
public:
    VXEditableAuxInfo() = default;
    VXEditableAuxInfo(const VXEditableAuxInfo&) = default;
    VXEditableAuxInfo& operator=(const VXEditableAuxInfo&) = default;
    ~VXEditableAuxInfo() override;

    // Stores `value` under `key`, replacing a value of the same type.
    //   VX_OK     stored
    //   VX_ERROR  the key holds a value of another type, which stays
    template <typename T>
    VXError put(const std::string& key, T value) {
        Entries::Entry* entry = mEntries.find(key);
        if (entry == nullptr) {
            mEntries.emplace(key, std::move(value));
            return VX_OK;
        }
        if (valueOf<T>(*entry) == nullptr) {
            VX_LOGE("VXAuxInfo: cannot overwrite '%s' stored with a different type!", key.c_str());
            return VX_ERROR;
        }
        entry->value = std::move(value);
        return VX_OK;
    }
};

// VXInfo: base of the information objects that applications attach to a frame. The library only
// holds, shares and releases them.
//
// Life     held by shared pointer; ends with the last work that carries it.
// Threads  every consumer of the work shares the object, so several may read it at once.
// Owns     what the deriving class adds.
class VX_EXPORT VXInfo {
public:
    VXInfo() = default;
    VXInfo(const VXInfo&) = default;
    VXInfo& operator=(const VXInfo&) = default;
    virtual ~VXInfo();
};

// VXFrameInfo: the frame that a work belongs to. A plain value, copied member by member.
struct VX_EXPORT VXFrameInfo {
    // The last frame of the stream. Input counting stops at it, and a short batch may be processed.
    static constexpr uint32_t FLAG_END_OF_STREAM = 0x10;

    uint64_t index = 0;      // position in the producer's output; written by its regulator
    uint32_t flags = 0;      // FLAG_*; other bits are carried unchanged
    uint64_t timestamp = 0;  // carried unchanged; its unit is the application's
    std::vector<std::pair<std::string, std::string>> mConfigs;  // carried unchanged
    std::vector<std::shared_ptr<VXInfo>> mInfos;                // shared, not copied
};

// VXSharedWork: a finished work as its consumers see it: read-only, shared by all of them.
//
// Life     from VXWork::share() to the last release, which runs the release hook; the hook, not the
//          shared pointer, deletes the work.
// Threads  any number of readers at once; nothing is written after share().
// Owns     copies of aux and frame info, and a share of the payload.
class VX_EXPORT VXSharedWork : public VXAuxInfo {
public:
    VXSharedWork(const VXAuxInfo& auxInfo, const VXFrameInfo& frameInfo)
        : VXAuxInfo(auxInfo), mFrameInfo(frameInfo) {}
    ~VXSharedWork() override;

    // A work's memory has room for the control block of its shared pointer and for the event that
    // reports its release, and is freed with the last of the three: one allocation, and a release
    // touches memory that lies together.
    static void* operator new(size_t size);
    static void* operator new(size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* work);
    static void operator delete(void* work, const std::nothrow_t&) { operator delete(work); }
    // In the caller's memory, without any of that: such a work has no Allocator.
    static void* operator new(size_t, void* memory) noexcept { return memory; }

    // Makes objects in that memory; for share() and release hooks.
    template <typename T>
    class Allocator;

    const VXFrameInfo& frameInfo() const { return mFrameInfo; }

    // The payload; empty when there is none or it was set with another type. One that was set as
    // const is only handed out as const.
    template <typename T>
    std::shared_ptr<T> payload() const {
        return mPayload.get<T>();
    }

private:
    friend class VXWork;

    // Lies in front of every work that was made by new.
    struct alignas(std::max_align_t) Home {
        // Makes a home in `memory` and returns where the work goes; null for null.
        static void* inside(void* memory);
        void* enter(size_t size);  // null when there is no room
        void leave();
        // By the address alone: asked for what lies elsewhere, the home itself may be gone.
        bool holds(const void* memory) const {
            return std::less_equal<>()(room, memory) && std::less<>()(memory, room + sizeof(room));
        }

        static constexpr size_t kAlign = alignof(std::max_align_t);
        std::atomic<int> residents{1};
        size_t used = 0;                               // of the room
        alignas(kAlign) unsigned char room[64 + 192];  // control block, event
    };

    // The payload with the type that it was set with. Both works hold one; sharing moves it.
    class Payload {
    public:
        template <typename T>
        void set(std::shared_ptr<T> object) {
            mObject = std::const_pointer_cast<std::remove_const_t<T>>(std::move(object));
            mType = &typeid(T);  // which is that of a const T, too
            mConst = std::is_const_v<T>;
        }
        template <typename T>
        std::shared_ptr<T> get() const {
            if (mObject == nullptr || *mType != typeid(T)) return nullptr;
            if (mConst && !std::is_const_v<T>) return nullptr;
            return std::static_pointer_cast<T>(mObject);
        }

    private:
        std::shared_ptr<void> mObject;
        const std::type_info* mType = nullptr;
        bool mConst = false;
    };

    VXFrameInfo mFrameInfo;
    Payload mPayload;
};

// VXSharedWork::Allocator: puts objects into the memory of a work that was made by new, where they
// may outlive the work, or elsewhere when there is no room for them. For std::allocate_shared.
//
// Life     made for one object; a copy lies with the object, and may come after the work's end.
// Threads  objects are made by the one thread that has the work, in its release hook, before it
//          gives any of them away. They may end on any thread.
// Owns     nothing; the work's memory goes with the last that lies there.
template <typename T>
class VXSharedWork::Allocator {
public:
    static_assert(alignof(T) <= Home::kAlign, "there is no room of a larger alignment");
    using value_type = T;

    explicit Allocator(VXSharedWork* work) : mHome(reinterpret_cast<Home*>(work) - 1) {}
    template <typename U>
    Allocator(const Allocator<U>& other) : mHome(other.mHome) {}

    T* allocate(size_t count) {
        void* const memory = mHome->enter(count * sizeof(T));
        return static_cast<T*>(memory != nullptr ? memory : ::operator new(count * sizeof(T)));
    }
    void deallocate(T* memory, size_t) {
        if (!mHome->holds(memory)) return ::operator delete(memory);
        mHome->leave();
    }
    bool operator==(const Allocator& other) const { return mHome == other.mHome; }
    bool operator!=(const Allocator& other) const { return mHome != other.mHome; }

private:
    template <typename U>
    friend class Allocator;
    Home* mHome;
};

// VXWork: a work in the making.
//
// Life     made by a node, finished by share(), which leaves it without its payload.
// Threads  none of its own: it belongs to one holder, which may write it.
// Owns     its aux and frame info, and a share of the payload.
class VX_EXPORT VXWork : public VXEditableAuxInfo {
public:
    VXWork() = default;
    ~VXWork() override;
    VXWork(const VXWork&) = delete;
    VXWork& operator=(const VXWork&) = delete;

    VXFrameInfo& frameInfo() { return mFrameInfo; }
    const VXFrameInfo& frameInfo() const { return mFrameInfo; }

    // Takes a share of `payload`, which may be const. It is moved on by share(), never copied.
    template <typename T>
    void setPayload(std::shared_ptr<T> payload) {
        mPayload.set(std::move(payload));
    }

    // The payload; empty when there is none or it was set with another type. One that was set as
    // const is only handed out as const.
    template <typename T>
    std::shared_ptr<T> payload() const {
        return mPayload.get<T>();
    }

    // Makes the shared work: copies aux and frame info, moves the payload. `tracker` is kept until
    // the last reference goes, on whatever thread that is; its onRelease(VXSharedWork*) is called
    // once then and has to delete the work.
    template <typename Tracker>
    std::shared_ptr<VXSharedWork> share(Tracker tracker) {
        auto* work = new VXSharedWork(*this, mFrameInfo);
        std::shared_ptr<VXSharedWork> shared(
            work,
            [tracker = std::move(tracker)](VXSharedWork* released) mutable {
                tracker.onRelease(released);
            },
            VXSharedWork::Allocator<VXSharedWork>(work));
        shared->mPayload = std::exchange(mPayload, {});
        return shared;
    }

private:
    VXFrameInfo mFrameInfo;
    VXSharedWork::Payload mPayload;
};

}  // namespace vexa
