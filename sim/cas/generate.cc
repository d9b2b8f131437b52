// A large installation from a few numbers, for listing benchmarks and scale tests: the same seed
// gives the same world on every machine (std::mt19937_64 is the same everywhere; no distributions).
#include "sim/cas/world.h"

#include "host/core/text.h"

#include <algorithm>
#include <random>

namespace cas_sim {

namespace {

template <class T, std::size_t N>
const T& pick(std::mt19937_64& rng, const T (&choices)[N]) {
  return choices[rng() % N];
}

template <class T, class F>
std::int64_t max_id(const std::vector<T>& items, F&& id_of) {
  std::int64_t max = 0;
  for (const T& item : items)
    max = std::max(max, id_of(item));
  return max;
}

Host make_host(int n, std::int64_t id, std::int64_t vswitch_id) {
  Host host;
  host.id = id;
  host.name = string_sprintf("cvk%03d", n);
  host.ip = string_sprintf("172.16.%d.%d", n / 200, n % 200 + 10);
  host.cpu_count = 2;
  host.cpu_cores = 16;
  host.memory_mib = 262144;
  VSwitch vswitch;
  vswitch.id = vswitch_id;
  vswitch.name = "vswitch0";
  vswitch.pnic = "eth0";
  vswitch.address = host.ip;
  vswitch.gateway = "172.16.0.1";
  vswitch.types = VSwitch::MANAGEMENT;
  host.vswitches.push_back(std::move(vswitch));
  return host;
}

VM make_vm(int n, std::int64_t id, const Pool& pool, const std::string& profile,
           std::mt19937_64& rng) {
  static const char* const roles[] = {"web", "db", "app", "cache", "mail", "build", "file", "test"};
  static const char* const systems[] = {"CentOS 7.9 64bit", "Ubuntu 22.04 64bit",
                                        "Windows Server 2019 64bit", "Kylin V10 64bit"};
  static const int cpu_counts[] = {1, 2, 4, 8};
  static const std::int64_t memory_sizes[] = {1024, 2048, 4096, 8192};
  static const std::int64_t disk_sizes[] = {10240, 20480, 40960, 102400};

  VM vm;
  vm.id = id;
  // The last group is the VM's number, so uuids never repeat.
  vm.uuid = string_sprintf(
      "%08llx-%04llx-4%03llx-8%03llx-%012llx", static_cast<unsigned long long>(rng() & 0xffffffff),
      static_cast<unsigned long long>(rng() & 0xffff),
      static_cast<unsigned long long>(rng() & 0xfff),
      static_cast<unsigned long long>(rng() & 0xfff), static_cast<unsigned long long>(n));
  vm.name = string_sprintf("vm%05d", n);
  // Titles sort otherwise than ids, and never repeat.
  vm.title = string_sprintf("%s-%05d", pick(rng, roles), n);
  unsigned status = rng() % 10;
  vm.status = status < 7 ? "running" : status < 9 ? "shutOff" : "paused";
  if (rng() % 10 != 0)
    vm.os = pick(rng, systems);
  vm.cpus = pick(rng, cpu_counts);
  vm.cpu_sockets = vm.cpus > 1 && rng() % 2 ? 2 : 1;
  vm.memory_mib = pick(rng, memory_sizes);

  int disks = 1 + static_cast<int>(rng() % 3);
  for (int d = 0; d < disks; ++d) {
    Disk disk;
    disk.device_name = std::string("vd") + static_cast<char>('a' + d);
    disk.size_mib = pick(rng, disk_sizes);
    disk.allocation_mib = disk.size_mib * static_cast<std::int64_t>(5 + rng() % 60) / 100;
    disk.format = rng() % 5 == 0 ? "raw" : "qcow2";
    disk.cluster_size = disk.format == "qcow2" ? 65536 : 0;
    disk.pool = pool.name;
    disk.path = pool.path + "/" + vm.name + "-" + disk.device_name;
    disk.provisioning = "thin";
    vm.disks.push_back(std::move(disk));
  }
  Nic nic;
  nic.mac = string_sprintf("0c:da:41:%02x:%02x:%02x", (n >> 16) & 0xff, (n >> 8) & 0xff, n & 0xff);
  nic.vswitch = "vswitch0";
  nic.profile = profile;
  vm.networks.push_back(std::move(nic));
  return vm;
}

}  // namespace

void generate_inventory(const Generation& generation, World& world) {
  std::mt19937_64 rng(generation.seed);
  std::int64_t host_id = max_id(world.hosts, [](const Host& h) { return h.id; });
  std::int64_t vm_id = 0, vswitch_id = 0;
  for (const Host& host : world.hosts) {
    vm_id = std::max(vm_id, max_id(host.vms, [](const VM& v) { return v.id; }));
    vswitch_id =
        std::max(vswitch_id, max_id(host.vswitches, [](const VSwitch& v) { return v.id; }));
  }
  if (world.pools.empty()) {
    Pool pool;
    pool.name = "defaultpool";
    pool.path = "/vms/images";
    pool.capacity_mib = std::int64_t(100) << 20;  // 100 TiB
    pool.free_mib = pool.capacity_mib / 2;
    world.pools.push_back(std::move(pool));
  }
  const Pool& pool = world.pools.front();
  std::string profile = world.port_profiles.empty() ? "" : world.port_profiles.front().name;

  std::size_t first = world.hosts.size();
  for (int n = 1; n <= generation.hosts; ++n)
    world.hosts.push_back(make_host(n, host_id + n, vswitch_id + n));
  for (int n = 1; n <= generation.vms; ++n) {
    Host& host = world.hosts[first + static_cast<std::size_t>(n - 1) % generation.hosts];
    host.vms.push_back(make_vm(n, vm_id + n, pool, profile, rng));
  }
}

}  // namespace cas_sim
