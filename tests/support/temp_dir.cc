#include "tests/support/temp_dir.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

Temp_Dir::Temp_Dir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/brimlet-test-XXXXXX";
  if (!mkdtemp(&pattern[0]))
    throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

Temp_Dir::~Temp_Dir() {
  if (std::getenv("BRIMLET_KEEP_TEST_DIRS")) {
    fprintf(stderr, "kept test directory %s\n", path_.c_str());
    return;
  }
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void write_text_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) {
    fprintf(stderr, "cannot write %s\n", path.c_str());
    std::abort();
  }
}
