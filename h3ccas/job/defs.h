// The records of a CAS job definition's two parts, "source" (what to back up or restore) and
// "options" (how). Each keeps the whole JSON value of its part: the executors read the keys they
// need when the job runs, so a key this module does not know survives a parse and a generate, and
// a missing required key is reported by the run, not by the parse.
#pragma once

#include "host/job/yajl_parser.h"

namespace h3ccas {

class Opts_Src_Base {
 public:
  virtual ~Opts_Src_Base() = default;
  const JSON_Value& value() const { return value_; }

 protected:
  // Writes value_ through `gen`; false after one log line naming `part` when yajl refuses it.
  bool generate_i(yajl_gen gen, const char* part) const;

  JSON_Value value_;
};

class Backup_Source : public Job_Source, public Opts_Src_Base {
 public:
  void set_value(JSON_Value value) override { value_ = std::move(value); }
  void generate(yajl_gen gen) const override { generate_i(gen, "CAS backup source"); }
};

class Backup_Options : public Job_Options, public Opts_Src_Base {
 public:
  void set_value(JSON_Value value) override { value_ = std::move(value); }
  int generate(yajl_gen gen) override { return generate_i(gen, "CAS backup options") ? 0 : -1; }
};

class Restore_Source : public Job_Source, public Opts_Src_Base {
 public:
  void set_value(JSON_Value value) override { value_ = std::move(value); }
  void generate(yajl_gen gen) const override { generate_i(gen, "CAS restore source"); }
};

class Restore_Options : public Job_Options, public Opts_Src_Base {
 public:
  void set_value(JSON_Value value) override { value_ = std::move(value); }
  int generate(yajl_gen gen) override { return generate_i(gen, "CAS restore options") ? 0 : -1; }
};

// What the exported parser creators make: the host streams each part into a new parser and takes
// the record it built.
template <class P>
using Parser_Creator = Object_Creator_Impl_T<Object_Creator_T<YAJL_Handler>, P>;
using Backup_Source_Parser_Creator = Parser_Creator<Job_Source_Parser<Backup_Source>>;
using Backup_Options_Parser_Creator = Parser_Creator<Job_JSON_Parser<Backup_Options>>;
using Restore_Source_Parser_Creator = Parser_Creator<Job_Source_Parser<Restore_Source>>;
using Restore_Options_Parser_Creator = Parser_Creator<Job_JSON_Parser<Restore_Options>>;

}  // namespace h3ccas
