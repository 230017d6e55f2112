// Vxrun: runs the built vxrun as a process and looks at what its users see: exit code, standard
// output and standard error. Expected checksums come from the ffmpeg program.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace vxrun_test {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit(60);  // for one process, however slow the machine

// ---- Processes --------------------------------------------------------------------------------

// A program that runs beside the test, with its output collected. Killed when it takes too long.
class Process {
public:
    // `environment` is added to the test's own. `terminal`: standard error is one.
    Process(const std::vector<std::string>& command,
            const std::vector<std::string>& environment = {}, bool terminal = false) {
        int out[2], err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        if (terminal) {
            err[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
            EXPECT_TRUE(grantpt(err[0]) == 0 && unlockpt(err[0]) == 0);
            err[1] = open(ptsname(err[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
        } else {
            EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        }
        std::vector<char*> arguments, variables;
        for (const auto& text : command) arguments.push_back(const_cast<char*>(text.c_str()));
        for (const auto& text : environment) variables.push_back(const_cast<char*>(text.c_str()));
        for (char** text = environ; *text != nullptr; ++text) variables.push_back(*text);
        arguments.push_back(nullptr);
        variables.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        if (posix_spawnp(&mPid, arguments[0], &actions, nullptr, arguments.data(),
                         variables.data()) != 0) {
            mPid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        mPipes[0] = out[0];
        mPipes[1] = err[0];
    }
    ~Process() {
        if (mPid > 0) {
            ::kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        close(mPipes[0]);
        close(mPipes[1]);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void kill(int signal) { ::kill(mPid, signal); }
    // Whether the program has ended; wait() tells how.
    bool ended() const {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(mPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == mPid;
    }

    // Collects standard error until it contains `text`; false when it never does.
    bool waitForError(const std::string& text) {
        return collect([&] { return err.find(text) != std::string::npos; });
    }

    // Collects everything to the end. The exit code, or -number when a signal ended the program, or
    // -1000 when it could not be started or took too long.
    int wait() {
        int status = 0;
        if (mPid <= 0 || !collect([&] { return mOpen == 0; })) return -1000;
        waitpid(mPid, &status, 0);
        mPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    std::string out, err;

private:
    bool collect(const std::function<bool()>& enough) {
        while (!enough()) {
            using std::chrono::milliseconds;
            pollfd sources[] = {{mPipes[0], POLLIN, 0}, {mPipes[1], POLLIN, 0}};
            const auto left = std::chrono::duration_cast<milliseconds>(mDeadline - Clock::now());
            if (mOpen == 0 || poll(sources, 2, static_cast<int>(left.count())) <= 0) return false;
            for (int i = 0; i < 2; ++i) {
                if (sources[i].revents == 0) continue;
                char chunk[4096];
                const ssize_t got = read(mPipes[i], chunk, sizeof chunk);
                if (got > 0) (i == 0 ? out : err).append(chunk, static_cast<size_t>(got));
                if (got > 0) continue;
                close(mPipes[i]);
                mPipes[i] = -1;
                --mOpen;
            }
        }
        return true;
    }

    pid_t mPid = -1;
    int mPipes[2];
    int mOpen = 2;
    const Clock::time_point mDeadline = Clock::now() + kLimit;
};

struct Result {
    int exit;
    std::string out, err;
};

inline Result run(const std::vector<std::string>& command) {
    Process process(command, {"VENDOR_VEXA_LOG_MSG=0"});  // vxrun's own lines only
    const int exit = process.wait();
    return {exit, process.out, process.err};
}

// ---- Files ------------------------------------------------------------------------------------

inline std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string replaced(std::string text, const std::string& what, const std::string& by) {
    const size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return at == std::string::npos ? text : text.replace(at, what.size(), by);
}

// A Y4M file of `frames` frames of `bytes` bytes each. Deep samples stay within 9 bits, so that they
// are valid at every depth.
inline std::string y4m(const std::string& fields, int bytes, int frames, bool deep = false) {
    std::string file = "YUV4MPEG2 " + fields + "\n";
    uint32_t noise = 1;
    for (int frame = 0; frame < frames; ++frame) {
        file += "FRAME\n";
        for (int i = 0; i < bytes; ++i) {
            noise = noise * 1664525 + 1013904223;
            file += static_cast<char>(deep && i % 2 == 1 ? noise >> 31 : noise >> 24);
        }
    }
    return file;
}

class Vxrun : public testing::Test {
protected:
    void SetUp() override {
        char folder[] = "/tmp/vxrun_test.XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        mFolder = folder;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(mFolder, ignored);
    }

    std::string path(const std::string& name) const { return mFolder + "/" + name; }

    // A graph file made from the shipped one `graph`, with `what` replaced by `by`.
    std::string graph(const std::string& graph, const std::string& what = "",
                      const std::string& by = "") const {
        writeFile(path("graph.json"),
                  replaced(contentOf(VXRUN_GRAPHS_DIR "/" + graph + ".json"), what, by));
        return path("graph.json");
    }

    // The shipped graph `graph` without an expectation.
    std::string unchecked(const std::string& name) const {
        return graph(name, R"("configs": { "expect": "clip.framemd5" },)");
    }
    // One that reads /dev/zero and never ends.
    std::string endless() const {
        const std::string text = contentOf(unchecked("linear"));
        writeFile(path("graph.json"),
                  replaced(replaced(text, "source/y4m", "source/file"), "clip.y4m", "/dev/zero"));
        return path("graph.json");
    }

    Result vxrun(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), VXRUN_BINARY);
        return run(arguments);
    }
    // The same after `setup`, words of a shell: ulimit or, behind "$@", where descriptors lead.
    Result vxrunIn(const std::string& setup, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"sh", "-c", setup, "sh", VXRUN_BINARY});
        return run(arguments);
    }

    // The list that the ffmpeg program makes of `input`, named after its format; false where there is
    // no such program.
    bool makeList(const std::vector<std::string>& input, const std::string& format) const {
        std::vector<std::string> command = {"ffmpeg", "-v", "error", "-y"};
        command.insert(command.end(), input.begin(), input.end());
        command.insert(command.end(), {"-fflags", "+bitexact", "-f", format, path(format)});
        const Result made = run(command);
        EXPECT_TRUE(made.exit == 0 || made.exit == -1000 || made.exit == 127) << made.err;
        return made.exit == 0;
    }

    // A clip made by the ffmpeg program; false where there is no such program.
    bool makeVideo(const std::string& name, const std::string& pixels, const std::string& codec,
                   const std::string& source = "testsrc2=size=35x27:rate=30:duration=1") const {
        const Result made = run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source,
                                 "-pix_fmt", pixels, "-strict", "-1", "-c:v", codec, path(name)});
        EXPECT_TRUE(made.exit == 0 || made.exit == -1000 || made.exit == 127) << made.err;
        return made.exit == 0;
    }

    // A clip of 4 frames and vxrun's own list of it; the shipped graphs find both by their names.
    void makeClip() const {
        writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 4));
        const Result made = vxrun({graph("linear", "\"expect\"", "\"write\"")});
        ASSERT_EQ(made.exit, 4) << made.err;
    }

    std::string mFolder;
};

// The lines of `text` but for those of a snapshot, which are indented.
inline int linesOf(const std::string& text) {
    int count = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) count += line.rfind("  ", 0) != 0;
    return count;
}

// The one line that a failure gives, and nothing else but a snapshot.
inline void expectFailure(const Result& result, int exit, const std::string& verdict,
                          const std::string& line) {
    EXPECT_EQ(result.exit, exit) << result.err;
    EXPECT_EQ(result.out, "verdict: " + verdict + "\n");
    EXPECT_NE(result.err.find(line), std::string::npos) << result.err << "does not say\n" << line;
    EXPECT_EQ(linesOf(result.err), 1) << result.err;
}

const char kNothing[] = " frames=0 checked=0 first_bad=-";

}  // namespace vxrun_test
