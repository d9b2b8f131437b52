#include "sim/cas/control.h"

#include "host/core/crypto.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "sim/cas/mix.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace cas_sim {

namespace {

// A query parameter as a whole unsigned decimal number; absent: `value` stays.
bool query_number(const HTTP_Server_Request& request, const char* key, std::uint64_t& value) {
  auto it = request.query.find(key);
  if (it == request.query.end())
    return true;
  const std::string& text = it->second;
  const char* stop = nullptr;
  std::uint64_t n = natoi<std::uint64_t>(text.data(), text.data() + text.size(), &stop);
  if (errno != 0 || stop != text.data() + text.size())
    return false;
  value = n;
  return true;
}

bool body_json(const HTTP_Server_Request& request, HTTP_Server_Response& response,
               JSON_Value& json) {
  std::string error;
  if (parse_json_text(request.body, json, error))
    return true;
  LOG_MSG((LM_ERROR, "Invalid JSON body of '%s %s': %s.\n", request.method_text.c_str(),
           request.path.c_str(), error.c_str()));
  response.error(400, "invalid JSON body: " + error);
  return false;
}

}  // namespace

Control_Api::Control_Api(Simulator& sim) : sim_(sim) {
  routes_.add(HTTP_Method::GET, "/sim/requests", &Control_Api::get_requests);
  routes_.add(HTTP_Method::DELETE, "/sim/requests", &Control_Api::delete_requests);
  routes_.add(HTTP_Method::GET, "/sim/faults", &Control_Api::get_faults);
  routes_.add(HTTP_Method::POST, "/sim/faults", &Control_Api::post_fault);
  routes_.add(HTTP_Method::DELETE, "/sim/faults", &Control_Api::delete_faults);
  routes_.add(HTTP_Method::PUT, "/sim/knobs", &Control_Api::put_knobs);
  routes_.add(HTTP_Method::POST, "/sim/nonces/expire", &Control_Api::expire_nonces);
  routes_.add(HTTP_Method::GET, "/sim/world", &Control_Api::get_world);
  routes_.add(HTTP_Method::POST, "/sim/tasks", &Control_Api::post_task);
  routes_.add(HTTP_Method::POST, "/sim/disks/write", &Control_Api::write_disk);
  routes_.add(HTTP_Method::POST, "/sim/disks/import", &Control_Api::import_disk);
  routes_.add(HTTP_Method::GET, "/sim/disks/digest", &Control_Api::disk_digest);
  routes_.add(HTTP_Method::PUT, "/sim/disks/size", &Control_Api::resize_disk);
  routes_.add(HTTP_Method::GET, "/sim/leftovers", &Control_Api::get_leftovers);
  routes_.add(HTTP_Method::POST, "/sim/cvd/fail_reads", &Control_Api::fail_reads);
  routes_.add(HTTP_Method::POST, "/sim/cvd/drop", &Control_Api::drop_connections);
  routes_.add(HTTP_Method::POST, "/sim/cvd/hold", &Control_Api::hold);
  routes_.add(HTTP_Method::GET, "/sim/cvd/hold", &Control_Api::get_holds);
}

void Control_Api::attach(HTTP_Server& server) {
  server.route_prefix(HTTP_Method::UNKNOWN, "/sim/",
                      [this](const HTTP_Server_Request& request, HTTP_Server_Response& response) {
                        serve(request, response);
                      });
}

void Control_Api::serve(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  const Handler* handler = nullptr;
  Path_Params params;
  switch (routes_.find(request.method, request.path, handler, params)) {
    case Path_Router<Handler>::Match::NO_PATH:
      response.error(404, "no control route '" + request.path + "'");
      return;
    case Path_Router<Handler>::Match::NO_METHOD:
      response.error(405,
                     "method " + request.method_text + " not allowed on '" + request.path + "'");
      return;
    case Path_Router<Handler>::Match::FOUND:
      break;
  }
  (this->*(*handler))(request, response);
}

void Control_Api::get_requests(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  std::uint64_t since = 0;
  if (!query_number(request, "since", since))
    return response.error(400, "'since' is expected as a sequence number");
  std::uint64_t last = sim_.requests().last_seq();
  JSON_Value records = JSON_Value::array();
  for (const Request_Record& r : sim_.requests().since(since))
    records.push_back(dump_record(r));
  response.json({{"requests", std::move(records)}, {"last_seq", last}});
}

void Control_Api::delete_requests(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  response.json({{"cleared", sim_.requests().clear()}});
}

void Control_Api::get_faults(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  JSON_Value faults = JSON_Value::array();
  for (const Fault& f : sim_.faults())
    faults.push_back(dump_fault(f));
  response.json({{"faults", std::move(faults)}});
}

void Control_Api::post_fault(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return;
  Fault fault;
  std::string error;
  if (!load_fault(json, fault, error))
    return response.error(400, error);
  response.json({{"id", sim_.add_fault(std::move(fault))}});
}

void Control_Api::delete_faults(const HTTP_Server_Request& request,
                                HTTP_Server_Response& response) {
  // Without ?id= every fault goes.
  std::uint64_t id = 0;
  bool one = request.query.count("id") > 0;
  if (!query_number(request, "id", id) || (one && (id == 0 || id > INT64_MAX)))
    return response.error(400, "'id' is expected as a fault id");
  std::size_t removed = sim_.remove_faults(static_cast<std::int64_t>(id));
  if (id != 0 && removed == 0)
    return response.error(404, "no fault " + std::to_string(id));
  response.json({{"removed", removed}});
}

void Control_Api::put_knobs(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return;
  std::string error;
  if (!sim_.change_knobs(json, error))
    return response.error(400, error);
  response.json(sim_.with_world(dump_settings));
}

void Control_Api::expire_nonces(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  response.json({{"expired", sim_.digest().expire_issued()}});
}

void Control_Api::get_world(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  response.json(dump_world(sim_.world()));
}

// Starts a task as a CVM operation would, and answers as CAS does when it starts one.
void Control_Api::post_task(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return;
  int duration_ms = sim_.knobs().task_duration_ms;
  Task_Outcome outcome;
  std::string error;
  if (!load_task(json, duration_ms, outcome, error))
    return response.error(400, error);
  response.json(
      {{"msgId", sim_.tasks().start(std::chrono::milliseconds(duration_ms), std::move(outcome))}});
}

namespace {

// Reads the body's members with the shared extractor; false after a 400 answer.
template <class F>
bool body_members(const HTTP_Server_Request& request, HTTP_Server_Response& response, F&& read) {
  JSON_Value json;
  if (!body_json(request, response, json))
    return false;
  try {
    read(json_object(json));
    return true;
  } catch (const JSON_Error& e) {
    response.error(400, e.what());
    return false;
  }
}

// Opens a disk to write as its guest does; false after a 404 or 500 answer.
bool open_for_writing(Simulator& sim, const std::string& disk, HTTP_Server_Response& response,
                      Disk_Store::Opened& opened) {
  opened = sim.disks().open(disk, "", true);
  if (opened.error == 0)
    return true;
  response.error(opened.error == -ENOENT ? 404 : 500, "cannot open disk '" + disk + "'");
  return false;
}

bool all_zero(const char* data, std::size_t length) {
  return length == 0 || (data[0] == 0 && memcmp(data, data + 1, length - 1) == 0);
}

// {"disk", `flag`: true by default} handed to `set`, which is false for an unknown disk.
template <class Set>
void set_disk_flag(const HTTP_Server_Request& request, HTTP_Server_Response& response,
                   const char* flag, Set set) {
  std::string disk;
  bool on = true;
  if (!body_members(request, response, [&](const JSON_Value& obj) {
        json_extract(obj, "disk", disk);
        json_extract(obj, flag, on, false);
      }))
    return;
  if (!set(disk, on))
    return response.error(404, "no disk '" + disk + "'");
  response.json({{"disk", disk}, {flag, on}});
}

}  // namespace

// Guest data at an offset: given bytes (base64) or a pattern of a length.
void Control_Api::write_disk(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  std::string disk, data, encoded, pattern = "random";
  std::uint64_t offset = 0, length = 0, seed = 0;
  int byte = 0;
  bool given = false;
  if (!body_members(request, response, [&](const JSON_Value& obj) {
        json_extract(obj, "disk", disk);
        json_extract(obj, "offset", offset);
        given = json_extract(obj, "base64", encoded, false);
        if (!given) {
          json_extract(obj, "length", length);
          json_extract(obj, "pattern", pattern, false);
          json_extract(obj, "seed", seed, false);
          json_extract(obj, "byte", byte, false);
        }
      }))
    return;
  if (given && !base64_decode(encoded, data))
    return response.error(400, "'base64' is expected as base64 text");
  if (!given) {
    if (length > (256u << 20) || (pattern != "random" && pattern != "byte"))
      return response.error(400, "'pattern' is expected as random or byte, up to 256 MiB");
    data.assign(length, static_cast<char>(byte));
    Mix mix{seed};
    for (std::size_t i = 0; pattern == "random" && i < length; i += 8) {
      const std::uint64_t z = mix.next();
      memcpy(&data[i], &z, std::min<std::size_t>(8, length - i));
    }
  }
  Disk_Store::Opened opened;
  if (!open_for_writing(sim_, disk, response, opened))
    return;
  int error = sim_.disks().write(opened, offset, data.data(), data.size());
  if (error)
    return response.error(error == -EINVAL ? 400 : 500, "cannot write disk '" + disk + "' there");
  response.json({{"written", data.size()}});
}

// A whole raw image (a file system made with mkfs, ...) becomes the disk's content.
void Control_Api::import_disk(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  std::string disk, file;
  if (!body_members(request, response, [&](const JSON_Value& obj) {
        json_extract(obj, "disk", disk);
        json_extract(obj, "file", file);
      }))
    return;
  Disk_Store::Opened opened;
  if (!open_for_writing(sim_, disk, response, opened))
    return;
  Unique_Fd in(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st = {};
  if (!in || fstat(in.get(), &st) != 0 || static_cast<std::uint64_t>(st.st_size) > opened.size)
    return response.error(400, "cannot import '" + file + "': unreadable or larger than the disk");
  std::vector<char> piece(Disk_Store::block_size * 16), old(piece.size());
  std::uint64_t written = 0;
  for (std::uint64_t at = 0; at < opened.size; at += piece.size()) {
    ssize_t n = pread(in.get(), piece.data(), piece.size(), static_cast<off_t>(at));
    std::size_t length =
        static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), opened.size - at));
    if (n < 0)
      return response.error(500, "cannot read '" + file + "'");
    memset(piece.data() + n, 0, length - static_cast<std::size_t>(n));
    // Zeros are written only over data, so that holes stay holes.
    if (all_zero(piece.data(), length) &&
        (sim_.disks().read(opened, at, old.data(), length) < 0 || all_zero(old.data(), length)))
      continue;
    if (sim_.disks().write(opened, at, piece.data(), length) != 0)
      return response.error(500, "cannot write disk '" + disk + "'");
    written += length;
  }
  response.json({{"written", written}});
}

// SHA-256 of the disk or of its snapshot over a range (default: all of it).
void Control_Api::disk_digest(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  auto disk = request.query.find("disk");
  auto snapshot = request.query.find("snapshot");
  std::uint64_t offset = 0, length = UINT64_MAX;
  if (disk == request.query.end() || !query_number(request, "offset", offset) ||
      !query_number(request, "length", length))
    return response.error(400, "'disk' is required, 'offset' and 'length' are byte counts");
  Disk_Store::Opened opened = sim_.disks().open(
      disk->second, snapshot == request.query.end() ? "" : snapshot->second, false);
  if (opened.error)
    return response.error(opened.error == -ENOENT ? 404 : 500,
                          "cannot open disk '" + disk->second + "'");
  offset = std::min(offset, opened.size);
  length = std::min(length, opened.size - offset);
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr);
  std::vector<char> piece(4 << 20);
  for (std::uint64_t done = 0; done < length;) {
    long n = sim_.disks().read(
        opened, offset + done, piece.data(),
        static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), length - done)));
    if (n <= 0)
      return response.error(500, "cannot read disk '" + disk->second + "'");
    EVP_DigestUpdate(ctx.get(), piece.data(), static_cast<std::size_t>(n));
    done += static_cast<std::uint64_t>(n);
  }
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int md_length = 0;
  EVP_DigestFinal_ex(ctx.get(), md, &md_length);
  static const char hex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < md_length; ++i)
    text += {hex[md[i] >> 4], hex[md[i] & 15]};
  response.json({{"sha256", text}, {"offset", offset}, {"length", length}});
}

// A disk grows, as when an administrator expands it: its CBTers become invalid.
void Control_Api::resize_disk(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  std::string disk;
  std::int64_t size_mib = 0;
  if (!body_members(request, response, [&](const JSON_Value& obj) {
        json_extract(obj, "disk", disk);
        json_extract(obj, "size_mib", size_mib);
      }))
    return;
  if (size_mib < 1)
    return response.error(400, "'size_mib' is expected as a positive number");
  if (!sim_.disks().resize(disk, static_cast<std::uint64_t>(size_mib) << 20))
    return response.error(409, "cannot resize disk '" + disk + "'");
  sim_.change_world([&](World& world) {
    for (Host& host : world.hosts)
      for (VM& vm : host.vms)
        for (Disk& d : vm.disks)
          if (d.path == disk)
            d.size_mib = d.allocation_mib = size_mib;
  });
  response.json({{"disk", disk}, {"size_mib", size_mib}});
}

// What backups may leave behind: every snapshot of the world's VMs and every CBTer of a disk.
void Control_Api::get_leftovers(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  JSON_Value snapshots = JSON_Value::array(), cbters = JSON_Value::array();
  sim_.with_world([&](const World& world) {
    std::function<void(const VM&, const std::vector<Snapshot>&)> walk =
        [&](const VM& vm, const std::vector<Snapshot>& tree) {
          for (const Snapshot& s : tree) {
            snapshots.push_back(
                {{"vm_id", vm.id}, {"vm", vm.name}, {"name", s.name}, {"internal", s.internal}});
            walk(vm, s.children);
          }
        };
    for (const Host& host : world.hosts)
      for (const VM& vm : host.vms)
        walk(vm, vm.snapshots);
  });
  for (const auto& [disk, names] : sim_.disks().leftovers().trackers)
    for (const std::string& name : names)
      cbters.push_back({{"disk", disk}, {"name", name}});
  response.json({{"snapshots", std::move(snapshots)}, {"cbters", std::move(cbters)}});
}

// Reads of one disk through the disk service fail with -EIO while "fail" is true.
void Control_Api::fail_reads(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  set_disk_flag(request, response, "fail", [this](const std::string& disk, bool on) {
    return sim_.disks().fail_reads(disk, on);
  });
}

// The next `count` connections that read or write (of "disk" when given) are dropped after
// `after_bytes` bytes of disk data.
void Control_Api::drop_connections(const HTTP_Server_Request& request,
                                   HTTP_Server_Response& response) {
  std::uint64_t after_bytes = 0;
  int count = 1;
  std::string disk;
  if (!body_members(request, response, [&](const JSON_Value& obj) {
        json_extract(obj, "after_bytes", after_bytes);
        json_extract(obj, "count", count, false);
        json_extract(obj, "disk", disk, false);
      }))
    return;
  if (count < 0)
    return response.error(400, "'count' is expected as a number of connections");
  if (!sim_.disks().drop_connections(after_bytes, count, disk))
    return response.error(404, "no disk '" + disk + "'");
  response.json({{"after_bytes", after_bytes}, {"count", count}});
}

// Reads and writes of one disk ("*": of all) through the disk service block while "hold" is true.
void Control_Api::hold(const HTTP_Server_Request& request, HTTP_Server_Response& response) {
  set_disk_flag(request, response, "hold",
                [this](const std::string& disk, bool on) { return sim_.disks().hold(disk, on); });
}

// The held disks, each with the number of reads and writes waiting on it.
void Control_Api::get_holds(const HTTP_Server_Request&, HTTP_Server_Response& response) {
  JSON_Value held = JSON_Value::object();
  for (const auto& [disk, waiting] : sim_.disks().held_waiters())
    held[disk] = waiting;
  response.json({{"waiting", std::move(held)}});
}

}  // namespace cas_sim
