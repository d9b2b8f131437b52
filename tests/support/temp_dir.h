// A fresh directory per test, removed afterwards (kept when BRIMLET_KEEP_TEST_DIRS is set).
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

class Temp_Dir {
 public:
  Temp_Dir();
  ~Temp_Dir();
  Temp_Dir(const Temp_Dir&) = delete;
  Temp_Dir& operator=(const Temp_Dir&) = delete;
  const std::string& path() const { return path_; }
  // "<dir>/<name>"
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Sets (or, with nullopt, removes) an environment variable for the life of the object.
struct Scoped_Env {
  Scoped_Env(const char* name, const std::optional<std::string>& value) : name(name) {
    if (const char* old_value = std::getenv(name))
      old = old_value;
    apply(value);
  }
  ~Scoped_Env() { apply(old); }
  void apply(const std::optional<std::string>& v) {
    v ? setenv(name, v->c_str(), 1) : unsetenv(name);
  }
  const char* name;
  std::optional<std::string> old;
};

// Writes a whole file (test fixtures); aborts the test binary on failure.
void write_text_file(const std::string& path, const std::string& text);
