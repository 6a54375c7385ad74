#include "engine/machine_memory.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string>

namespace vnjs {

namespace {

/// The number in a file, or `otherwise` where there is no file or it says "max".
uint64_t ReadLimit(const std::string& path, uint64_t otherwise) {
  std::ifstream file(path);
  uint64_t bytes = 0;
  return file >> bytes ? bytes : otherwise;
}

/// The smallest limit of this process's control group and of those around it. A line of the list of groups is
/// "number:controllers:path"; the one hierarchy of newer systems has no controllers.
uint64_t ControlGroupLimit(uint64_t limit) {
  std::ifstream groups("/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    const size_t first = line.find(':');
    const size_t second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const bool isUnified = controllers.empty();
    if (!isUnified && controllers != "memory") continue;
    const std::string root = isUnified ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
    const char* const file = isUnified ? "/memory.max" : "/memory.limit_in_bytes";
    std::string group = line.substr(second + 1);
    for (;;) {
      limit = std::min(limit, ReadLimit(root + group + file, limit));
      // Last the root, which inside a container is the group itself.
      if (group.empty()) break;
      group.resize(std::min(group.rfind('/'), group.size() - 1));
    }
  }
  return limit;
}

uint64_t Measure() {
  const auto pages = static_cast<uint64_t>(std::max(0L, sysconf(_SC_PHYS_PAGES)));
  const auto pageSize = static_cast<uint64_t>(std::max(0L, sysconf(_SC_PAGESIZE)));
  return ControlGroupLimit(pages * pageSize);
}

}  // namespace

size_t MachineMemory() {
  static const uint64_t bytes = Measure();
  return static_cast<size_t>(std::min<uint64_t>(bytes, SIZE_MAX));
}

}  // namespace vnjs
