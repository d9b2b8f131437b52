// The agent's jobs: run a definition, list the runs, a run's status with its VMs, stop, log.
#pragma once

#include "programs/cli/cli.h"

#include <string>

// job run FILE: the definition's JSON text from FILE ("-": standard input); prints the run id.
int job_run(const Cli& cli, const std::string& file);
int job_list(const Cli& cli);
int job_status(const Cli& cli, const std::string& run_id);
int job_stop(const Cli& cli, const std::string& run_id);
int job_log(const Cli& cli, const std::string& run_id);
