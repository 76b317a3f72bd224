// Runs every check and every control, and prints a line for each: kind, name, bytes marked secret, reports.
// The checker prints its reports itself.

#include <cstdio>
#include <exception>
#include <span>

#include "check.hpp"
#include "marks.hpp"
#include "secret.hpp"

namespace {

using tessaline::ctime::Check;

void run(const char* kind, std::span<const Check> checks) {
  for (const Check& check : checks) {
    const std::size_t marked = tessaline::ctime::bytes_marked();
    const unsigned reports = ctime_reports();
    check.run();
    std::printf("%s\t%s\t%zu\t%u\n", kind, check.name, tessaline::ctime::bytes_marked() - marked,
                ctime_reports() - reports);
    std::fflush(stdout);
  }
}

}  // namespace

int main() {
  if (!ctime_is_watched()) {
    std::fputs("ctime: to be run under valgrind\n", stderr);
    return 2;
  }
  try {
    run("check", tessaline::ctime::component_checks());
    run("control", tessaline::ctime::leak_controls());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ctime: %s\n", error.what());
    return 2;
  }
  return 0;
}
