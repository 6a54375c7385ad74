// Several threads build the first environments of the process at once: the engine must start exactly once.
#include <vnjs/vnjs.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

int main() {
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      vnjs::Automation automation("/");
      if (automation.Run("typeof setTimeout + vornVersion.release.length", "").result().find("function") == 1)
        ++right;
    });
  }
  for (std::thread& thread : threads) thread.join();
  printf("%d of 8\n", right.load());
  return right == 8 ? 0 : 1;
}
