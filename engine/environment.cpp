#include <vnjs/environment.h>

namespace vnjs {

Environment::~Environment() = default;

void Environment::Log(int level, const std::string& message, const char* module) {
  vlog_write(GetLogger(), module != nullptr ? module : "core", level, "%s", message.c_str());
}

}  // namespace vnjs
