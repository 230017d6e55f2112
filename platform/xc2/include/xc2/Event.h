// Events: what travels on an EventQueue (<xc2/EventQueue.h>). An event has an id chosen by its
// poster and a bundle of named, typed items.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#pragma GCC visibility push(default)

namespace xc2 {

// Result of an operation of the event layer; the numbers are errno's. A handler may return any
// other number too: postSyncAndWait() passes it on.
enum XC2Status : int32_t {
    XC2_OK = 0,
    XC2_BAD_STATE = 1,    // EPERM: refused; no queue, queue not running, or own thread
    XC2_NOT_FOUND = 2,    // ENOENT: no item of that name and type
    XC2_PUT_FAILED = 14,  // EFAULT: no memory for one more item
    XC2_BAD_VALUE = 22,   // EINVAL: a null pointer where there must be none
    XC2_TIMED_OUT = 110,  // ETIMEDOUT: the wait ended first; the event is still delivered
    XC2_CANCELED = 125,   // ECANCELED: the queue ended before the event was delivered
};

// Bundle: an unordered map from name to item.
//
// Life     part of its event.
// Threads  none of its own; it belongs to the holder of the event: the poster, then the handler.
// Owns     its items. The first two need no allocation of their own while their names and
//          strings are short (15 characters with libstdc++, 22 with libc++).
class Bundle {
public:
    // Storable: base of the objects that a bundle carries by shared pointer. Ends with the last
    // share; poster and handler may both have one, and agree on how they use it.
    struct Storable {
        virtual ~Storable();
    };

    // Item: one value of one of five types, which it remembers. A plain value.
    class Item {
    public:
        explicit Item(uint32_t value) : mValue(value) {}
        explicit Item(uint64_t value) : mValue(value) {}
        explicit Item(int32_t value) : mValue(value) {}
        explicit Item(const std::string& value) : mValue(value) {}
        explicit Item(std::string&& value) : mValue(std::move(value)) {}
        explicit Item(std::shared_ptr<Storable> value) : mValue(std::move(value)) {}

        // The value when it is a T, one of the five, else null; a borrow.
        template <typename T>
        const T* as() const {
            return std::get_if<T>(&mValue);
        }

    private:
        std::variant<uint32_t, uint64_t, int32_t, std::string, std::shared_ptr<Storable>> mValue;
    };

    Bundle() = default;
    ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    // Stores `value` under `key`, in place of any item of that name. T is uint32_t, uint64_t,
    // int32_t, std::string (a C string is stored as one) or a shared pointer to a class derived
    // from Storable, which may be null.
    //   XC2_OK          stored
    //   XC2_PUT_FAILED  no memory; "failed to emplace : <key>" is logged, whatever the log mask
    template <typename T>
    XC2Status put(const std::string& key, T value) {
        static_assert(isNumber<T> || isString<T> || Shared<T>::isStorable,
                      "a bundle holds uint32_t, uint64_t, int32_t, strings and shared pointers to "
                      "classes derived from Storable");
        if constexpr (isNumber<T>) {
            return store(key, Item(value));
        } else if constexpr (isString<T>) {
            return store(key, Item(std::string(std::move(value))));
        } else {
            return store(key, Item(std::shared_ptr<Storable>(std::move(value))));
        }
    }

    // Writes the value under `key` to `*out`, which is left as it is on failure.
    //   XC2_OK         written; a null shared pointer that was put comes back as null
    //   XC2_NOT_FOUND  no such item, or one of another type; an object of another class than T's
    //                  counts as missing
    //   XC2_BAD_VALUE  `out` is null
    template <typename T>
    XC2Status get(const std::string& key, T* out) const {
        static_assert(isNumber<T> || std::is_same_v<T, std::string> || Shared<T>::isStorable,
                      "a bundle holds uint32_t, uint64_t, int32_t, strings and shared pointers to "
                      "classes derived from Storable");
        if (out == nullptr) return XC2_BAD_VALUE;
        const Item* item = find(key);
        if (item == nullptr) return XC2_NOT_FOUND;
        if constexpr (Shared<T>::isStorable) {
            const auto* held = item->as<std::shared_ptr<Storable>>();
            if (held == nullptr) return XC2_NOT_FOUND;
            T wanted = std::dynamic_pointer_cast<typename T::element_type>(*held);
            if (wanted == nullptr && *held != nullptr) return XC2_NOT_FOUND;
            *out = std::move(wanted);
        } else {
            const T* held = item->as<T>();
            if (held == nullptr) return XC2_NOT_FOUND;
            *out = *held;
        }
        return XC2_OK;
    }

private:
    template <typename T>
    static constexpr bool isNumber =
        std::is_same_v<T, uint32_t> || std::is_same_v<T, uint64_t> || std::is_same_v<T, int32_t>;
    template <typename T>
    static constexpr bool isString = std::is_same_v<T, std::string> ||
                                     std::is_same_v<T, const char*> || std::is_same_v<T, char*>;
    template <typename T>
    struct Shared {
        static constexpr bool isStorable = false;
    };
    template <typename T>
    struct Shared<std::shared_ptr<T>> {
        static constexpr bool isStorable = std::is_convertible_v<T*, Storable*>;
    };

    struct Entry {
        Entry(const std::string& k, Item&& i) : key(k), item(std::move(i)) {}
        const std::string key;
        Item item;
    };
    struct Spilled {
        Spilled(const std::string& k, Item&& i) : entry(k, std::move(i)) {}
        Entry entry;
        std::unique_ptr<Spilled> next;
    };

    const Item* find(const std::string& key) const;
    XC2Status store(const std::string& key, Item&& item);

    // Not optional<Entry>: what an event with one item touches lies together, in two cache lines
    // fewer to be carried from one core to the other.
    union Room {
        Room() {}
        ~Room() {}
        Entry entry;
    };

    uint32_t mCount = 0;                // of mInline, from the front
    std::unique_ptr<Spilled> mSpilled;  // the third item and all after it, newest first
    Room mInline[2];
};

// Event: an id, fixed at construction, and its bundle.
//
// Life     made as a shared object; the queue keeps a reference until the event has been handled or
//          dropped.
// Threads  none of its own: the poster's, then the handler's.
// Owns     its bundle.
class Event {
public:
    explicit Event(uint32_t id) : mId(id) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    uint32_t id() const { return mId; }
    Bundle& info() { return mInfo; }
    const Bundle& info() const { return mInfo; }

private:
    const uint32_t mId;
    Bundle mInfo;
};

}  // namespace xc2

#pragma GCC visibility pop
