#include "tessaline/auth/http/file_identity.hpp"

#include <cmath>

namespace tessaline::auth::http {
namespace {

// File systems stamp changes with the kernel's coarse clock, which ticks at least a hundred times a second.
constexpr double kSettlingSeconds = 0.02;
// Some have a resolution of one or two seconds.
constexpr double kCoarseSettlingSeconds = 2.1;

bool has_settled(const timespec& changed) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const double age = static_cast<double>(now.tv_sec - changed.tv_sec) +
                     static_cast<double>(now.tv_nsec - changed.tv_nsec) * 1e-9;
  // A time in the future comes from another machine's clock, and might stay in the future for long.
  return std::abs(age) > (changed.tv_nsec == 0 ? kCoarseSettlingSeconds : kSettlingSeconds);
}

}  // namespace

FileIdentity::FileIdentity(bool exists, const struct stat& status) noexcept
    : exists_(exists),
      settled_(!exists || has_settled(status.st_ctim)),
      device_(status.st_dev),
      inode_(status.st_ino),
      size_(status.st_size),
      changed_(status.st_ctim) {}

FileIdentity FileIdentity::of(const std::string& path) noexcept {
  struct stat status {};
  const bool exists = !path.empty() && stat(path.c_str(), &status) == 0;
  return {exists, status};
}

FileIdentity FileIdentity::of(int descriptor) noexcept {
  struct stat status {};
  const bool exists = fstat(descriptor, &status) == 0;
  return {exists, status};
}

bool FileIdentity::looks_like(const FileIdentity& other) const noexcept {
  if (!exists_ || !other.exists_) return exists_ == other.exists_;
  return device_ == other.device_ && inode_ == other.inode_ && size_ == other.size_ &&
         changed_.tv_sec == other.changed_.tv_sec && changed_.tv_nsec == other.changed_.tv_nsec;
}

}  // namespace tessaline::auth::http
