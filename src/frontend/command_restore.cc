// tavikctl restore ARCHIVE HOST:/dest [PATH...] [--conflict POLICY]: checks
// the archive whole, then replays it (or the parts named) on the agent as a
// restore job and names every file that did not come back.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frontend/commands.h"
#include "frontend/json_output.h"
#include "frontend/net.h"
#include "frontend/restore_client.h"

namespace tavik::frontend {
namespace {

constexpr const char* kUsage =
    "usage: tavikctl restore ARCHIVE HOST:/dest [PATH...] [--conflict skip|rename|overwrite|newer]\n"
    "                        [--user NAME] [--port N] [--server-version N] [--timeout S] [--json]\n";

// Reads the whole archive once: the checksum, the trailer's counts and the
// stream's structure must all be sound before anything is sent.
bool verifyArchive(const std::string& path, std::string& error) {
    ArchiveReader reader;
    if (!reader.open(path)) {
        error = reader.error();
        return false;
    }
    ArchiveWalker walker(reader);
    TreeEvent e;
    for (;;) {
        ArchiveWalker::Next n = walker.next(e);
        if (n == ArchiveWalker::Next::kError) {
            error = walker.error();
            return false;
        }
        if (n == ArchiveWalker::Next::kEnd) break;
    }
    if (!reader.checksumGood()) {
        error = "checksum or counts do not match the trailer";
        return false;
    }
    return true;
}

// The command line: the job, the archive and the paths to restore; 0, or
// the exit status of a usage error (written).
int parseRestoreArguments(std::vector<std::string> args, RestoreJobSpec& job, std::vector<std::string>& positional) {
    std::string error;
    if (!parseLoginOptions(args, job.login, error)) {
        fprintf(stderr, "tavikctl restore: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--conflict" || a == "--timeout") {
            if (i + 1 >= args.size()) {
                fprintf(stderr, "tavikctl restore: %s needs a value\n%s", a.c_str(), kUsage);
                return 2;
            }
            const std::string& v = args[++i];
            if (a == "--conflict") {
                if (!parseConflictPolicy(v, job.conflict)) {
                    fprintf(stderr, "tavikctl restore: --conflict takes skip, rename, overwrite or newer\n%s", kUsage);
                    return 2;
                }
            } else {
                long s = std::atol(v.c_str());
                if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos || s < 1 || s > 864000) {
                    fprintf(stderr, "tavikctl restore: --timeout takes seconds, 1..864000\n%s", kUsage);
                    return 2;
                }
                job.timeoutMs = int(s * 1000);
            }
        } else if (a.size() > 1 && a[0] == '-' && a != "--") {
            fprintf(stderr, "tavikctl restore: unknown option %s\n%s", a.c_str(), kUsage);
            return 2;
        } else if (a != "--") {
            positional.push_back(a);
        }
    }
    if (positional.size() < 2 || !splitTarget(positional[1], job.host, job.destination)) {
        fprintf(stderr, "%s", kUsage);
        return 2;
    }
    job.port = job.login.port;
    return 0;
}

// What came back and what did not, as one JSON object or as lines on the
// standard error; `errors` are why the job broke off.
void reportRestore(bool json, const std::string& archive, const std::string& source, const RestoreJobSpec& job,
                   const RestoreStats& s, const std::vector<std::string>& unmet,
                   const std::vector<std::string>& errors, int status) {
    if (json) {
        Json failures = Json::array(), missing = Json::array();
        for (const RestoreFailure& f : s.failures)
            failures.push_back(Json{{"path", joinSourcePath(job.destination, f.path)}, {"reason", f.words}});
        for (const std::string& p : unmet) missing.push_back(joinSourcePath(source, p));
        Json summary{{"archive", archive},
                     {"host", job.host},
                     {"destination", job.destination},
                     {"ok", status == 0},
                     {"files", s.files},
                     {"restored", s.restored},
                     {"skipped", s.skipped},
                     {"failed", s.failureCount},
                     {"directories", s.directories},
                     {"data_bytes", s.dataBytes},
                     {"seconds", s.seconds},
                     {"failures", std::move(failures)},
                     {"not_in_archive", std::move(missing)}};
        if (!errors.empty()) summary["error"] = errors.front();
        printJson(stdout, summary);
        return;
    }
    for (const RestoreFailure& f : s.failures)
        fprintf(stderr, "not restored: %s: %s\n", joinSourcePath(job.destination, f.path).c_str(), f.words.c_str());
    if (s.failureCount > s.failures.size())
        fprintf(stderr, "... and %llu more files not restored\n",
                static_cast<unsigned long long>(s.failureCount - s.failures.size()));
    for (const std::string& p : unmet) fprintf(stderr, "not in the archive: %s\n", joinSourcePath(source, p).c_str());

    fprintf(stderr,
            "tavikctl restore: %llu files (%llu restored, %llu skipped, %llu failed), %llu directories, "
            "%llu bytes of data in %.2f s (%.1f MB/s)\n",
            static_cast<unsigned long long>(s.files), static_cast<unsigned long long>(s.restored),
            static_cast<unsigned long long>(s.skipped), static_cast<unsigned long long>(s.failureCount),
            static_cast<unsigned long long>(s.directories), static_cast<unsigned long long>(s.dataBytes), s.seconds,
            s.seconds > 0 ? double(s.dataBytes) / 1e6 / s.seconds : 0.0);
    for (const std::string& e : errors) fprintf(stderr, "tavikctl restore: %s\n", e.c_str());
}

}  // namespace

int commandRestore(int argc, char* argv[]) {
    bool json = takeJsonFlag(argc, argv);
    RestoreJobSpec job;
    std::vector<std::string> positional;
    if (int usage = parseRestoreArguments(std::vector<std::string>(argv, argv + argc), job, positional)) return usage;
    const std::string& archive = positional[0];

    std::string error;
    if (!verifyArchive(archive, error)) {
        fprintf(stderr, "tavikctl restore: %s is damaged, nothing was restored: %s\n", archive.c_str(), error.c_str());
        return 1;
    }
    ArchiveReader reader;
    if (!reader.open(archive)) {
        fprintf(stderr, "tavikctl restore: %s\n", reader.error().c_str());
        return 1;
    }
    reader.skipChecksum();  // checked whole a moment ago
    RestoreSelection selection;
    for (size_t i = 2; i < positional.size(); ++i) {
        if (!selection.add(positional[i], reader.header().source, error)) {
            fprintf(stderr, "tavikctl restore: %s\n", error.c_str());
            return 2;
        }
    }
    if (!readPassword(job.login, error)) {
        fprintf(stderr, "tavikctl restore: %s\n", error.c_str());
        return 1;
    }
    JobClient client;
    if (!openRestoreJob(client, job, error)) {
        fprintf(stderr, "tavikctl restore: %s\n", error.c_str());
        if (json)
            printJson(stdout, Json{{"archive", archive},
                                   {"host", job.host},
                                   {"destination", job.destination},
                                   {"ok", false},
                                   {"error", error}});
        return 1;
    }
    platform::UniqueFd connection(::dup(client.fd()));
    client.close();
    if (!connection) {
        fprintf(stderr, "tavikctl restore: cannot keep the connection\n");
        return 1;
    }

    RestoreSender sender(std::move(connection), job.destination, job.timeoutMs);
    bool tty = ::isatty(STDERR_FILENO) == 1;
    if (tty) {
        sender.setProgress([](const RestoreStats& s) {
            fprintf(stderr, "\r%llu files, %llu directories, %.1f MB, %.1f MB/s   ",
                    static_cast<unsigned long long>(s.files), static_cast<unsigned long long>(s.directories),
                    double(s.dataBytes) / 1e6, s.seconds > 0 ? double(s.dataBytes) / 1e6 / s.seconds : 0.0);
        });
    }
    ArchiveWalker walker(reader);
    std::string replayError;
    bool replayed = replayArchive(walker, selection, sender, replayError);
    bool ended = sender.finish();
    if (tty) fprintf(stderr, "\r%70s\r", "");

    const RestoreStats& s = sender.stats();
    std::vector<std::string> unmet = selection.unmet();
    std::vector<std::string> errors;
    if (!replayed) errors.push_back("restore broke off: " + replayError);
    if (!ended && replayed) errors.push_back("restore failed: " + sender.error());
    int status = replayed && ended && s.failureCount == 0 && unmet.empty() ? 0 : 1;
    reportRestore(json, archive, reader.header().source, job, s, unmet, errors, status);
    return status;
}

}  // namespace tavik::frontend
