// Aligned text tables for terminal output.
#pragma once

#include <ostream>
#include <string>
#include <vector>

class Table {
 public:
  explicit Table(std::vector<std::string> header) : rows_{std::move(header)} {}
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void print(std::ostream& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};
