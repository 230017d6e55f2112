#include <VXWork.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

#include "support/LogCapture.h"
#include "types/Types.h"

using namespace vexa;

static constexpr char kNodeTag[] = "Vexa:VXNode";
static constexpr char kWorkTag[] = "Vexa:VXWork";

// Catches: a type confusion that changes or hands out data, a probe for an optional key that logs, a
// refused write that logs only half.
TEST(AuxInfo, HoldsOneTypePerKey) {
    LogCapture log(VX_LOG_ERROR);
    VXEditableAuxInfo info;
    EXPECT_EQ(info.put<unsigned long>("_res_id", 5), VX_OK);
    EXPECT_EQ(info.put<unsigned long>("_res_id", 6), VX_OK);
    uint64_t value = 0;
    EXPECT_EQ(info.get("_res_id", &value), VX_OK);
    EXPECT_EQ(value, 6u);
    uint32_t narrow = 77;
    EXPECT_EQ(info.get("missing", &narrow), VX_NOT_FOUND);
    EXPECT_TRUE(log.messages().empty());

    const char* mismatch = "VXAuxInfo::get : _res_id stored with different type !";
    EXPECT_EQ(info.get("_res_id", &narrow), VX_ERROR);
    EXPECT_EQ(narrow, 77u);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kNodeTag, mismatch), 1);

    EXPECT_EQ(info.put<std::string>("_res_id", "text"), VX_ERROR);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kNodeTag, mismatch), 2);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kNodeTag,
                        "VXAuxInfo: cannot overwrite '_res_id' stored with a different type!"),
              1);
    EXPECT_EQ(info.get("_res_id", &value), VX_OK);
    EXPECT_EQ(value, 6u);

    EXPECT_EQ(info.get<uint64_t>("_res_id", nullptr), VX_BAD_VALUE);
    EXPECT_GUARD("val == nullptr");
}

// A value that cannot be made from nothing can be stored all the same.
TEST(AuxInfo, NeedsNoDefaultConstructor) {
    struct Value {
        explicit Value(int n) : n(n) {}
        int n;
    };
    VXEditableAuxInfo info;
    EXPECT_EQ(info.put("value", Value(1)), VX_OK);
    EXPECT_EQ(info.put("value", Value(2)), VX_OK);
    Value value(0);
    EXPECT_EQ(info.get("value", &value), VX_OK);
    EXPECT_EQ(value.n, 2);
}

// Catches: a public type that is another one in each library, as those are that are not exported where a
// standard library compares types by address; a name that is not there yet when a library is loaded.
TEST(AuxInfo, TypesAreTheSameInEveryLibrary) {
    LogCapture log;
    VXEditableAuxInfo info;
    writeTypes(&info);
    EXPECT_EQ(unreadTypes(info), "");
    EXPECT_EQ(gEarlyName, errorName(CRC_MISMATCH));
}

namespace {
struct Tracker {
    virtual ~Tracker() = default;
    virtual void onRelease(VXSharedWork* work) {
        ++*released;
        delete work;
    }
    std::atomic<int>* released;
};
}  // namespace

// Catches: a shared work that follows later changes of its work, a payload that is copied or left
// behind, one read back as another type.
TEST(Work, ShareCopiesInfosAndMovesThePayload) {
    std::atomic<int> released{0};
    Tracker tracker;
    tracker.released = &released;

    VXWork work;
    auto info = std::make_shared<VXInfo>();
    work.put<int>("key", 1);
    work.frameInfo() = {3, VXFrameInfo::FLAG_END_OF_STREAM | 1, 40, {{"a", "b"}}, {info}};
    auto payload = std::make_shared<std::string>("bytes");
    work.setPayload(payload);
    EXPECT_EQ(work.payload<std::string>(), payload);
    EXPECT_EQ(work.payload<int>(), nullptr);

    std::shared_ptr<VXSharedWork> shared = work.share(tracker);
    EXPECT_EQ(work.payload<std::string>(), nullptr);
    EXPECT_EQ(work.frameInfo().index, 3u);
    work.put<int>("key", 2);
    work.frameInfo().mConfigs.clear();

    int value = 0;
    EXPECT_EQ(shared->get("key", &value), VX_OK);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(shared->frameInfo().flags, 0x11u);
    EXPECT_EQ(shared->frameInfo().timestamp, 40u);
    EXPECT_EQ(shared->frameInfo().mConfigs.size(), 1u);
    EXPECT_EQ(shared->frameInfo().mInfos.front(), info);
    EXPECT_EQ(shared->payload<std::string>(), payload);
    EXPECT_EQ(shared->payload<int>(), nullptr);

    {
        VXWork fixed;
        fixed.setPayload(std::shared_ptr<const std::string>(payload));
        EXPECT_EQ(fixed.payload<const std::string>(), payload);
        EXPECT_EQ(fixed.payload<std::string>(), nullptr);  // it must not be written
    }
    EXPECT_EQ(shared->payload<const std::string>(), payload);

    payload.reset();
    std::weak_ptr<std::string> watch = shared->payload<std::string>();
    shared.reset();
    EXPECT_EQ(released, 1);
    EXPECT_TRUE(watch.expired());
}

// Catches: a release hook that runs per holder, too early, or on no thread at all.
TEST(Work, HookRunsOnceAfterTheLastHolder) {
    std::atomic<int> released{0};
    Tracker tracker;
    tracker.released = &released;
    for (int round = 1; round <= 1000; ++round) {
        VXWork work;
        std::shared_ptr<VXSharedWork> first = work.share(tracker);
        std::shared_ptr<VXSharedWork> second = first;
        ASSERT_EQ(released, round - 1);
        std::thread other([held = std::move(second)]() mutable { held.reset(); });
        first.reset();
        other.join();
        ASSERT_EQ(released, round);
    }
}

// Catches: memory that goes with the work although what its hook made there, or a weak reference, is
// still in use; objects there that overlap; a room that is taken for larger than it is.
TEST(Work, WhatItsHookMakesInItsMemoryOutlivesTheWork) {
    struct Large : Tracker {
        using Text = std::array<char, 100>;
        void onRelease(VXSharedWork* work) override {
            for (char c : {'a', 'b', 'c', 'd'}) {  // more than there is room for
                made->push_back(std::allocate_shared<Text>(VXSharedWork::Allocator<Text>(work)));
                made->back()->fill(c);
            }
            Tracker::onRelease(work);
        }
        std::vector<std::shared_ptr<Text>>* made;
    };
    struct Larger : Large {
        std::array<char, 300> more{};  // its control block has no room either
    };
    const auto test = [](auto tracker) {
        std::atomic<int> released{0};
        std::vector<std::shared_ptr<Large::Text>> made;
        tracker.released = &released;
        tracker.made = &made;
        std::weak_ptr<VXSharedWork> watch;
        {
            VXWork work;
            watch = work.share(tracker);
        }
        EXPECT_EQ(released, 1);
        EXPECT_TRUE(watch.expired());
        std::string text;
        for (const auto& object : made) text.append(object->begin(), object->end());
        EXPECT_EQ(text, std::string(100, 'a') + std::string(100, 'b') + std::string(100, 'c') +
                            std::string(100, 'd'));
    };
    test(Large());
    test(Larger());
    delete new (std::nothrow) VXSharedWork(VXAuxInfo(), {});
    alignas(VXSharedWork) unsigned char memory[sizeof(VXSharedWork)];
    (new (memory) VXSharedWork(VXAuxInfo(), {}))->~VXSharedWork();
}

// Catches: a partial copy, a wrong count, a message under another module's tag.
TEST(Memcpy, CopiesAllOrNothing) {
    LogCapture log(VX_LOG_ERROR);
    const char src[4] = {1, 2, 3, 4};
    char dst[4] = {};
    EXPECT_EQ(memcpy_s(dst, 4, src, 4), 4u);
    EXPECT_EQ(memcmp(dst, src, 4), 0);
    EXPECT_EQ(memcpy_s(dst, 4, src, 0), 0u);
    EXPECT_TRUE(log.messages().empty());

    char untouched[4] = {9, 9, 9, 9};
    EXPECT_EQ(memcpy_s(untouched, 3, src, 4), 0u);
    EXPECT_EQ(untouched[0], 9);
    EXPECT_EQ(memcpy_s(nullptr, 4, src, 4), 0u);
    EXPECT_EQ(memcpy_s(untouched, 4, nullptr, 4), 0u);
    for (const char* text : {"memcpy_s: dst-size (3 bytes) is shorter than copy-size (4 bytes)",
                             "memcpy_s: invalid dst addr", "memcpy_s: invalid src addr"}) {
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kWorkTag, text), 1) << text;
    }
}
