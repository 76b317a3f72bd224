// Bodies in the chunked transfer coding, in arbitrary pieces, as from a connection.

#include "tessaline/auth/http/chunked_body.hpp"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "check.hpp"
#include "input.hpp"

namespace tessaline::fuzz {
namespace {

using auth::http::ChunkedBody;

struct Outcome {
  bool refused = false;
  bool complete = false;
  std::string body;

  bool operator==(const Outcome&) const = default;
};

Outcome read(std::string_view bytes, std::size_t piece) {
  ChunkedBody chunks;
  Outcome outcome;
  while (!bytes.empty() && !outcome.refused) {
    const auto size = std::min(piece, bytes.size());
    outcome.refused = !chunks.add(bytes.substr(0, size), outcome.body);
    bytes.remove_prefix(size);
  }
  outcome.complete = chunks.complete();
  return outcome;
}

void run(Input input) {
  const std::size_t piece = input.byte() + std::size_t{1};
  const std::string bytes(input.rest());
  const Outcome whole = read(bytes, bytes.size() + 1);
  CHECK(whole.body.size() <= bytes.size());
  CHECK(!(whole.refused && whole.complete));
  const Outcome pieces = read(bytes, piece);
  CHECK(pieces == whole);
}

}  // namespace
}  // namespace tessaline::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessaline::fuzz::run({data, size});
  return 0;
}
