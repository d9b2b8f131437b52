#include "h3ccas/job/defs.h"
#include "host/job/runs.h"
#include "host/module/module.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {

using S = std::string;

// The built module as the agent loads it: the manifest's "jobs" section gives the job creator and
// the parsers of both job types' parts.
class Cas_Job_Defs : public ::testing::Test {
 protected:
  void SetUp() override {
    module_ = Module::load(S(BRIMLET_LIB_DIR) + "/h3ccas.module.json");
    ASSERT_TRUE(module_ && Job_Module::load(*module_, jobs_));
  }
  // The parse error ("" when parsed).
  S parse(const S& text, Job_Definition& def) {
    S error;
    def.parse(
        text,
        [&](const Job_Definition& d, const char* part) -> YAJL_Handler_Creator* {
          auto type = jobs_.parsers.find(d.type);
          return type == jobs_.parsers.end() || !type->second.count(part)
                     ? nullptr
                     : type->second.at(part).get();
        },
        error);
    return error;
  }

  std::shared_ptr<Module> module_;
  Job_Module jobs_;
};

const JSON_Value backup_source = json(R"({"exclusion": ["tmp-*"], "entries": [{"type": "cas"},
    {"type": "HostSystem", "id": "2", "name": "cvk2"},
    {"type": "VirtualMachine", "host_id": "2", "name": "web", "title": "Web", "uuid": "u-1"}]})");
// With a key nobody reads and numbers that must keep their precision.
const JSON_Value backup_options = json(R"({"restart_vm": true, "parallel_vms": 4,
    "parallel_vms_per_host": 2, "parallel_disks_per_vm": 2, "parallel_workers_per_disk": 3,
    "storage_reserved_bytes": 18446744073709551615, "storage_reserved_percent": 10,
    "read_buffer_size": 1048576, "cvd_sdk_log_level": "info", "cvd_sdk_network_timeout": 5,
    "cvk_preferred_network": "10.1.0.0/16", "compression": "zstd", "compression_level": -3,
    "enable_cbt": true, "no_cbt": "skip_with_alert", "later": {"ratio": 0.1, "list": [null, ""]}})");
const JSON_Value restore_source = json(R"({"pool_uuid": "p-1", "entries": [{"source_host_id": "2",
    "source_host_name": "cvk2", "source_vm_id": "7", "source_vm_name": "web", "timepoint": 17,
    "catalog_uuid": "c-1", "target_host_id": "3", "target_host_ip": "10.1.0.3",
    "target_host_name": "cvk3", "target_vm_name": "web2", "cpu_count": 2, "cpu_cores": 1,
    "memory_mbytes": 2048, "disks": [{"name": "vda"}], "networks": []}]})");
const JSON_Value restore_options = json(R"({"original_restore": false, "overwrite_vm": false,
    "parallel_vms": 2, "cvd_sdk_log_level": "warn", "cvd_sdk_network_timeout": 1,
    "write_buffer_size": 65536, "parallel_disks_per_vm": 1, "reserve_mac": true,
    "start_vm": true})");

template <class Src, class Opts>
bool records_are(const Job_Definition& def) {
  return std::dynamic_pointer_cast<Src>(def.source) && std::dynamic_pointer_cast<Opts>(def.options);
}

// Each part is kept whole, whatever it holds, by the records of its job type, and generated back
// unchanged; an empty part parses (the run reports what it lacks).
TEST_F(Cas_Job_Defs, PartsAreKeptWholeAndGeneratedBack) {
  const JSON_Value empty = JSON_Value::object();
  const struct {
    int type;
    JSON_Value source, options;
  } rows[] = {{1, backup_source, backup_options},
              {1, empty, empty},
              {2, restore_source, restore_options},
              {2, json("[]"), json("null")}};
  for (const auto& row : rows) {
    // The parts come before "type" too: they are parsed once the type is known.
    for (bool parts_first : {false, true}) {
      JSON_Value head = {{"uid", "j1"}, {"type", row.type}};
      S parts = R"("source": )" + row.source.dump() + R"(, "options": )" + row.options.dump();
      S inner = head.dump().substr(1, head.dump().size() - 2);
      S text = "{" + (parts_first ? parts + ", " + inner : inner + ", " + parts) + "}";
      Job_Definition def;
      ASSERT_EQ(parse(text, def), "") << text;
      const bool backup = row.type == 1;
      EXPECT_EQ((records_are<Backup_Source, Backup_Options>(def)), backup);
      EXPECT_EQ((records_are<Restore_Source, Restore_Options>(def)), !backup);
      const auto& source = dynamic_cast<const Opts_Src_Base&>(*def.source);
      const auto& options = dynamic_cast<const Opts_Src_Base&>(*def.options);
      EXPECT_EQ(std::tie(source.value(), options.value()), std::tie(row.source, row.options));
      const S generated = def.generate();
      JSON_Value out = JSON_Value::parse(generated, nullptr, false);
      ASSERT_FALSE(out.is_discarded()) << generated;
      EXPECT_EQ(std::tie(out["source"], out["options"]), std::tie(row.source, row.options));
      Job_Definition again;
      ASSERT_EQ(parse(generated, again), "");
      EXPECT_EQ(again.generate(), generated);
    }
  }
}

TEST_F(Cas_Job_Defs, RefusesWhatNoRecordTakes) {
  const std::pair<S, S> rows[] = {
      {R"({"uid": "j", "type": 3, "source": {}, "options": {}})",
       "no module parses the 'source' of this type of jobs"},
      {R"({"uid": "j", "type": 1, "source": {"entries": [1e400]}, "options": {}})",
       "invalid value of 'source'"},
  };
  for (const auto& [text, error] : rows) {
    Job_Definition def;
    EXPECT_EQ(parse(text, def), error) << text;
  }
  // A generator that has finished its value refuses another, and the options say so.
  Job_Definition def;
  ASSERT_EQ(parse(R"({"uid": "j", "type": 1, "source": 1, "options": 2})", def), "");
  Log_Capture log;
  std::unique_ptr<yajl_gen_t, void (*)(yajl_gen)> gen(yajl_gen_alloc(nullptr), yajl_gen_free);
  def.source->generate(gen.get());
  EXPECT_EQ(def.options->generate(gen.get()), -1);
  EXPECT_EQ(messages(log),
            "Failed to generate the CAS backup options of a job definition (yajl status 4).\n");
}

// The agent's jobs: a backup or restore definition makes a job; the module cannot run them yet,
// so the run fails saying so.
TEST_F(Cas_Job_Defs, MakesJobsOfBackupAndRestoreDefinitions) {
  Temp_Dir dir;
  Scoped_Env root("BRIMLET_ROOT", dir.path());
  auto none = std::make_shared<Job_Definition>();
  none->type = 3;
  EXPECT_EQ(jobs_.creator->create(none), nullptr);
  Job_Runs runs;
  runs.add_module(jobs_);
  for (const auto& [type, source] : {std::pair(1, backup_source), std::pair(2, restore_source)}) {
    JSON_Value def = {{"uid", "j" + std::to_string(type)},
                      {"type", type},
                      {"source", source},
                      {"options", JSON_Value::object()}};
    JSON_Value out, status, log;
    S error;
    ASSERT_TRUE(runs.run(def.dump(), out, error)) << error;
    const S run = out["run_id"];
    ASSERT_TRUE(runs.wait(run) && runs.status(run, status, error) && runs.log(run, 0, log, error));
    EXPECT_EQ(status["state"], "failed");
    const S line = S("This module cannot run CAS ") + job_type_name(type) + " jobs.\n";
    EXPECT_NE(log["text"].get<S>().find(line), S::npos) << log["text"];
  }
}

}  // namespace
}  // namespace h3ccas
