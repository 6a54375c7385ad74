// What hostile scripts do to the host: each of a list is run in a process of its own, and what the host saw is compared
// with the list, or printed as a table.
#include <sys/resource.h>
#include <vnjs/vnjs.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/script_list.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/test_host.h"

namespace {

using vnjs::testing::ListedScript;
using Clock = std::chrono::steady_clock;

constexpr char kAlive[] = "undefined";

/// What there is no limit for.
constexpr char kProcessEnds[] = "the process ends";
constexpr char kNothingEnds[] = "nothing ends it";

struct Seen {
  std::string outcome;
  double seconds = 0;
  long megabytes = 0;
  std::string after;
};

bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

long PeakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

/// What a callback was said to have done.
std::string CallbackError() {
  for (const vnjs::testing::LogLine& line : vnjs::testing::LinesOf("log")) {
    if (Contains(line.text, "Callback execution error"))
      return line.text.substr(0, line.text.find(" at script.js"));
  }
  return {};
}

Seen RunOne(const ListedScript& script, const char* folder) {
  // Of a controller with 512 MB.
  vnjs::Automation::SetLimits(64 << 20, 64 << 20);
  vnjs::Automation automation(folder);
  automation.SetLogger(vnjs::testing::NewLogger("log"));
  if (Contains(script.name, "on the worker")) automation.StartThread();
  automation.Run("0", "warm-up");

  std::atomic<bool> done{!Contains(script.expected, "interrupted") && !Contains(script.name, "left")};
  std::thread interrupting([&] {
    for (int i = 0; i < 60 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!done) automation.Interrupt();
  });
  Seen seen;
  const long before = PeakMegabytes();
  const auto start = Clock::now();
  seen.outcome = automation.Run(script.code.c_str(), "script.js").result();
  const auto pumpedSince = Clock::now();
  while (automation.HasPendingWork() && CallbackError().empty() && SecondsSince(pumpedSince) < 1) {
    if (!automation.ProcessPendingCallbacks()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (seen.outcome.empty()) seen.outcome = "(nothing)";
  seen.seconds = SecondsSince(start);
  seen.megabytes = PeakMegabytes() - before;
  done = true;
  interrupting.join();
  if (!CallbackError().empty()) seen.outcome = CallbackError();

  // Not a result that takes JSON, which the script may have broken for itself.
  seen.after = automation.Run("void evalPath", "after").result();
  vnjs::Automation another(folder);
  if (another.Run("1+1", "after").result() != "2") seen.after = "no other environment works";
  return seen;
}

/// In a process of its own, which may end with it.
Seen RunElsewhere(const std::string& list, size_t index) {
  const vnjs::testing::TemporaryFolder folder;
  folder.Write(".syscommands", "sleep\n");
  const std::string command = "timeout -s KILL 90 '" VNJS_HOSTILE_SCRIPTS "' '" + list + "' " +
                              std::to_string(index) + " '" + folder.path() + "' 2>/dev/null";
  FILE* const output = popen(command.c_str(), "r");
  std::string text;
  for (int c = 0; (c = fgetc(output)) != EOF;) text += static_cast<char>(c);
  Seen seen;
  char after[80] = "";
  const size_t end = text.find('\n');
  const int status = pclose(output);
  const bool ended =
      status == 0 && end != std::string::npos &&
      sscanf(text.c_str() + end, " %lf %ld %79[^\n]", &seen.seconds, &seen.megabytes, after) == 3;
  constexpr int kKilled = 137 << 8;
  seen.outcome = ended ? text.substr(0, end) : status == kKilled ? kNothingEnds : kProcessEnds;
  seen.after = after;
  return seen;
}

std::string InTable(std::string text, size_t longest) {
  for (size_t i = 0; (i = text.find_first_of("|\n", i)) != std::string::npos; i += 2) {
    text.replace(i, 1, text[i] == '|' ? "\\|" : " ");
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text.size() <= longest ? text : text.substr(0, longest - 1) + "…";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::vector<ListedScript> list = vnjs::testing::ReadScripts(argv[1]);
  if (argc == 4) {
    const Seen seen = RunOne(list.at(static_cast<size_t>(atoi(argv[2]))), argv[3]);
    std::cout << seen.outcome.substr(0, 300) << '\n'
              << seen.seconds << ' ' << seen.megabytes << ' ' << seen.after << std::endl;
    return 0;
  }
  const bool table = argc == 3;
  if (table) printf("| script | | what the host saw | seconds | MB |\n|---|---|---|---|---|\n");
  bool right = !list.empty();
  for (size_t i = 0; i < list.size(); ++i) {
    const auto& [name, expected, code] = list[i];
    // These take a minute and a half, or more memory than there may be.
    if (!table && (expected == kProcessEnds || expected == kNothingEnds)) continue;
    const Seen seen = RunElsewhere(argv[1], i);
    if (table) {
      printf("| %s | `` %s `` | %s | %.1f | %ld |\n", name.c_str(), InTable(code, 90).c_str(),
             InTable(seen.outcome, 90).c_str(), seen.seconds, seen.megabytes);
    } else if (seen.outcome != expected || seen.after != kAlive) {
      right = false;
      printf("%s\n  expected: %s\n  seen:     %s, and after it: %s\n", name.c_str(), expected.c_str(),
             seen.outcome.c_str(), seen.after.c_str());
    }
    fflush(stdout);
  }
  return right ? 0 : 1;
}
