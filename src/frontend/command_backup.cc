// tavikctl backup HOST:/path -o ARCHIVE [options]: runs a backup job on the
// agent and keeps its stream in an archive.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "frontend/backup_client.h"
#include "frontend/backup_options.h"
#include "frontend/commands.h"
#include "frontend/json_output.h"

namespace tavik::frontend {
namespace {

double secondsSince(const timespec& start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec - start.tv_sec) + double(now.tv_nsec - start.tv_nsec) / 1e9;
}

}  // namespace

std::string joinSourcePath(const std::string& source, const std::string& relative) {
    std::string base = source;
    if (base.empty() || base.back() != '/') base += '/';
    return relative.empty() ? base : base + relative;
}

namespace {

// The run's summary as one JSON object, completing `summary` (host,
// source, archive).
Json jsonSummary(Json summary, const BackupJobSpec& job, const ReceiveStats& s, const std::vector<std::string>& errors) {
    Json problems = Json::array();
    for (const EntryProblem& p : s.problems)
        problems.push_back(Json{{"status", statusName(p.code)},
                                {"path", joinSourcePath(job.source, p.path)},
                                {"reason", statusWords(p.code)}});
    summary["ok"] = errors.empty();
    summary["complete"] = s.complete;
    summary["entries"] = s.entries;
    summary["data_bytes"] = s.dataBytes;
    summary["bytes"] = s.bytes;
    summary["packets"] = s.packets;
    summary["seconds"] = s.seconds;
    summary["renewals"] = s.renewals;
    summary["acknowledgements"] = s.acks;
    summary["problem_count"] = s.problemCount;
    summary["problems"] = std::move(problems);
    if (s.groomed) {
        summary["groomed_files"] = s.groomCount;
        summary["groom_report"] = s.groomReport;
    }
    if (!errors.empty()) {
        std::string all = errors.front();
        for (size_t i = 1; i < errors.size(); ++i) all += "; " + errors[i];
        summary["error"] = all;
    }
    return summary;
}

// The run's summary as lines on the standard error (the archive may be the
// standard output).
void reportBackup(const BackupJobSpec& job, const ReceiveStats& s, const std::vector<std::string>& errors) {
    double t = s.seconds;
    for (const EntryProblem& p : s.problems)
        fprintf(stderr, "%-8s %s: %s\n", statusName(p.code), joinSourcePath(job.source, p.path).c_str(),
                statusWords(p.code));
    if (s.problemCount > s.problems.size())
        fprintf(stderr, "... and %llu more problems\n",
                static_cast<unsigned long long>(s.problemCount - s.problems.size()));
    fprintf(stderr, "tavikctl backup: %llu entries, %llu bytes of data, %llu bytes in %.2f s (%.1f MB/s)",
            static_cast<unsigned long long>(s.entries), static_cast<unsigned long long>(s.dataBytes),
            static_cast<unsigned long long>(s.bytes), t, t > 0 ? double(s.bytes) / 1e6 / t : 0.0);
    if (s.renewals) fprintf(stderr, ", %u connection renewals", s.renewals);
    if (s.acks) fprintf(stderr, ", %u acknowledgements", s.acks);
    fprintf(stderr, "\n");
    if (s.groomed) {
        fprintf(stderr, "grooming: %s files\n", s.groomCount.c_str());
        fputs(s.groomReport.c_str(), stderr);
        if (!s.groomReport.empty() && s.groomReport.back() != '\n') fputc('\n', stderr);
    }
    for (const std::string& e : errors) fprintf(stderr, "tavikctl backup: %s\n", e.c_str());
}

}  // namespace

int commandBackup(int argc, char* argv[]) {
    bool json = takeJsonFlag(argc, argv);
    BackupCommandLine line;
    std::string error;
    if (!parseBackupCommandLine(std::vector<std::string>(argv, argv + argc), true, line, error)) {
        fprintf(stderr, "tavikctl backup: %s\n%s", error.c_str(), kBackupUsage);
        return 2;
    }
    const BackupJobSpec& job = line.job;
    if (!readPassword(line.job.login, error)) {
        fprintf(stderr, "tavikctl backup: %s\n", error.c_str());
        return 1;
    }
    ArchiveHeader header;
    header.created = uint32_t(::time(nullptr));
    header.serverVersion = job.login.serverVersion;
    header.host = job.host;
    header.source = job.source;
    ArchiveWriter writer;
    if (!writer.open(line.output, header)) {
        fprintf(stderr, "tavikctl backup: %s\n", writer.error().c_str());
        return 1;
    }
    // With --json the run's summary is one object on standard output, or on
    // standard error when the archive is standard output.
    FILE* jsonOut = line.output == "-" ? stderr : stdout;
    Json summary{{"host", job.host}, {"source", job.source}, {"archive", line.output}};
    JobClient client;
    if (!openBackupJob(client, job, error) || !startBackupJob(client, job, error)) {
        fprintf(stderr, "tavikctl backup: %s\n", error.c_str());
        if (!writer.finish(0, false)) fprintf(stderr, "tavikctl backup: %s\n", writer.error().c_str());
        if (json) {
            summary["ok"] = false;
            summary["complete"] = false;
            summary["error"] = error;
            printJson(jsonOut, summary);
        }
        return 1;
    }
    platform::UniqueFd connection(::dup(client.fd()));
    client.close();

    timespec started{};
    clock_gettime(CLOCK_MONOTONIC, &started);
    StreamReceiver receiver(&writer, job.ackInterval);
    receiver.setTimeoutMs(job.timeoutMs);
    receiver.setHoldAfterEndMs(job.holdAfterEndMs);
    bool tty = ::isatty(STDERR_FILENO) == 1;
    if (tty) {
        receiver.setProgress([&](const ReceiveStats& s) {
            double t = secondsSince(started);
            fprintf(stderr, "\r%llu entries, %.1f MB, %.1f MB/s   ", static_cast<unsigned long long>(s.entries),
                    double(s.bytes) / 1e6, t > 0 ? double(s.bytes) / 1e6 / t : 0.0);
        });
    }
    bool received = connection && receiver.run(std::move(connection));
    const ReceiveStats& s = receiver.stats();
    bool written = writer.finish(s.packets, s.complete);
    if (tty) fprintf(stderr, "\r%60s\r", "");

    std::vector<std::string> errors;
    if (!received) errors.push_back("backup failed: " + receiver.error());
    if (!s.structureError.empty()) errors.push_back("the stream is malformed: " + s.structureError);
    if (!written) errors.push_back(writer.error());
    if (json) {
        printJson(jsonOut, jsonSummary(std::move(summary), job, s, errors));
    } else {
        reportBackup(job, s, errors);
    }
    return errors.empty() ? 0 : 1;
}

}  // namespace tavik::frontend
