// A fresh directory per test, removed afterwards (kept when BRIMLET_KEEP_TEST_DIRS is set).
#pragma once

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

// Writes a whole file (test fixtures); aborts the test binary on failure.
void write_text_file(const std::string& path, const std::string& text);
