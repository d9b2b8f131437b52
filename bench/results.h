// What every benchmark does with its numbers: write them as JSON to the file named by --out.
#pragma once

#include "host/core/json.h"
#include "host/core/paths.h"

#include <cstdio>
#include <fstream>
#include <string>

// Writes `results` to `path`, creating its folder; false after one line on stderr.
inline bool write_results(const std::string& path, const JSON_Value& results) {
  std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && !make_dirs(path.substr(0, slash), 0755)) {
    fprintf(stderr, "cannot create the folder of '%s'\n", path.c_str());
    return false;
  }
  std::ofstream file(path, std::ios::trunc);
  file << results.dump(2) << "\n";
  if (!file.flush()) {
    fprintf(stderr, "cannot write '%s'\n", path.c_str());
    return false;
  }
  printf("Results written to %s\n", path.c_str());
  return true;
}
