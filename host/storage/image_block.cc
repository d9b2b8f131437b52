// The image writer and reader over a storage-pool client.
#include "host/core/log.h"
#include "host/storage/client_io.h"
#include "host/storage/image.h"

Image_Block_Writer::Image_Block_Writer(Client_IO_Ex* io)
    : vxrt::Image_Writer(io ? io->options().compression_ : Client_IO_Base::Compression::None,
                         io ? io->options().compression_level_ : 0),
      io_(io) {}

bool Image_Block_Writer::write_i(const void* data, std::size_t size) {
  return CHECK_TRUE(io_ != nullptr) && io_->write(data, size);
}

std::string Image_Block_Writer::name_i() const {
  return io_ ? io_->path() : std::string();
}

Image_Block_Reader::Image_Block_Reader(Client_IO_Ex* io, std::size_t buffer_size)
    : Image_Reader(buffer_size), io_(io) {}

ssize_t Image_Block_Reader::read_i(void* data, std::size_t size) {
  return CHECK_TRUE(io_ != nullptr) ? io_->read(data, size) : -1;
}

std::string Image_Block_Reader::name_i() const {
  return io_ ? io_->path() : std::string();
}
