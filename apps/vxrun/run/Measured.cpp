#include "Measured.h"

#include "Text.h"

#include <sys/resource.h>

#include <fstream>

namespace vxrun {
namespace {

double secondsOf(const rusage& usage) {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Not ru_maxrss: it outlives an exec, so it may be the peak of a process that this one once was.
uint64_t peakOfProcess() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        uint64_t kilobytes = 0;
        if (word == "VmHWM:" && status >> kilobytes) return kilobytes * 1024;
    }
    return 0;
}

std::optional<double> figureOf(const LimitKind& kind, const Evidence& evidence) {
    if (kind.isSize) return static_cast<double>(peakOfProcess());
    if (kind.isLeast) {
        const double rate = evidence.framesPerSecond();
        return rate > 0 ? std::optional(rate) : std::nullopt;
    }
    const Histogram& latency = evidence.latency();
    if (latency.count() == 0) return {};
    return std::chrono::duration<double, std::milli>(latency.percentile(99)).count();
}

std::string secondsText(std::chrono::duration<double> time) {
    return decimal(time.count(), 3);
}

}  // namespace

ProcessUse processUse() {
    rusage own{}, commands{};
    getrusage(RUSAGE_SELF, &own);
    getrusage(RUSAGE_CHILDREN, &commands);
    return {secondsOf(own), peakOfProcess(), secondsOf(commands),
            static_cast<uint64_t>(commands.ru_maxrss) * 1024,
            static_cast<uint64_t>(own.ru_nivcsw + commands.ru_nivcsw)};
}

std::vector<LimitCheck> checkLimits(const Limits& limits, const Evidence& evidence) {
    std::vector<LimitCheck> checks;
    for (const LimitKind& kind : limitKinds()) {
        const auto limit = limits.find(kind.name);
        if (limit == limits.end()) continue;
        const auto value = figureOf(kind, evidence);
        const bool isMet =
            value && (kind.isLeast ? *value >= limit->second : *value <= limit->second);
        checks.push_back({kind, limit->second, value, isMet});
    }
    return checks;
}

std::vector<std::string> statsLines(const Evidence& evidence) {
    const ProcessUse use = processUse();
    std::vector<std::string> lines = {concat(
        "run: seconds=", decimal(evidence.seconds(), 3), " frames_per_second=",
        decimal(evidence.framesPerSecond(), 1), " cpu_seconds=", decimal(use.seconds, 3),
        " peak_rss_bytes=", use.peak, " commands_cpu_seconds=", decimal(use.commandsSeconds, 3),
        " commands_peak_rss_bytes=", use.commandsPeak)};
    const Histogram& latency = evidence.latency();
    if (latency.count() > 0) {
        std::string line = concat("latency in ms: frames=", latency.count());
        const auto add = [&](const char* name, Histogram::Time time) {
            line += concat(" ", name, "=",
                           decimal(std::chrono::duration<double, std::milli>(time).count(), 3));
        };
        for (const unsigned percent : {50, 90, 99}) {
            add(concat("p", percent).c_str(), latency.percentile(percent));
        }
        add("max", latency.largest());
        lines.push_back(line);
    }
    for (const NodeRecord* const node : evidence.records()) {
        const NodeTimes& times = node->times;
        lines.push_back(concat("node '", node->name, "': frames=", node->frames,
                               " busy=", secondsText(times.spentIn(NodeTimes::BUSY)),
                               " input=", secondsText(times.spentIn(NodeTimes::WAITS_FOR_INPUT)),
                               " room=", secondsText(times.spentIn(NodeTimes::WAITS_FOR_ROOM)),
                               " buffer=", secondsText(times.spentIn(NodeTimes::WAITS_FOR_BUFFER)),
                               " cpu=", secondsText(times.processor()),
                               " queue=", times.queueHighWater()));
    }
    return lines;
}

}  // namespace vxrun
