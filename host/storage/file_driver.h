// The "file" storage driver: a pool is a local (or mounted) folder, "file:///abs/dir".
#pragma once

#include "host/storage/client_io.h"

// An object is written under a hidden temporary name in its folder, fsync'd, renamed to its name
// and the folder fsync'd, so a crash or a failed write never leaves a partial object under a
// final name; the temporary of a writer of this host that died is removed by the next write into
// its folder. Components below the pool folder are opened without following symbolic links, so
// an object can never lie outside the pool. Missing folders are created on write.
std::unique_ptr<Storage_Driver> make_file_storage_driver(const std::string& url,
                                                         const Client_IO_Base::Options& options,
                                                         std::string& error);
