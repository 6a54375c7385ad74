// A host: it runs one script and what the script leaves to its timers.
#include <vnjs/vnjs.h>

#include <chrono>
#include <cstdio>
#include <thread>

int main() {
  vnjs::Automation automation(".");  // the folder that scripts reach
  const vnjs::RunResult result =
      automation.Run("setTimeout(function () { debugPrint('a second later'); }, 1000); 6 * 7", "first.js");
  printf("%s\n", result.result().c_str());

  while (automation.HasPendingWork()) {
    if (!automation.ProcessPendingCallbacks()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return result.isException() ? 1 : 0;
}
