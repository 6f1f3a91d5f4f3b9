#include "daemon/job_entry.h"

#include <unistd.h>

#include "daemon/state.h"

namespace tavik {

// Until job requests are served, a connection is closed as soon as it has
// been logged.
int handleJobConnection() {
    Listener& l = listener();
    if (l.jobSocket >= 0) ::close(l.jobSocket);
    l.jobSocket = -1;
    return 0;
}

}  // namespace tavik
