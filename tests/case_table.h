// The rows of a table-driven suite, kept in a data file under tests/data/:
// one row a line, each field either a double-quoted string with the C escapes
// \" \\ \b \f \n \r \t and \xHH (two hex digits), or a bare word such as a number,
// fields separated by blanks. A '#' outside a string starts a comment. A row
// that breaks these rules (a string left open, an escape cut short or unknown)
// is refused with its file and line, so that a typo never passes as a row.
#ifndef KSCDP_TESTS_CASE_TABLE_H_
#define KSCDP_TESTS_CASE_TABLE_H_

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace cases {

using Row = std::vector<std::string>;

// The fields of one line; throws, naming `where`, when the line is malformed.
inline Row parseLine(const std::string& line, const std::string& where) {
  const auto refuse = [&where](const std::string& why) { throw std::runtime_error(where + ": " + why); };
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
        continue;
      }
      if (++i == line.size()) refuse("a backslash ends the line");
      const char c = line[i];
      if (c == 'x') {
        if (i + 2 >= line.size() || !std::isxdigit(static_cast<unsigned char>(line[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(line[i + 2]))) {
          refuse("\\x needs two hex digits");
        }
        field += static_cast<char>(std::strtol(line.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
        continue;
      }
      const std::string known = "\"\\bfnrt";
      if (known.find(c) == std::string::npos) refuse(std::string("unknown escape \\") + c);
      field += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c == 'b' ? '\b' : c == 'f' ? '\f' : c;
    }
    if (i >= line.size()) refuse("a string is not closed");
    row.push_back(field);
    ++i;
  }
  return row;
}

// The rows of `in`, whose lines are named "`name`:<line number>" when one is
// refused.
inline std::vector<Row> parse(std::istream& in, const std::string& name) {
  std::vector<Row> rows;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    Row row = parseLine(line, name + ":" + std::to_string(++number));
    if (!row.empty()) rows.push_back(row);
  }
  return rows;
}

// The rows of tests/data/`name`; throws when the file cannot be read, holds a
// malformed row or holds no row.
inline std::vector<Row> read(const std::string& name) {
  const std::string path = std::string(KSCDP_TESTS_DIR) + "/data/" + name;
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::vector<Row> rows = parse(in, path);
  if (rows.empty()) throw std::runtime_error(path + " has no rows");
  return rows;
}

// `text` with every mark of `marks` (such as "{dir}") replaced by its value.
inline std::string filled(std::string text, const std::vector<std::pair<std::string, std::string>>& marks) {
  for (const auto& [mark, value] : marks) {
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size()))
      text.replace(at, mark.size(), value);
  }
  return text;
}

}  // namespace cases

#endif  // KSCDP_TESTS_CASE_TABLE_H_
