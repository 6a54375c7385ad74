#pragma once

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

}  // namespace vnjs
