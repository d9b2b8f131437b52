// Conversions of CAS strings into numbers, enumerations and paths, and the connection record of
// one CVM.
#pragma once

#include "host/core/crypto.h"
#include "host/core/json.h"

#include <cstdint>
#include <string>

namespace h3ccas {

// Disk provisioning of a CAS volume.
enum Provisioning_Mode { UNKNOWN = 0, THIN = 1, LAZY_ZEROED = 2, EAGER_ZEROED = 3 };

// What a backup does with a VM whose changed-block tracking is not available.
enum class No_CBT_Opts { None = 0, Skip = 1, Skip_With_Alert = 2, Full_Backup = 3 };

// Whole string as a double (leading blanks allowed). False after one log line; trailing text
// still leaves the parsed value in `out`.
bool try_atod(double& out, const std::string& s);

// Whole string as a strict decimal integer. On any failure `out` takes `default_value`; nothing is
// logged, the caller decides whether a bad number matters.
template <class T>
bool try_natoi(T& out, const std::string& s, T default_value);
extern template bool try_natoi<int>(int&, const std::string&, int);
extern template bool try_natoi<unsigned int>(unsigned int&, const std::string&, unsigned int);
extern template bool try_natoi<unsigned long>(unsigned long&, const std::string&, unsigned long);

// "1.5 GiB", "512 B".
std::string size_to_str(unsigned long bytes);
const char* bool_to_str(bool value);

// CAS provisioning codes ("0", "1", "2"); anything else is UNKNOWN / "UNKNOWN".
Provisioning_Mode str_to_provision_mode(const char* code);
const char* provision_mode_to_str(Provisioning_Mode mode);

// "skip", "skip_with_alert", "full_backup"; anything else is None / "none". Case matters.
No_CBT_Opts no_cbt_opts_from_str(const std::string& text);
const char* no_cbt_opts_to_str(No_CBT_Opts opts);

// The path the disk-access SDK opens: "rbd:<path>[@<snapshot>]" for RBD, the path otherwise.
std::string unify_path(const std::string& path, bool is_rbd, const char* snapshot);

// Characters that may not stand in a file name become '_'.
std::string filenamify(const std::string& in);

// Only the E07 release line of CVM is supported. False after one log line.
bool is_supported(const std::string& cvm_version);

// Connection record of one CVM: JSON keys "host", "port", "ssl", "username", "password" and the
// optional "extended_attrs".
class CVM_Info {
 public:
  // `decrypt_password`: the entry comes from the backup server, its password encrypted for this
  // agent. False after one log line; fields read before the fault keep their new values.
  bool load(const JSON_Value& value, bool decrypt_password);
  // The five connection members with the password in clear (the servant's form);
  // "extended_attrs" is left out.
  JSON_Value dump() const;
  // Fetches the entry `uuid` from the backup server and loads it with decryption.
  bool load_from_server(const std::string& uuid);

  const JSON_Value& extended_attrs() const { return extended_attrs_; }
  const std::string& username() const { return username_; }
  const Secure_String& password() const { return password_; }
  const std::string& host() const { return host_; }
  const std::uint16_t& port() const { return port_; }
  const bool& ssl() const { return ssl_; }

 private:
  JSON_Value extended_attrs_ = JSON_Value::object();
  std::string username_;
  Secure_String password_;
  std::string host_;
  std::uint16_t port_ = 0;
  bool ssl_ = false;
};

}  // namespace h3ccas
