#include "h3ccas/restful_client.h"

#include "host/core/log.h"
#include "host/core/text.h"

#include <ace/Basic_Types.h>
#include <ace/OS_NS_time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <functional>
#include <iterator>
#include <utility>

namespace h3ccas {

namespace {

// Reports, on leaving its scope, an operation that took more than 2 whole seconds.
class Slow_Operation_Warning {
 public:
  explicit Slow_Operation_Warning(std::function<void(ACE_UINT64 seconds)> report)
      : report_(std::move(report)), start_(std::chrono::steady_clock::now()) {}
  ~Slow_Operation_Warning() {
    auto elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
    if (elapsed.count() > 2)
      report_(static_cast<ACE_UINT64>(elapsed.count()));
  }
  Slow_Operation_Warning(const Slow_Operation_Warning&) = delete;
  Slow_Operation_Warning& operator=(const Slow_Operation_Warning&) = delete;

 private:
  std::function<void(ACE_UINT64)> report_;
  std::chrono::steady_clock::time_point start_;
};

std::string md5_hex(const char* data, std::size_t length) {
  MD_Generator md(data, length, MD_MD5);
  return Hex_String_T(md.get(), md.length()).str();
}

// The text up to the next double quote, when `p` starts with `key` (which ends in a quote).
bool take_quoted(const char*& p, const char* key, std::string& value) {
  std::size_t key_length = std::strlen(key);
  if (std::strncmp(p, key, key_length) != 0)
    return false;
  const char* begin = p + key_length;
  const char* end = std::strchr(begin, '"');
  if (!end)
    return false;
  value.assign(begin, end);
  p = end + 1;
  return true;
}

// Words of `text` separated by runs of spaces and newlines.
std::vector<std::string> split_words(const std::string& text) {
  std::vector<std::string> words;
  std::size_t pos = 0;
  while ((pos = text.find_first_not_of(" \n", pos)) != std::string::npos) {
    std::size_t end = text.find_first_of(" \n", pos);
    words.push_back(text.substr(pos, end - pos));
    pos = end;
  }
  return words;
}

// Copies `message` to `*error` when given and logs it; false.
bool fail_with(std::string* error, const std::string& message) {
  if (error)
    *error = message;
  LOG_MSG((LM_ERROR, "%s.\n", message.c_str()));
  return false;
}

const char s_operator_list_path[] = "/cas/casrs/operator/operatorInfoList";
const char s_vm_list_path[] = "/cas/casrs/vm/vmList";
const char s_cbter_path[] = "/cas/casrs/vm/disk/changedBlockTracker";

// CAS reads its flags as the words "true" and "false".
const char* flag(bool value) {
  return value ? "true" : "false";
}

// Parameters as they appear in debug lines, ending the line.
std::string pretty(const JSON_Value& value) {
  return value.dump(2, ' ', false, JSON_Value::error_handler_t::replace) + "\n";
}

// A member's text for messages: strings as they are, other values as JSON, absent as empty.
std::string member_text(const JSON_Value& obj, const char* key) {
  auto it = obj.find(key);
  if (it == obj.end())
    return std::string();
  if (it->is_string())
    return it->get<std::string>();
  return it->dump(-1, ' ', false, JSON_Value::error_handler_t::replace);
}

}  // namespace

bool parse_www_auth(const char* challenge, std::string& realm, std::string& nonce) {
  for (const char* p = challenge; p && *p && (realm.empty() || nonce.empty());) {
    if (realm.empty() && take_quoted(p, "realm=\"", realm))
      continue;
    if (nonce.empty() && take_quoted(p, "nonce=\"", nonce))
      continue;
    ++p;
  }
  return !realm.empty() && !nonce.empty();
}

RESTful_Client::RESTful_Client(CVM_Info cvm) : cvm_(std::move(cvm)) {}

std::time_t RESTful_Client::now() const {
  return ACE_OS::time();
}

void RESTful_Client::sleep_between_polls() {
  ACE_OS::sleep(1);
}

std::shared_ptr<HTTP_Session> RESTful_Client::create_session() {
  return HTTP_Session_Factory::create(cvm_.host(), cvm_.port(), cvm_.ssl(), nullptr, 3, nullptr,
                                      false, 120, 120, 0, 0);
}

bool RESTful_Client::send_request(HTTP_Request& req, HTTP_Response& resp, const JSON_Value* body,
                                  JSON_Value* out) {
  // CVM forgets idle sessions: renegotiate when the previous request is a minute old.
  std::time_t t = now();
  bool stale = t - session_start_ > 59;
  session_start_ = t;
  last_error_.clear();
  last_error_code_.clear();
  last_status_ = 0;

  if (!digest_auth(req, nullptr, stale, body))
    return false;
  bool sent = send_request_i(req, resp, body, out);
  last_status_ = resp.status();
  if (sent)
    return true;
  if (resp.status() != 401) {
    record_cvm_error(req, resp);
    return false;
  }
  // The nonce expired: one fresh challenge, one more try. A second 401 means bad credentials.
  if (!digest_auth(req, nullptr, true, body))
    return false;
  sent = send_request_i(req, resp, body, out);
  last_status_ = resp.status();
  if (sent)
    return true;
  if (resp.status() != 401)
    record_cvm_error(req, resp);
  return false;
}

bool RESTful_Client::send_request(HTTP_Request& req, const JSON_Value* body, JSON_Value* out) {
  HTTP_Response resp;
  return send_request(req, resp, body, out);
}

bool RESTful_Client::send_request(HTTP_Request& req, JSON_Value* out) {
  return send_request(req, nullptr, out);
}

void RESTful_Client::record_cvm_error(const HTTP_Request& req, const HTTP_Response& resp) {
  if (const std::string* code = resp.headers().get("Error-Code"))
    last_error_code_ = *code;
  if (const std::string* message = resp.headers().get("Error-Message")) {
    // A message that does not convert is replaced by the code rather than shown garbled.
    if (!Compound_Charset_Converter("utf8", nullptr).convert(*message, last_error_))
      last_error_ = last_error_code_;
  }
  LOG_MSG((LM_INFO,
           "CAS request '%s %s' returns error, http status = %d, error code = '%s', message = "
           "'%s'.\n",
           http_method_string(req.method()), req.uri().c_str(), resp.status(),
           last_error_code_.c_str(), last_error_.c_str()));
}

bool RESTful_Client::send_request_i(HTTP_Request& req, HTTP_Response& resp,
                                    const JSON_Value* req_body, JSON_Value* out) {
  Slow_Operation_Warning slow([&req](ACE_UINT64 seconds) {
    LOG_MSG((LM_INFO, "Slow CAS request '%s %s' detected, cost %Qs.\n",
             http_method_string(req.method()), req.uri().c_str(), seconds));
  });
  resp.clear();
  switch (req.method()) {
    case HTTP_Method::DELETE:
    case HTTP_Method::GET:
      if (req_body != nullptr)
        return check_failed(__FILE__, __LINE__, "req_body != nullptr");
      return req.method() == HTTP_Method::GET ? client_.get(req, resp, out)
                                              : client_.del(req, resp, out);
    case HTTP_Method::POST:
      return client_.post(req, req_body, resp, out);
    case HTTP_Method::PUT:
      return client_.put(req, req_body, resp, out);
    default:
      LOG_MSG((LM_ERROR, "Unsupported HTTP method '%s' for CAS RESTful client.\n",
               http_method_string(req.method())));
      return false;
  }
}

bool RESTful_Client::digest_auth(HTTP_Request& req, std::string* error, bool force,
                                 const JSON_Value* req_body) {
  const char* method = http_method_string(req.method());
  const std::string uri = req.uri();
  if (!auth_.nonce_.empty() && !force)
    return req.headers().put("Authorization", build_auth_header(method, uri.c_str()));

  auto session = create_session();
  if (!session)
    return fail_with(error, "Failed to create HTTP session");
  session->headers().put("Content-Type", "application/json");
  auto json_session = std::make_shared<JSON_HTTP_Session>(session, 5, 300);

  // The unsigned request only fetches the challenge.
  req.headers().remove("Authorization");
  HTTP_Response resp;
  bool answered = false;
  switch (req.method()) {
    case HTTP_Method::GET:
    case HTTP_Method::DELETE:
      if (req_body != nullptr)
        return check_failed(__FILE__, __LINE__, "req_body != nullptr");
      answered = req.method() == HTTP_Method::GET ? json_session->get(req, resp, nullptr)
                                                  : json_session->del(req, resp, nullptr);
      break;
    case HTTP_Method::POST:
      answered = json_session->post(req, req_body, resp, nullptr);
      break;
    case HTTP_Method::PUT:
      answered = json_session->put(req, req_body, resp, nullptr);
      break;
    default:
      return fail_with(error, "Unexpected CAS HTTP request method.\n");
  }
  if (!answered)
    return fail_with(error, "Failed to send request to CVM, network error.");
  if (resp.status() != 401)
    return fail_with(error, "The first response for digest auth is not unauthorized");
  const std::string* challenge = resp.headers().get("WWW-Authenticate");
  if (!challenge)
    return fail_with(error, "Digest auth response header WWW-Authenticate not found");

  uuid_string(auth_.cnonce_, false);
  auth_.nonce_count_ = 0;
  auth_.realm_.clear();
  auth_.nonce_.clear();
  // Skip the scheme word "Digest".
  const char* params = challenge->size() > 6 ? challenge->c_str() + 6 : "";
  if (!parse_www_auth(params, auth_.realm_, auth_.nonce_)) {
    auth_.nonce_.clear();  // half a challenge is no session
    return fail_with(error, snprintf_t<256>("Unknown CVM auth '%s'", challenge->c_str()).c_str());
  }

  session_ = json_session;
  client_.reset(std::move(json_session));
  req.headers().reset();
  return req.headers().put("Authorization", build_auth_header(method, uri.c_str()));
}

std::string RESTful_Client::build_auth_header(const char* method, const char* uri) {
  ++auth_.nonce_count_;
  Secure_String a1;
  a1.append(cvm_.username()).append(1, ':').append(auth_.realm_).append(1, ':');
  a1.append(cvm_.password());
  std::string ha1 = md5_hex(a1.data(), a1.size());
  std::string a2 = string_sprintf("%s:%s", method, uri);
  std::string ha2 = md5_hex(a2.data(), a2.size());
  // The nonce count is decimal ("%08d"), in the hash and in the header alike, as CVM expects.
  std::string r = string_sprintf("%s:%s:%08d:%s:auth:%s", ha1.c_str(), auth_.nonce_.c_str(),
                                 auth_.nonce_count_, auth_.cnonce_.c_str(), ha2.c_str());
  std::string response = md5_hex(r.data(), r.size());
  return string_sprintf(
      "Digest username=\"%s\", realm=\"%s\", nonce=\"%s\", uri=\"%s\", response=\"%s\", "
      "qop=\"auth\", nc=%08d, cnonce=\"%s\"",
      cvm_.username().c_str(), auth_.realm_.c_str(), auth_.nonce_.c_str(), uri, response.c_str(),
      auth_.nonce_count_, auth_.cnonce_.c_str());
}

bool RESTful_Client::test_login(std::string& error, std::string& version) {
  HTTP_Request req(HTTP_Method::GET, s_operator_list_path);
  if (!digest_auth(req, &error, false, nullptr))
    return false;

  // Straight through the session: a 2xx answer without JSON, which the REST client would count
  // as a failed request, is how CVM refuses a user the operator list.
  HTTP_Response resp;
  JSON_Value body;
  if (!session_->get(req, resp, &body) || resp.status() / 100 != 2) {
    if (resp.status() == 401)
      return fail_with(&error, "Invalid CVM username or password");
    if (resp.status() >= 500)
      return fail_with(&error, "CVM internal error");
    return fail_with(&error, "Failed to send request to CVM, network error");
  }
  if (body.is_null())
    return fail_with(&error, "CVM user do NOT have permissions to list operators");

  std::vector<JSON_Value> operators;
  if (!extract_list(s_operator_list_path, "operator", std::move(body), operators))
    return fail_with(&error,
                     string_sprintf("Unknown response from CVM '%s'", s_operator_list_path));
  try {
    // Only a listed user outside the administrators' group is refused.
    for (const JSON_Value& op : operators) {
      std::string login_name;
      json_extract(op, "loginName", login_name);
      if (login_name != cvm_.username())
        continue;
      std::string group_id;
      json_extract(op, "groupId", group_id);
      if (group_id != "1")
        return fail_with(&error,
                         "CVM user is NOT a member of 'System Default Administrator Group'");
    }
  } catch (const std::exception& e) {
    return fail_with(&error, string_sprintf("Unknown response of CVM: %s", e.what()));
  }

  if (!get_cvm_version(version)) {
    error = string_sprintf("Failed to get CVM version, error: %s, %s", last_error_code_.c_str(),
                           last_error_.c_str());
    return false;
  }
  if (!is_supported(version)) {
    error = string_sprintf("Unsupported CVM verson '%s', only supports E07+.", version.c_str());
    return false;
  }
  return true;
}

bool RESTful_Client::get_cvm_version(std::string& version) {
  JSON_Value out;
  if (!get("/cas/casrs/datacenter/casVersion", out))
    return false;
  std::string data;
  try {
    json_extract(out, "data", data);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS CVK version response: %s\n", e.what()));
    return false;
  }
  // "H3C CAS E0750": the release is the third word.
  std::vector<std::string> words = split_words(data);
  if (words.size() >= 3) {
    version = words[2];
  } else {
    LOG_MSG((LM_WARNING, "Unknown CVM version: '%s'.\n", data.c_str()));
    version = data;
  }
  return true;
}

bool RESTful_Client::get(const char* path, JSON_Value& out) {
  HTTP_Request req(HTTP_Method::GET, path);
  return send_request(req, &out);
}

bool RESTful_Client::get(HTTP_Request& req, HTTP_Response& resp, JSON_Value& out) {
  return send_request(req, resp, nullptr, &out);
}

bool RESTful_Client::post(const char* path, const JSON_Value& body, JSON_Value& out) {
  HTTP_Request req(HTTP_Method::POST, path);
  return send_request(req, &body, &out);
}

bool RESTful_Client::put(const char* path, JSON_Value& out) {
  HTTP_Request req(HTTP_Method::PUT, path);
  return send_request(req, nullptr, &out);
}

bool RESTful_Client::del(const char* path, JSON_Value& out) {
  HTTP_Request req(HTTP_Method::DELETE, path);
  return send_request(req, &out);
}

bool RESTful_Client::list(const char* path, const char* key, std::vector<JSON_Value>& out) {
  return list(path, key, out, Query());
}

bool RESTful_Client::list(const char* path, const char* key, std::vector<JSON_Value>& out,
                          const Query& query) {
  HTTP_Request req(HTTP_Method::GET, path);
  HTTP_Query_String_Builder builder(req.query());
  for (const auto& [name, value] : query)
    builder.append(name, value);
  JSON_Value response;
  if (!send_request(req, &response))
    return false;
  return extract_list(path, key, std::move(response), out);
}

bool RESTful_Client::extract_list(const char* path, const char* key, JSON_Value&& response,
                                  std::vector<JSON_Value>& out) {
  if (response.is_null()) {
    out.clear();
    LOG_MSG((LM_WARNING, "CAS request '%s' returns empty result.\n", path));
    return true;
  }
  if (!response.is_object()) {
    LOG_MSG((LM_ERROR, "Expect JSON object response from '%s', got %d.\n", path,
             static_cast<int>(response.type())));
    return false;
  }
  auto it = response.find(key);
  if (it != response.end() && it->is_array()) {
    out = std::move(it->get_ref<JSON_Value::array_t&>());
    return true;
  }
  if (it != response.end() && it->is_object()) {
    out.push_back(std::move(*it));
    return true;
  }
  int type = static_cast<int>(it == response.end() ? JSON_Value::value_t::null : it->type());
  LOG_MSG((LM_ERROR, "Unknown response type %d from '%s', key = %s.\n", type, path, key));
  return false;
}

bool RESTful_Client::wait_task(const char* action, const JSON_Value& task, std::string* target_id) {
  Slow_Operation_Warning slow([action](ACE_UINT64 seconds) {
    LOG_MSG((LM_INFO, "Slow CAS task '%s' detected, cost %Qs.\n", action, seconds));
  });
  task_fail_msg_.clear();
  if (!task.is_object()) {
    LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, task is not object!\n"));
    return false;
  }

  auto msg_id = task.find("msgId");
  if (msg_id == task.end() || !msg_id->is_string()) {
    // No task was started: the call either finished at once or failed.
    std::string error_code = member_text(task, "errorCode");
    if (error_code == "0" && !target_id)
      return true;
    LOG_MSG((LM_ERROR,
             "Message ID missed in CAS '%s' async task(%s) response, error code = '%s'.\n",
             cvm_.host().c_str(), action, error_code.c_str()));
    return false;
  }

  const std::string& id = msg_id->get_ref<const std::string&>();
  snprintf_t<256> path("/cas/casrs/message/%s", id.c_str());
  JSON_Value progress;
  std::string completed, result;
  try {
    do {
      if (!get(path, progress)) {
        LOG_MSG((LM_ERROR, "Failed to get progress of CAS '%s' async task(%s), message_id=%s.\n",
                 cvm_.host().c_str(), action, id.c_str()));
        return false;
      }
      json_extract(progress, "completed", completed);
      // Only the answer that reports completion tells the outcome.
      result.clear();
      json_extract(progress, "result", result, false);
      json_extract(progress, "failMsg", task_fail_msg_, false);
      sleep_between_polls();
    } while (completed != "true");
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid response of CAS async task progress: %s, message_id=%s.\n",
             e.what(), id.c_str()));
    return false;
  }

  if (result != "0") {
    LOG_MSG((LM_ERROR, "Failed to %s on CAS '%s', error: '%s'.\n", action, cvm_.host().c_str(),
             task_fail_msg_.c_str()));
    return false;
  }
  if (target_id) {
    try {
      json_extract(progress, "targetId", *target_id);
    } catch (const std::exception&) {
      LOG_MSG((LM_ERROR, "Failed to get target id after CAS '%s' on CVK '%s'.\n", action,
               cvm_.host().c_str()));
      return false;
    }
  }
  return true;
}

bool RESTful_Client::list_host(std::vector<CVK_Host>& out) {
  std::vector<JSON_Value> values;
  return list("/cas/casrs/host", "host", values) && load_list(values, out);
}

bool RESTful_Client::list_host(std::unordered_map<std::string, CVK_Host>& out) {
  std::vector<CVK_Host> hosts;
  if (!list_host(hosts))
    return false;
  for (CVK_Host& host : hosts)
    out[host.id_] = std::move(host);
  return true;
}

bool RESTful_Client::list_vm(const std::string& host_id, std::vector<VM_Info>& out) {
  std::vector<JSON_Value> values;
  return list(s_vm_list_path, "domain", values, {{"hostId", host_id}, {"sortField", "title"}}) &&
         load_list(values, out);
}

bool RESTful_Client::list_all_vm(std::vector<VM_Info>& out) {
  std::vector<JSON_Value> values;
  if (list(s_vm_list_path, "domain", values, {{"sortField", "title"}}))
    return load_list(values, out);
  if (last_status_ != 409)
    return false;

  // CAS refuses the unfiltered list on large installations: ask host by host.
  LOG_MSG((LM_WARNING, "Failed to list CAS VM. Retrying to list VM again, which may be slow.\n"));
  std::vector<CVK_Host> hosts;
  if (!list_host(hosts))
    return false;
  for (const CVK_Host& host : hosts) {
    std::vector<VM_Info> vms;
    if (!list_vm(host.id_, vms)) {
      LOG_MSG((LM_WARNING, "Skipped VMs of CAS host '%s' (id %s), failed to list them.\n",
               host.name_.c_str(), host.id_.c_str()));
      continue;
    }
    out.insert(out.end(), std::make_move_iterator(vms.begin()), std::make_move_iterator(vms.end()));
  }
  // Titles from "z" to "a". A non-strict comparison (>=) is undefined behaviour in std::sort;
  // the strict one gives the same order and stable_sort keeps equal titles as the hosts gave them.
  std::stable_sort(out.begin(), out.end(), [](const VM_Info& a, const VM_Info& b) {
    return a.display_name_ > b.display_name_;
  });
  return true;
}

bool RESTful_Client::list_storage_pool(const std::string& host_id,
                                       std::vector<CAS_Storage_Pool>& out) {
  std::vector<JSON_Value> values;
  return list("/cas/casrs/storage/pool", "storagePool", values, {{"hostId", host_id}}) &&
         load_list(values, out);
}

bool RESTful_Client::list_storage_volume(const std::string& host_id, const std::string& pool_name,
                                         std::vector<CAS_Storage_Volume>& out) {
  std::vector<JSON_Value> values;
  return list("/cas/casrs/storage/volume", "storageVolume", values,
              {{"hostId", host_id}, {"poolName", pool_name}}) &&
         load_list(values, out);
}

bool RESTful_Client::get_host_detail(const std::string& host_id, CVK_Host_Detail& out) {
  JSON_Value response;
  return get(snprintf_t<256>("/cas/casrs/host/id/%s", host_id.c_str()), response) &&
         out.load(response);
}

bool RESTful_Client::list_virtual_switch(const std::string& host_id,
                                         std::vector<Virtual_Switch>& out) {
  std::vector<JSON_Value> values;
  return list(snprintf_t<256>("/cas/casrs/host/id/%s/vswitch", host_id.c_str()), "vSwitch",
              values) &&
         load_list(values, out);
}

bool RESTful_Client::list_port_profile(std::vector<Port_Profile>& out) {
  std::vector<JSON_Value> values;
  return list("/cas/casrs/profile", "portProfile", values) && load_list(values, out);
}

bool RESTful_Client::get_vm_detail(const std::string& vm_id, VM_Detail& out) {
  JSON_Value response;
  return get(snprintf_t<256>("/cas/casrs/vm/detail/%s", vm_id.c_str()), response) &&
         out.load(response);
}

bool RESTful_Client::get_vm_capabilities(const std::string& vm_id, VM_Capabilities& caps) {
  JSON_Value response;
  if (!get(snprintf_t<256>("/cas/casrs/vm/%s/capabilities", vm_id.c_str()), response))
    return false;
  std::string snapshot, external_snapshot, external_cbt, cbt;
  try {
    json_extract(response, "supportSnapshot", snapshot);
    json_extract(response, "supportExternalSnapshot", external_snapshot, false);
    json_extract(response, "supportExternalSnapshotFastBackup", external_cbt, false);
    json_extract(response, "supportCbt", cbt);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized response of CAS VM capabilities request: %s.\n", e.what()));
    return false;
  }
  // CAS spells its flags in lower case; anything else is not a yes.
  caps.support_snapshot = snapshot == "true";
  caps.support_cbt = cbt == "true";
  caps.support_external_snapshot = external_snapshot == "true";
  caps.support_external_cbt = external_cbt == "true";
  return true;
}

std::optional<Snapshot_Info> RESTful_Client::get_snapshot_info(const std::string& vm_id) {
  JSON_Value response;
  if (!get(snprintf_t<256>("/cas/casrs/vm/snapshot/%s", vm_id.c_str()), response))
    return std::nullopt;
  Snapshot_Info root;
  try {
    JSON_Value snapshot;
    json_extract(response, "snapshot", snapshot);
    snapshot >> root;
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS snapshot info: %s\n%s\n", e.what(),
             response.dump(-1, ' ', false, JSON_Value::error_handler_t::replace).c_str()));
    return std::nullopt;
  }
  return root;
}

bool RESTful_Client::send_with_query(HTTP_Method method, const char* path, const Query& query,
                                     const JSON_Value* body, JSON_Value& out) {
  HTTP_Request req(method, path);
  HTTP_Query_String_Builder builder(req.query());
  for (const auto& [name, value] : query)
    builder.append(name, value);
  return send_request(req, body, &out);
}

bool RESTful_Client::get_blocks(const char* path, const Query& query, std::vector<Block>& blocks) {
  std::vector<JSON_Value> values;
  return list(path, "dataBlockInfo", values, query) && load_list(values, blocks);
}

bool RESTful_Client::create_snapshot(const std::string& vm_id, const std::string& vm_name,
                                     const std::string& snapshot_name, bool snap_mem,
                                     bool no_stop_virt_snap_mem, bool internal, int timeout) {
  LOG_MSG((LM_DEBUG, "Creating %s snapshot '%s' for CAS VM '%s'.\n",
           internal ? "internal" : "external", snapshot_name.c_str(), vm_name.c_str()));
  JSON_Value body = {{"vmId", vm_id},
                     {"name", snapshot_name},
                     {"snapMem", flag(snap_mem)},
                     {"noStopVirtSnapMem", flag(no_stop_virt_snap_mem)},
                     {"snapshotMode", internal ? "1" : "2"},
                     {"snapshotTimeOut", timeout},
                     {"keepBitmap", "true"},
                     {"snapBlock", "true"}};
  JSON_Value out;
  return post("/cas/casrs/vm/snapshot", body, out) && wait_task("create_snapshot", out, nullptr);
}

bool RESTful_Client::delete_snapshot(const std::string& vm_id, const std::string& vm_name,
                                     const std::string& snapshot_name) {
  LOG_MSG((LM_DEBUG, "Deleting snapshot '%s' for CAS VM '%s'.\n", snapshot_name.c_str(),
           vm_name.c_str()));
  snprintf_t<512> path("/cas/casrs/vm/snapshot/%s/%s", vm_id.c_str(), snapshot_name.c_str());
  JSON_Value out;
  if (send_with_query(HTTP_Method::DELETE, path, {{"tidyVmImages", "false"}}, nullptr, out) &&
      wait_task("delete_snapshot", out, nullptr))
    return true;
  LOG_MSG((LM_ERROR, "Failed to delete snapshot '%s' of CAS VM '%s'.\n", snapshot_name.c_str(),
           vm_name.c_str()));
  return false;
}

bool RESTful_Client::get_disk_blocks(const std::string& host_id, const std::string& vm_id,
                                     const std::string& image, const std::string& snapshot,
                                     std::vector<Block>& blocks) {
  LOG_MSG((LM_DEBUG, "Getting allocated blocks of disk '%s' (snapshot='%s').\n", image.c_str(),
           snapshot.c_str()));
  Query query{{"hostId", host_id}, {"vmId", vm_id}, {"image", image}};
  // Without a snapshot CAS reports the live disk.
  if (!snapshot.empty())
    query["snapshot"] = snapshot;
  return get_blocks("/cas/casrs/vm/disk/dataBlock", query, blocks);
}

bool RESTful_Client::get_changed_blocks(const std::string& vm_id, const std::string& src_path,
                                        const std::string& cbter_name,
                                        const std::string& snapshot_name,
                                        std::vector<Block>& blocks) {
  LOG_MSG((LM_DEBUG, "Getting changed blocks of disk '%s' (CBTer='%s', snapshot='%s').\n",
           src_path.c_str(), cbter_name.c_str(), snapshot_name.c_str()));
  return get_blocks("/cas/casrs/vm/disk/changedBlock",
                    {{"vmId", vm_id},
                     {"srcPath", src_path},
                     {"name", cbter_name},
                     {"snapshotName", snapshot_name}},
                    blocks);
}

bool RESTful_Client::create_vm(const std::string& vm_name, const JSON_Value& params,
                               std::string& result) {
  LOG_MSG(
      (LM_DEBUG, "Creating CAS VM '%s', parameters:\n%s", vm_name.c_str(), pretty(params).c_str()));
  JSON_Value out;
  return post("/cas/casrs/vm/add", params, out) && wait_task("create_vm", out, &result);
}

bool RESTful_Client::create_storage_volume(Provisioning_Mode mode, const JSON_Value& params) {
  LOG_MSG((LM_DEBUG, "Creating storage volume:\n%s", pretty(params).c_str()));
  JSON_Value out;
  if (!post("/cas/casrs/storage/volume", params, out))
    return false;
  // Zeroing a whole volume is the one slow case worth waiting for.
  return mode != EAGER_ZEROED || wait_task("create_storage_volume", out, nullptr);
}

bool RESTful_Client::delete_storage_volume(const std::string& host_id, const std::string& pool_name,
                                           const std::string& volume_name) {
  LOG_MSG((LM_DEBUG, "Deleting storage volume '%s' on pool '%s' on CVK id=%s.\n",
           volume_name.c_str(), pool_name.c_str(), host_id.c_str()));
  JSON_Value out;
  return del(snprintf_t<1024>("/cas/casrs/storage/volume/delete/%s/%s/%s", host_id.c_str(),
                              pool_name.c_str(), volume_name.c_str()),
             out);
}

bool RESTful_Client::create_disk(const std::string& vm_id, const std::string& vm_name,
                                 const JSON_Value& disk_params) {
  LOG_MSG((LM_DEBUG, "Creating disk for CAS VM(id=%s) '%s', disk parameters:\n%s", vm_id.c_str(),
           vm_name.c_str(), pretty(disk_params).c_str()));
  JSON_Value out;
  // The one PUT that carries a body.
  return send_with_query(HTTP_Method::PUT, "/cas/casrs/vm/addDevice", {}, &disk_params, out) &&
         wait_task("create_disk", out, nullptr);
}

bool RESTful_Client::delete_vm(const std::string& vm_id) {
  LOG_MSG((LM_DEBUG, "Deleting CAS VM(id=%s).\n", vm_id.c_str()));
  JSON_Value out;
  // CAS answers 1001 for a VM it does not know, and "null" as the failure of a deletion that in
  // fact removed the VM: both leave nothing behind.
  if (!del(snprintf_t<256>("/cas/casrs/vm/delete/%s", vm_id.c_str()), out))
    return last_error_code_ == "1001";
  return wait_task("delete_vm", out, nullptr) || task_fail_msg_ == "null";
}

bool RESTful_Client::create_CBTer(const std::string& vm_name, const std::string& cbter_name) {
  LOG_MSG(
      (LM_DEBUG, "Creating CBTer '%s' for CAS VM '%s'.\n", cbter_name.c_str(), vm_name.c_str()));
  JSON_Value out;
  return send_with_query(HTTP_Method::POST, s_cbter_path,
                         {{"subordinateOnly", "true"}, {"vmName", vm_name}, {"name", cbter_name}},
                         nullptr, out) &&
         wait_task("create_cbt", out, nullptr);
}

bool RESTful_Client::get_CBTer(const std::string& vm_name, const std::string& cbter_name,
                               std::map<std::string, bool>& images) {
  LOG_MSG((LM_DEBUG, "Getting info of CBTer '%s'.\n", cbter_name.c_str()));
  images.clear();
  std::vector<JSON_Value> values;
  if (!list(s_cbter_path, "dirtyBitmapInfo", values, {{"vmName", vm_name}, {"name", cbter_name}}))
    return false;
  for (const JSON_Value& value : values) {
    std::string image, valid;
    try {
      json_extract(value, "image", image);
      json_extract(value, "valid", valid);
    } catch (const std::exception&) {
      LOG_MSG((LM_ERROR, "Unknown response of CAS CBTer info: %s.\n",
               value.dump(-1, ' ', false, JSON_Value::error_handler_t::replace).c_str()));
      return false;
    }
    images[image] = valid == "true";
  }
  return true;
}

bool RESTful_Client::delete_CBTer(const std::string& vm_name, const std::string& cbter_name) {
  LOG_MSG(
      (LM_DEBUG, "Deleting CBTer '%s' for CAS VM '%s'.\n", cbter_name.c_str(), vm_name.c_str()));
  JSON_Value out;
  return send_with_query(HTTP_Method::DELETE, s_cbter_path,
                         {{"vmName", vm_name}, {"name", cbter_name}, {"isRegex", flag(false)}},
                         nullptr, out) &&
         wait_task("delete_CBTer", out, nullptr);
}

bool RESTful_Client::set_vm_state(const char* action, const std::string& vm_id,
                                  const std::string& vm_name) {
  LOG_MSG((LM_DEBUG, "Setting CAS VM '%s' state to '%s'.\n", vm_name.c_str(), action));
  JSON_Value out;
  return put(snprintf_t<256>("/cas/casrs/vm/%s/%s", action, vm_id.c_str()), out) &&
         wait_task("set_vm_state", out, nullptr);
}

}  // namespace h3ccas
