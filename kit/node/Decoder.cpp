#include <vxkit/Decoder.h>

namespace vxkit {

std::vector<EntryKey> Decoder::commands() {
    constexpr uint32_t kCommand = vexa::VXNodeDescriptor::ConfigEntry::COMMAND;
    return {{kCommand, "flush", 1, 1, "command, 1: drops the pictures that the decoder holds back"},
            {kCommand, "drain", 1, 1,
             "command, 1: sends the pictures that the decoder holds back, then starts anew"}};
}

bool Decoder::feed(const vexa::VXSharedWork& work, uint64_t number) {
    const Frame frame(work);
    if (!obeyCommands(number)) return false;
    decode(AccessUnit(frame));
    mIsStarted = true;
    return true;
}

// Obeys the commands at access unit `number`. False when it is to wait for a drain; what is left is
// obeyed next time.
bool Decoder::obeyCommands(uint64_t number) {
    for (auto& command : configStore().commandsAt(number)) {
        mCommands.push_back(std::move(command.first));
    }
    while (!mCommands.empty()) {
        const std::string command = std::move(mCommands.front());
        mCommands.pop_front();
        if (!mIsStarted) continue;  // nothing to flush or drain
        if (command == "drain") {
            drain();
            return false;
        }
        flush();
    }
    return true;
}

}  // namespace vxkit
