// The master key of a data directory: encrypts the secrets the database holds (CVM passwords).
#pragma once

#include "host/core/crypto.h"
#include "programs/server/db.h"

#include <string>

namespace brimlet_server {

class Master_Key {
 public:
  // Reads the key from `path`, creating it (32 random bytes, mode 0600) on first start. The
  // database keeps a check value, so it is never used with another key, nor a new key made when
  // the old one is lost. False after one log line.
  bool load(const std::string& path, Connection& conn);
  // AES-256-GCM through encrypt_string/decrypt_string. False after one log line.
  bool encrypt(const Secure_String& plain, std::string& cipher) const;
  bool decrypt(const std::string& cipher, Secure_String& plain) const;

 private:
  Secure_String key_;
};

}  // namespace brimlet_server
