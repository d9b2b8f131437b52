// The module's entry points, found by name by the host. Each _make_ has a _gobble_ twin so that
// objects are allocated and released inside the module.
#include "h3ccas/job/defs.h"
#include "h3ccas/job/job_creator.h"
#include "h3ccas/servant/exec_handler.h"
#include "h3ccas/websvcs_agent/instance_handler.h"
#include "h3ccas/websvcs_agent/list_handler.h"
#include "h3ccas/websvcs_agent/test_login_handler.h"
#include "host/module/module.h"

#include <new>

namespace {

// new (std::nothrow): no exception may cross the C boundary; the host treats null as failure.
template <class Object, class Interface>
Interface* make_object(void (**gobble)(Interface*), void (*destroyer)(Interface*)) {
  if (gobble)
    *gobble = destroyer;
  return new (std::nothrow) Object;
}

}  // namespace

MODULE_EXPORT void _gobble_H3C_CAS_Instance_Handler(Instance_Handler* obj) {
  delete obj;
}

MODULE_EXPORT Instance_Handler* _make_H3C_CAS_Instance_Handler(void (**gobble)(Instance_Handler*)) {
  return make_object<h3ccas::Instance_Handler>(gobble, _gobble_H3C_CAS_Instance_Handler);
}

MODULE_EXPORT void _gobble_JSON_RPC_H3C_CAS_Test_Login_Handler(JSON_RPC_Handler* obj) {
  delete obj;
}

MODULE_EXPORT JSON_RPC_Handler* _make_JSON_RPC_H3C_CAS_Test_Login_Handler(
    void (**gobble)(JSON_RPC_Handler*)) {
  return make_object<h3ccas::Test_Login_Handler>(gobble,
                                                 _gobble_JSON_RPC_H3C_CAS_Test_Login_Handler);
}

MODULE_EXPORT void _gobble_JSON_RPC_H3C_CAS_List_Handler(JSON_RPC_Handler* obj) {
  delete obj;
}

MODULE_EXPORT JSON_RPC_Handler* _make_JSON_RPC_H3C_CAS_List_Handler(
    void (**gobble)(JSON_RPC_Handler*)) {
  return make_object<h3ccas::List_Handler>(gobble, _gobble_JSON_RPC_H3C_CAS_List_Handler);
}

// Served by the servant only: the manifest lists it under "servant_jsonrpc".
MODULE_EXPORT void _gobble_JSON_RPC_H3C_CAS_Exec_Handler(JSON_RPC_Handler* obj) {
  delete obj;
}

MODULE_EXPORT JSON_RPC_Handler* _make_JSON_RPC_H3C_CAS_Exec_Handler(
    void (**gobble)(JSON_RPC_Handler*)) {
  return make_object<h3ccas::Exec_Handler>(gobble, _gobble_JSON_RPC_H3C_CAS_Exec_Handler);
}

// Jobs: the manifest's "jobs" section names the creator and the parsers of each job type's parts.
MODULE_EXPORT void _gobble_H3CCAS_Job_Creator(Job_Creator* obj) {
  delete obj;
}

MODULE_EXPORT Job_Creator* _make_H3CCAS_Job_Creator(void (**gobble)(Job_Creator*)) {
  return make_object<h3ccas::CAS_Job_Creator>(gobble, _gobble_H3CCAS_Job_Creator);
}

MODULE_EXPORT void _gobble_H3CCAS_Backup_Source_Parser_Creator(YAJL_Handler_Creator* obj) {
  delete obj;
}

MODULE_EXPORT YAJL_Handler_Creator* _make_H3CCAS_Backup_Source_Parser_Creator(
    void (**gobble)(YAJL_Handler_Creator*)) {
  return make_object<h3ccas::Backup_Source_Parser_Creator>(
      gobble, _gobble_H3CCAS_Backup_Source_Parser_Creator);
}

MODULE_EXPORT void _gobble_H3CCAS_Backup_Options_Parser_Creator(YAJL_Handler_Creator* obj) {
  delete obj;
}

MODULE_EXPORT YAJL_Handler_Creator* _make_H3CCAS_Backup_Options_Parser_Creator(
    void (**gobble)(YAJL_Handler_Creator*)) {
  return make_object<h3ccas::Backup_Options_Parser_Creator>(
      gobble, _gobble_H3CCAS_Backup_Options_Parser_Creator);
}

MODULE_EXPORT void _gobble_H3CCAS_Restore_Source_Parser_Creator(YAJL_Handler_Creator* obj) {
  delete obj;
}

MODULE_EXPORT YAJL_Handler_Creator* _make_H3CCAS_Restore_Source_Parser_Creator(
    void (**gobble)(YAJL_Handler_Creator*)) {
  return make_object<h3ccas::Restore_Source_Parser_Creator>(
      gobble, _gobble_H3CCAS_Restore_Source_Parser_Creator);
}

MODULE_EXPORT void _gobble_H3CCAS_Restore_Options_Parser_Creator(YAJL_Handler_Creator* obj) {
  delete obj;
}

MODULE_EXPORT YAJL_Handler_Creator* _make_H3CCAS_Restore_Options_Parser_Creator(
    void (**gobble)(YAJL_Handler_Creator*)) {
  return make_object<h3ccas::Restore_Options_Parser_Creator>(
      gobble, _gobble_H3CCAS_Restore_Options_Parser_Creator);
}
