#include "host/storage/pool_url.h"

namespace {

const char s_expected[] = "expected file:///absolute/folder";

bool refuse(const char* kind, const std::string& url, const std::string& reason,
            std::string& error) {
  error = std::string(kind) + " storage pool URL '" + url + "': " + reason;
  return false;
}

}  // namespace

bool validate_pool_url(const std::string& url, std::string& folder, std::string& error) {
  for (unsigned char c : url)
    if (c < 0x20 || c == 0x7f)
      return refuse("Invalid", url, "control characters are not allowed", error);
  if (!url.empty() && (url.front() == ' ' || url.back() == ' '))
    return refuse("Invalid", url, "leading or trailing spaces are not allowed", error);
  const std::string::size_type colon = url.find("://");
  if (colon == std::string::npos || colon == 0)
    return refuse("Invalid", url, s_expected, error);
  const std::string scheme = url.substr(0, colon);
  if (scheme == "s3")
    return refuse("Unsupported", url, "s3:// pools are not supported yet", error);
  if (scheme != "file")
    return refuse("Unsupported", url, s_expected, error);

  const std::string path = url.substr(colon + 3);
  if (path.empty() || path[0] != '/')
    return refuse("Invalid", url, "the folder must be absolute, as in file:///srv/pool", error);
  if (path == "/")
    return refuse("Invalid", url, "the root folder cannot be a pool", error);
  // Every component after the leading '/': "a//b", "a/" and "/a/./b" would make two URLs of one
  // pool, and ".." one that leaves it.
  for (std::string::size_type start = 1;;) {
    const std::string::size_type slash = path.find('/', start);
    const std::string part = path.substr(start, slash == std::string::npos ? slash : slash - start);
    if (part.empty())
      return refuse("Invalid", url, "empty folder name (a doubled or trailing '/')", error);
    if (part == "." || part == "..")
      return refuse("Invalid", url, "'.' and '..' are not allowed in the folder", error);
    if (slash == std::string::npos)
      break;
    start = slash + 1;
  }
  folder = path;
  return true;
}
