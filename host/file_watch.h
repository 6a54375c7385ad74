#pragma once

#include <sys/stat.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace vnjs::host {

/// Tells when one of some files is no longer what it was when this object was made. A file that is missing has not
/// changed: editors put another in its place. Any thread.
class FileWatch {
 public:
  explicit FileWatch(const std::vector<std::string>& paths);

  /// True from the first change on. Looks at the files at most ten times a second.
  bool HasChanged();

  /// The first file that was seen to have changed.
  std::string Changed() const;

 private:
  struct File {
    std::string path;
    struct stat status;
  };

  mutable std::mutex m_mutex;
  std::vector<File> m_files;
  std::string m_changed;
  std::chrono::steady_clock::time_point m_looked;
};

}  // namespace vnjs::host
