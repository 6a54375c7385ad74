#include <sys/stat.h>
#include <vnjs/error.h>
#include <vnjs/host.h>
#include <vnjs/value.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>

#include "bridge/c_resource.h"

namespace vnjs {

std::string ReadFile(const char* path) {
  if (path == nullptr || *path == '\0') return {};
  const std::string failure = std::string("Failed to open file: ") + path;

  struct stat status {};
  if (stat(path, &status) != 0) {
    const TextPointer reason(sys_last_err_string());
    throw VornException(failure + " " + (reason ? reason.get() : ""));
  }
  // A pipe has no size either.
  if (S_ISDIR(status.st_mode) || S_ISFIFO(status.st_mode)) return {};

  const FilePointer file = OpenForReading(path);
  if (!file) throw VornException(failure);
  fseeko(file.get(), 0, SEEK_END);
  const off_t size = ftello(file.get());
  rewind(file.get());
  if (size <= 0) return {};

  std::string content;
  try {
    if (static_cast<uint64_t>(size) > content.max_size()) throw std::length_error("size");
    content.resize(static_cast<size_t>(size));
  } catch (const std::exception&) {
    throw VornException(std::string("File is too large: ") + path);
  }
  // The file may have become shorter since it was measured.
  content.resize(fread(content.data(), 1, content.size(), file.get()));
  return content;
}

}  // namespace vnjs
