// The digest client against a server nobody here wrote: Apache httpd with mod_auth_digest,
// serving CVM's login-check answers as static files.

#include "tests/support/process.h"
#include "tests/unit/h3ccas/support.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

namespace h3ccas {
namespace {
const char apache_binary[] = "/usr/sbin/apache2";

S apache_config(const Temp_Dir& dir, std::uint16_t port) {
  // Root must hand the workers to another user; anyone else keeps its own.
  const passwd* nobody = getuid() == 0 ? getpwnam("nobody") : nullptr;
  const S docs = dir.file("htdocs");
  std::ostringstream c;
  c << "ServerRoot \"" << dir.path() << "\"\nServerName 127.0.0.1\n"
    << "Listen 127.0.0.1:" << port << "\nPidFile \"" << dir.file("httpd.pid") << "\"\n"
    << "ErrorLog \"" << dir.file("error.log") << "\"\nLogLevel warn auth_digest:info\n"
    << "DefaultRuntimeDir \"" << dir.path() << "\"\n"
    << "User #" << (nobody ? nobody->pw_uid : getuid()) << "\n"
    << "Group #" << (nobody ? nobody->pw_gid : getgid()) << "\n";
  for (const char* module :
       {"mpm_prefork", "authn_core", "authn_file", "authz_core", "authz_user", "auth_digest"})
    c << "LoadModule " << module << "_module /usr/lib/apache2/modules/mod_" << module << ".so\n";
  c << "StartServers 1\nMinSpareServers 1\nMaxSpareServers 2\n"
    << "DocumentRoot \"" << docs << "\"\n"
    << "<Directory \"" << docs << "\">\n  Require all granted\n</Directory>\n"
    << "<Location /cas/casrs/>\n  AuthType Digest\n  AuthName \"" << Digest_Peer::realm
    << "\"\n  AuthDigestProvider file\n  AuthUserFile \"" << dir.file("htdigest") << "\"\n"
    << "  Require valid-user\n</Location>\n";
  return c.str();
}

TEST(Cas_Apache_Digest, LoginWithRightAndWrongPassword) {
  if (access(apache_binary, X_OK) != 0)
    GTEST_SKIP() << apache_binary << " is not installed";
  Temp_Dir dir;
  const std::uint16_t port = free_port();
  ASSERT_NE(port, 0);
  const S casrs = dir.file("htdocs/cas/casrs");
  std::filesystem::create_directories(casrs + "/operator");
  std::filesystem::create_directories(casrs + "/datacenter");
  write_text_file(casrs + "/operator/operatorInfoList",
                  R"({"operator":[{"loginName":"admin","groupId":"1"}]})");
  write_text_file(casrs + "/datacenter/casVersion", R"({"data":"H3C CAS E0750"})");
  // What htdigest writes: user:realm:MD5(user:realm:password).
  const S user_realm = S(cvm_user) + ":" + Digest_Peer::realm;
  write_text_file(dir.file("htdigest"),
                  user_realm + ":" + md5_hex(user_realm + ":" + cvm_password) + "\n");
  write_text_file(dir.file("httpd.conf"), apache_config(dir, port));
  // Apache started as root serves as "nobody", who must be able to read the files.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
    chmod(entry.path().c_str(), entry.is_directory() ? 0755 : 0644);
  chmod(dir.path().c_str(), 0755);
  Test_Process apache;
  ASSERT_TRUE(apache.start({apache_binary, "-f", dir.file("httpd.conf"), "-D", "FOREGROUND"}, {},
                           dir.file("apache.out")));
  // The pid file is written once the port listens.
  JSON_Value pid;
  ASSERT_TRUE(apache.wait_ready(dir.file("httpd.pid"), pid));
  RESTful_Client client(make_cvm(port, cvm_user, cvm_password));
  S error, version;
  EXPECT_TRUE(client.test_login(error, version)) << error;
  EXPECT_EQ(std::tuple(error, version), std::tuple("", "E0750"));
  RESTful_Client wrong(make_cvm(port, cvm_user, "Adm1n:p@sS"));
  EXPECT_FALSE(wrong.test_login(error, version));
  EXPECT_EQ(error, "Invalid CVM username or password");
}
}  // namespace
}  // namespace h3ccas
