// Outlet: a way out of the process whose other end may have stopped reading.
#pragma once

#include <chrono>
#include <string>

namespace vxrun {

// Writes texts whole or not at all, and waits for a reader with a limit. The watchdog writes
// through it, and must not hang.
//
// Life     its target stays open for as long as it lives; the descriptor it was made from need not.
// Threads  one at a time.
// Owns     a descriptor of its own, whose mode does not change that of others.
class Outlet {
public:
    static constexpr std::chrono::milliseconds kForever = std::chrono::milliseconds::max();

    // Opens what the descriptor `fd` refers to. isOpen() is false if that fails (errno has the
    // reason).
    explicit Outlet(int fd);
    ~Outlet();
    Outlet(const Outlet&) = delete;
    Outlet& operator=(const Outlet&) = delete;

    bool isOpen() const { return mFile >= 0; }
    // Writes `text`. Waits at most `patience` for a reader that does not read; after such a wait
    // without success it does not wait again until there is room. Returns 0 or an errno number.
    // EAGAIN: there was no room; a text that has begun is finished first next time, and texts
    // before that are lost.
    int write(const std::string& text, std::chrono::milliseconds patience);

private:
    int writeRest(std::chrono::milliseconds patience);

    bool mIsSocket = false;
    int mFile;
    std::string mRest;      // of a text that has begun
    bool mIsStuck = false;  // the last write ended without room
};

}  // namespace vxrun
