#include "host/job/runs.h"
#include "host/module/module.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/job/test_job.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {
using namespace job_test;
using S = std::string;

template <class P>
std::shared_ptr<YAJL_Handler_Creator> creator() {
  return std::make_shared<Object_Creator_Impl_T<YAJL_Handler_Creator, P>>();
}

Job_Module test_module() {
  using Job = Controllable_Job_T<Test_Executor>;
  Job_Module m{"test", std::make_shared<Default_Job_Creator_T<Job, Job>>(), {}};
  m.parsers[1] = {{"source", creator<Job_Source_Parser<Test_Source>>()},
                  {"options", creator<Job_JSON_Parser<Test_Options>>()}};
  return m;
}

S def_text(const S& extra, const S& options = "{}") {
  return R"({"uid": "j1", "name": "nightly", "type": 1, "source": {"vm": "a"}, "options": )" +
         options + (extra.empty() ? "" : ", " + extra) + "}";
}

class Job_Test : public ::testing::Test {
 protected:
  void SetUp() override { runs_.add_module(test_module()); }
  // Starts a run and gives its id ("" on failure, with the error in error_).
  S start(const S& text) {
    JSON_Value out;
    return runs_.run(text, out, error_) ? out["run_id"].get<S>() : "";
  }
  JSON_Value finish(const S& run) {
    JSON_Value st, log;
    EXPECT_TRUE(runs_.wait(run) && runs_.status(run, st, error_) && runs_.log(run, 0, log, error_));
    st["log_text"] = log["text"];
    return st;
  }
  void wait_blocked(int n) {
    std::unique_lock<std::mutex> lock(g_mutex);
    g_cv.wait(lock, [&] { return g_blocked >= n; });
  }
  Temp_Dir dir_;
  Scoped_Env root_{"BRIMLET_ROOT", dir_.path()};
  Job_Runs runs_;
  S error_;
};

TEST(Job_Definition, ParsesStreamsAndRefuses) {
  Job_Module m = test_module();
  auto resolve = [&](const Job_Definition& d, const char* part) {
    return d.type == 1 ? m.parsers[1][part].get() : nullptr;
  };
  const std::pair<S, S> rows[] = {
      // the definition, the error
      {def_text(R"("subtype": "incremental", "retry_count": 3, "pre_action": "true")",
                R"({"zz": [1, 2.5, null, 18446744073709551615], "a": {"b": true}})"),
       ""},
      {R"({"source": {"vm": "a"}, "options": {"k": "v"}, "uid": "j1", "type": 1})", ""},
      {"[1]", "a job definition is a JSON object"},
      {def_text(R"("retry_count": -1)"), "'retry_count' is expected as integer in range"},
      {def_text(R"("subtype": "weekly")"), "unknown subtype 'weekly'"},
      {R"({"uid": "j", "type": 3, "source": {}, "options": {}})",
       "no module parses the 'source' of this type of jobs"},
      {R"({"uid": "j", "type": 1, "module": "m", "source": {}})", "missing key 'options'"},
      {R"({"type": 1, "source": {}, "options": {}})", "missing key 'uid'"},
      {R"({"uid": "j", "type": 1, "source": {"a": 1})",
       "malformed JSON: parse error: premature EOF"},
  };
  for (const auto& [text, want] : rows) {
    Job_Definition def;
    S error;
    EXPECT_EQ(def.parse(text, resolve, error), want.empty()) << text;
    EXPECT_EQ(error, want) << text;
    if (!want.empty())
      continue;
    JSON_Value in = JSON_Value::parse(text), out = JSON_Value::parse(def.generate());
    EXPECT_EQ(std::tie(out["source"], out["options"]), std::tie(in["source"], in["options"]));
    EXPECT_EQ(std::tuple(out["retry_count"], out.value("subtype", "")),
              std::tuple(in.value("retry_count", 0), in.value("subtype", "")));
  }
}

TEST_F(Job_Test, RunsWithScriptsAndFlags) {
  const S fail = R"({"fail": true})", post = R"("post_action": "echo post")";
  // definition members, options, state (all but "failed" count as success), pieces the run's log
  // holds in order, split by '|' ("!x": x is absent)
  const std::tuple<S, S, S, S> rows[] = {
      {R"("pre_action": "echo pre $BRIMLET_JOB_UID", )" + post, R"({"vms": ["a", "b"]})",
       "succeeded", "\npre j1\n|Body of {\"vm\":\"a\"}|\npost\n|succeeded.\n"},
      {"", fail, "failed", "Body|failed.\n"},
      {R"("pre_action": "exit 4", )" + post, "{}", "failed", "(exit status 4): exit 4|!Body|!post"},
      {R"("pre_action": "exit 4", "ignore_pre_action_failure": true)", "{}", "succeeded",
       "Body|succeeded.\n"},
      {R"("post_action": "exit 5")", "{}", "failed", "Body|(exit status 5)|failed.\n"},
      {R"("post_action": "exit 5", "ignore_post_action_failure": true)", "{}", "succeeded",
       "succeeded.\n"},
      {post + R"(, "run_post_action_always": true)", fail, "failed", "Body|post|failed.\n"},
      {post, fail, "failed", "!post"},
      {R"("precondition": "echo no; exit 1", "pre_action": "echo pre")", "{}",
       "precondition_failed", "no\n|!pre|!Body|!started"},
  };
  for (const auto& [extra, options, state, pieces_text] : rows) {
    S run = start(def_text(extra, options));
    ASSERT_NE(run, "") << error_;
    JSON_Value st = finish(run);
    EXPECT_EQ(std::tuple(st["state"], st["succeeded"], st["running"]),
              std::tuple(state, state != "failed", false))
        << extra;
    S log = st["log_text"];
    std::size_t at = 0;
    std::stringstream pieces(pieces_text);
    for (S piece; std::getline(pieces, piece, '|');) {
      if (piece[0] == '!') {
        EXPECT_EQ(log.find(piece.substr(1)), S::npos) << extra << "\n" << log;
      } else {
        EXPECT_NE(at = log.find(piece, at), S::npos) << piece << " in\n" << log;
        at = at == S::npos ? 0 : at;
      }
    }
  }
  JSON_Value st;
  ASSERT_TRUE(runs_.status(runs_.list()[0]["run_id"], st, error_));
  EXPECT_EQ(
      st["vms"].dump(),
      R"([{"end_time":0,"name":"a","processed_bytes":10,"processed_virtual_disks":0,)"
      R"("start_time":0,"status":"completed","total_bytes":10,"uuid":"a","virtual_disks":0},)"
      R"({"end_time":0,"name":"b","processed_bytes":10,"processed_virtual_disks":0,)"
      R"("start_time":0,"status":"completed","total_bytes":10,"uuid":"b","virtual_disks":0}])");
  EXPECT_EQ(st["result"], JSON_Value({{"test", {{"vms", 2}}}}));
  EXPECT_EQ(st["log"], dir_.path() + "/var/log/brimlet5/jobs/j1/" + st["run_id"].get<S>() + ".log");
  EXPECT_EQ(runs_.list().size(), std::size(rows));
}

TEST_F(Job_Test, StopsRunningAndWaitingJobs) {
  g_blocked = 0;
  S first = start(def_text("", R"({"block": true, "mutex": "cvm-1", "vms": ["a"]})"));
  ASSERT_NE(first, "") << error_;
  wait_blocked(1);
  JSON_Value st;
  ASSERT_TRUE(runs_.status(first, st, error_));
  EXPECT_EQ(std::tuple(st["state"], st["vms"][0]["status"]), std::tuple("running", "running"));
  EXPECT_EQ(start(def_text("")), "");
  EXPECT_EQ(error_, "job 'j1' is running already (run " + first + ")");
  // A second job of the same entry waits for the mutex; stopped, it ends without its body.
  S second = start(R"({"uid": "j2", "type": 1, "source": {}, "options": {"mutex": "cvm-1"}})");
  wait_blocked(2);
  ASSERT_TRUE(runs_.stop(second, error_));
  st = finish(second);
  EXPECT_EQ(std::tuple(st["state"], st["succeeded"]), std::tuple("stopped", false));
  EXPECT_NE(st["log_text"].get<S>().find("Waiting.\n"), S::npos);
  EXPECT_NE(st["log_text"].get<S>().find("was stopped.\n"), S::npos);
  // Servants find the run in the job's activity record, cancelled from the request on.
  Job_Activity_Handle act;
  ASSERT_TRUE(open_job_activity(act, "j1", false));
  g_hold = true;
  ASSERT_TRUE(runs_.stop(first, error_));
  EXPECT_EQ(std::tuple(act->state, act->end_time), std::tuple(Job_Activity::cancelled, 0));
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_hold = false;
  }
  g_cv.notify_all();
  st = finish(first);
  EXPECT_EQ(st["state"], "stopped");
  EXPECT_FALSE(runs_.stop(first, error_));
  EXPECT_EQ(error_, "run '" + first + "' has ended");
  EXPECT_EQ(std::tuple(act->state, Job_Activity::text(act->run_id), act->last_run_time),
            std::tuple(Job_Activity::cancelled, first, act->end_time));
  EXPECT_NE(act->end_time, 0);
  // The mutex is free again.
  S third = start(R"({"uid": "j3", "type": 1, "source": {}, "options": {"mutex": "cvm-1"}})");
  EXPECT_EQ(finish(third)["state"], "succeeded");
  EXPECT_FALSE(runs_.status("nope", st, error_) || runs_.stop("nope", error_));
  EXPECT_EQ(error_, "no run 'nope'");
  JSON_Value log;
  ASSERT_TRUE(runs_.log(third, 20, log, error_));
  EXPECT_EQ(log["next_offset"].get<std::size_t>(), 20 + log["text"].get<S>().size());
  EXPECT_EQ(start(R"({"uid": "../x", "type": 1, "source": {}, "options": {}})"), "");
  EXPECT_EQ(error_, "invalid job uid '../x': letters, digits, '-', '_' and '.' only");
}

TEST_F(Job_Test, ModulesNameTheirJobFactoriesInTheManifest) {
  const S parsers = R"("backup": {"source": "Test_Source_Parser_Creator", "options": )";
  const S creator = R"({"creator": "Test_Job_Creator", )" + parsers;
  const std::pair<S, bool> rows[] = {{"", false},
                                     {R"({"creator": "Nope"})", false},
                                     {creator + R"("Nope"}})", false},
                                     {creator + R"("Test_Options_Parser_Creator"}})", true}};
  for (const auto& [jobs_text, ok] : rows) {
    JSON_Value manifest = {{"name", "mod"}, {"library", JOB_TEST_MODULE_PATH}};
    if (!jobs_text.empty())
      manifest["jobs"] = JSON_Value::parse(jobs_text);
    write_text_file(dir_.file("m.module.json"), manifest.dump());
    auto module = Module::load(dir_.file("m.module.json"));
    Job_Module jobs;
    ASSERT_TRUE(module);
    EXPECT_EQ(Job_Module::load(*module, jobs), ok) << jobs_text;
    if (ok)
      runs_.add_module(std::move(jobs));
  }
  // Backup and restore definitions make jobs; no other type does, and a job not running takes no
  // request.
  auto job_of = [&](int type) {
    auto def = std::make_shared<Job_Definition>();
    def->type = type;
    return test_module().creator->create(def);
  };
  EXPECT_TRUE(job_of(1) && job_of(2) && !job_of(3));
  EXPECT_EQ(std::tuple(job_of(2)->stop(), job_of(1)->pause()), std::tuple(-1, -1));
  // With two modules a definition names its own.
  EXPECT_EQ(start(def_text("")), "");
  EXPECT_EQ(error_, "invalid job definition: no module parses the 'source' of backup jobs");
  JSON_Value st = finish(start(def_text(R"("module": "mod")", R"({"vms": ["m"]})")));
  EXPECT_EQ(std::tuple(st["state"], st["vms"][0]["status"]), std::tuple("succeeded", "completed"));
}
}  // namespace
