// The activity record of one job run: created by the agent when the run starts and shared with the
// run's servants through a memory-mapped file.
#pragma once

#include "host/core/mem_map.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

// Fixed layout in native byte order; text fields hold NUL-terminated strings.
struct Job_Activity {
  enum State : std::int32_t { pending = 0, running = 1, completed = 2, failed = 3, cancelled = 4 };
  static constexpr std::size_t id_capacity = 64;  // bytes of a text field, NUL included

  std::int32_t state;
  std::int32_t reserved;
  char job_uid[id_capacity];
  char run_id[id_capacity];
  char previous_run_id[id_capacity];  // the run this one retries; empty for a first run
  std::uint64_t total_size;           // bytes to transfer
  std::uint64_t processed_size;       // bytes transferred so far
  std::uint64_t stored_size;          // bytes written to the storage pool
  std::int64_t start_time;            // seconds since the epoch; 0 when not started
  std::int64_t end_time;              // seconds since the epoch; 0 while running
  std::uint64_t set_size;             // bytes of the backup sets the run made
  std::uint64_t source_size;          // bytes of the protected data the run read
  std::int64_t last_run_time;         // when a run last ended or was found to have nothing to do

  void reset();
  // A stop was asked for; read atomically, as the agent writes it from another process.
  bool is_cancelled() const { return __atomic_load_n(&state, __ATOMIC_RELAXED) == cancelled; }
  // Stores `text` in a text field of this record. False after one log line when it does not fit
  // (the field is left as it was).
  static bool set_text(char (&field)[id_capacity], const std::string& text);
  // The text of a field, cut at the field's end should another process have left it unterminated.
  static std::string text(const char (&field)[id_capacity]);
};

static_assert(std::is_trivially_copyable<Job_Activity>::value &&
                  std::is_standard_layout<Job_Activity>::value,
              "Job_Activity is shared between processes");

// "<root>/var/opt/quorvex/brimlet5/jobs/<job uid>/activity"
struct Job_Activity_Conf {
  static constexpr const char* dir_pattern = "/var/opt/quorvex/brimlet5/$COMPONENT";
  static constexpr const char* component = "jobs";
};

using Job_Activity_Handle = Mem_Map_Handle<Job_Activity, Job_Activity_Conf, 4096>;

// Opens the activity record of job `job_uid`, close-on-exec. The agent creates it (a new record
// reads as zeros); servants open the existing one with `create` false. False after one log line.
bool open_job_activity(Job_Activity_Handle& handle, const std::string& job_uid, bool create);
