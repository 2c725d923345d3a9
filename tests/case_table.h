// The rows of a table-driven suite, kept in a data file under tests/data/:
// one row a line, each field either a double-quoted string with the C escapes
// \" \\ \b \f \n \r \t and \xHH (two hex digits), or a bare word such as a number,
// fields separated by blanks. A '#' outside a string starts a comment.
#ifndef KSCDP_TESTS_CASE_TABLE_H_
#define KSCDP_TESTS_CASE_TABLE_H_

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace cases {

using Row = std::vector<std::string>;

// The rows of tests/data/`name`; throws when the file cannot be read or
// holds no row.
inline std::vector<Row> read(const std::string& name) {
  const std::string path = std::string(KSCDP_TESTS_DIR) + "/data/" + name;
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::vector<Row> rows;
  for (std::string line; std::getline(in, line);) {
    Row row;
    for (size_t i = line.find_first_not_of(" \t"); i != std::string::npos && line[i] != '#';
         i = line.find_first_not_of(" \t", i)) {
      if (line[i] != '"') {
        const size_t end = line.find_first_of(" \t", i);
        row.push_back(line.substr(i, end - i));
        i = end;
        continue;
      }
      std::string field;
      for (++i; i < line.size() && line[i] != '"'; ++i) {
        if (line[i] != '\\') {
          field += line[i];
        } else if (line[++i] == 'x') {
          field += static_cast<char>(std::strtol(line.substr(i + 1, 2).c_str(), nullptr, 16));
          i += 2;
        } else {
          const char c = line[i];
          field += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c == 'b' ? '\b' : c == 'f' ? '\f' : c;
        }
      }
      row.push_back(field);
      ++i;
    }
    if (!row.empty()) rows.push_back(row);
  }
  if (rows.empty()) throw std::runtime_error(path + " has no rows");
  return rows;
}

}  // namespace cases

#endif  // KSCDP_TESTS_CASE_TABLE_H_
