// What stands for the debug agent in builds that leave it out.
#include "engine/debug/debugger.h"

namespace vnjs {

bool StartDebugAgent(unsigned short) { return false; }

std::unique_ptr<DebugTarget> NewDebugTarget(EnvironmentImpl*) { return nullptr; }

}  // namespace vnjs
