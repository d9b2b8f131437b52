// Storage pool URLs, checked one way for everyone: the backup server registers a pool only if the
// storage client would open it.
#pragma once

#include <string>

// True when `url` names a pool a driver of this build opens: today "file:///abs/folder", the
// folder absolute, not "/", without empty, "." or ".." components, a trailing '/', control
// characters or surrounding spaces. `folder` receives the folder of a file:// pool. False with
// `error` = "Invalid storage pool URL '<url>': <reason>" or, for a scheme without a driver
// (s3:// among them), "Unsupported storage pool URL '<url>': <reason>".
bool validate_pool_url(const std::string& url, std::string& folder, std::string& error);
