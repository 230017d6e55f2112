// Vxrun: runs the built vxrun as a process and looks at what its users see: exit code, standard
// output and standard error. Expected checksums come from the ffmpeg program.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace vxrun_test {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

inline Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

constexpr std::chrono::seconds kLimit(60);  // for one process, however slow the machine

// A program that runs beside the test, with its output collected. Killed when it takes too long.
class Process {
public:
    // `environment` is added to the test's own. `terminal`: standard error is one.
    Process(Words command, const Words& environment = {}, bool terminal = false) {
        command = Words{"env"} + environment + command;
        std::vector<char*> arguments;
        for (std::string& word : command) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        int out[2], err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        const int opened =
            terminal ? openpty(&err[0], &err[1], nullptr, nullptr, nullptr) : pipe2(err, O_CLOEXEC);
        EXPECT_EQ(opened, 0);
        mPid = fork();
        if (mPid == 0) {
            close(0);
            open("/dev/null", O_RDONLY);
            dup2(out[1], 1);
            dup2(err[1], 2);
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        mPipes[0] = out[0];
        mPipes[1] = err[0];
    }
    ~Process() {
        if (mPid > 0 && ::kill(mPid, SIGKILL) == 0) waitpid(mPid, nullptr, 0);
        close(mPipes[0]);
        close(mPipes[1]);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t id() const { return mPid; }
    void kill(int signal) { ::kill(mPid, signal); }

    // Collects output until one of the two contains `text`; false when neither ever does.
    bool waitFor(const std::string& text) {
        const auto isIn = [&](const std::string& all) { return all.find(text) < all.size(); };
        return collect([&] { return isIn(out) || isIn(err); });
    }

    // Collects everything to the end. The exit code, or -number when a signal ended the program, or
    // -1000 when it took too long.
    int wait() {
        int status = 0;
        if (!collect([&] { return !isOpen(); })) return -1000;
        waitpid(mPid, &status, 0);
        mPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    std::string out, err;

private:
    bool isOpen() const { return mPipes[0] >= 0 || mPipes[1] >= 0; }
    bool collect(const std::function<bool()>& enough) {
        while (!enough()) {
            pollfd sources[] = {{mPipes[0], POLLIN, 0}, {mPipes[1], POLLIN, 0}};
            const std::chrono::duration<double, std::milli> left = mDeadline - Clock::now();
            const int limit = std::max(static_cast<int>(left.count()), 0);
            if (!isOpen() || poll(sources, 2, limit) <= 0) return false;
            for (int i = 0; i < 2; ++i) {
                if (sources[i].revents == 0) continue;
                char chunk[4096];
                const ssize_t size = read(mPipes[i], chunk, sizeof chunk);
                if (size > 0) (i == 0 ? out : err).append(chunk, static_cast<size_t>(size));
                if (size > 0) continue;
                close(mPipes[i]);
                mPipes[i] = -1;
            }
        }
        return true;
    }

    pid_t mPid = -1;
    int mPipes[2];
    const Clock::time_point mDeadline = Clock::now() + kLimit;
};

struct Result {
    int exit;
    std::string out, err;
};

inline Result run(const Words& command) {
    Process process(command, {"VENDOR_VEXA_LOG_MSG=0"});  // vxrun's own lines only
    const int exit = process.wait();
    return {exit, process.out, process.err};
}

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

// A Y4M file of `frames` frames of `bytes` bytes each. Deep samples stay within 9 bits.
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
    // `file` under another name.
    std::string moved(const std::string& file, const std::string& name) const {
        std::filesystem::rename(file, path(name));
        return path(name);
    }

    // A graph file made from the shipped one `name`, with `what` replaced by `by`.
    std::string graph(const std::string& name, const std::string& what = "",
                      const std::string& by = "") const {
        const std::string shipped = contentOf(VXRUN_GRAPHS_DIR "/" + name + ".json");
        writeFile(path("graph.json"), replaced(shipped, what, by));
        return path("graph.json");
    }
    // The same without an expectation.
    std::string unchecked(const std::string& name) const {
        return graph(name, R"("configs": { "expect": "clip.framemd5" },)");
    }
    // One that reads /dev/zero and never ends.
    std::string endless() const {
        const std::string text = replaced(contentOf(unchecked("linear")), "/y4m", "/file");
        writeFile(path("graph.json"), replaced(text, "clip.y4m", "/dev/zero"));
        return path("graph.json");
    }

    // vxrun with `arguments`, in which node.key=value stands for --set node.key=value.
    static Words command(const Words& arguments) {
        Words words = {VXRUN_BINARY};
        for (const std::string& word : arguments) {
            const size_t equals = word.find('=');
            const bool isConfig = equals < word.size() && word.find_first_of("./") < equals &&
                                  word[0] != '/' && words.back() != "--set";
            if (isConfig) words.push_back("--set");
            words.push_back(word);
        }
        return words;
    }
    static Result vxrun(const Words& arguments) { return run(command(arguments)); }
    // The same after `setup`, words of a shell: ulimit or, behind "$@", where descriptors lead.
    static Result vxrunIn(const std::string& setup, const Words& arguments) {
        return run(Words{"sh", "-c", setup, "sh"} + command(arguments));
    }

    // Runs the ffmpeg program; false where there is no such program.
    static bool ffmpeg(const Words& arguments) {
        const Result made = run(Words{"ffmpeg", "-v", "error", "-y"} + arguments);
        EXPECT_TRUE(made.exit == 0 || made.exit == 127) << made.err;
        return made.exit == 0;
    }
    // The list that ffmpeg makes of `input`, named after its format.
    bool makeList(const Words& input, const std::string& format) const {
        return ffmpeg(input + Words{"-fflags", "+bitexact", "-f", format, path(format)});
    }
    // A clip made by ffmpeg.
    bool makeVideo(const std::string& name, const std::string& pixels, const std::string& codec,
                   const std::string& source = "testsrc2=size=35x27:rate=30:duration=1") const {
        return ffmpeg({"-f", "lavfi", "-i", source, "-pix_fmt", pixels, "-strict", "-1", "-c:v",
                       codec, path(name)});
    }

    // A pipe that holds `content` and never ends, as long as the test has it open.
    int makePipe(const std::string& content) const {
        EXPECT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
        const int writer = open(path("pipe").c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(write(writer, content.data(), content.size()), ssize_t(content.size()));
        return writer;
    }

    // A clip of 4 frames and vxrun's own list of it; the shipped graphs find both by their names.
    void makeClip() const {
        writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 4));
        const Result made = vxrun({graph("linear", "\"expect\"", "\"write\"")});
        ASSERT_EQ(made.exit, 4) << made.err;
    }

    std::string mFolder;
};

inline void expectHas(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << text << "lacks\n" << part;
}

inline void expectPass(const Result& result, const std::string& frames) {
    const std::string counts = " frames=" + frames + " checked=" + frames + " first_bad=-\n";
    EXPECT_EQ(result.out, "verdict: PASS" + counts) << result.err;
    EXPECT_EQ(result.exit, 0);
}

inline void expectMatch(const std::string& text, const std::string& pattern) {
    const testing::Matcher<const std::string&> matcher = testing::ContainsRegex(pattern);
    EXPECT_TRUE(matcher.Matches(text)) << text << "does not match\n" << pattern;
}

// The one line that a failure gives, and nothing else but a snapshot, whose lines are indented.
// `verdict`: its word when no frame was checked, else a pattern of the whole line.
inline void expectFailure(const Result& result, int exit, std::string verdict,
                          const std::string& line) {
    if (verdict.find(' ') > verdict.size()) verdict += " frames=0 checked=0 first_bad=-";
    EXPECT_EQ(result.exit, exit) << result.err;
    expectMatch(result.out, "^verdict: " + verdict + "\n$");
    expectHas(result.err, line);
    expectMatch(result.err, "^[^ ][^\n]*\n(  [^\n]*\n)*$");
}

}  // namespace vxrun_test
