// Two streams compared, the evidence of a difference, and the nodes that hold frames back.
#include "support/Vxrun.h"

#include <cmath>
#include <map>
#include <nlohmann/json.hpp>

namespace {

using namespace vxrun_test;
using Json = nlohmann::json;

// A clip taken to pieces: 8-bit 4:2:0, or what `fields` say.
struct Clip {
    explicit Clip(int count, const std::string& format = "W144 H80 F25:1 C420",
                  size_t size = kLuma * 3 / 2, bool deep = false)
        : fields(format) {
        const std::string file = y4m(fields, static_cast<int>(size), count, deep);
        for (size_t at = file.find('\n') + 1; at < file.size(); at += 6 + size) {
            frames.push_back(file.substr(at + 6, size));
        }
    }
    std::string file() const {
        std::string text = "YUV4MPEG2 " + fields + "\n";
        for (const std::string& frame : frames) text += "FRAME\n" + frame;
        return text;
    }

    static constexpr size_t kWidth = 144, kLuma = kWidth * 80, kChroma = kLuma / 4;
    std::string fields;
    std::vector<std::string> frames;
};

class VxrunCompare : public Vxrun {
protected:
    // A graph of nodes "name type targets;", where a target "node.0" is the first input of that
    // node.
    std::string graphOf(const std::string& nodes) const {
        Json graph = {{"name", "g"}, {"nodes", Json::array()}, {"connections", Json::object()}};
        const auto port = [](const std::string& name) {
            return Json{{"name", name}, {"format", "video/raw"}};
        };
        std::istringstream lines(nodes);
        for (std::string line; std::getline(lines, line, ';');) {
            std::istringstream words(line);
            std::string name, type, target;
            words >> name >> type;
            Json node = {{"name", name}, {"type", type}};
            const int inputs = type == "sink/compare" ? 2 : type.rfind("source/", 0) == 0 ? 0 : 1;
            for (int i = 0; i < inputs; ++i) {
                node["inputs"].push_back(port(name + "." + std::to_string(i)));
            }
            while (words >> target) graph["connections"][name].push_back(target);
            if (graph["connections"].contains(name)) node["outputs"].push_back(port(name));
            graph["nodes"].push_back(node);
        }
        writeFile(path("graph.json"), graph.dump());
        return path("graph.json");
    }

    Result compare(const Clip& actual, const Clip& expected, const Words& options = {}) const {
        writeFile(path("a.y4m"), actual.file());
        writeFile(path("b.y4m"), expected.file());
        // What is expected starts last: which one comes first is no matter of luck.
        const std::string file =
            graphOf("b source/y4m cmp.1; a source/y4m cmp.0; cmp sink/compare");
        return vxrun(
            Words{file, "--timeout", "50", "a.file=" + path("a.y4m"), "b.file=" + path("b.y4m")} +
            options);
    }
};

// Catches: a wrong sample that is missed, put in the wrong place or given the wrong shape.
TEST_F(VxrunCompare, ShowsWhereAndInWhatShape) {
    const struct {
        size_t plane, x, y, width, height;
        const char* line;
    } cases[] = {
        {0, 70, 20, 1, 1,
         ", 8x8 block (8,2), 64x64 block (1,0); one sample; wrong samples: Y 1 of "
         "11520, Cb 0 of 2880, Cr 0 of 2880; largest difference 8\n"},
        {2, 71, 39, 1, 1, "block (8,4), 64x64 block (1,0); one sample; wrong samples: Y 0 of"},
        {0, 9, 79, 100, 1, "; in one row; wrong samples: Y 100 of"},
        {0, 9, 3, 1, 70, "; in one column; "},
        {1, 64, 16, 8, 8, "8x8 block (8,2), 64x64 block (1,0); in one 8x8 block; "},
        {0, 60, 0, 4, 64, "; in one 64x64 block; "},
        {0, 60, 1, 9, 9, "; from (60,1) to (68,9); "},
        {1, 0, 0, 72, 40, "; whole plane Cb; "},
    };
    const Clip expected(4);
    for (const auto& c : cases) {
        Clip actual = expected;
        const size_t start = c.plane == 0 ? 0 : Clip::kLuma + (c.plane - 1) * Clip::kChroma;
        const size_t stride = Clip::kWidth / (c.plane == 0 ? 1 : 2);
        for (size_t i = 0; i < c.width * c.height; ++i) {
            actual.frames[2][start + (c.y + i / c.width) * stride + c.x + i % c.width] ^= 8;
        }
        const Result result = compare(actual, expected);
        EXPECT_EQ(result.out, "verdict: CRC_MISMATCH frames=4 checked=4 first_bad=2\n");
        const char* const planes[] = {"Y", "Cb", "Cr"};
        std::ostringstream place;
        place << "frame 2 (timestamp 2): plane " << planes[c.plane] << " x=" << c.x << " y=" << c.y
              << " actual ";
        expectHas(result.err, place.str());
        expectHas(result.err, c.line);
    }
}

// Catches: a wrong cropping offset that is not seen, seen with the wrong sign or size, or seen in a
// plain picture, where every shift fits.
TEST_F(VxrunCompare, FindsAShiftInSpace) {
    const struct {
        int dx, dy;
        const char* line;
    } cases[] = {
        {2, 1, "; shifted by (2,1): sample (x,y) is the expected (x+2,y+1); wrong samples: Y "},
        {0, -16, "; shifted by (0,-16): sample (x,y) is the expected (x+0,y-16); "},
        {-3, 0, "; shifted by (-3,0): "},
        {17, 0, "; whole plane Y; "},
    };
    const Clip expected(2);
    const int width = Clip::kWidth, height = 80;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Clip actual = expected;
        for (int y = std::max(-c.dy, 0); y < std::min(height - c.dy, height); ++y) {
            for (int x = std::max(-c.dx, 0); x < std::min(width - c.dx, width); ++x) {
                actual.frames[1][static_cast<size_t>(y * width + x)] =
                    expected.frames[1][static_cast<size_t>((y + c.dy) * width + x + c.dx)];
            }
        }
        expectHas(compare(actual, expected).err, c.line);
    }
    Clip plain = expected;
    plain.frames[0].assign(plain.frames[0].size(), 100);
    Clip edge = plain;
    edge.frames[0].replace(0, Clip::kWidth, Clip::kWidth, 90);
    expectHas(compare(edge, plain).err, "; in one row; ");
}

// Catches: frames too many or too few that go unnoticed, a shift that is not seen, or seen where
// there is none; a list that hides either.
TEST_F(VxrunCompare, FindsFramesThatAreOff) {
    struct Case {
        const char* firstBad;
        std::function<void(Clip*)> damage;
        const char *line, *alsoOfLists;
    };
    const auto erase = [](size_t at, size_t count) {
        return [=](Clip* c) {
            const auto from = c->frames.begin() + static_cast<ptrdiff_t>(at);
            c->frames.erase(from, from + static_cast<ptrdiff_t>(count));
        };
    };
    const Case cases[] = {
        {"2",
         [](Clip* c) {
             const auto end = c->frames[2].end();
             std::rotate(end - 2 * Clip::kChroma, end - Clip::kChroma, end);
         },
         "; planes Cb and Cr swapped; ", "1 of 8 frames"},
        {"5", [](Clip* c) { c->frames[5] = c->frames[4]; },
         "1 of 8 frames are wrong, actual 8, expected 8; ", "; frame 5 is the expected frame 4\n"},
        {"3", erase(3, 1), "4 of 7 frames are wrong, actual 7, expected 8; ",
         "; shifted by 1: from frame 3 on, frame n is the expected frame n+1\n"},
        {"3", erase(3, 2), "", "; shifted by 2: from frame 3 on, "},
        {"4", [](Clip* c) { c->frames.insert(c->frames.begin() + 3, c->frames[3]); },
         "4 of 8 frames are wrong, actual 9, expected 8; ", "; shifted by -1: from frame 4 on, "},
        {"7", erase(7, 1), "0 of 7 frames are wrong, actual 7, expected 8\n", ""},
        {"8", [](Clip* c) { c->frames.push_back(c->frames[0]); },
         "0 of 8 frames are wrong, actual 9, expected 8\n", ""},
        {"0", [](Clip* c) { c->fields = "W80 H144 C420"; },
         "): actual 80x144 yuv420p, expected 144x80 yuv420p\n", nullptr},
    };
    const Clip expected(8);
    const std::string source = "a.file=" + path("a.y4m"),
                      lists = moved(graphOf("a source/y4m check.0; check sink/checksum"), "lists");
    writeFile(path("a.y4m"), expected.file());
    EXPECT_EQ(vxrun({lists, source, "check.write=" + path("list")}).exit, 4);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Clip actual = expected;
        c.damage(&actual);
        const size_t checked = std::min(actual.frames.size(), expected.frames.size());
        const std::string verdict =
            "verdict: CRC_MISMATCH frames=" + std::to_string(actual.frames.size()) +
            " checked=" + std::to_string(checked) + " first_bad=" + c.firstBad + "\n";
        const Result result = compare(actual, expected);
        EXPECT_EQ(result.out, verdict);
        expectHas(result.err, c.line);
        EXPECT_EQ(result.err.find(" wrong, "), result.err.rfind(" wrong, "));  // at the end only
        if (c.alsoOfLists == nullptr) continue;
        const Result list = vxrun({lists, source, "check.expect=" + path("list")});
        EXPECT_EQ(list.out, verdict);
        expectHas(list.err, c.alsoOfLists);
    }
}

// Catches: a figure that is worked out wrongly, a floor or tolerance that is off by a little, a cap
// of another depth, a bad config that is accepted. The figures are worked out by hand.
TEST_F(VxrunCompare, JudgesByTolerancePsnrAndSsim) {
    Clip flat(2, "W8 H4 F25:1 C420", 48);
    for (std::string& frame : flat.frames) frame.assign(48, 100);
    Clip sample = flat;
    sample.frames[1][5] = static_cast<char>(148);  // mse 48: 31.3184 dB, of Y alone 29.5575
    Clip lighter = flat;
    lighter.frames[1].assign(48,
                             120);  // (2*100*120 + 6.5025) / (100^2 + 120^2 + 6.5025) = 0.983611
    const Clip deep(2, "W7 H5 F25:1 C444p10", 210, true);
    Clip deepSample = deep;
    deepSample.frames[1][9] ^= 2;  // the high byte: a difference of 512
    const struct {
        const Clip &actual, &expected;
        const char* config;
        int exit;
        const char* line;
    } cases[] = {
        {sample, flat, "tolerance=48", 0, ""},
        {sample, flat, "tolerance=47", 1, "plane Y x=5 y=0 actual 148 expected 100"},
        {deepSample, deep, "tolerance=512", 0, ""},
        {deepSample, deep, "tolerance=511", 1, "x=4 y=0 actual "},
        {sample, flat, "psnr=31.3183", 0,
         "psnr: mean 45.6592 average 34.3287 p50 31.3184 p5 31.3184 p1 31.3184 min 31.3184 in "
         "frame "
         "1\n"},
        {sample, flat, "measure=true", 4, "psnr_y: mean 44.7787 average 32.5678 "},
        {deep, flat, "measure=true", 1, "actual 7x5 yuv444p10le, expected "},

        {sample, flat, "psnr=31.3185", 1, "frame 1 (timestamp 1): psnr 31.3184 (Y 29.5575 Cb 60"},
        {flat, flat, "psnr=60", 0, "psnr: mean 60 average 60 p50 60 "},
        {flat, flat, "psnr=60.1", 1, "psnr 60 (Y 60 Cb 60 Cr 60) is below 60.1"},
        {deep, deep, "psnr=72", 0, "psnr: mean 72 average 72 "},
        {lighter, flat, "ssim=0.9836", 0, "ssim: mean 0.991805 p50 0.983611 "},
        {lighter, flat, "ssim=0.98362", 1,
         "ssim 0.983611 (Y 0.983611 Cb 0.983611 Cr 0.983611) is below 0.98362"},
        {flat, flat, "ssim=1", 0, "ssim: mean 1 p50 1 "},
        {deep, flat, "psnr=1", 1, "actual 7x5 yuv444p10le, expected "},
        {flat, flat, "psnr=3x", 3, "expected a number from 1 to 108, got '3x'"},
        {flat, flat, "ssim=1.1", 3, "expected a number from 0.01 to 1, got '1.1'"},
        {sample, flat, "tolerance=254", 0, ""},
        {sample, flat, "tolerance=255", 3, "no samples of 8 bits differ by more than 255"},
        {deepSample, deep, "tolerance=1023", 3, "no samples of 10 bits differ by more than 1023"},
        {flat, flat, "tolerance=-1", 3, "config 'tolerance': "},
    };
    const std::map<int, std::string> verdicts = {
        {0, "PASS"}, {1, "INFO_VALIDATION_FAIL"}, {3, "NODE_FAIL_"}, {4, "NOTHING_CHECKED "}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        const Result result = compare(c.actual, c.expected, {"cmp." + std::string(c.config)});
        EXPECT_EQ(result.exit, c.exit);
        EXPECT_EQ(result.out.find("verdict: " + verdicts.at(c.exit)), 0u) << result.out;
        expectHas(result.err, c.line);
    }
}

// The PSNR and SSIM of two planes, computed as they are defined.
std::pair<double, double> figuresOf(const std::vector<int>& a, const std::vector<int>& b,
                                    size_t columns, double peak) {
    const size_t rows = a.size() / columns, width = std::min<size_t>(columns, 8),
                 height = std::min<size_t>(rows, 8);
    double squares = 0, sum = 0, windows = 0;
    for (size_t i = 0; i < a.size(); ++i) squares += std::pow(a[i] - b[i], 2);
    for (size_t top = 0; top < rows - height + 4; top += 4) {
        for (size_t left = 0; left < columns - width + 4; left += 4, ++windows) {
            double meanA = 0, meanB = 0, squaresA = 0, squaresB = 0, products = 0;
            for (size_t i = 0; i < width * height; ++i) {
                const size_t at = (std::min(top, rows - height) + i / width) * columns +
                                  std::min(left, columns - width) + i % width;
                const double n = double(width * height), x = a[at], y = b[at];
                meanA += x / n;
                meanB += y / n;
                squaresA += x * x / n;
                squaresB += y * y / n;
                products += x * y / n;
            }
            const double c1 = std::pow(0.01 * peak, 2), c2 = std::pow(0.03 * peak, 2);
            sum += (2 * meanA * meanB + c1) * (2 * (products - meanA * meanB) + c2) /
                   (meanA * meanA + meanB * meanB + c1) /
                   (squaresA - meanA * meanA + squaresB - meanB * meanB + c2);
        }
    }
    return {10 * std::log10(peak * peak / (squares / double(a.size()))), sum / windows};
}

// The numbers in the lines of a table or CSV file.
std::vector<std::vector<double>> numbersOf(std::string text, const std::string& separators) {
    std::vector<std::vector<double>> rows;
    for (char& c : text) c = separators.find(c) < separators.size() ? ' ' : c;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        rows.emplace_back();
        for (std::string word; words >> word;) {
            if (std::isdigit(word[0]) != 0) rows.back().push_back(std::stod(word));
        }
    }
    return rows;
}

// Catches: a window of samples that is lost, counted twice or misplaced at the end of a row or
// column, or in a plane smaller than a window; sums that overflow in deep samples, samples lost
// where a vector ends, planes whose strides or columns are mixed up, figures of all planes that are
// weighted wrongly.
TEST_F(VxrunCompare, FiguresAreThoseOfTheDefinition) {
    const struct {
        const char* fields;
        int depth;
        size_t columns, rows, chromaColumns, chromaRows;
    } cases[] = {
        {"W37 H21 F25:1 C420", 8, 37, 21, 19, 11},    {"W35 H19 F25:1 C422p9", 9, 35, 19, 18, 19},
        {"W50 H11 F25:1 C420p12", 12, 50, 11, 25, 6}, {"W7 H29 F25:1 C444p14", 14, 7, 29, 7, 29},
        {"W41 H9 F25:1 C444p16", 16, 41, 9, 41, 9},   {"W67 H3 F25:1 Cmono", 8, 67, 3, 0, 0}};
    uint32_t noise = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields);
        Clip actual(0, c.fields), expected(0, c.fields);
        std::string* const files[] = {&actual.frames.emplace_back(),
                                      &expected.frames.emplace_back()};
        std::vector<double> psnr, ssim, sizes;
        for (int plane = 0; plane < (c.chromaRows > 0 ? 3 : 1); ++plane) {
            const size_t columns = plane == 0 ? c.columns : c.chromaColumns;
            std::vector<int> samples[2];
            for (size_t i = 0; i < columns * (plane == 0 ? c.rows : c.chromaRows); ++i) {
                for (size_t s : {0, 1}) {  // alike in half of the samples, and at the peak in a few
                    noise = noise * 1664525 + 1013904223;
                    const int value = static_cast<int>(noise >> (32 - c.depth));
                    const bool isPeak = i < 2 * columns;
                    samples[s].push_back(s == 1 && i % 2 == 0 ? samples[0].back()
                                         : isPeak             ? (1 << c.depth) - 1 - int(s)
                                                              : value);
                    *files[s] += static_cast<char>(samples[s].back());
                    if (c.depth > 8) *files[s] += static_cast<char>(samples[s].back() >> 8);
                }
            }
            const auto figures = figuresOf(samples[0], samples[1], columns, (1 << c.depth) - 1);
            psnr.push_back(figures.first);
            ssim.push_back(figures.second);
            sizes.push_back(double(samples[0].size()));
        }
        double samples = 0, error = 0, similarity = 0;
        for (size_t p = 0; p < sizes.size(); ++p) {
            samples += sizes[p];
            error += sizes[p] * std::pow(10, -psnr[p] / 10);
            similarity += sizes[p] * ssim[p];
        }
        psnr.push_back(-10 * std::log10(error / samples));
        ssim.push_back(similarity / samples);
        compare(actual, expected, {"cmp.measure=true", "cmp.csv=" + path("csv")});
        std::vector<double> row = {0, 0};
        for (const auto* figures : {&psnr, &ssim}) {
            row.insert(row.end(), figures->begin(), figures->end());
        }
        const auto rows = numbersOf(contentOf(path("csv")), ",");
        ASSERT_EQ(rows.size(), 2u);
        ASSERT_EQ(rows[1].size(), row.size());
        for (size_t i = 0; i < row.size(); ++i) EXPECT_NEAR(rows[1][i], row[i], 1e-6) << i;
    }
}

// Catches: figures that those of the ffmpeg program cannot be compared with. Its SSIM has slightly
// other constants, and leaves out what does not fill a window.
TEST_F(VxrunCompare, FiguresAreNearThoseOfFfmpeg) {
    for (const std::string pixels : {"yuv420p", "yuv444p", "yuv420p10le"}) {
        for (const std::string size : {"64x48", "37x27"}) {
            SCOPED_TRACE(pixels + " " + size);
            const std::string source = "testsrc2=rate=30:duration=0.2:size=" + size;
            if (!makeVideo("a.y4m", pixels, "wrapped_avframe", source + ",noise=alls=20:allf=t")) {
                GTEST_SKIP() << "no ffmpeg program";
            }
            makeVideo("b.y4m", pixels, "wrapped_avframe", source);
            for (const std::string filter : {"psnr", "ssim"}) {
                ffmpeg({"-i", path("a.y4m"), "-i", path("b.y4m"), "-lavfi",
                        filter + "=stats_file=" + path(filter), "-f", "null", "-"});
            }
            vxrun({graphOf("b source/y4m cmp.1; a source/y4m cmp.0; cmp sink/compare"),
                   "a.file=" + path("a.y4m"), "b.file=" + path("b.y4m"), "cmp.csv=" + path("csv")});
            const auto ours = numbersOf(contentOf(path("csv")), ","),
                       psnr = numbersOf(contentOf(path("psnr")), ":"),
                       ssim = numbersOf(contentOf(path("ssim")), ":");
            ASSERT_EQ(ours.size(), 7u);
            for (size_t frame = 0; frame < 6; ++frame) {
                ASSERT_EQ(ours[frame + 1].size(), 10u);
                for (size_t i = 0; i < 4; ++i) {  // Y, Cb, Cr, all; of PSNR theirs has all first
                    const auto& row = ours[frame + 1];
                    EXPECT_NEAR(row[2 + i], psnr[frame][i == 3 ? 5 : 6 + i], 0.00501);
                    if (size != "64x48") continue;
                    EXPECT_NEAR(row[6 + i], ssim[frame][1 + i], 0.002);
                }
            }
        }
    }
}

// Catches: pictures of the wrong frame, size, depth or content, more of them than asked for, a
// difference too small to be seen.
TEST_F(VxrunCompare, WritesWrongFrames) {
    const struct {
        const char* fields;
        size_t size, bytes;
        const char* pixels;  // of the picture
    } cases[] = {{"W9 H5 F25:1 C420", 45 + 2 * 15, 1, "rgb24"},
                 {"W9 H5 F25:1 C444p12", 2 * 135, 2, "rgb48be"},
                 {"W9 H5 F25:1 Cmono10", 2 * 45, 2, "gray16be"}};
    const std::string folder = path("deep/bad"), stem = folder + "/cmp.frame000003.";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields);
        const Clip expected(6, c.fields, c.size, c.bytes == 2);
        Clip actual = expected;
        for (const size_t frame : {1, 3, 4}) actual.frames[frame][20 * c.bytes] ^= 1;
        const Result result = compare(actual, expected, {"cmp.dump_limit=2", "--dump-bad", folder});
        EXPECT_EQ(result.exit, 1) << result.err;
        const auto files = std::filesystem::directory_iterator(folder);
        EXPECT_EQ(std::distance(begin(files), end(files)), 2 * 6);
        EXPECT_EQ(contentOf(stem + "actual.raw"), actual.frames[3]);
        EXPECT_EQ(contentOf(stem + "expected.raw"), expected.frames[3]);
        std::string difference(45, 0);
        difference[20] = 64 + 8;
        EXPECT_EQ(contentOf(stem + "diff.raw"), difference);
        if (!ffmpeg({"-i", stem + "diff.png", "-f", "rawvideo", path("png")})) {
            GTEST_SKIP() << "no ffmpeg program";
        }
        EXPECT_EQ(contentOf(path("png")), difference);
        const Result probe =
            run({"ffprobe", "-v", "error", "-show_entries", "stream=width,height,pix_fmt", "-of",
                 "csv=p=0", stem + "actual.png"});
        EXPECT_EQ(probe.out, std::string("9,5,") + c.pixels + "\n") << probe.err;
        std::filesystem::remove_all(folder);
    }
    // A node's name does not lead out of the folder.
    std::string named = contentOf(path("graph.json"));
    for (size_t at = 0; (at = named.find("cmp", at)) < named.size(); at += 6) {
        named.replace(at, 3, "../c-p");
    }
    writeFile(path("graph.json"), named);
    vxrun({path("graph.json"), "a.file=" + path("a.y4m"), "b.file=" + path("b.y4m"), "--dump-bad",
           folder});
    EXPECT_TRUE(std::filesystem::exists(folder + "/___c-p.frame000001.actual.raw"));
    expectFailure(compare(Clip(1), Clip(1), {"--dump-bad", path("a.y4m")}), 3, "NODE_FAIL_INIT",
                  "a.y4m' cannot be created: ");
}

// Catches: colors that are swapped, of another range or depth, or in the wrong place.
TEST_F(VxrunCompare, ShowsWrongFramesInColor) {
    // Two columns red, two white.
    const std::string luma = "\x51\x51\xeb\xeb", cb = "\x5a\x80", cr = "\xf0\x80";
    const auto in10Bits = [](const std::string& samples) {
        std::string deep;
        for (const unsigned char c : samples) deep += {static_cast<char>(c << 2), char(c >> 6)};
        return deep;
    };
    const std::string red = std::string("\xfe\0\0", 3),
                      deepRed = std::string("\xff\x6f\0\0\0\0", 6);
    const struct {
        const char* fields;
        std::string planes, png;
    } cases[] = {
        {"W4 H2 F25:1 C420", luma + luma + cb + cr, red + red + std::string(6, '\xff')},
        {"W4 H2 F25:1 C422p10", in10Bits(luma + luma + cb + cb + cr + cr),
         deepRed + deepRed + std::string(12, '\xff')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields);
        Clip actual(1, c.fields, c.planes.size());
        Clip expected = actual;
        actual.frames[0] = c.planes;
        expected.frames[0].assign(c.planes.size(), 0);
        EXPECT_EQ(compare(actual, expected, {"--dump-bad", path("bad")}).exit, 1);
        const std::string file = path("bad/cmp.frame000000.actual.png");
        if (!ffmpeg({"-i", file, "-f", "rawvideo", path("png")}))
            GTEST_SKIP() << "no ffmpeg program";
        EXPECT_EQ(contentOf(path("png")), c.png + c.png);
    }
}

// Catches: a frame that is lost, hashed twice, taken for another or waited for in vain because the
// sink hashes several at a time: in streams of every length, with pools that are smaller than such
// a group, when the input pauses and when it breaks off.
TEST_F(VxrunCompare, HashesFramesInGroups) {
    constexpr size_t kMost = 18, kFrame = 6 + 36;
    const std::string list = path("list"), whole = y4m("W6 H4 F25:1", 36, kMost);
    const std::string file = "file=" + path("clip.y4m"),
                      plain = moved(graphOf("a source/y4m check.0; check sink/checksum"), "plain"),
                      delayed = moved(
                          graphOf(
                              "a source/y4m d.0; d transform/delay check.0; check sink/checksum"),
                          "delayed");
    const size_t head = whole.size() - kMost * kFrame;
    const auto run = [&](const std::string& clip, const Words& options) {
        writeFile(path("clip.y4m"), clip);
        return vxrun(Words{plain, "a." + file, "check.expect=" + list} + options);
    };
    for (size_t frames = 1; frames <= kMost; ++frames) {
        const std::string clip = whole.substr(0, head + frames * kFrame);
        ASSERT_EQ(run(clip, {"--record", list, "--force", "a.slots=1"}).exit, 0);
        for (const std::string slots : {"1", "3", "8", "16"}) {
            SCOPED_TRACE(std::to_string(frames) + " frames, slots " + slots);
            expectPass(run(clip, {"a.slots=" + slots}), std::to_string(frames));
        }
    }
    for (size_t bad = 0; bad < kMost; ++bad) {
        std::string clip = whole;
        clip[head + (bad + 1) * kFrame - 1] ^= 1;
        const std::string counts = " checked=18 first_bad=" + std::to_string(bad) + "\n";
        EXPECT_EQ(run(clip, {}).out, "verdict: CRC_MISMATCH frames=18" + counts);
        // The reader fails before there is a group.
        const Result cut = run(clip.substr(0, head + (bad + 1) * kFrame + 9), {});
        EXPECT_EQ(cut.exit, 1) << cut.err;
        expectHas(cut.out, "verdict: CRC_MISMATCH frames=");
    }
    // Nothing more comes.
    std::string paused = whole.substr(0, head + 4 * kFrame);
    paused[head + 2 * kFrame - 1] ^= 1;
    const int writer = makePipe(paused);
    Process process(command({plain, "a.file=" + path("pipe"), "check.expect=" + list}));
    EXPECT_TRUE(process.waitFor("vxrun: node 'check': frame 1 (timestamp 1): ")) << process.err;
    close(writer);
    EXPECT_EQ(process.wait(), 1);
    // Other nodes have most of the pool's buffers.
    writeFile(path("clip.y4m"), whole);
    for (const std::string slots : {"6", "7", "8", "12", "16"}) {
        SCOPED_TRACE("slots " + slots);
        expectPass(
            vxrun({delayed, "a." + file, "a.slots=" + slots, "d.frames=5", "check.expect=" + list}),
            "18");
    }
}

// Catches: a comparison that waits forever when one input is far ahead, frames lost or out of order
// behind a delay, a last frame that does not end the stream.
TEST_F(VxrunCompare, UnevenBranchesDoNotStall) {
    writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 40));
    const std::string source = "a.file=" + path("clip.y4m");
    const Words cases[] = {
        {"d.frames=0", "d.ms=2", "cmp.ahead=1", "a.allocator=dmabuf"},
        {"d.frames=1", "d.ms=0", "cmp.ahead=16", "a.allocator=xcodec2"},
        {"d.frames=12", "d.ms=1", "cmp.ahead=16", "a.allocator=dmabuf"},
        {"d.frames=100", "d.ms=0", "cmp.ahead=40", "a.allocator=xcodec2"},
    };
    for (const Words& settings : cases) {
        for (const bool late : {false, true}) {
            SCOPED_TRACE(settings[0]);
            // With a node between source and delay, the source learns nothing of the delay.
            const std::string file = graphOf(
                std::string("a source/y4m p.0 q.0; p transform/passthrough cmp.") +
                (late ? "1" : "0") + "; q transform/passthrough d.0; d transform/delay cmp." +
                (late ? "0" : "1") + "; cmp sink/compare");
            expectPass(vxrun(Words{file, source, "--timeout", "50", "a.slots=60"} + settings),
                       "40");
        }
    }
    // One output at both inputs proves nothing.
    expectFailure(vxrun({graphOf("a source/y4m cmp.0 cmp.1; cmp sink/compare"), source}), 2,
                  "CORRUPT_DESCR", "output port 'a' feeds another input of node 'cmp' already");
}

// Catches: a pool that holds fewer pictures than a delay or an encoder keeps back, all waiting to
// be compared with what it makes of them, and that is called large enough, or the other way round;
// a stalled run that does not show which node has the buffers; a fence that is said to keep
// pictures.
TEST_F(VxrunCompare, ChecksKnowWhatCannotMove) {
    writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 20));
    const std::string delayed = moved(
                          graphOf(
                              "a source/y4m d.0; d transform/delay check.0; check sink/checksum"),
                          "delayed"),
                      fenced = moved(
                          graphOf("a source/y4m f.0; f transform/fence cmp.0; b source/y4m cmp.1; "
                                  "cmp sink/compare"),
                          "fenced"),
                      transcode = path("transcode.json"), clip = "file=" + path("clip.y4m");
    // Without B frames the decoder behind the encoder keeps none.
    const std::string shipped = contentOf(VXRUN_GRAPHS_DIR "/transcode.json");
    writeFile(transcode, replaced(shipped, "threads=1", "threads=1:bf=0"));
    if (!makeVideo("clip.264", "yuv420p", "libx264")) GTEST_SKIP() << "no ffmpeg program";
    const std::string expect = "check.expect=" + path("list");
    ASSERT_EQ(vxrun({delayed, "a." + clip, "--record", path("list")}).exit, 0);
    const struct {
        Words arguments;
        int exit;
        std::string mistake, pool;
    } cases[] = {
        {{delayed, "a." + clip, expect, "d.frames=15"}, 0, "", ""},
        {{delayed, "a." + clip, expect, "d.frames=16"},
         124,
         "nodes[0]: a pool of 16 buffers, of which the nodes behind it hold 16: the run could "
         "not move",
         "\n  pool of 'a': free 0, out 16, d holds 16\n"},
        {{transcode, "decoder.slots=16"}, 0, "", ""},
        {{transcode, "decoder.slots=8"},
         124,
         "nodes[1].configs.slots: a pool of 8 buffers, of which the nodes behind",
         ""},
        // All of these pass each picture on, sooner or later.
        {{fenced, "a." + clip, "b." + clip, "a.slots=1"}, 0, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments[0] + c.mistake);
        const Result checked = vxrun(Words{"check"} + c.arguments);
        EXPECT_EQ(checked.out, c.mistake.empty() ? "check: mistakes=0\n" : "check: mistakes=1\n");
        expectHas(checked.err, c.mistake);
        const Result ran = vxrun(c.arguments + Words{"--stall", c.exit == 124 ? "3" : "0"});
        EXPECT_EQ(ran.exit, c.exit) << ran.err;
        expectHas(ran.err, c.pool);
    }
}

// Catches: a fence that is not waited for, pictures out of order behind it, a fence that never
// fires and is waited for without success, or keeps the graph from stopping.
TEST_F(VxrunCompare, FencesAreWaitedFor) {
    writeFile(path("clip.y4m"), y4m("W6 H4 F25:1", 36, 20));
    const auto with = [&](const std::string& order, const Words& options) {
        const std::string file = "file=" + path("clip.y4m");
        return vxrun(Words{graphOf(order), "a." + file, "b." + file} + options);
    };
    const std::string through =
                          "b source/y4m cmp.1; a source/y4m f.0; f transform/fence cmp.0; "
                          "cmp sink/compare",
                      never = "a.fence_ms=3600000";
    for (const std::string fence : {"a.fence_ms=0", "a.fence_ms=3", "a.allocator=dmabuf"}) {
        expectPass(with(through, {fence, "f.timeout_ms=60000", "--timeout", "50"}), "20");
    }
    expectFailure(with(through, {never, "f.timeout_ms=1"}), 3, "NODE_FAIL_FATAL",
                  "node 'f': frame 0: the fence of its picture has not fired");
    const Result held = with(through, {never, "f.timeout_ms=3600000", "--timeout", "0.3"});
    expectFailure(held, 124, "TIMEOUT", "out of time after 0.3 s");
    expectHas(held.err, "\n  pool of 'a': free 12, out 4, f holds 4\n");
    // The flag goes by the order of description. Past the fence node, what is read is not finished.
    const Result past = with(
        "b source/y4m f.0; a source/y4m cmp.0; f transform/fence cmp.1; "
        "cmp sink/compare",
        {never, "a.slots=20"});
    EXPECT_EQ(past.out, "verdict: CRC_MISMATCH frames=20 checked=20 first_bad=0\n") << past.err;
}

// Catches: a layout whose samples a check sees in another order, place or scale than those of the
// planar format; padding or odd sizes that matter. FFmpeg writes the layouts.
TEST_F(VxrunCompare, EveryLayoutHasTheSameLists) {
    const std::string file = graphOf(
        "reader source/rawvideo check.0 compare.0; planar source/rawvideo compare.1;"
        "check sink/checksum; compare sink/compare");
    // libswscale loses the last column of chroma of deep semi-planar pictures of an odd width.
    const struct {
        std::string layout, planar, width;
    } cases[] = {{"nv12", "yuv420p", "35"},
                 {"nv21", "yuv420p", "35"},
                 {"nv16", "yuv422p", "35"},
                 {"p010le", "yuv420p10le", "36"},
                 {"p016le", "yuv420p16le", "36"}};
    for (const auto& [layout, planar, width] : cases) {
        SCOPED_TRACE(layout);
        const std::string source = "testsrc2=36x28:d=1,format=yuv444p,crop=" + width + ":27";
        if (!makeVideo("p.yuv", planar, "rawvideo", source)) GTEST_SKIP() << "no ffmpeg program";
        const Words input = {"-f",       "rawvideo", "-video_size", width + "x27",
                             "-pix_fmt", planar,     "-i",          path("p.yuv")};
        if (layout != "nv16") {
            ffmpeg(input + Words{"-pix_fmt", layout, "-f", "rawvideo", path("l.yuv")});
        } else {  // which libswscale does not write
            std::string all = contentOf(path("p.yuv"));
            constexpr size_t kLumaBytes = 35 * 27, kChromaBytes = 18 * 27;
            for (size_t at = kLumaBytes; at < all.size(); at += kLumaBytes + 2 * kChromaBytes) {
                const std::string planes = all.substr(at, 2 * kChromaBytes);
                for (size_t i = 0; i < planes.size(); ++i) {
                    all[at + i] = planes[i / 2 + (i % 2) * kChromaBytes];
                }
            }
            writeFile(path("l.yuv"), all);
        }
        Words command = {file, "reader.file=" + path("l.yuv"), "planar.file=" + path("p.yuv"),
                         "reader.format=" + layout, "planar.format=" + planar};
        for (const std::string reader : {"reader.", "planar."}) {
            command = command + Words{reader + "width=" + width, reader + "height=27"};
        }
        for (const std::string list : {"framemd5", "framecrc", "md5"}) {
            makeList(input, list);
            const Result result = vxrun(command + Words{"check.expect=" + path(list)});
            EXPECT_EQ(result.out, "verdict: PASS frames=25 checked=50 first_bad=-\n") << result.err;
        }
    }
}

}  // namespace
