// tavikctl estimate HOST:/path [options]: how many files and kilobytes a
// backup with the same selection would send.
#include <cstdio>
#include <string>
#include <vector>

#include "frontend/backup_client.h"
#include "frontend/backup_options.h"
#include "frontend/commands.h"
#include "frontend/json_output.h"

namespace tavik::frontend {

int commandEstimate(int argc, char* argv[]) {
    bool json = takeJsonFlag(argc, argv);
    BackupCommandLine line;
    std::string error;
    if (!parseBackupCommandLine(std::vector<std::string>(argv, argv + argc), false, line, error)) {
        fprintf(stderr, "tavikctl estimate: %s\n%s", error.c_str(), kEstimateUsage);
        return 2;
    }
    if (!readPassword(line.job.login, error)) {
        fprintf(stderr, "tavikctl estimate: %s\n", error.c_str());
        return 1;
    }
    JobClient client;
    uint32_t files = 0, kilobytes = 0;
    if (!openBackupJob(client, line.job, error) || !estimateJob(client, line.job, files, kilobytes, error)) {
        fprintf(stderr, "tavikctl estimate: %s\n", error.c_str());
        return 1;
    }
    // Closing the connection ends the job before any backup starts.
    client.close();
    if (json)
        printJson(stdout, Json{{"host", line.job.host}, {"path", line.job.source}, {"files", files},
                               {"kilobytes", kilobytes}});
    else
        printf("%u files, %u kilobytes\n", files, kilobytes);
    return 0;
}

}  // namespace tavik::frontend
