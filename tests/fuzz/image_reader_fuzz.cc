// Arbitrary bytes as an image object: the reader must answer true or false, never crash, never
// hand over more than its buffer or data from outside what it decoded. With BRIMLET_FUZZ_SEEDS=
// <dir> it first writes valid objects (every codec, zero runs, extra data) there to start from.
#include "host/storage/image.h"

#include <ace/Log_Msg.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {
struct Memory_Reader : Image_Reader {
  Memory_Reader(std::string_view data, std::size_t buffer_size)
      : Image_Reader(buffer_size), rest_(data) {}
  ssize_t read_i(void* out, std::size_t size) override {
    std::size_t n = rest_.copy(static_cast<char*>(out), size);
    return rest_.remove_prefix(n), static_cast<ssize_t>(n);
  }
  std::string name_i() const override { return "fuzz"; }
  std::string_view rest_;
};

struct Memory_Writer : vxrt::Image_Writer {
  using vxrt::Image_Writer::Image_Writer;
  std::string bytes;
  bool write_i(const void* data, std::size_t size) override {
    return bytes.append(static_cast<const char*>(data), size), true;
  }
  std::string name_i() const override { return "seed"; }
};

void write_seeds(const std::string& dir) {
  const std::uint8_t id[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  for (int codec = 1; codec <= 4; ++codec) {
    Memory_Writer w(static_cast<Client_IO_Base::Compression>(codec));
    std::vector<std::uint8_t> buffer(8192);
    if (!w.init(4096, 512, 1, 0) || !w.write_superblock(id, id, "x", 1) || !w.add_block(0, 5000) ||
        !w.add_block(9000, 3) || !w.add_block(20000, 4096) ||
        !w.write_blocks(
            [&](std::uint64_t offset, std::size_t wanted, const void*& data) -> ssize_t {
              std::size_t len = std::min(wanted, buffer.size());
              for (std::size_t i = 0; i < len; ++i)
                buffer[i] = offset + i < 20000 ? "text of a disk "[(offset + i) % 15] : 0;
              data = buffer.data();
              return static_cast<ssize_t>(len);
            },
            nullptr))
      abort();
    std::ofstream(dir + "/seed" + std::to_string(codec)) << w.bytes;
  }
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every corrupt input logs one line; thousands of them would only slow the run.
  ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);
  if (const char* dir = getenv("BRIMLET_FUZZ_SEEDS"))
    write_seeds(dir);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (std::size_t buffer_size : {std::size_t(1000), std::size_t(1) << 16}) {
    Memory_Reader reader({reinterpret_cast<const char*>(data), size}, buffer_size);
    std::uint64_t sum = 0;
    reader.read_blocks([&](const void* block, std::size_t length, std::uint64_t) {
      if (length == 0 || length > buffer_size)
        abort();
      for (std::size_t i = 0; i < length; ++i)  // touches every byte for the address checker
        sum += static_cast<const std::uint8_t*>(block)[i];
      return true;
    });
  }
  return 0;
}
