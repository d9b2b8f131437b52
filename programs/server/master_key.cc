#include "programs/server/master_key.h"

#include "host/core/log.h"
#include "host/core/paths.h"

#include <sys/stat.h>

#include <cerrno>

namespace brimlet_server {

namespace {

constexpr std::size_t key_size = 32;
const char* const check_name = "master_key_check";
const char* const check_text = "brimlet-server master key";

}  // namespace

bool Master_Key::load(const std::string& path, Connection& conn) {
  // Under the write lock: two servers starting on one data directory agree on one key.
  Transaction tx(conn);
  if (!tx.ok())
    return false;
  std::string check;
  {
    auto st = conn.prepare("SELECT value FROM setting WHERE name = ?");
    st.bind(1, std::string(check_name));
    if (st.next())
      check = st.text(0);
    if (!st.ok())
      return false;
  }

  struct stat info {};
  if (stat(path.c_str(), &info) != 0 && errno == ENOENT) {
    if (!check.empty()) {
      LOG_MSG((LM_ERROR, "Master key '%s' is missing, and database '%s' holds secrets under it.\n",
               path.c_str(), conn.path().c_str()));
      return false;
    }
    Secure_String fresh(key_size, '\0');
    if (!random_bytes(&fresh[0], fresh.size())) {
      LOG_MSG((LM_ERROR, "Failed to make master key '%s': no random bytes.\n", path.c_str()));
      return false;
    }
    if (!write_file_atomic(path, std::string(fresh.data(), fresh.size()), 0600))
      return false;
    key_ = fresh;
    LOG_MSG((LM_INFO, "Created master key '%s'.\n", path.c_str()));
  } else {
    std::string bytes;
    if (!read_file(path, bytes)) {
      LOG_MSG((LM_ERROR, "Failed to read master key '%s': %m.\n", path.c_str()));
      return false;
    }
    key_.assign(bytes.data(), bytes.size());
    secure_zero(&bytes[0], bytes.size());
    if (key_.size() != key_size) {
      LOG_MSG((LM_ERROR, "Master key '%s' is damaged: %Q bytes instead of %Q.\n", path.c_str(),
               static_cast<ACE_UINT64>(key_.size()), static_cast<ACE_UINT64>(key_size)));
      return false;
    }
  }

  if (!check.empty()) {
    Secure_String plain;
    if (!decrypt_string(check, plain, key_.data(), key_.size()) || plain != check_text) {
      LOG_MSG((LM_ERROR, "Master key '%s' does not belong to database '%s'.\n", path.c_str(),
               conn.path().c_str()));
      return false;
    }
    return tx.commit();
  }
  if (!encrypt(Secure_String(check_text), check))
    return false;
  auto st = conn.prepare("INSERT INTO setting (name, value) VALUES (?, ?)");
  return st.bind(1, std::string(check_name)).bind(2, check).run() && tx.commit();
}

bool Master_Key::encrypt(const Secure_String& plain, std::string& cipher) const {
  if (!encrypt_string(plain.data(), plain.size(), cipher, key_.data(), key_.size())) {
    LOG_MSG((LM_ERROR, "Failed to encrypt with the master key.\n"));
    return false;
  }
  return true;
}

bool Master_Key::decrypt(const std::string& cipher, Secure_String& plain) const {
  if (!decrypt_string(cipher, plain, key_.data(), key_.size())) {
    LOG_MSG((LM_ERROR, "Failed to decrypt with the master key: damaged value.\n"));
    return false;
  }
  return true;
}

}  // namespace brimlet_server
