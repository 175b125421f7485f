#pragma once

// Test support, shipped nowhere: tables of cases written as text.

#include <string>
#include <string_view>
#include <vector>

namespace tarskel::testing {

// The rows of a table written one per line, each cut into cells at " | ";
// blank lines and lines that start with "#" are left out. A row is a case,
// and the line itself names it in a SCOPED_TRACE.
struct Row {
  std::string line;
  std::vector<std::string> cells;
  const std::string& operator[](std::size_t i) const { return cells.at(i); }
};

inline std::vector<Row> rows(std::string_view text) {
  std::vector<Row> out;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.find_first_not_of(' ') == std::string_view::npos || line.starts_with('#')) continue;
    Row row{std::string(line), {}};
    for (std::size_t from = 0;;) {
      const std::size_t cut = line.find(" | ", from);
      row.cells.emplace_back(line.substr(from, cut - from));
      if (cut == std::string_view::npos) break;
      from = cut + 3;
    }
    out.push_back(std::move(row));
  }
  return out;
}

}  // namespace tarskel::testing
