// The job creator the module exports: a backup definition (type 1) makes a backup job, a restore
// definition (type 2) a restore job, any other type none.
#pragma once

#include "h3ccas/job/backup_executor.h"
#include "h3ccas/job/restore_executor.h"
#include "host/job/job_t.h"

namespace h3ccas {

using Backup_Job = Controllable_Job_T<Backup_Executor>;
using Restore_Job = Controllable_Job_T<Restore_Executor>;
using CAS_Job_Creator = Default_Job_Creator_T<Backup_Job, Restore_Job>;

}  // namespace h3ccas
