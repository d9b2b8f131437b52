// Aligned text tables for terminal output.
#pragma once

#include "host/core/json.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

class Table {
 public:
  Table() = default;
  explicit Table(std::vector<std::string> header) : rows_{std::move(header)} {}
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  // Columns are as wide as their widest cell on a terminal (a CJK character takes two places);
  // no line ends in blanks.
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// Any value as table text: strings as they are, booleans as yes/no, arrays joined by commas,
// null as nothing, objects as compact JSON.
std::string cell_text(const JSON_Value& value);
// A byte count as "1.5 GiB"; any other value as cell_text says.
std::string size_text(std::uint64_t bytes);
std::string size_text(const JSON_Value& value);
// Seconds since the epoch as local time, "YYYY-MM-DD HH:MM:SS"; 0 (not yet) as nothing; any other
// value as cell_text says.
std::string time_text(const JSON_Value& value);
