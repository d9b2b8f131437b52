// The backup server's storage pools and backup catalog: pool add|list, sets list|show.
#pragma once

#include "programs/cli/cli.h"

#include <string>

// pool add --name NAME --url URL [--compression zstd|lz4|zlib|none] [--level N]: `io_options`
// holds the compression options given.
int pool_add(const Cli& cli, const std::string& name, const std::string& url,
             const JSON_Value& io_options);
// pool list
int pool_list(const Cli& cli);
// sets list [--cvm CVM] [--host HOST] [--vm VM]: newest first.
int sets_list(const Cli& cli, const std::string& cvm, const std::string& host,
              const std::string& vm);
// sets show SET: every field of one set, then its disks, pieces and storages.
int sets_show(const Cli& cli, const std::string& uuid);
