// How long after an interrupt a loop ends that calls something slow: the engine itself looks only now and then, and
// natives must. With --table as a table; otherwise the worst and the median are told, and what comes far too late fails.
#include <vnjs/vnjs.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/script_list.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/test_host.h"

namespace {

using vnjs::testing::ListedScript;
using Clock = std::chrono::steady_clock;

/// Faults of this kind come late by minutes; emulators and sanitizers by seconds.
constexpr double kFarTooLateMs = 20000;

constexpr char kReady[] = R"(
var $T = '[' + '{"a":1,"b":"xyz"},'.repeat(70000) + '1]';
var $X = '<a>' + '<b i="1"><c>x</c></b>'.repeat(2500) + '</a>', $D = new VXmlDocument($X);
var Dictionary = NameValueDictionary;
)";

double MillisecondsToEnd(const ListedScript& loop, const std::string& folder) {
  vnjs::Automation automation(folder.c_str());
  automation.SetLogger(vnjs::testing::NewLogger("log"));
  const std::string ready = kReady + loop.expected;
  const vnjs::RunResult made = automation.Run(ready.c_str(), "ready");
  if (made.isException()) printf("%s: %s\n", loop.name.c_str(), made.result().c_str());
  Clock::time_point asked;
  std::thread interrupting([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    asked = Clock::now();
    automation.Interrupt();
  });
  const vnjs::RunResult result = automation.Run(("for (;;) { " + loop.code + " }").c_str(), "loop");
  const Clock::time_point ended = Clock::now();
  interrupting.join();
  if (result.result() != "Script execution was interrupted") {
    printf("%s: %s\n", loop.name.c_str(), result.result().c_str());
    return kFarTooLateMs;
  }
  return std::chrono::duration<double, std::milli>(ended - asked).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::vector<ListedScript> loops = vnjs::testing::ReadScripts(argv[1]);
  const bool table = argc == 3;
  const vnjs::testing::TemporaryFolder folder;
  folder.Write("big.txt", std::string(3000000, ' '));
  folder.Write("big.json", '[' + std::string(3000000, ' ') + ']');
  folder.Write(".syscommands", "true\n");
  std::filesystem::create_directory(folder.path() + "storage");
  std::filesystem::create_directory(folder.path() + "many");
  for (int i = 0; i < 2000; ++i) folder.Write("many/" + std::to_string(i), "");

  if (table) printf("| in a loop | ms from the interrupt to the end |\n|---|---|\n");
  std::vector<std::pair<double, std::string>> seen;
  for (const ListedScript& loop : loops) {
    seen.emplace_back(MillisecondsToEnd(loop, folder.path()), loop.name);
    if (table) printf("| %s | %.1f |\n", loop.name.c_str(), seen.back().first);
  }
  std::sort(seen.begin(), seen.end());
  const auto& [worst, name] = seen.back();
  const auto soon = std::count_if(seen.begin(), seen.end(), [](const auto& one) { return one.first <= 100; });
  printf("%s%zu loops: median %.1f ms, worst %.1f ms (%s), %ld within 100 ms\n", table ? "\n" : "",
         seen.size(), seen[seen.size() / 2].first, worst, name.c_str(), static_cast<long>(soon));
  return worst < kFarTooLateMs ? 0 : 1;
}
