#include "host/file_watch.h"

#include <utility>

namespace vnjs::host {
namespace {

constexpr std::chrono::milliseconds kPause(100);

bool IsSame(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

FileWatch::FileWatch(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    File file{path, {}};
    stat(path.c_str(), &file.status);
    m_files.push_back(std::move(file));
  }
}

bool FileWatch::HasChanged() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto now = std::chrono::steady_clock::now();
  if (!m_changed.empty() || m_files.empty() || now - m_looked < kPause) return !m_changed.empty();
  m_looked = now;
  for (const File& file : m_files) {
    struct stat status {};
    if (stat(file.path.c_str(), &status) != 0 || IsSame(status, file.status)) continue;
    m_changed = file.path;
    return true;
  }
  return false;
}

std::string FileWatch::Changed() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_changed;
}

}  // namespace vnjs::host
