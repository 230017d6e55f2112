// vxrun report REPORT.json...: draws JSON reports as one page.
#include "Command.h"
#include "Console.h"
#include "Files.h"
#include "HtmlReport.h"
#include "Text.h"

namespace vxrun {
namespace {

class ReportCommand final : public Command {
public:
    CLI::App* addTo(CLI::App* app) override {
        CLI::App* const report =
            app->add_subcommand("report", "Draws JSON reports of suites and runs as an HTML page");
        report->fallthrough();
        addOption(report, "reports REPORT.json...", &mReports, "The reports")->required();
        addOption(report, "--baseline OLD.json", &mBaseline,
                  "Show what has changed since this report of the same suites");
        addOption(report, "--html FILE", &mPage, "The page to write")->required();
        return report;
    }

    int execute(const CommonOptions&, Evidence*) override {
        std::vector<JsonReport> reports;
        for (const std::string& file : mReports) reports.push_back(read(file));
        const JsonReport baseline = mBaseline.empty() ? JsonReport() : read(mBaseline);
        writeTextFile("--html", mPage,
                      htmlReport(reports, mBaseline.empty() ? nullptr : &baseline));
        return 0;
    }

private:
    static JsonReport read(const std::string& file) {
        constexpr size_t kMost = 256 << 20;  // several 100,000 vectors
        return {file, readTextFile(file, kMost)};
    }

    std::vector<std::string> mReports;
    std::string mBaseline, mPage;
};

const bool kRegistered = registerCommand(std::make_unique<ReportCommand>());

}  // namespace
}  // namespace vxrun
