#pragma once

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

// The public tables in tests/vectors/data.
namespace tessaline::auth::wallet::testing {

using Bytes = std::vector<std::uint8_t>;

/// Throws if the file is missing, so that no test passes for lack of rows.
inline std::ifstream open_table(const std::string& name) {
  std::ifstream file(std::string(TESSALINE_VECTORS "/") + name);
  if (!file) throw std::runtime_error("no table " + name);
  return file;
}

/// The rows of a file of tab-separated columns, without the first line, which names them.
inline std::vector<std::vector<std::string>> rows_of(const std::string& name, std::size_t columns) {
  std::ifstream file = open_table(name);
  std::vector<std::vector<std::string>> rows;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::vector<std::string> row;
    std::size_t begin = 0;
    for (std::size_t tab = 0; tab != std::string::npos; begin = tab + 1) {
      tab = line.find('\t', begin);
      row.push_back(line.substr(begin, tab == std::string::npos ? tab : tab - begin));
    }
    if (row.size() != columns) throw std::runtime_error("a row of " + name + " has other columns");
    rows.push_back(row);
  }
  return rows;
}

/// Parsed independently of the code under test.
inline Bytes bytes_of(const std::string& hex) {
  if (hex.size() % 2 != 0) throw std::runtime_error("half a byte");
  Bytes bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    std::size_t read = 0;
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), &read, 16)));
    if (read != 2) throw std::runtime_error("no hexadecimal digit");
  }
  return bytes;
}

}  // namespace tessaline::auth::wallet::testing
