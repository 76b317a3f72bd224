#include "bare_roots.hpp"

#include <stdexcept>

namespace tessaline::benchmarks {

Roots read_roots(const std::string& file, const std::string& directory) {
  Roots roots(X509_STORE_new());
  if (!roots) throw std::runtime_error("no memory for trusted authorities");
  if (!file.empty() && X509_STORE_load_file(roots.get(), file.c_str()) != 1) {
    throw std::runtime_error("the file of trusted authorities cannot be used");
  }
  if (!directory.empty() && X509_STORE_load_path(roots.get(), directory.c_str()) != 1) {
    throw std::runtime_error("the directory of trusted authorities cannot be used");
  }
  return roots;
}

}  // namespace tessaline::benchmarks
