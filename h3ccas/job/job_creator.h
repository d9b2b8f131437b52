// The job creator the module exports: a backup definition (type 1) makes a backup job, a restore
// definition (type 2) a restore job, any other type none.
#pragma once

#include "h3ccas/job/backup_executor.h"
#include "h3ccas/job/defs.h"
#include "host/core/log.h"
#include "host/job/job_t.h"

namespace h3ccas {

// The body of a job kind this module cannot run: the run fails with one log line, after the
// host's precondition and before any post-action, like any failed body.
template <class S, class O>
class Unavailable_Executor : public Job_Executor_T<S, O> {
 public:
  using Job_Executor_T<S, O>::Job_Executor_T;
  bool execute_i(const Job_Args*) override {
    const char* type = job_type_name(this->def_->type);
    LOG_MSG((LM_ERROR, "This module cannot run CAS %s jobs.\n", type ? type : "unknown"));
    return false;
  }
};

using Backup_Job = Controllable_Job_T<Backup_Executor>;
using Restore_Job = Controllable_Job_T<Unavailable_Executor<Restore_Source, Restore_Options>>;
using CAS_Job_Creator = Default_Job_Creator_T<Backup_Job, Restore_Job>;

}  // namespace h3ccas
