#include "tests/integration/test_stack.h"

using Backup_Cli = Lab_Test;

// The command finds the CVM, pool, host or VMs and starts a run the agent accepts; a failed run
// is one line on stderr and exit status 1.
TEST_F(Backup_Cli, LooksUpWhatItBacksUpAndReportsTheRun) {
  Run_Result r = stack_.cli(
      {"pool", "add", "--name", "nas", "--url", "file://" + stack_.dir().path() + "/pool"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::pair<const char*, std::string> rows[] = {
      {"backup lab --pool nas --host edge", "several hosts are named 'edge'; give the host id"},
      {"backup lab --pool nas nothere WEB01", "VMs not found: 'nothere'"},
      {"backup lab --pool none web01", "no storage pool 'none'"}};
  for (const auto& [line, err] : rows) {
    r = stack_.cli(words(line));
    EXPECT_EQ(std::tuple(r.exit_code, r.err), std::tuple(1, "brimlet: " + err + "\n"));
  }
  r = stack_.cli(words("backup lab --pool nas --no-wait --host cvk02"));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string run_id = r.out.substr(0, r.out.size() - 1);
  EXPECT_EQ(stack_.agent_call("job.status", {{"run_id", run_id}})["result"]["name"],
            "backup of lab");
  r = stack_.cli(words("backup lab --pool nas --interval 0.1 WEB01 db01"));
  EXPECT_EQ(std::tuple(r.exit_code, r.err.rfind("brimlet: backup run ", 0), r.err.find('\n')),
            std::tuple(1, 0u, r.err.size() - 1))
      << r.err;
}
