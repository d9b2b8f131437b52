// Bounded retries of the catalog clients.
#pragma once

#include <functional>

// Outcome of one attempt at a request.
enum class Attempt { Done, Failed, Retry };

// Runs `attempt` until it is Done or Failed or `retry_seconds` have passed, waiting between
// attempts (1 s, doubling, at most 10 s, never past the deadline). True only for Done.
// retry_seconds <= 0: a single attempt.
bool run_with_retries(int retry_seconds, const std::function<Attempt()>& attempt);
