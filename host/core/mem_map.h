// Small fixed-layout records shared between processes (the agent and its servants) through
// memory-mapped files under the install root.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

class ACE_Mem_Map;

// One file mapped read-write and shared; unmapped and closed when closed or destroyed.
class Mem_Map_File {
 public:
  Mem_Map_File();
  ~Mem_Map_File();
  Mem_Map_File(Mem_Map_File&&) noexcept;
  Mem_Map_File& operator=(Mem_Map_File&&) noexcept;

  // Maps the first `size` bytes of "<root><dir_pattern>/<id>/<basename>" ("$COMPONENT" in the
  // pattern standing for `component`). With `create`, the directories are made with `dir_mode`
  // and a missing file is created with mode 0640; a shorter file is extended with zeros. `id` and
  // `basename` must be single, non-empty path components. False after one log line, closed.
  bool open(const char* dir_pattern, const char* component, const char* id, const char* basename,
            std::size_t size, bool create, bool close_on_exec, mode_t dir_mode);
  void close();
  // Start of the mapping; nullptr when closed.
  void* addr() const;
  // The mapped file; empty when closed.
  const std::string& path() const { return path_; }

 private:
  std::unique_ptr<ACE_Mem_Map> map_;
  std::string path_;
};

// A record of type T in the file that Conf names. Conf provides where the files of one kind live:
//   struct Progress_Conf {
//     static constexpr const char* dir_pattern = "/var/opt/quorvex/brimlet5/$COMPONENT/progress";
//     static constexpr const char* component = "h3c-cas";
//   };
// and the record of (id, basename) is "<root>/var/opt/quorvex/brimlet5/h3c-cas/progress/<id>/
// <basename>", Size bytes long. A new file reads as zeros. Writers and readers in other processes
// see each other's stores; the record carries no lock, so each field is read on its own.
template <typename T, typename Conf, std::size_t Size = 4096>
class Mem_Map_Handle {
  static_assert(sizeof(T) <= Size, "the record must fit in the mapped file");
  static_assert(std::is_trivially_copyable<T>::value,
                "a record shared between processes must be trivially copyable");

 public:
  // See Mem_Map_File::open.
  bool open(const char* id, const char* basename, bool create, bool close_on_exec,
            mode_t dir_mode) {
    return file_.open(Conf::dir_pattern, Conf::component, id, basename, Size, create, close_on_exec,
                      dir_mode);
  }
  void close() { file_.close(); }
  // The record; nullptr when not open.
  T* get() const { return static_cast<T*>(file_.addr()); }
  T* operator->() const { return get(); }
  const std::string& path() const { return file_.path(); }

 private:
  Mem_Map_File file_;
};
