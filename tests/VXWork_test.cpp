#include <VXWork.h>
#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "support/CountedMemory.h"
#include "support/LogCapture.h"
#include "support/Scale.h"
#include "types/Types.h"

using namespace vexa;

static constexpr char kTag[] = "Vexa:VXNode";

// Catches: a type confusion that changes or hands out data, a probe for an optional key that logs,
// a refused write that logs only half; a value that has to have a default constructor.
TEST(AuxInfo, HoldsOneTypePerKey) {
    LogCapture log(VX_LOG_ERROR);
    VXEditableAuxInfo info;
    struct Value {
        explicit Value(int n) : n(n) {}
        int n;
    };
    Value object(0);
    uint64_t value = 0;
    for (const int n : {5, 6}) {
        EXPECT_EQ(info.put("object", Value(n)), VX_OK);
        EXPECT_EQ(info.put<unsigned long>("_res_id", n), VX_OK);
        EXPECT_EQ(info.get("object", &object), VX_OK);
        EXPECT_EQ(info.get("_res_id", &value), VX_OK);
        EXPECT_EQ(object.n, n);
        EXPECT_EQ(value, n);
    }
    uint32_t narrow = 77;
    EXPECT_EQ(info.get("missing", &narrow), VX_NOT_FOUND);
    EXPECT_TRUE(log.messages().empty());

    EXPECT_EQ(info.get("_res_id", &narrow), VX_ERROR);
    EXPECT_EQ(narrow, 77u);
    EXPECT_LOGGED(ERROR, "VXAuxInfo::get : _res_id stored with different type !");
    log.clear();
    EXPECT_EQ(info.put<std::string>("_res_id", "text"), VX_ERROR);
    EXPECT_LOGGED(ERROR, "VXAuxInfo::get : _res_id stored with different type !");
    EXPECT_LOGGED(ERROR, "VXAuxInfo: cannot overwrite '_res_id' stored with a different type!");
    EXPECT_EQ(info.get("_res_id", &value), VX_OK);
    EXPECT_EQ(value, 6u);
    EXPECT_EQ(info.get<uint64_t>("_res_id", nullptr), VX_BAD_VALUE);
    EXPECT_GUARD("val == nullptr");
}

// Catches: a public type that is another one in each library, as those are that are not exported
// where a standard library compares types by address; a name that is not there yet when a library
// is loaded.
TEST(AuxInfo, TypesAreTheSameInEveryLibrary) {
    LogCapture log;
    VXEditableAuxInfo info;
    writeTypes(&info);
    EXPECT_EQ(unreadTypes(info), "");
    EXPECT_EQ(gEarlyName, errorName(CRC_MISMATCH));
}

static std::atomic<int> sReleased{0};

struct Tracker {
    virtual ~Tracker() = default;
    virtual void onRelease(VXSharedWork* work) {
        ++sReleased;
        delete work;
    }
};

// Catches: a shared work that follows later changes of its work, a payload that is copied or left
// behind, one read back as another type or, set as const, for writing.
TEST(Work, ShareCopiesInfosAndMovesThePayload) {
    VXWork work;
    const auto info = std::make_shared<VXInfo>();
    work.put<int>("key", 1);
    work.frameInfo() = {3, VXFrameInfo::FLAG_END_OF_STREAM | 1, 40, {{"a", "b"}}, {info}};
    const auto payload = std::make_shared<std::string>("bytes");
    const auto expectPayload = [&](const auto& holder, bool fixed) {
        EXPECT_EQ(holder.template payload<std::string>(), fixed ? nullptr : payload);
        EXPECT_EQ(holder.template payload<const std::string>(), payload);
        EXPECT_EQ(holder.template payload<int>(), nullptr);
    };
    work.setPayload(std::shared_ptr<const std::string>(payload));
    expectPayload(work, true);
    work.setPayload(payload);
    expectPayload(work, false);

    const std::shared_ptr<VXSharedWork> shared = work.share(Tracker());
    expectPayload(*shared, false);
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
}

// Catches: a release hook that runs per holder, too early, or on no thread at all; a payload or
// memory that stays.
TEST(Work, HookRunsOnceAfterTheLastHolder) {
    const auto payload = std::make_shared<int>();
    sReleased = 0;
    for (int round = 0; round < 1000; ++round) {
        const int before = gBlocks;
        VXWork work;
        work.setPayload(payload);
        std::shared_ptr<VXSharedWork> first = work.share(Tracker());
        std::thread other([held = first]() mutable { held.reset(); });
        EXPECT_EQ(sReleased, 0);
        first.reset();
        other.join();
        ASSERT_EQ(sReleased.exchange(0), 1);
        ASSERT_EQ(payload.use_count(), 1);
        ASSERT_EQ(gBlocks, before);
    }
}

// Catches: memory that goes with the work although what its hook made there, or a weak reference,
// is still in use; objects there that overlap; a room that is taken for larger than it is.
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
        sReleased = 0;
        std::vector<std::shared_ptr<Large::Text>> made;
        tracker.made = &made;
        std::weak_ptr<VXSharedWork> watch = VXWork().share(tracker);
        EXPECT_EQ(sReleased, 1);
        EXPECT_TRUE(watch.expired());
        for (; !made.empty(); made.pop_back(), watch.reset()) {
            std::string text, expected;
            for (const auto& object : made) text.append(object->begin(), object->end());
            for (size_t i = 0; i < made.size(); ++i) expected += std::string(100, "abcd"[i]);
            EXPECT_EQ(text, expected);
        }
    };
    test(Large());
    test(Larger());
    delete new (std::nothrow) VXSharedWork(VXAuxInfo(), {});
    alignas(VXSharedWork) unsigned char memory[sizeof(VXSharedWork)];
    (new (memory) VXSharedWork(VXAuxInfo(), {}))->~VXSharedWork();
}

// Catches: memory that stays, or goes twice, when the work and what its hook made there end at
// once.
TEST(Work, ResidentsMayLeaveAtOnce) {
    struct Handing : Tracker {
        void onRelease(VXSharedWork* work) override {
            *made = std::allocate_shared<int>(VXSharedWork::Allocator<int>(work));
            *given = true;
            Tracker::onRelease(work);
        }
        std::shared_ptr<int>* made;
        std::atomic<bool>* given;
    };
    const int before = gBlocks;
    std::shared_ptr<int> made;
    std::atomic<bool> given{false}, over{false};
    std::thread other([&] {
        while (!over) {
            if (!given) continue;
            made.reset();
            given = false;
        }
    });
    Handing tracker;
    tracker.made = &made;
    tracker.given = &given;
    for (int round = scaled(20000); round > 0; --round) {
        VXWork().share(tracker);
        while (given) std::this_thread::yield();
    }
    over = true;
    other.join();
    EXPECT_EQ(gBlocks, before);
}

// Catches: a partial copy, a wrong count, a message under another module's tag.
TEST(Memcpy, CopiesAllOrNothing) {
    LogCapture log(VX_LOG_ERROR);
    const char src[] = "abc";
    char dst[] = "xyz";
    const std::pair<size_t, const char*> refused[] = {
        {memcpy_s(dst, 3, src, 4),
         "memcpy_s: dst-size (3 bytes) is shorter than copy-size (4 bytes)"},
        {memcpy_s(nullptr, 4, src, 4), "memcpy_s: invalid dst addr"},
        {memcpy_s(dst, 4, nullptr, 4), "memcpy_s: invalid src addr"}};
    for (const auto& [copied, text] : refused) {
        EXPECT_EQ(copied, 0u) << text;
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Vexa:VXWork", text), 1) << text;
    }
    EXPECT_STREQ(dst, "xyz");
    log.clear();
    EXPECT_EQ(memcpy_s(dst, 4, src, 0), 0u);
    EXPECT_EQ(memcpy_s(dst, 4, src, 4), 4u);
    EXPECT_STREQ(dst, "abc");
    EXPECT_TRUE(log.messages().empty());
}
