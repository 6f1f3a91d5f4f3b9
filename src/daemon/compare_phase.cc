#include "daemon/job_phases.h"

namespace tavik {

int comparePhase(Channel&, JobContext&) { return kJobOver; }

}  // namespace tavik
