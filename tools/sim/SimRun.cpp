// One run against the library (see SimRun.h).

#include "SimRun.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "CameraBufferInterface.h"
#include "Executor.h"
#include "LogTap.h"
#include "Outputs.h"
#include "Workspace.h"
#include "interface/TalMemRecorder.h"
#include "talmem/TalMemPool.h"

namespace talsim {

namespace fs = std::filesystem;

namespace {

// A service from an earlier run may still be going away on its looper thread.
void WaitUntilNothingHeld()
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (QvCamera::CameraBufferInterface::GetHeldBytes() != 0 &&
           std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string ConfigFromLog(const std::string& logPath)
{
    std::ifstream in(logPath);
    std::string line;
    const std::string key = "talmempoolcfg path is ";
    while (std::getline(in, line)) {
        const size_t at = line.find(key);
        if (at != std::string::npos) {
            return line.substr(at + key.size());
        }
    }
    return "";
}

void WriteFiles(const RunRequest& request, const RunResult& result, const std::string& out)
{
    std::ofstream(out + "/report.json") << ReportJson(result.figures, request.source).dump(2) << "\n";
    WriteTimelineCsv(out + "/timeline.csv", result.figures);
    WriteTraceJson(out + "/trace.json", result.figures);
    if (!DrawTimeline(out + "/timeline.csv", out + "/timeline.png", result.figures)) {
        fprintf(stderr, "talmem_sim: gnuplot could not draw %s/timeline.png\n", out.c_str());
    }
}

} // namespace

RunResult RunCalls(const RunRequest& request)
{
    const std::string out = fs::absolute(request.outDir).string();
    fs::create_directories(out);
    Workspace ws(out + "/work", request.tree, request.memTotalKb);
    if (request.basePoolSize >= 0) {
        ws.SetPoolSizes(request.basePoolSize, request.multiPoolSize);
    }
    RunResult result;
    WaitUntilNothingHeld();
    qv::TalMemRecorder::Reset();
    ws.Enter(request.record);
    {
        LogTap tap(out + "/talmem.log", request.verbose);
        tap.SetOffWorkerDelay(std::chrono::milliseconds(request.offWorkerLogDelayMs));
        ExecOptions options;
        options.timeScale = request.timeScale;
        options.learntPath = ws.LearntPath();
        options.progress = request.progress;
        Execute(request.calls, options, tap, result.figures);
        qv::TalMemRecorder::Reset(); // the clean-up below is not part of the trace
        if (qv::TalMemPool::reference > 0) {
            // A trace may end with the service running: take it down before
            // the log closes.
            const uint64_t destroyed = tap.ServicesDestroyed();
            while (qv::TalMemPool::reference > 0) {
                qv::TalMemPool::DeletePool();
            }
            const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (tap.ServicesDestroyed() == destroyed && std::chrono::steady_clock::now() < limit) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }
    ws.Leave();
    result.configPath = ConfigFromLog(out + "/talmem.log");
    if (request.record) {
        fs::copy_file(ws.TracePath(), out + "/calls.trace", fs::copy_options::overwrite_existing);
    }
    if (request.writeFiles) {
        WriteFiles(request, result, out);
    }
    return result;
}

std::vector<std::string> FailedChecks(const Checks& checks, const RunFigures& f)
{
    std::vector<std::string> failed;
    for (const SessionFigures& s : f.sessions) {
        if (s.index < checks.fromSession) {
            continue;
        }
        const std::string name = "session " + std::to_string(s.index) + " (" + s.label + ")";
        if (checks.maxCaptureFallbacks >= 0 &&
            s.captureFallbacks > static_cast<uint64_t>(checks.maxCaptureFallbacks)) {
            failed.push_back(name + ": " + std::to_string(s.captureFallbacks) +
                             " capture requests served directly, allowed " +
                             std::to_string(checks.maxCaptureFallbacks));
        }
        if (checks.maxReservedOverLive > 0 && s.Ratio() > checks.maxReservedOverLive) {
            failed.push_back(name + ": peak reserved / peak live " + std::to_string(s.Ratio()) +
                             " above " + std::to_string(checks.maxReservedOverLive));
        }
    }
    if (checks.maxFailedMallocs >= 0 && f.failedMallocs > static_cast<uint64_t>(checks.maxFailedMallocs)) {
        failed.push_back(std::to_string(f.failedMallocs) + " Malloc calls failed, allowed " +
                         std::to_string(checks.maxFailedMallocs));
    }
    if (checks.learntWritten && f.learntAfter.empty()) {
        failed.push_back("the learnt file was not written");
    }
    return failed;
}

} // namespace talsim
