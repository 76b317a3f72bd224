#pragma once

#include <sys/stat.h>

#include <ctime>
#include <string>

namespace tessaline::auth::http {

/// Which file or directory a path named at one moment, and when that was last changed: what tells without
/// reading it whether it is still the same.
class FileIdentity {
 public:
  /// Of the file that `path` leads to; of none where there is none.
  static FileIdentity of(const std::string& path) noexcept;

  /// Of an open file.
  static FileIdentity of(int descriptor) noexcept;

  /// Whether it was changed long enough before it was looked at for every later change to leave a trace: two
  /// within one tick of the file system's clock do not.
  bool settled() const noexcept { return settled_; }

  /// Whether both are the same, and unchanged as far as can be seen.
  bool looks_like(const FileIdentity& other) const noexcept;

 private:
  FileIdentity(bool exists, const struct stat& status) noexcept;

  bool exists_;
  bool settled_;
  dev_t device_;
  ino_t inode_;
  off_t size_;
  timespec changed_;
};

}  // namespace tessaline::auth::http
