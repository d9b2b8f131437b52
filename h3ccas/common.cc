#include "h3ccas/common.h"

#include "host/core/identity.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "host/http/client.h"

#include <boost/algorithm/string/predicate.hpp>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace h3ccas {

namespace {

// The key the backup server encrypts stored CVM passwords with for its agents.
const char s_password_key[] = "P!L@O#V$A%R^N&3157";
const unsigned long s_password_key_length = 18;

struct Provision_Mode_Entry {
  const char* key;
  std::size_t key_length;
  Provisioning_Mode value;
};

// CAS's own codes; ended by a null key.
const Provision_Mode_Entry s_provision_mode_table[] = {
    {"0", 1, LAZY_ZEROED},
    {"1", 1, EAGER_ZEROED},
    {"2", 1, THIN},
    {nullptr, 0, UNKNOWN},
};

}  // namespace

bool try_atod(double& out, const std::string& s) {
  std::size_t used = 0;
  double value = 0;
  try {
    value = std::stod(s, &used);
  } catch (const std::invalid_argument&) {
    LOG_MSG((LM_ERROR, "Failed to convert '%s' to number: invalid value.\n", s.c_str()));
    return false;
  } catch (const std::out_of_range&) {
    LOG_MSG((LM_ERROR, "Failed to convert '%s' to number: out of range.\n", s.c_str()));
    return false;
  }
  out = value;
  if (used != s.size()) {
    LOG_MSG((LM_ERROR, "Failed to convert '%s' to number.\n", s.c_str()));
    return false;
  }
  return true;
}

template <class T>
bool try_natoi(T& out, const std::string& s, T default_value) {
  const char* end = s.c_str() + s.size();
  const char* stop = nullptr;
  T value = natoi<T>(s.c_str(), end, &stop);
  if (stop != end || errno != 0) {
    out = default_value;
    return false;
  }
  out = value;
  return true;
}

template bool try_natoi<int>(int&, const std::string&, int);
template bool try_natoi<unsigned int>(unsigned int&, const std::string&, unsigned int);
template bool try_natoi<unsigned long>(unsigned long&, const std::string&, unsigned long);

std::string size_to_str(unsigned long bytes) {
  std::string out;
  Pretty_Formatter(1).size_formatter(bytes, out);
  return out;
}

const char* bool_to_str(bool value) {
  return value ? "true" : "false";
}

Provisioning_Mode str_to_provision_mode(const char* code) {
  if (!code)
    return UNKNOWN;
  const Provision_Mode_Entry* e = s_provision_mode_table;
  for (; e->key; ++e)
    if (std::strcmp(e->key, code) == 0)
      break;
  return e->value;
}

const char* provision_mode_to_str(Provisioning_Mode mode) {
  for (const Provision_Mode_Entry* e = s_provision_mode_table; e->key; ++e)
    if (e->value == mode)
      return e->key;
  return "UNKNOWN";
}

No_CBT_Opts no_cbt_opts_from_str(const std::string& text) {
  if (text == "skip")
    return No_CBT_Opts::Skip;
  if (text == "skip_with_alert")
    return No_CBT_Opts::Skip_With_Alert;
  if (text == "full_backup")
    return No_CBT_Opts::Full_Backup;
  return No_CBT_Opts::None;
}

const char* no_cbt_opts_to_str(No_CBT_Opts opts) {
  switch (opts) {
    case No_CBT_Opts::Skip:
      return "skip";
    case No_CBT_Opts::Skip_With_Alert:
      return "skip_with_alert";
    case No_CBT_Opts::Full_Backup:
      return "full_backup";
    default:
      return "none";
  }
}

std::string unify_path(const std::string& path, bool is_rbd, const char* snapshot) {
  if (!is_rbd)
    return path;
  if (snapshot && *snapshot)
    return string_sprintf("rbd:%s@%s", path.c_str(), snapshot);
  return string_sprintf("rbd:%s", path.c_str());
}

std::string filenamify(const std::string& in) {
  std::string out;
  ::filenamify(in, out, '_');
  return out;
}

bool is_supported(const std::string& cvm_version) {
  if (boost::istarts_with(cvm_version, "E07"))
    return true;
  LOG_MSG((LM_ERROR, "Unsupported CVM version '%s'.\n", cvm_version.c_str()));
  return false;
}

bool CVM_Info::load(const JSON_Value& value, bool decrypt_password) {
  Secure_String password;
  try {
    json_extract(value, "host", host_);
    json_extract(value, "port", port_);
    json_extract(value, "ssl", ssl_);
    json_extract(value, "username", username_);
    json_extract(value, "password", password);
    json_extract_object(value, "extended_attrs", extended_attrs_, false);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid H3C CVM entry: %s.\n", e.what()));
    return false;
  }
  if (!decrypt_password) {
    password_ = std::move(password);
    return true;
  }
  if (!decrypt_string(std::string(password.data(), password.size()), password_, s_password_key,
                      s_password_key_length)) {
    LOG_MSG((LM_ERROR, "Failed to decrypt H3C CVM password.\n"));
    return false;
  }
  return true;
}

JSON_Value CVM_Info::dump() const {
  return {{"host", host_},
          {"port", port_},
          {"ssl", ssl_},
          {"username", username_},
          {"password", std::string(password_.data(), password_.size())}};
}

bool CVM_Info::load_from_server(const std::string& uuid) {
  HTTP_Request req(HTTP_Method::GET, "/k4/r/h3ccas/cvm");
  // The server encrypts the password for the agent named by "with_password".
  HTTP_Query_String_Builder(req.query())
      .append("uuid", uuid)
      .append("with_password", std::string(Host_ID::instance()->c_str()));
  JSON_Value response;
  if (!Upstream_JSON_RESTful_Client::instance()->get(req, response) || response.is_null()) {
    LOG_MSG((LM_ERROR, "Failed to get CVM info from server.\n"));
    return false;
  }
  const JSON_Value* rows = response.is_object() ? json_find(response, "rows") : nullptr;
  if (!rows || !rows->is_array() || rows->empty()) {
    LOG_MSG((LM_ERROR, "H3C CVM not found, uuid = %s.\n", uuid.c_str()));
    return false;
  }
  return load(rows->front(), true);
}

}  // namespace h3ccas
