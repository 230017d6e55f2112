// Bundles of runs that failed, and what repeats them.
#include "support/Vxrun.h"

namespace {

using namespace vxrun_test;

// clip.y4m and wrong.framemd5, in which the last of 4 frames differs. What vxrun leaves behind is
// in temporary/.
class VxrunBundle : public Vxrun {
protected:
    void SetUp() override {
        Vxrun::SetUp();
        makeClip();
        std::string list = contentOf(path("clip.framemd5"));
        const size_t last = list.find_last_not_of('\n');
        list[last] = list[last] == '0' ? '1' : '0';
        writeFile(path("wrong.framemd5"), list);
        std::filesystem::create_directory(path("temporary"));
        setenv("TMPDIR", path("temporary").c_str(), 1);
    }
    void TearDown() override {
        EXPECT_TRUE(std::filesystem::is_empty(path("temporary")));
        unsetenv("TMPDIR");
        Vxrun::TearDown();
    }

    Result fail(const Words& more = {}) const {
        return vxrun(Words{graph("linear"), "reader.file=" + path("clip.y4m"),
                           "check.expect=" + path("wrong.framemd5"), "--bundle",
                           path("fail.tar.zst")} +
                     more);
    }
    // A description of a decoder that runs `command`.
    std::string decoder(const std::string& command) const {
        writeFile(path("mine.json"), R"({ "name": "mine", "environment": ["A=b"],
                                          "command": ["sh", "-c", ")" +
                                         command + "\"] }");
        return path("mine.json");
    }
    Result replay(const Words& more = {}, const std::string& file = "fail.tar.zst") const {
        return vxrun(Words{"replay", path(file)} + more);
    }
    static void expectSame(const Result& result, const std::string& how) {
        EXPECT_EQ(result.exit, 0) << result.err;
        expectHas(result.out, ": fails in the same way: " + how);
        expectHas(result.out, "verdict: PASS same=1 different=0 not_failed=0\n");
    }
};

// Catches: a bundle that needs what is only here, or lacks what tells about the failure; a failure
// that is taken for another one, or for none.
TEST_F(VxrunBundle, RepeatsAWrongFrameElsewhere) {
    const Result failed = fail();
    EXPECT_EQ(failed.exit, 1);
    expectHas(failed.out, "verdict: CRC_MISMATCH frames=4 checked=4 first_bad=3\n");
    for (const char* const name : {"clip.y4m", "wrong.framemd5"}) moved(path(name), "gone");
    expectSame(replay({"--keep", path("kept")}), "CRC_MISMATCH");
    for (const char* const name : {"README.md", "1/log.txt", "1/report.json", "1/trace.json",
                                   "1/frames/check.frame000003.actual.png"}) {
        EXPECT_TRUE(std::filesystem::file_size(path("kept/") + name) > 0) << name;
    }
    expectHas(replay({"--keep", path("kept")}).err, "kept: not empty");
    const std::string manifest = contentOf(path("kept/bundle.json"));
    EXPECT_EQ(contentOf(path("kept/1/report.json")).find("temporary/"), std::string::npos);
    const auto replayed = [&](const std::string& what, const std::string& by) {
        writeFile(path("kept/bundle.json"), replaced(manifest, what, by));
        run({"sh", "-c",
             "cd " + path("kept") +
                 " && tar cf ../other bundle.json README.md $(find "
                 "1 -type f -not -path '*/output/*')"});
        return replay({}, "other");
    };
    const Result other = replayed(R"("type": "CRC_MISMATCH")", R"("new": [1], "type": "STALL")");
    expectHas(other.out, "fails differently: was STALL, checksum, is CRC_MISMATCH, checksum");
    EXPECT_EQ(other.exit, 1);
    const Result refused = replayed(R"("bundle_version": 1)", R"("bundle_version": 2)");
    expectHas(refused.err, "another version of vxrun");
    EXPECT_EQ(refused.exit, 2);
}

// Catches: a run that ends its process, or does not end, and leaves no bundle; a library or program
// that is not asked for; another end of vxrun than without a bundle.
TEST_F(VxrunBundle, RepeatsCrashesAndStalls) {
    const Words nodes = {"--nodes", NODES_DIR "/libcrash.so"};
    ASSERT_TRUE(makeVideo("clip.264", "yuv420p", "libx264"));
    const Words decode = {"decode", path("clip.264"), "--bundle", path("fail.tar.zst")};
    const Result crashed = vxrun(decode + nodes + Words{"--decoder", "test/crash"});
    EXPECT_EQ(crashed.exit, -SIGSEGV);
    expectHas(crashed.err, "crashed: SIGSEGV in node 'decoder'");
    const Result missing = replay();
    EXPECT_EQ(missing.exit, 2);
    expectHas(missing.err, "needs node libraries that are not in a bundle: libcrash.so");
    expectSame(replay(nodes), "SIGNAL_11");
    const Result stalled =
        vxrun(decode + Words{"--decoder", decoder("test $A = b && sleep 1000"), "--stall", "1"});
    EXPECT_EQ(stalled.exit, 124);
    moved(path("mine.json"), "gone");
    expectSame(replay(), "STALL");
    const Result passed = vxrun({"decode", path("clip.y4m"), "--bundle", path("none"), "--decoder",
                                 decoder("cat {input}")});
    EXPECT_EQ(passed.exit, 0);
    expectHas(passed.err, "none is written");
    EXPECT_FALSE(std::filesystem::exists(path("none")));
}

// Catches: files that are packed nevertheless, taken for others, or missing without a word.
TEST_F(VxrunBundle, NamesFilesInPlaceOfPackingThem) {
    fail({"--bundle-refs"});
    expectSame(replay(), "CRC_MISMATCH");
    const std::string clip = moved(path("clip.y4m"), "gone");
    const Result missing = replay();
    EXPECT_EQ(missing.exit, 2);
    expectHas(missing.err, "'" + path("clip.y4m") + "' (");
    const Words resources = {"--resources", path("elsewhere")};
    std::filesystem::create_directories(path("elsewhere/a/b"));
    writeFile(path("elsewhere/a/clip.y4m"), std::string(contentOf(clip).size(), 'x'));
    EXPECT_EQ(replay(resources).exit, 2);
    std::filesystem::rename(clip, path("elsewhere/a/b/clip.y4m"));
    expectSame(replay(resources), "CRC_MISMATCH");
}

// Catches: a vector that is left out, or one that has passed and is not.
TEST_F(VxrunBundle, HasTheVectorsThatFailed) {
    const std::string raw =
        run({"sh", "-c", "ffmpeg -v error -i " + path("clip.y4m") + " -f rawvideo - | md5sum"})
            .out.substr(0, 32);
    const auto vector = [](const std::string& name, const std::string& md5) {
        return R"({ "name": ")" + name + R"(", "input_file": "clip.y4m", "result": ")" + md5 +
               "\" }";
    };
    writeFile(path("S.json"), R"({ "name": "S", "codec": "H.264", "test_vectors": [)" +
                                  vector("good", raw) + ", " + vector("bad", std::string(32, '1')) +
                                  "] }");
    for (const char* const name : {"good", "bad"}) {
        std::filesystem::create_directories(path("S/") + name);
        std::filesystem::copy_file(path("clip.y4m"), path("S/") + name + "/clip.y4m");
    }
    const Result failed = vxrun({"suite", path("S.json"), "--resources", mFolder, "--decoder",
                                 decoder("cat {input}"), "--bundle", path("fail.tar.zst")});
    expectHas(failed.out, "passed=1 failed=1");
    std::filesystem::remove_all(path("S"));
    expectSame(replay(), "CRC_MISMATCH");
}

// Catches: a bundle that writes outside of its folder, fills the disk, or is not what it says.
TEST_F(VxrunBundle, RefusesBadBundles) {
    fail();
    const struct {
        std::string script, line;
    } cases[] = {
        {"head -c 2000 ../fail.tar.zst >../bad", "not a bundle: "},
        {"echo no >../bad", "not a bundle: "},
        {": >../bad", "not a bundle: "},
        {"tar cf ../bad README.md bundle.json $F", "does not begin with bundle.json"},
        {"sed -i s,1/log.txt,/tmp/log, bundle.json; $TAR", "bad name '/tmp/log'"},
        {"sed -i s,1/log.txt,1/../../log, bundle.json; $TAR", "bad name '1/../../log'"},
        {"sed -i s,1/log.txt,README.md, bundle.json; $TAR", "'README.md' is there twice"},
        {"sed -i 's,\"folder\": \"1\",\"folder\": \"..\",' bundle.json; $TAR", "bad folder '..'"},
        {"sed -i '0,/\"size\": /s//\"size\": 9876543210/' bundle.json; $TAR", "more than 8 GiB"},
        {"sed -i '0,/\"size\": /s//\"size\": -/' bundle.json; $TAR", "bundle.json:"},
        {"head -c 5000000 /dev/zero >bundle.json; $TAR", "bundle.json is too large"},
        {"touch more; $TAR more", "'more' is not in bundle.json"},
        {"$TAR --hard-dereference README.md", "or there twice"},
        {"tar cPf ../bad --transform s,1/log.txt,/../log, bundle.json $F", "is not in bundle.json"},
        {"ln -sf / 1/log.txt; $TAR 1/log.txt", "'1/log.txt' is not a plain file"},
        {"rm 1/log.txt; mkfifo 1/log.txt; $TAR 1/log.txt", "'1/log.txt' is not a plain file"},
        {"ln -f README.md 1/log.txt; $TAR 1/log.txt", " is not a plain file"},
        {"echo >>1/log.txt; $TAR", "has another size than in bundle.json"},
        {"tr a-z A-Z <1/log.txt >x; mv x 1/log.txt; $TAR", "'1/log.txt' is damaged"},
        {"tar cf ../bad bundle.json README.md", "lacks '1/"},
    };
    for (const auto& [script, line] : cases) {
        SCOPED_TRACE(script);
        const std::string folder = path("kept");
        std::filesystem::remove_all(folder);
        ASSERT_EQ(replay({"--keep", folder}).exit, 0);
        run({"sh", "-c",
             "cd " + folder +
                 " && F=$(find README.md 1 -type f -not -path '*/output/*') && "
                 "TAR=\"tar cf ../bad bundle.json $F\" && " +
                 script});
        const Result result = replay({}, "bad");
        EXPECT_EQ(result.exit, 2);
        EXPECT_EQ(result.err.rfind(path("bad") + ": ", 0), 0u) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        expectHas(result.err, line);
    }
}

// Catches: an interrupt that is not passed on, or leaves files or processes behind.
TEST_F(VxrunBundle, AnInterruptLeavesNothing) {
    const int begun = makePipe("");
    const std::string command = decoder("echo >" + path("pipe") + "; exec sleep 1000");
    const Words decode = {"decode", path("clip.y4m"), "--decoder",
                          command,  "--bundle",       path("fail.tar.zst")};
    const auto interrupt = [&](const Words& words) {
        Process process(Vxrun::command(words));
        char byte;
        EXPECT_EQ(read(begun, &byte, 1), 1);
        process.kill(SIGINT);
        return process.wait();
    };
    EXPECT_EQ(interrupt(decode), 130);
    for (const char* const name : {"fail.tar.zst", "fail.tar.zst.part"}) {
        EXPECT_FALSE(std::filesystem::exists(path(name))) << name;
    }
    EXPECT_EQ(vxrun(decode + Words{"--stall", "1"}).exit, 124);
    char byte;
    EXPECT_EQ(read(begun, &byte, 1), 1);
    Words slow = {"replay", path("fail.tar.zst")};
    EXPECT_EQ(interrupt(slow), 130);
    close(begun);
}

}  // namespace
