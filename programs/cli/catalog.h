// The backup server's storage pools and backup catalog: pool add|list, sets list|show.
#pragma once

#include "programs/cli/cli.h"

// pool add --name NAME --url URL [--compression zstd|lz4|zlib|none] [--level N]
int pool_add(Cli& cli);
// pool list
int pool_list(Cli& cli);
// sets list [--cvm CVM] [--host HOST] [--vm VM]: newest first.
int sets_list(Cli& cli);
// sets show SET: every field of one set, then its disks, pieces and storages.
int sets_show(Cli& cli);
