#include "programs/cli/table.h"

#include <algorithm>

void Table::print(std::ostream& out) const {
  std::vector<std::size_t> width;
  for (const auto& row : rows_) {
    if (width.size() < row.size())
      width.resize(row.size(), 0);
    for (std::size_t i = 0; i < row.size(); ++i)
      width[i] = std::max(width[i], row[i].size());
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size())
        line += std::string(width[i] - row[i].size() + 2, ' ');
    }
    out << line << "\n";
  }
}
