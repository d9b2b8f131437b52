// Client of the CVM REST API (paths under "/cas/casrs/") with HTTP digest authentication.
// One client serves one thread at a time; every operation returns false after logging why, and
// requests that reached CVM leave CAS's error code and message in last_error_code()/last_error().
#pragma once

#include "h3ccas/common.h"
#include "host/http/client.h"

#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace h3ccas {

// Reads realm="..." and nonce="..." out of a digest challenge; true only when both are found.
bool parse_www_auth(const char* challenge, std::string& realm, std::string& nonce);

class RESTful_Client {
 public:
  using Query = std::map<std::string, std::string>;

  explicit RESTful_Client(CVM_Info cvm);
  virtual ~RESTful_Client() = default;

  const CVM_Info& cvm() const { return cvm_; }
  const std::string& last_error() const { return last_error_; }
  const std::string& last_error_code() const { return last_error_code_; }
  const std::string& task_fail_msg() const { return task_fail_msg_; }
  // HTTP status of the last answer; 0 when none came.
  int last_status() const { return last_status_; }

  // Signs and sends one request. A session is (re)negotiated before the first request, when the
  // previous one started 60 or more seconds ago, and once after a 401 answer.
  bool send_request(HTTP_Request& req, HTTP_Response& resp, const JSON_Value* body,
                    JSON_Value* out);
  bool send_request(HTTP_Request& req, const JSON_Value* body, JSON_Value* out);
  bool send_request(HTTP_Request& req, JSON_Value* out);

  bool get(const char* path, JSON_Value& out);
  bool get(HTTP_Request& req, HTTP_Response& resp, JSON_Value& out);
  bool post(const char* path, const JSON_Value& body, JSON_Value& out);
  // CAS PUTs carry their arguments in the path or the query, never in a body.
  bool put(const char* path, JSON_Value& out);
  bool del(const char* path, JSON_Value& out);

  // GET `path` and the list under `key` of its answer (see extract_list).
  bool list(const char* path, const char* key, std::vector<JSON_Value>& out);
  bool list(const char* path, const char* key, std::vector<JSON_Value>& out, const Query& query);
  // CAS lists hold an array, or a bare object for a single member; no body is an empty list.
  bool extract_list(const char* path, const char* key, JSON_Value&& response,
                    std::vector<JSON_Value>& out);

  // Loads every value in order; stops at the first that fails (those before it stay in `out`).
  template <class T>
  static bool load_list(const std::vector<JSON_Value>& values, std::vector<T>& out);

  // Waits for the CAS asynchronous task that `task` (the answer of the call that started it)
  // names, polling its progress once a second for as long as CAS answers. `action` names the
  // operation in messages; `target_id`, when given, receives the id of the object the task made.
  // A failed task leaves CAS's text in task_fail_msg().
  bool wait_task(const char* action, const JSON_Value& task, std::string* target_id);

  // Inventory queries. Records are appended to `out`; a CAS answer without a body is an empty list.
  bool list_host(std::vector<CVK_Host>& out);
  // By host id; a later host with the same id replaces the earlier.
  bool list_host(std::unordered_map<std::string, CVK_Host>& out);
  bool list_vm(const std::string& host_id, std::vector<VM_Info>& out);
  // All VMs ordered by title. A CVM that refuses the unfiltered list (409) is asked host by host;
  // a host whose list fails is then skipped.
  bool list_all_vm(std::vector<VM_Info>& out);
  bool list_storage_pool(const std::string& host_id, std::vector<CAS_Storage_Pool>& out);
  bool list_storage_volume(const std::string& host_id, const std::string& pool_name,
                           std::vector<CAS_Storage_Volume>& out);
  bool get_host_detail(const std::string& host_id, CVK_Host_Detail& out);
  bool list_virtual_switch(const std::string& host_id, std::vector<Virtual_Switch>& out);
  bool list_port_profile(std::vector<Port_Profile>& out);
  bool get_vm_detail(const std::string& vm_id, VM_Detail& out);
  bool get_vm_capabilities(const std::string& vm_id, VM_Capabilities& caps);
  // The VM's snapshot tree under its root; nothing on failure.
  std::optional<Snapshot_Info> get_snapshot_info(const std::string& vm_id);

  // State changes and block queries. Those CAS runs as asynchronous tasks are waited for.
  // A snapshot that keeps the disks' dirty bitmaps; `internal` inside the disk images, otherwise
  // as overlay files. `timeout` goes to CAS as the snapshot's time-out.
  bool create_snapshot(const std::string& vm_id, const std::string& vm_name,
                       const std::string& snapshot_name, bool snap_mem, bool no_stop_virt_snap_mem,
                       bool internal, int timeout);
  bool delete_snapshot(const std::string& vm_id, const std::string& vm_name,
                       const std::string& snapshot_name);
  // Allocated extents of a disk image, of the live disk when `snapshot` is empty; appended to
  // `blocks` in the CVM's order.
  bool get_disk_blocks(const std::string& host_id, const std::string& vm_id,
                       const std::string& image, const std::string& snapshot,
                       std::vector<Block>& blocks);
  // Extents written since the CBTer was created, up to the snapshot; appended to `blocks`.
  bool get_changed_blocks(const std::string& vm_id, const std::string& src_path,
                          const std::string& cbter_name, const std::string& snapshot_name,
                          std::vector<Block>& blocks);
  // `result` receives the id of the new VM.
  bool create_vm(const std::string& vm_name, const JSON_Value& params, std::string& result);
  // Only an eager-zeroed volume is waited for; otherwise success means CAS took the request.
  bool create_storage_volume(Provisioning_Mode mode, const JSON_Value& params);
  bool delete_storage_volume(const std::string& host_id, const std::string& pool_name,
                             const std::string& volume_name);
  bool create_disk(const std::string& vm_id, const std::string& vm_name,
                   const JSON_Value& disk_params);
  // A VM that CAS no longer knows counts as deleted.
  bool delete_vm(const std::string& vm_id);
  // A changed-block tracker named `cbter_name` for the VM's disks.
  bool create_CBTer(const std::string& vm_name, const std::string& cbter_name);
  // The CBTer's disks (image path → whether its record is still valid); `images` is replaced.
  bool get_CBTer(const std::string& vm_name, const std::string& cbter_name,
                 std::map<std::string, bool>& images);
  bool delete_CBTer(const std::string& vm_name, const std::string& cbter_name);
  // `action` is CAS's verb in the path ("start", "stop", ...).
  bool set_vm_state(const char* action, const std::string& vm_id, const std::string& vm_name);
  bool start_vm(const std::string& vm_id, const std::string& vm_name) {
    return set_vm_state("start", vm_id, vm_name);
  }
  bool stop_vm(const std::string& vm_id, const std::string& vm_name) {
    return set_vm_state("stop", vm_id, vm_name);
  }

  // Whether the CVM accepts the credentials, the user may administer it and its version is
  // supported. On failure `error` holds the text for the user.
  bool test_login(std::string& error, std::string& version);
  // The version word of CVM's casVersion ("E0750" of "H3C CAS E0750").
  bool get_cvm_version(std::string& version);

 protected:
  struct Digest_Auth {
    std::string realm_;
    std::string nonce_;  // empty: no session yet
    std::string cnonce_;
    int nonce_count_ = 0;
  };

  // Seconds since the epoch; the session-renewal clock.
  virtual std::time_t now() const;
  // The pause between two polls of a task.
  virtual void sleep_between_polls();
  // A new connection to the CVM, for each session the client negotiates; null after one log
  // line when none can be set up. Every request of the session goes through it.
  virtual std::shared_ptr<HTTP_Session> create_session();

  // One request with `query` (URL-encoded) and, when given, a JSON body.
  bool send_with_query(HTTP_Method method, const char* path, const Query& query,
                       const JSON_Value* body, JSON_Value& out);
  // `list` under "dataBlockInfo", loaded as blocks.
  bool get_blocks(const char* path, const Query& query, std::vector<Block>& blocks);

  // One attempt through the current session.
  bool send_request_i(HTTP_Request& req, HTTP_Response& resp, const JSON_Value* body,
                      JSON_Value* out);
  // Signs `req`, first running the challenge exchange on a new session when there is none or
  // `force` is set. The failure text goes to `*error` when given.
  bool digest_auth(HTTP_Request& req, std::string* error, bool force, const JSON_Value* body);
  // The Authorization value for the next request of the session (RFC 2617, qop "auth", MD5).
  std::string build_auth_header(const char* method, const char* uri);

  CVM_Info cvm_;
  JSON_RESTful_Client client_{1};
  std::shared_ptr<JSON_HTTP_Session> session_;  // the one client_ sends through
  std::string last_error_;
  std::string last_error_code_;
  std::string task_fail_msg_;
  int last_status_ = 0;  // HTTP status of the last answer; 0 when none came
  std::time_t session_start_ = 0;
  Digest_Auth auth_;

 private:
  void record_cvm_error(const HTTP_Request& req, const HTTP_Response& resp);
};

template <class T>
bool RESTful_Client::load_list(const std::vector<JSON_Value>& values, std::vector<T>& out) {
  out.reserve(out.size() + values.size());
  for (const JSON_Value& value : values) {
    T record;
    if (!record.load(value))
      return false;
    out.push_back(std::move(record));
  }
  return true;
}

}  // namespace h3ccas
