// qvtool status: what the background services publish about their downloads, and the indicator.

#include <unistd.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/services_download_status.h"
#include "interrupt_guard.h"
#include "moorglass_host.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::DownloadStatus;
using quorvel::utilities::ServicesDownloadStatus;

bool Alive(int pid) {
    return pid > 0 && access(("/proc/" + std::to_string(pid) + "/cmdline").c_str(), F_OK) == 0;
}

std::string IndicatorText(int value) {
    switch (value) {
        case -1: return "never set";
        case ServicesDownloadStatus::kIdle: return "idle";
        case ServicesDownloadStatus::kDownloading: return "downloading";
        case ServicesDownloadStatus::kNeedsUser: return "error 5";
        case ServicesDownloadStatus::kError: return "error";
        default: return "unknown";
    }
}

std::string Join(const std::vector<int>& numbers) {
    std::string text;
    for (int n : numbers) text += (text.empty() ? "" : ",") + std::to_string(n);
    return text;
}

std::string Render() {
    Table table({"SERVICE", "PID", "ALIVE", "STATUS", "ERROR", "MESSAGE", "TOTALS", "CURRENT",
                 "FILES", "CUSTOM"});
    for (const DownloadStatus& s : ServicesDownloadStatus::GetInstance().GetStatuses()) {
        std::string state = s.status() == 0 ? "stopped"
                            : s.status() == 1 ? "downloading"
                                              : "downloading (" + std::to_string(s.status()) + ")";
        table.AddRow({s.service_name().empty() ? "(unnamed)" : s.service_name(),
                      std::to_string(s.pid()), Alive(s.pid()) ? "yes" : "no", state,
                      std::to_string(s.error()), s.error_message(),
                      Join({s.total_a, s.total_b, s.total_c, s.total_d}), s.current_file().id,
                      std::to_string(s.GetFileList().size()), s.custom_message()});
    }
    std::ostringstream out;
    if (table.rows() == 0) out << "no service has published a status\n";
    else table.Print(out);
    int indicator = qvhost_tarvey_status();
    out << "indicator " << indicator << " (" << IndicatorText(indicator) << ")\n";
    return out.str();
}

int RunStatus(Args& args) {
    bool watch = args.Flag("--watch");
    args.Done();
    std::string shown = Render();
    std::cout << shown << std::flush;
    if (!watch) return kOk;
    InterruptGuard guard;
    while (!InterruptGuard::Interrupted()) {
        usleep(200000);
        std::string now = Render();
        if (now == shown) continue;
        shown = now;
        std::cout << '\n' << shown << std::flush;
    }
    return kInterrupted;
}

// "ID[,TEXT_A[,TEXT_B[,A,B,C,D]]]"
DownloadStatus::File ParseFile(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');) parts.push_back(part);
    if (parts.empty() || parts[0].empty() || parts.size() > 7)
        throw Failure(kUsage, "--file wants ID[,TEXT_A[,TEXT_B[,A,B,C,D]]]: " + text);
    DownloadStatus::File file;
    file.id = parts[0];
    if (parts.size() > 1) file.text_a = parts[1];
    if (parts.size() > 2) file.text_b = parts[2];
    int32_t* values[] = {&file.value_a, &file.value_b, &file.value_c, &file.value_d};
    for (size_t i = 3; i < parts.size(); ++i)
        *values[i - 3] = static_cast<int32_t>(ParseInteger(parts[i], "a --file value"));
    return file;
}

std::vector<int> ParseTotals(const std::string& text) {
    std::vector<int> totals;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');)
        totals.push_back(static_cast<int>(ParseInteger(part, "--totals")));
    if (totals.size() != 4) throw Failure(kUsage, "--totals wants four numbers: A,B,C,D");
    return totals;
}

void Check(int rc, const std::string& what) {
    if (rc != QV_OK) throw Failure(kFailed, what + " could not be published (" + std::to_string(rc) + ")");
}

int RunStatusSet(Args& args) {
    auto pid = args.Option("--pid");
    bool start = args.Flag("--downloading");
    bool stop = args.Flag("--stopped");
    auto status = args.Option("--status");
    auto error = args.Option("--error");
    std::string message = args.Option("--message").value_or("");
    auto totals = args.Option("--totals");
    auto custom = args.Option("--custom");
    std::vector<std::string> files = args.Options("--file");
    auto current = args.Option("--current");
    std::string service = args.Next("SERVICE");
    args.Done();
    if (start + stop + static_cast<bool>(status) > 1)
        throw Failure(kUsage, "choose one of --downloading, --stopped, --status");

    std::vector<DownloadStatus::File> list;
    for (const std::string& text : files) list.push_back(ParseFile(text));
    DownloadStatus record;
    int rc = record.Init(service, pid ? static_cast<int>(ParseInteger(*pid, "--pid")) : getppid());
    if (rc == QV_INVAL) throw Failure(kUsage, "SERVICE must not be empty");
    Check(rc, "the record");
    if (start) Check(record.StartDownload(), "the status");
    if (stop) Check(record.StopDownload(), "the status");
    if (status) {
        auto value = static_cast<DownloadStatus::Status>(ParseInteger(*status, "--status"));
        Check(record.SetProgressStatus(value), "the status");
    }
    if (error) {
        auto value = static_cast<DownloadStatus::Error>(ParseInteger(*error, "--error"));
        Check(record.SetErrorStatus(value, message), "the error");
    }
    if (totals) {
        std::vector<int> t = ParseTotals(*totals);
        Check(record.SetTotalProgressStatus(t[0], t[1], t[2], t[3]), "the totals");
    }
    if (!list.empty()) Check(record.SetFileList(list), "the files");
    if (current) {
        DownloadStatus::File file = ParseFile(*current);
        bool listed = false;
        for (const auto& entry : list) listed = listed || entry.id == file.id;
        if (!listed) throw Failure(kNotFound, "--current names no --file: " + file.id);
        Check(record.SetCurrentProgressStatus(file), "the current file");
    }
    if (custom) Check(record.SetCustomMessage(*custom), "the message");
    std::cout << "published " << service << "; indicator " << qvhost_tarvey_status() << " ("
              << IndicatorText(qvhost_tarvey_status()) << ")\n";
    return kOk;
}

const bool registered =
    Register({"status", "the download state each background service publishes, and the indicator",
              "usage: qvtool status [--watch]\n"
              "Shows the records of /tmp/services_download_status, one line per service (ALIVE:\n"
              "whether its process still runs; only living services count), and the status\n"
              "indicator they make: 0 idle, 2 downloading, 3 error 5, 5 another error.\n"
              "  --watch   show it again at every change, until Ctrl-C (exit 130)\n",
              RunStatus}) &&
    Register({"status set", "publish one service's download state",
              "usage: qvtool status set SERVICE [--pid PID] [--downloading | --stopped | --status N]\n"
              "                         [--error N [--message TEXT]] [--totals A,B,C,D]\n"
              "                         [--file ID[,TEXT_A[,TEXT_B[,A,B,C,D]]]]... [--current ID,...]\n"
              "                         [--custom TEXT]\n"
              "Publishes a whole record for SERVICE, as the service itself does: what isn't given\n"
              "is empty or 0. The record belongs to process PID (default: the shell that runs\n"
              "qvtool), and counts for the indicator while that process lives. --current copies its\n"
              "values over the listed file of the same ID and makes it the current one.\n",
              RunStatusSet});

}  // namespace
}  // namespace qvtool
