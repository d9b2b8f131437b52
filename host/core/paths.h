// Fixed install paths, resolved under the install root ($BRIMLET_ROOT, default "/") so that tests
// and the demo run without root and side by side.
#pragma once

#include <sys/types.h>

#include <string>

// The install root without a trailing slash ("" for "/").
std::string install_root();

// `absolute` ("/etc/opt/...") placed under the install root.
std::string rooted_path(const std::string& absolute);

// Creates `dir` and its missing parents with `mode`. False after one log line.
bool make_dirs(const std::string& dir, mode_t mode);

// Whole-file helpers. write_file_atomic writes a temporary beside `path`, syncs and renames it,
// so readers never see a half-written file.
bool read_file(const std::string& path, std::string& out);
bool write_file_atomic(const std::string& path, const std::string& data, mode_t mode);

// Writes `content` into a fresh file of its own (mode 0600, name ending in `suffix`) under
// <root>/var/opt/quorvex/brimlet5/tmp and gives its path; the caller removes it. The file is
// written completely or not at all. False after one log line.
bool create_script_file(const std::string& content, std::string& path, const char* suffix);

// A path built from a pattern with "$COMPONENT" standing for a component name, placed under the
// install root; get() also creates the directory part with the given mode.
class Path_Conf {
 public:
  Path_Conf(const char* dir_pattern, const char* component, const char* file_name,
            mode_t dir_mode = 0750);
  // "<root>/<dir>/<file>"; false after one log line when the directory cannot be made.
  bool get(std::string& path) const;
  std::string dir() const;

 private:
  std::string dir_pattern_;
  std::string component_;
  std::string file_name_;
  mode_t dir_mode_;
};

// Install locations shared by the programs (already rooted).
namespace brimlet_paths {
std::string etc_dir();  // <root>/etc/opt/quorvex/brimlet5
std::string log_dir();  // <root>/var/log/brimlet5
std::string opt_dir();  // <root>/opt/quorvex/brimlet5
}  // namespace brimlet_paths
