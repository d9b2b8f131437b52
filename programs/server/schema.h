// The schema of the server database, as the ordered migrations that build it.
#pragma once

#include "programs/server/db.h"

#include <vector>

namespace brimlet_server {

// Append new versions at the end; never edit one that has shipped.
const std::vector<Migration>& server_schema();

}  // namespace brimlet_server
