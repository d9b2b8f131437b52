// The digest client against a server nobody here wrote: Apache httpd with mod_auth_digest,
// serving CVM's login-check answers as static files.
#include "h3ccas/restful_client.h"

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace h3ccas {
namespace {

const char kApache[] = "/usr/sbin/apache2";
const char kModules[] = "/usr/lib/apache2/modules";
const char kUser[] = "cas-admin";
const char kPassword[] = "Circle Of Life";
// Short, so that one test can outlive a nonce.
const int kNonceLifetime = 2;

bool accepts_connections(std::uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0)
    return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class Cas_Apache_Digest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kApache, X_OK) != 0)
      GTEST_SKIP() << kApache << " is not installed";
    port_ = free_port();
    ASSERT_NE(port_, 0);
    const std::string docs = dir_.file("htdocs");
    std::filesystem::create_directories(docs + "/cas/casrs/operator");
    std::filesystem::create_directories(docs + "/cas/casrs/datacenter");
    write_text_file(docs + "/cas/casrs/operator/operatorInfoList",
                    R"({"operator":[{"loginName":"cas-admin","groupId":"1"}]})");
    write_text_file(docs + "/cas/casrs/datacenter/casVersion", R"({"data":"H3C CAS E0750"})");
    // What htdigest writes: user:realm:MD5(user:realm:password).
    const std::string realm = Digest_Peer::realm;
    write_text_file(dir_.file("htdigest"),
                    std::string(kUser) + ":" + realm + ":" +
                        md5_hex(std::string(kUser) + ":" + realm + ":" + kPassword) + "\n");
    write_text_file(dir_.file("httpd.conf"), config(docs));
    // Apache started as root serves as "nobody", who must be able to read the files.
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path()))
      chmod(entry.path().c_str(), entry.is_directory() ? 0755 : 0644);
    chmod(dir_.path().c_str(), 0755);

    ASSERT_TRUE(apache_.start({kApache, "-f", dir_.file("httpd.conf"), "-D", "FOREGROUND"}, {},
                              dir_.file("apache.out")));
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!accepts_connections(port_)) {
      ASSERT_TRUE(apache_.running())
          << read_text(dir_.file("apache.out")) << read_text(dir_.file("error.log"));
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << read_text(dir_.file("error.log"));
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  std::string config(const std::string& docs) const {
    // Root must hand the workers to another user; anyone else keeps its own (the directives are
    // then ignored).
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (uid == 0) {
      const passwd* nobody = getpwnam("nobody");
      uid = nobody ? nobody->pw_uid : 65534;
      gid = nobody ? nobody->pw_gid : 65534;
    }
    std::ostringstream c;
    c << "ServerRoot \"" << dir_.path() << "\"\n"
      << "ServerName 127.0.0.1\n"
      << "Listen 127.0.0.1:" << port_ << "\n"
      << "PidFile \"" << dir_.file("httpd.pid") << "\"\n"
      << "ErrorLog \"" << dir_.file("error.log") << "\"\n"
      << "LogLevel warn auth_digest:info\n"
      << "DefaultRuntimeDir \"" << dir_.path() << "\"\n"
      << "User #" << uid << "\nGroup #" << gid << "\n";
    for (const char* module :
         {"mpm_prefork", "authn_core", "authn_file", "authz_core", "authz_user", "auth_digest"})
      c << "LoadModule " << module << "_module " << kModules << "/mod_" << module << ".so\n";
    c << "StartServers 1\nMinSpareServers 1\nMaxSpareServers 2\n"
      << "DocumentRoot \"" << docs << "\"\n"
      << "<Directory \"" << docs << "\">\n  Require all granted\n</Directory>\n"
      << "<Location /cas/casrs/>\n"
      << "  AuthType Digest\n"
      << "  AuthName \"" << Digest_Peer::realm << "\"\n"
      << "  AuthDigestProvider file\n"
      << "  AuthUserFile \"" << dir_.file("htdigest") << "\"\n"
      << "  AuthDigestNonceLifetime " << kNonceLifetime << "\n"
      << "  Require valid-user\n"
      << "</Location>\n";
    return c.str();
  }

  Temp_Dir dir_;
  std::uint16_t port_ = 0;
  Test_Process apache_;
};

TEST_F(Cas_Apache_Digest, LoginSucceedsWithTheRightPassword) {
  RESTful_Client client(make_cvm(port_, kUser, kPassword));
  std::string error, version;
  EXPECT_TRUE(client.test_login(error, version)) << error << read_text(dir_.file("error.log"));
  EXPECT_EQ(error, "");
  EXPECT_EQ(version, "E0750");
}

TEST_F(Cas_Apache_Digest, LoginFailsWithAWrongPassword) {
  RESTful_Client client(make_cvm(port_, kUser, "Circle of Life"));
  std::string error, version;
  EXPECT_FALSE(client.test_login(error, version));
  EXPECT_EQ(error, "Invalid CVM username or password");
}

TEST_F(Cas_Apache_Digest, RenewsAfterAMinuteAndKeepsCountingUntilThen) {
  Test_Client client(make_cvm(port_, kUser, kPassword));
  JSON_Value out;
  ASSERT_TRUE(client.get("/cas/casrs/datacenter/casVersion", out));
  const std::string nonce = client.auth_.nonce_;
  client.clock += 59;
  ASSERT_TRUE(client.get("/cas/casrs/datacenter/casVersion", out));
  EXPECT_EQ(client.auth_.nonce_, nonce);
  EXPECT_EQ(client.auth_.nonce_count_, 2);
  client.clock += 60;
  ASSERT_TRUE(client.get("/cas/casrs/datacenter/casVersion", out));
  EXPECT_NE(client.auth_.nonce_, nonce);
  EXPECT_EQ(client.auth_.nonce_count_, 1);
  EXPECT_EQ(out, JSON_Value({{"data", "H3C CAS E0750"}}));
}

TEST_F(Cas_Apache_Digest, ExpiredNonceIsRenewedOnce) {
  Test_Client client(make_cvm(port_, kUser, kPassword));
  JSON_Value out;
  ASSERT_TRUE(client.get("/cas/casrs/datacenter/casVersion", out));
  const std::string nonce = client.auth_.nonce_;
  // Outlive the nonce; the client's own clock stays within the renewal window.
  std::this_thread::sleep_for(std::chrono::seconds(kNonceLifetime + 1));
  out = nullptr;
  ASSERT_TRUE(client.get("/cas/casrs/datacenter/casVersion", out));
  EXPECT_EQ(out, JSON_Value({{"data", "H3C CAS E0750"}}));
  EXPECT_NE(client.auth_.nonce_, nonce);
  EXPECT_EQ(client.auth_.nonce_count_, 1);
  EXPECT_EQ(client.last_error_code(), "");
}

}  // namespace
}  // namespace h3ccas
