// The HTML reports, as far as a text tells. scripts/test-html.sh opens them in a browser.
#include "support/Vxrun.h"

#include <HtmlReport.h>
#include <vxkit/Failure.h>

#include <pugixml.hpp>

namespace {

using namespace vxrun_test;
using vxrun::htmlReport;

// The body of a page, which has to be well-formed.
std::string bodyOf(const std::string& page) {
    const size_t start = page.find("<body>");
    std::string body = page.substr(start, page.rfind("</html>") - start);
    pugi::xml_document document;
    EXPECT_TRUE(document.load_string(body.c_str())) << body;
    return body;
}

std::string suiteJson(const std::string& vectors) {
    return R"({"test_suites": {"S": {"decoders": {"d": {"vectors": {)" + vectors + "}}}}}}";
}

// Catches: a name that becomes markup, an attribute or a link; a member of an unexpected kind that
// ends the program; files that are shown though they are no pictures.
TEST(HtmlReport, WithstandsWhatReportsContain) {
    const std::string evil = R"('\"><script>alert(1)</script>&)";
    std::string failure;
    for (const char* const key : {"type", "kind", "text", "log", "command", "bundle", "input"}) {
        failure += std::string(failure.empty() ? "" : ",") + "\"" + key + "\":\"" + evil + "\"";
    }
    failure += R"(,"dumps":[{"frame":1,"actual":"/etc/passwd"}],"wrong_frames":[[3],[5,2],7],
        "cell_columns":2,"cell_rows":2,"frames":[{"frame":1,"cells":"zz"},4],
        "stream":{"frames":["a"],"pictures":1e300}})";
    const std::string vector = "\"" + evil + R"(":{"result":"Fail","profile":")" + evil +
                               R"(","time":"soon","failure":{)" + failure + "}";
    const std::string page = htmlReport({{"r.json", suiteJson(vector)}});
    const std::string body = bodyOf(page);
    EXPECT_EQ(body.find("<script"), body.npos);
    EXPECT_EQ(body.find("alert(1)</"), body.npos);
    expectHas(body, "/etc/passwd is not a PNG file.");
    EXPECT_EQ(page, htmlReport({{"r.json", suiteJson(vector)}}));
    for (const char* const run : {R"({"nodes":7,"connections":[1,{"from":[]}],"limits":{}})",
                                  R"({"nodes":[{"name":"a"},{"name":"b"}],"failure":{},
            "connections":[{"from":"a","to":"b"},{"from":"b","to":"a"}]})"}) {
        bodyOf(htmlReport({{"r.json", std::string("{\"run\":") + run + "}"}}));
    }
}

// Catches: a change that is missed, or told the wrong way round.
TEST(HtmlReport, TellsWhatHasChanged) {
    const vxrun::JsonReport old = {"old.json", suiteJson(R"("a":{"result":"Success"},
        "b":{"result":"Timeout"},"c":{"result":"Fail"},"d":{"result":"Success"},
        "e":{"result":"Success"})")};
    const std::string page = htmlReport({{"new.json", suiteJson(R"("a":{"result":"Error"},
        "b":{"result":"Success"},"c":{"result":"Error"},"d":{"result":"Not run"},
        "f":{"result":"Success"})")}},
                                        &old);
    expectHas(page, "1 newly failing, 1 newly passing, 1 no longer run, 1 appeared, 1 gone");
    expectHas(page, "newly failing</td><td>a</td><td>d</td><td>Success</td><td>Error</td>");
}

// Catches: a page of what is no report, or left behind by one; an error without the file.
TEST_F(Vxrun, ReportRefusesWhatIsNone) {
    writeFile(path("good.json"), suiteJson(R"("a":{"result":"Success"})"));
    for (const auto& [content, line] :
         {std::pair("{", ": not JSON: parse error at line 1, column 2"),
          std::pair("[1]", ": not a JSON report of a suite or a run\n"),
          std::pair(R"({"run":1})", ": not a JSON report of a suite or a run\n")}) {
        writeFile(path("bad.json"), content);
        for (const Words& files :
             {Words{path("bad.json")}, Words{path("good.json"), "--baseline", path("bad.json")}}) {
            const Result result =
                vxrun(Words{"report"} + files + Words{"--html", path("page.html")});
            expectFailure(result, 2, "CORRUPT_DESCR", path("bad.json") + line);
            EXPECT_FALSE(std::filesystem::exists(path("page.html")));
        }
    }
    writeFile(path("run.json"), R"({"run":{}})");
    expectFailure(vxrun({"report", path("good.json"), "--baseline", path("run.json"), "--html",
                         path("page.html")}),
                  2, "CORRUPT_DESCR", path("run.json") + ": there is no suite to compare");
    EXPECT_EQ(vxrun({"report", path("good.json"), "--html", path("page.html")}).exit, 0);
    bodyOf(contentOf(path("page.html")));
}

}  // namespace
