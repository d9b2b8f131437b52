#include "h3ccas/job/defs.h"

#include "host/core/log.h"

namespace h3ccas {

bool Opts_Src_Base::generate_i(yajl_gen gen, const char* part) const {
  yajl_gen_status st = yajl_gen_json(gen, value_);
  if (st == yajl_gen_status_ok)
    return true;
  LOG_MSG((LM_ERROR, "Failed to generate the %s of a job definition (yajl status %d).\n", part,
           static_cast<int>(st)));
  return false;
}

}  // namespace h3ccas
