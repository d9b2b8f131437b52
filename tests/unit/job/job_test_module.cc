// A module whose "jobs" manifest section names a job creator and the parsers of backup jobs.
#include "host/module/module.h"
#include "tests/unit/job/test_job.h"

using Test_Job = Controllable_Job_T<job_test::Test_Executor>;
MODULE_EXPORT void _gobble_Test_Job_Creator(Job_Creator* obj) {
  delete obj;
}
MODULE_EXPORT Job_Creator* _make_Test_Job_Creator(void (**gobble)(Job_Creator*)) {
  *gobble = _gobble_Test_Job_Creator;
  return new Default_Job_Creator_T<Test_Job, Test_Job>;
}
MODULE_EXPORT void _gobble_Test_Parser_Creator(YAJL_Handler_Creator* obj) {
  delete obj;
}
MODULE_EXPORT YAJL_Handler_Creator* _make_Test_Source_Parser_Creator(
    void (**gobble)(YAJL_Handler_Creator*)) {
  *gobble = _gobble_Test_Parser_Creator;
  return new Object_Creator_Impl_T<YAJL_Handler_Creator, Job_Source_Parser<job_test::Test_Source>>;
}
MODULE_EXPORT YAJL_Handler_Creator* _make_Test_Options_Parser_Creator(
    void (**gobble)(YAJL_Handler_Creator*)) {
  *gobble = _gobble_Test_Parser_Creator;
  return new Object_Creator_Impl_T<YAJL_Handler_Creator, Job_JSON_Parser<job_test::Test_Options>>;
}
