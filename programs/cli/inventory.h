// Browsing a CVM's inventory through the agent's "h3ccas.list": ls, search and verify.
#pragma once

#include "programs/cli/cli.h"

// ls CVM [host|vms|pools|vswitches HOST | volumes HOST POOL | profiles]
int inventory_ls(Cli& cli);
// search CVM hosts|vms TEXT [--ip]
int inventory_search(Cli& cli);
// verify CVM NAME...: fails when some name names no VM.
int inventory_verify(Cli& cli);
