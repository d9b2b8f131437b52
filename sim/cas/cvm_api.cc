#include "sim/cas/cvm_api.h"

#include "host/core/log.h"
#include "host/core/text.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

namespace cas_sim {

namespace {

const char cas_prefix[] = "/cas/casrs/";

bool same_address(const sockaddr_storage& a, const std::string& text) {
  if (a.ss_family == AF_INET) {
    in_addr want{};
    return inet_pton(AF_INET, text.c_str(), &want) == 1 &&
           reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr == want.s_addr;
  }
  if (a.ss_family == AF_INET6) {
    in6_addr want{};
    return inet_pton(AF_INET6, text.c_str(), &want) == 1 &&
           memcmp(&reinterpret_cast<const sockaddr_in6&>(a).sin6_addr, &want, sizeof want) == 0;
  }
  return false;
}

int port_of(const sockaddr_storage& a) {
  if (a.ss_family == AF_INET)
    return ntohs(reinterpret_cast<const sockaddr_in&>(a).sin_port);
  if (a.ss_family == AF_INET6)
    return ntohs(reinterpret_cast<const sockaddr_in6&>(a).sin6_port);
  return -1;
}

// HTTP_Server answers every request it routes. To play a CVM that drops the connection, the
// socket is shut down under the server, found among this process's descriptors by the peer's
// "address:port" and the listening port; the server's write then fails and it closes the socket.
bool drop_connection(const std::string& remote, int local_port) {
  std::size_t colon = remote.rfind(':');
  if (colon == std::string::npos)
    return false;
  std::string host = remote.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[')
    host = host.substr(1, host.size() - 2);
  const char* port_text = remote.c_str() + colon + 1;
  int peer_port = natoi<int>(port_text, port_text + strlen(port_text), nullptr);
  if (errno != 0)
    return false;

  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/proc/self/fd"), closedir);
  if (!dir)
    return false;
  bool dropped = false;
  while (dirent* entry = readdir(dir.get())) {
    int fd = atoi(entry->d_name);
    if (fd <= 2 || fd == dirfd(dir.get()))
      continue;
    sockaddr_storage peer{}, local{};
    socklen_t peer_len = sizeof peer, local_len = sizeof local;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) != 0)
      continue;
    if (port_of(local) == local_port && port_of(peer) == peer_port && same_address(peer, host)) {
      shutdown(fd, SHUT_RDWR);
      dropped = true;
    }
  }
  return dropped;
}

}  // namespace

std::string cas_number(std::int64_t n) {
  return std::to_string(n);
}

std::string cas_mib(double mib) {
  std::string text = string_sprintf("%.6f", mib);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.')
    text.pop_back();
  return text;
}

JSON_Value cas_members(std::vector<JSON_Value> members) {
  if (members.empty())
    return nullptr;
  if (members.size() == 1)
    return std::move(members[0]);
  return members;
}

JSON_Value cas_list(const std::string& key, std::vector<JSON_Value> members) {
  if (members.empty())
    return nullptr;
  return {{key, cas_members(std::move(members))}};
}

// CAS's own error numbers are not modelled: the code is the HTTP status. The messages are in
// Chinese, as a CVM in its default locale sends them.
void cas_error(HTTP_Server_Response& response, int status, const char* message, const char* code) {
  response.status = status;
  response.body.clear();
  response.headers.put("Error-Code", code ? code : std::to_string(status));
  response.headers.put("Error-Message", message);
}

const char* provisioning_code(const std::string& provisioning) {
  if (provisioning == "lazy_zeroed")
    return "0";
  if (provisioning == "eager_zeroed")
    return "1";
  return "2";
}

double volume_allocation_mib(const Volume& volume) {
  return volume.provisioning == "thin" ? 0 : volume.size_mib;
}

void cas_json(HTTP_Server_Response& response, const JSON_Value& value) {
  if (value.is_null()) {
    response.status = 200;
    response.body.clear();
    return;
  }
  response.json(value);
}

CVM_Api::CVM_Api(Simulator& sim) : sim_(sim) {
  routes_.add(HTTP_Method::GET, "/cas/casrs/operator/operatorInfoList", &CVM_Api::operator_list);
  routes_.add(HTTP_Method::GET, "/cas/casrs/datacenter/casVersion", &CVM_Api::cas_version);
  add_inventory_routes();
  add_restore_routes();
  add_vm_routes();
}

void CVM_Api::attach(HTTP_Server& server) {
  server_ = &server;
  auto serve = [this](const HTTP_Server_Request& request, HTTP_Server_Response& response) {
    this->serve(request, response);
  };
  // Everything but the control API (a longer prefix) is the CVM's.
  server.route_prefix(HTTP_Method::UNKNOWN, "/", serve);
}

void CVM_Api::serve(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  auto start = std::chrono::steady_clock::now();
  int latency = sim_.knobs().latency_ms;
  if (latency > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(latency));

  Request_Record record;
  record.method = request.method_text;
  record.target = request.target;
  bool answered = answer_i(request, response, record.user);
  record.status = answered ? response.status : 0;
  record.duration_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - start)
                           .count();
  sim_.requests().add(std::move(record));
}

bool CVM_Api::answer_i(const HTTP_Server_Request& request, HTTP_Server_Response& response,
                       std::string& user) {
  if (request.path.compare(0, sizeof cas_prefix - 1, cas_prefix) != 0) {
    response.status = 404;
    response.body.clear();
    return true;
  }

  Digest_Verdict verdict = sim_.digest().verify(
      request.method_text, request.target, request.headers.get("Authorization"),
      [this](const std::string& login, std::string& password) {
        return sim_.password_of(login, password);
      },
      user);
  if (verdict != Digest_Verdict::OK) {
    if (verdict != Digest_Verdict::MISSING)
      LOG_MSG((LM_INFO, "Refused credentials of '%s %s' from %s: %s.\n",
               request.method_text.c_str(), request.target.c_str(), request.remote.c_str(),
               digest_verdict_name(verdict)));
    response.status = 401;
    response.body.clear();
    response.headers.put("WWW-Authenticate",
                         sim_.digest().challenge(verdict == Digest_Verdict::STALE_NONCE));
    return true;
  }

  Fault fault;
  if (sim_.take_fault(request.method_text, request.path, request.body, fault))
    return apply_fault_i(fault, request, response);

  const Handler* handler = nullptr;
  Path_Params params;
  switch (routes_.find(request.method, request.path, handler, params)) {
    case Path_Router<Handler>::Match::NO_PATH:
      cas_error(response, 404, "请求的资源不存在");
      return true;
    case Path_Router<Handler>::Match::NO_METHOD:
      cas_error(response, 405, "不支持该请求方法");
      return true;
    case Path_Router<Handler>::Match::FOUND:
      break;
  }
  (this->*(*handler))(Call{request, user, params}, response);
  return true;
}

bool CVM_Api::apply_fault_i(const Fault& fault, const HTTP_Server_Request& request,
                            HTTP_Server_Response& response) {
  LOG_MSG((LM_DEBUG, "Fault %d hits '%s %s'.\n", static_cast<int>(fault.id),
           request.method_text.c_str(), request.target.c_str()));
  if (fault.kind == Fault::Kind::CLOSE) {
    if (drop_connection(request.remote, server_ ? server_->port() : -1))
      return false;
    LOG_MSG((LM_WARNING, "Connection from %s not found to drop; answering 502 instead.\n",
             request.remote.c_str()));
    response.status = 502;
    return true;
  }
  response.status = fault.kind == Fault::Kind::STATUS ? fault.status : 200;
  response.body.clear();
  if (fault.kind == Fault::Kind::NOT_JSON) {
    response.body =
        fault.body.empty() ? "<html><body>Service Unavailable</body></html>" : fault.body;
    response.headers.put("Content-Type", "text/html;charset=UTF-8");
  } else if (fault.kind == Fault::Kind::STATUS && !fault.body.empty()) {
    response.body = fault.body;
    response.headers.put("Content-Type", "application/json");
  }
  if (!fault.error_code.empty())
    response.headers.put("Error-Code", fault.error_code);
  if (!fault.error_message.empty())
    response.headers.put("Error-Message", fault.error_message);
  return true;
}

void CVM_Api::operator_list(const Call&, HTTP_Server_Response& response) {
  std::vector<JSON_Value> members;
  for (const Operator& op : sim_.operators()) {
    JSON_Value o = {{"id", cas_number(op.id)},
                    {"loginName", op.login_name},
                    {"name", op.name},
                    {"groupId", cas_number(op.group_id)}};
    if (!op.description.empty())
      o["description"] = op.description;
    members.push_back(std::move(o));
  }
  cas_json(response, cas_list("operator", std::move(members)));
}

void CVM_Api::cas_version(const Call&, HTTP_Server_Response& response) {
  cas_json(response, {{"data", sim_.version()}});
}

}  // namespace cas_sim
