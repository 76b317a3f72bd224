#pragma once

#include <sys/stat.h>

#include <ctime>
#include <string>

namespace tessaline::auth::http {

/// Which file or directory a path named, and when that was last modified: shows without reading it whether it
/// has changed.
class FileIdentity {
 public:
  /// Of the file that `path` names, if any.
  static FileIdentity of(const std::string& path) noexcept;

  /// Of an open file.
  static FileIdentity of(int descriptor) noexcept;

  /// Whether the last change was long enough before this was taken for every later change to be visible: two
  /// changes within one tick of the file system's clock have the same time stamp.
  bool settled() const noexcept { return settled_; }

  /// Whether both are the same file, with no visible change.
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
