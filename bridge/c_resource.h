#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace vnjs {

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

struct FreeText {
  void operator()(char* text) const { free(text); }
};

/// What C functions hand out, closed or freed at the end of the scope.
using FilePointer = std::unique_ptr<FILE, CloseFile>;
using TextPointer = std::unique_ptr<char, FreeText>;

/// Opens a file for reading; null, with `errno` set, when that fails. A pipe in its place is opened without waiting for
/// somebody who writes. Closed on exec: a command started on another thread must not inherit it.
inline FilePointer OpenForReading(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return nullptr;
  FilePointer file(fdopen(descriptor, "rb"));
  if (!file) close(descriptor);
  return file;
}

}  // namespace vnjs
