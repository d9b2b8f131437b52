#include "h3ccas/job/defs.h"
#include "host/job/runs.h"
#include "host/module/module.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {

using S = std::string;

// Definitions parsed by the module loaded through its manifest, and run by the agent's jobs.
TEST(Cas_Job_Defs, PartsAreKeptWholeGeneratedBackAndRun) {
  auto module = Module::load(S(BRIMLET_LIB_DIR) + "/h3ccas.module.json");
  Job_Module jobs;
  ASSERT_TRUE(module && Job_Module::load(*module, jobs));
  Temp_Dir dir;
  Scoped_Env root("BRIMLET_ROOT", dir.path());
  Job_Runs runs;
  runs.add_module(jobs);
  // A part of a type the module has no parser for finds a null creator.
  auto parse = [&](const S& text, Job_Definition& def) {
    S error;
    def.parse(
        text, [&](auto& d, const char* part) { return jobs.parsers[d.type][part].get(); }, error);
    return error;
  };
  // Each part is kept whole by the records of its job type (keys nobody reads, numbers at full
  // precision, empty parts) and generated back unchanged; the run fails saying why.
  for (const char* text :
       {R"({"type": 1, "source": {"entries": [{"type": "cas"}], "exclusion": ["tmp*"]}, "options":
            {"storage_reserved_bytes": 18446744073709551615, "later": [0.1, null, true, ""]}})",
        R"({"type": 1, "source": {}, "options": {}})",
        R"({"type": 2, "source": {"entries": [{"source_vm_id": "7"}]}, "options": []})"}) {
    JSON_Value in = json(text);
    in["uid"] = "j" + in["type"].dump();
    Job_Definition def;
    ASSERT_EQ(parse(in.dump(), def), "");
    const bool backup = in["type"] == 1;
    EXPECT_TRUE(typeid(*def.source) == (backup ? typeid(Backup_Source) : typeid(Restore_Source)));
    EXPECT_TRUE(typeid(*def.options) ==
                (backup ? typeid(Backup_Options) : typeid(Restore_Options)));
    const auto& source = dynamic_cast<const Opts_Src_Base&>(*def.source);
    const auto& options = dynamic_cast<const Opts_Src_Base&>(*def.options);
    EXPECT_EQ(std::tie(source.value(), options.value()), std::tie(in["source"], in["options"]));
    const S generated = def.generate();
    JSON_Value out = JSON_Value::parse(generated, nullptr, false);
    EXPECT_EQ(std::tie(out["source"], out["options"]), std::tie(in["source"], in["options"]));
    JSON_Value run, status, log;
    S error;
    ASSERT_TRUE(runs.run(in.dump(), run, error) && runs.wait(run["run_id"]) &&
                runs.status(run["run_id"], status, error) && runs.log(run["run_id"], 0, log, error))
        << error;
    EXPECT_EQ(status["state"], "failed");
    // The backup runs until it looks for its CVM, which nobody serves here.
    const S line = backup ? "Failed to get CVM info, uuid = .\n" : "cannot run CAS restore jobs.\n";
    EXPECT_NE(log["text"].get<S>().find(line), S::npos) << log["text"];
  }
  // Refusals: a number no JSON value holds, a generator that is done.
  Job_Definition def;
  EXPECT_EQ(parse(R"({"uid": "j", "type": 1, "source": [1e400], "options": {}})", def),
            "invalid value of 'source'");
  ASSERT_EQ(parse(R"({"uid": "j", "type": 1, "source": 1, "options": 2})", def), "");
  Log_Capture capture;
  std::unique_ptr<yajl_gen_t, void (*)(yajl_gen)> gen(yajl_gen_alloc(nullptr), yajl_gen_free);
  def.source->generate(gen.get());
  EXPECT_EQ(def.options->generate(gen.get()), -1);
  EXPECT_EQ(messages(capture),
            "Failed to generate the CAS backup options of a job definition (yajl status 4).\n");
}

}  // namespace
}  // namespace h3ccas
