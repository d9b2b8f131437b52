// Routes by method and path pattern, so that a 404 and a 405 can be told apart and answered the
// way the API being played answers them. A pattern segment "{name}" matches any one non-empty
// segment and hands it over by name: "/cas/casrs/vm/{id}/snapshot".
#pragma once

#include "host/http/http.h"

#include <map>
#include <string>
#include <vector>

namespace cas_sim {

using Path_Params = std::map<std::string, std::string>;

template <class Handler>
class Path_Router {
 public:
  enum class Match { FOUND, NO_PATH, NO_METHOD };

  void add(HTTP_Method method, const std::string& pattern, Handler handler) {
    routes_.push_back(Route{method, split(pattern), std::move(handler)});
  }

  // Among the patterns that match `path`, the one with the most literal segments wins; on a tie
  // the first added. NO_METHOD: some pattern matches the path, but for other methods only.
  Match find(HTTP_Method method, const std::string& path, const Handler*& handler,
             Path_Params& params) const {
    std::vector<std::string> segments = split(path);
    const Route* best = nullptr;
    int best_literals = -1;
    bool path_known = false;
    for (const Route& route : routes_) {
      int literals = 0;
      if (!matches(route.segments, segments, literals))
        continue;
      path_known = true;
      if (route.method == method && literals > best_literals) {
        best = &route;
        best_literals = literals;
      }
    }
    if (!best)
      return path_known ? Match::NO_METHOD : Match::NO_PATH;
    params.clear();
    for (std::size_t i = 0; i < segments.size(); ++i)
      if (is_param(best->segments[i]))
        params[best->segments[i].substr(1, best->segments[i].size() - 2)] = segments[i];
    handler = &best->handler;
    return Match::FOUND;
  }

 private:
  struct Route {
    HTTP_Method method;
    std::vector<std::string> segments;
    Handler handler;
  };

  // "/a/b/" -> "", "a", "b", "": empty segments count, so "/a/b/" is not "/a/b".
  static std::vector<std::string> split(const std::string& path) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (;;) {
      std::size_t slash = path.find('/', start);
      out.push_back(path.substr(start, slash - start));
      if (slash == std::string::npos)
        return out;
      start = slash + 1;
    }
  }

  static bool is_param(const std::string& s) {
    return s.size() > 2 && s.front() == '{' && s.back() == '}';
  }

  static bool matches(const std::vector<std::string>& pattern,
                      const std::vector<std::string>& segments, int& literals) {
    if (pattern.size() != segments.size())
      return false;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
      if (is_param(pattern[i])) {
        if (segments[i].empty())
          return false;
      } else if (pattern[i] != segments[i]) {
        return false;
      } else {
        ++literals;
      }
    }
    return true;
  }

  std::vector<Route> routes_;
};

}  // namespace cas_sim
