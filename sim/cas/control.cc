#include "sim/cas/control.h"

#include "host/core/log.h"
#include "host/core/text.h"

#include <cerrno>
#include <cstdint>

namespace cas_sim {

namespace {

// A query parameter as a whole unsigned decimal number; absent: `value` stays.
bool query_number(const HTTP_Server_Request& request, const char* key, std::uint64_t& value) {
  auto it = request.query.find(key);
  if (it == request.query.end())
    return true;
  const std::string& text = it->second;
  const char* stop = nullptr;
  std::uint64_t n = natoi<std::uint64_t>(text.data(), text.data() + text.size(), &stop);
  if (errno != 0 || stop != text.data() + text.size())
    return false;
  value = n;
  return true;
}

bool body_json(const HTTP_Server_Request& request, HTTP_Server_Response& response,
               JSON_Value& json) {
  std::string error;
  if (parse_json_text(request.body, json, error))
    return true;
  LOG_MSG((LM_ERROR, "Invalid JSON body of '%s %s': %s.\n", request.method_text.c_str(),
           request.path.c_str(), error.c_str()));
  response.error(400, "invalid JSON body: " + error);
  return false;
}

}  // namespace

Control_Api::Control_Api(Simulator& sim) : sim_(sim) {
  routes_.add(HTTP_Method::GET, "/sim/requests", &Control_Api::get_requests);
  routes_.add(HTTP_Method::DELETE, "/sim/requests", &Control_Api::delete_requests);
  routes_.add(HTTP_Method::GET, "/sim/faults", &Control_Api::get_faults);
  routes_.add(HTTP_Method::POST, "/sim/faults", &Control_Api::post_fault);
  routes_.add(HTTP_Method::DELETE, "/sim/faults", &Control_Api::delete_faults);
  routes_.add(HTTP_Method::PUT, "/sim/knobs", &Control_Api::put_knobs);
  routes_.add(HTTP_Method::POST, "/sim/nonces/expire", &Control_Api::expire_nonces);
  routes_.add(HTTP_Method::GET, "/sim/world", &Control_Api::get_world);
  routes_.add(HTTP_Method::POST, "/sim/tasks", &Control_Api::post_task);
}

void Control_Api::attach(HTTP_Server& server) {
  server.route_prefix(HTTP_Method::UNKNOWN, "/sim/",
                      [this](const HTTP_Server_Request& request, HTTP_Server_Response& response) {
                        serve(request, response);
                      });
}

void Control_Api::serve(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  const Handler* handler = nullptr;
  Path_Params params;
  switch (routes_.find(request.method, request.path, handler, params)) {
    case Path_Router<Handler>::Match::NO_PATH:
      response.error(404, "no control route '" + request.path + "'");
      return;
    case Path_Router<Handler>::Match::NO_METHOD:
      response.error(405,
                     "method " + request.method_text + " not allowed on '" + request.path + "'");
      return;
    case Path_Router<Handler>::Match::FOUND:
      break;
  }
  (this->*(*handler))(request, response);
}

void Control_Api::get_requests(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  std::uint64_t since = 0;
  if (!query_number(request, "since", since))
    return response.error(400, "'since' is expected as a sequence number");
  std::uint64_t last = sim_.requests().last_seq();
  JSON_Value records = JSON_Value::array();
  for (const Request_Record& r : sim_.requests().since(since))
    records.push_back(dump_record(r));
  response.json({{"requests", std::move(records)}, {"last_seq", last}});
}

void Control_Api::delete_requests(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  response.json({{"cleared", sim_.requests().clear()}});
}

void Control_Api::get_faults(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  JSON_Value faults = JSON_Value::array();
  for (const Fault& f : sim_.faults())
    faults.push_back(dump_fault(f));
  response.json({{"faults", std::move(faults)}});
}

void Control_Api::post_fault(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return;
  Fault fault;
  std::string error;
  if (!load_fault(json, fault, error))
    return response.error(400, error);
  response.json({{"id", sim_.add_fault(std::move(fault))}});
}

void Control_Api::delete_faults(const HTTP_Server_Request& request,
                                HTTP_Server_Response& response) {
  // Without ?id= every fault goes.
  std::uint64_t id = 0;
  bool one = request.query.count("id") > 0;
  if (!query_number(request, "id", id) || (one && (id == 0 || id > INT64_MAX)))
    return response.error(400, "'id' is expected as a fault id");
  std::size_t removed = sim_.remove_faults(static_cast<std::int64_t>(id));
  if (id != 0 && removed == 0)
    return response.error(404, "no fault " + std::to_string(id));
  response.json({{"removed", removed}});
}

void Control_Api::put_knobs(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return;
  std::string error;
  if (!sim_.change_knobs(json, error))
    return response.error(400, error);
  response.json(sim_.with_world(dump_settings));
}

void Control_Api::expire_nonces(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  response.json({{"expired", sim_.digest().expire_issued()}});
}

void Control_Api::get_world(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  response.json(dump_world(sim_.world()));
}

// Starts a task as a CVM operation would, and answers as CAS does when it starts one.
void Control_Api::post_task(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return;
  int duration_ms = sim_.knobs().task_duration_ms;
  Task_Outcome outcome;
  std::string error;
  if (!load_task(json, duration_ms, outcome, error))
    return response.error(400, error);
  response.json(
      {{"msgId", sim_.tasks().start(std::chrono::milliseconds(duration_ms), std::move(outcome))}});
}

}  // namespace cas_sim
