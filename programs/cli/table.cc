#include "programs/cli/table.h"

#include "host/core/text.h"

#include <algorithm>
#include <ctime>
#include <cwchar>

namespace {

// Terminal columns of UTF-8 text (in a UTF-8 locale); a byte that does not decode counts one.
std::size_t display_width(const std::string& text) {
  std::mbstate_t state{};
  std::size_t width = 0;
  const char* p = text.data();
  const char* end = p + text.size();
  while (p < end) {
    wchar_t c;
    std::size_t n = std::mbrtowc(&c, p, static_cast<std::size_t>(end - p), &state);
    if (n == static_cast<std::size_t>(-1) || n == static_cast<std::size_t>(-2) || n == 0) {
      state = std::mbstate_t{};
      ++width;
      ++p;
      continue;
    }
    int w = wcwidth(c);
    width += w < 0 ? 1 : static_cast<std::size_t>(w);
    p += n;
  }
  return width;
}

}  // namespace

void Table::print(std::ostream& out) const {
  std::vector<std::size_t> width;
  for (const auto& row : rows_) {
    if (width.size() < row.size())
      width.resize(row.size(), 0);
    for (std::size_t i = 0; i < row.size(); ++i)
      width[i] = std::max(width[i], display_width(row[i]));
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size())
        line += std::string(width[i] - display_width(row[i]) + 2, ' ');
    }
    // An empty last cell leaves no trailing blanks.
    while (!line.empty() && line.back() == ' ')
      line.pop_back();
    out << line << "\n";
  }
}

std::string cell_text(const JSON_Value& value) {
  if (value.is_null())
    return "";
  if (value.is_string())
    return value.get<std::string>();
  if (value.is_boolean())
    return value.get<bool>() ? "yes" : "no";
  if (value.is_array()) {
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i)
      out += (i ? "," : "") + cell_text(value[i]);
    return out;
  }
  return value.dump();
}

std::string size_text(std::uint64_t bytes) {
  std::string out;
  return Pretty_Formatter(1).size_formatter(bytes, out);
}

std::string size_text(const JSON_Value& value) {
  return value.is_number_unsigned() ? size_text(value.get<std::uint64_t>()) : cell_text(value);
}

std::string time_text(const JSON_Value& value) {
  if (!value.is_number_integer())
    return cell_text(value);
  std::time_t t = value.get<std::time_t>();
  std::tm local{};
  char buf[32];
  if (t == 0 || !localtime_r(&t, &local) ||
      !std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local))
    return "";
  return buf;
}
