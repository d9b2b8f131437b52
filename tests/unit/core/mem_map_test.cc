#include "host/core/mem_map.h"
#include "host/core/paths.h"
#include "host/job/activity.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <tuple>
#include <vector>

namespace {
using S = std::string;
struct Sample {
  std::uint64_t counter;
  std::int32_t flag;
  char text[20];
};

struct Sample_Conf {
  static constexpr const char* dir_pattern = "/var/test/$COMPONENT";
  static constexpr const char* component = "sample";
};

using Sample_Handle = Mem_Map_Handle<Sample, Sample_Conf, 256>;

// Descriptors of this process open on `path`.
std::vector<int> fds_on(const S& path) {
  std::vector<int> fds;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec))
    if (std::filesystem::read_symlink(e.path(), ec) == path)
      fds.push_back(std::stoi(e.path().filename()));
  return fds;
}

bool is_mapped(const S& path) {
  S maps;
  return read_file("/proc/self/maps", maps) && maps.find(path) != S::npos;
}

class Mem_Map_Test : public ::testing::Test {
 protected:
  S sample_dir(const S& id) const { return root_.path() + "/var/test/sample/" + id; }
  Temp_Dir root_;
  Scoped_Env root_env_{"BRIMLET_ROOT", root_.path()};
};

TEST_F(Mem_Map_Test, StoresAreSharedFilesHaveTheirModesAndJobActivityItsUid) {
  Sample_Handle writer;
  ASSERT_TRUE(writer.open("run-1", "rec", true, true, 0750));
  const S path = sample_dir("run-1") + "/rec";
  EXPECT_EQ(std::tuple(writer.path(), std::filesystem::file_size(path), writer->counter),
            std::tuple(path, 256u, 0u));
  writer->counter = 7;
  std::strcpy(writer->text, "agent");
  Sample_Handle reader;
  ASSERT_TRUE(reader.open("run-1", "rec", false, true, 0750));
  EXPECT_TRUE(reader->counter == 7u && !strcmp(reader->text, "agent"));
  reader->flag = 3;
  EXPECT_EQ(writer->flag, 3);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    Sample_Handle child;
    _exit(child.open("run-1", "rec", false, true, 0750) && (child->counter += 100) ? 0 : 1);
  }
  int status = 0;
  ASSERT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(writer->counter, 107u);
  // A moved handle keeps the mapping; the emptied one has none.
  Sample_Handle moved = std::move(writer);
  EXPECT_TRUE(writer.get() == nullptr && moved->counter == 107u);
  moved.close(), reader.close();
  EXPECT_TRUE(moved.get() == nullptr && reader.path().empty());
  S bytes;
  ASSERT_TRUE(read_file(path, bytes) && bytes.size() == 256u);
  Sample on_disk;
  std::memcpy(&on_disk, bytes.data(), sizeof on_disk);
  EXPECT_TRUE(on_disk.counter == 107u && on_disk.flag == 3 && !strcmp(on_disk.text, "agent"));
  // Modes and descriptors, released with the handle.
  const mode_t saved_mask = umask(022);
  for (const auto& [id, dir_mode, close_on_exec] :
       {std::tuple("a", 0750u, true), {"b", 0700u, false}}) {
    S path;
    {
      Sample_Handle h;
      ASSERT_TRUE(h.open(id, "rec", true, close_on_exec, dir_mode)) << id;
      path = h.path();
      struct stat dir = {}, file = {};
      ASSERT_TRUE(stat(sample_dir(id).c_str(), &dir) == 0 && stat(path.c_str(), &file) == 0);
      EXPECT_EQ(std::tuple(dir.st_mode & 07777, file.st_mode & 07777), std::tuple(dir_mode, 0640u));
      std::vector<int> fds = fds_on(path);
      ASSERT_EQ(fds.size(), 1u) << id;
      EXPECT_EQ((fcntl(fds[0], F_GETFD) & FD_CLOEXEC) != 0, close_on_exec) << id;
      EXPECT_TRUE(is_mapped(path)) << id;
    }
    EXPECT_TRUE(fds_on(path).empty() && !is_mapped(path)) << id;
  }
  umask(saved_mask);
  // Job activity is shared by job uid.
  Job_Activity_Handle agent;
  ASSERT_TRUE(open_job_activity(agent, "job-7", true));
  EXPECT_EQ(agent.path(), root_.path() + "/var/opt/quorvex/brimlet5/jobs/job-7/activity");
  EXPECT_TRUE(agent->state == Job_Activity::pending && Job_Activity::text(agent->job_uid).empty());
  agent->state = Job_Activity::running, agent->stored_size = 1ull << 40;
  ASSERT_TRUE(Job_Activity::set_text(agent->job_uid, "job-7") &&
              Job_Activity::set_text(agent->run_id, S(63, 'r')));
  Job_Activity_Handle servant;
  ASSERT_TRUE(open_job_activity(servant, "job-7", false));
  EXPECT_TRUE(servant->state == Job_Activity::running && servant->stored_size == 1ull << 40);
  EXPECT_EQ(Job_Activity::text(servant->job_uid), "job-7");
  Log_Capture log;
  EXPECT_FALSE(Job_Activity::set_text(servant->run_id, S(64, 'x')));
  EXPECT_EQ(std::tuple(log.count(), Job_Activity::text(agent->run_id)), std::tuple(1u, S(63, 'r')));
  // A field another process left unterminated is cut at its end.
  std::memset(agent->previous_run_id, 'p', Job_Activity::id_capacity);
  EXPECT_EQ(Job_Activity::text(servant->previous_run_id), S(Job_Activity::id_capacity, 'p'));
  servant->reset();
  EXPECT_TRUE(agent->state == Job_Activity::pending && agent->stored_size == 0);
  EXPECT_EQ(Job_Activity::text(agent->job_uid) + Job_Activity::text(agent->previous_run_id), "");
  Job_Activity_Handle absent;
  EXPECT_FALSE(open_job_activity(absent, "job-8", false));
}

TEST_F(Mem_Map_Test, RefusedOpensLogOnceAndLeaveTheHandleClosed) {
  const S check = "Unexpected error in host/core/mem_map.cc:";
  // Id, basename, create, and the message.
  const std::tuple<const char*, const char*, bool, S> cases[] = {
      {nullptr, "rec", true, "id is NULL or \"\":\n"},
      {"run", nullptr, true, "basename is NULL or \"\":\n"},
      {"run", "", true, "basename is NULL or \"\":\n"},
      {"..", "rec", true, "Invalid name '../rec' of a memory-mapped file.\n"},
      {"run", "a/b", true, "Invalid name 'run/a/b' of a memory-mapped file.\n"},
      {"run", "missing", false,
       "Failed to memory map " + sample_dir("run") +
           "/missing, errno=2, No such file or directory\n"}};
  for (const auto& [id, basename, create, message] : cases) {
    Sample_Handle h;
    ASSERT_TRUE(h.open("prev", "rec", true, true, 0750));
    Log_Capture log;
    EXPECT_FALSE(h.open(id, basename, create, true, 0750) || h.get() || !h.path().empty())
        << message;
    EXPECT_TRUE(log.count() == 1 && log.contains(message)) << log.text();
    EXPECT_TRUE(message.find("NULL") == S::npos || log.contains(check)) << log.text();
  }
  // Opening without create makes no directory either.
  EXPECT_NE(access(sample_dir("run").c_str(), F_OK), 0);
}
}  // namespace
