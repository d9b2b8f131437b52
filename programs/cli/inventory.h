// Browsing a CVM's inventory through the agent's "h3ccas.list": ls, search and verify.
#pragma once

#include "programs/cli/cli.h"

#include <string>
#include <vector>

// ls CVM [host|vms|pools|vswitches HOST | volumes HOST POOL | profiles]: `words` from CVM on.
int inventory_ls(const Cli& cli, const std::vector<std::string>& words);
// search CVM hosts|vms TEXT [--ip]
int inventory_search(const Cli& cli, const std::string& cvm, const std::string& kind,
                     const std::string& text, bool by_ip);
// verify CVM NAME...: fails when some name names no VM.
int inventory_verify(const Cli& cli, const std::string& cvm, const std::vector<std::string>& names);
