#include "host/core/service.h"

#include "host/core/text.h"

#include <langinfo.h>
#include <signal.h>

#include <cerrno>
#include <clocale>
#include <cstring>

bool parse_listen(const std::string& text, std::string& host, std::uint16_t& port) {
  auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0)
    return false;
  std::string h = text.substr(0, colon);
  if (h.size() >= 2 && h.front() == '[' && h.back() == ']')
    h = h.substr(1, h.size() - 2);
  std::string p = text.substr(colon + 1);
  const char* stop = nullptr;
  unsigned int n = natoi<unsigned int>(p.data(), p.data() + p.size(), &stop);
  if (h.empty() || errno != 0 || stop != p.data() + p.size() || n > 65535)
    return false;
  host = h;
  port = static_cast<std::uint16_t>(n);
  return true;
}

bool is_loopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

static sigset_t stop_set() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

void block_stop_signals() {
  signal(SIGPIPE, SIG_IGN);
  sigset_t set = stop_set();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int wait_stop_signal() {
  sigset_t set = stop_set();
  int sig = 0;
  sigwait(&set, &sig);
  return sig;
}

void use_utf8_locale() {
  if (!setlocale(LC_ALL, "") || strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
    setlocale(LC_CTYPE, "C.UTF-8");
}
