// What hostile scripts do to the host: each of a list is run in a process of its own, and what the host saw is compared
// with the list, or printed as a table.
#include <sys/resource.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_host.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kAlive[] = "undefined";
constexpr char kInterrupted[] = "Script execution was interrupted";

/// What there is no limit for.
constexpr char kProcessEnds[] = "the process ends";
constexpr char kNothingEnds[] = "nothing ends it";

/// When an endless script is interrupted, and when one that should have ended.
constexpr std::chrono::milliseconds kEndless(300);
constexpr std::chrono::seconds kTooLong(60);

struct Hostile {
  std::string name;
  std::string expected;
  std::string code;
};

struct Seen {
  std::string outcome;
  double seconds = 0;
  long megabytes = 0;
  std::string after;
};

std::vector<Hostile> ReadList(const char* path) {
  std::vector<Hostile> list;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] != ' ') {
      list.push_back({line, "", ""});
    } else if (list.back().expected.empty()) {
      list.back().expected = line.substr(2);
    } else {
      list.back().code += line.substr(2) + '\n';
    }
  }
  return list;
}

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

Seen RunOne(const Hostile& script, const char* folder) {
  vnjs::Automation automation(folder);
  automation.SetLogger(vnjs::testing::NewLogger("log"));
  if (Contains(script.name, "on the worker")) automation.StartThread();
  automation.Run("0", "warm-up");

  std::atomic<bool> done{false};
  std::thread watchdog([&] {
    const auto end = Clock::now() + (Contains(script.expected, kInterrupted) ? kEndless : kTooLong);
    while (!done && Clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(5));
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
  watchdog.join();
  if (!CallbackError().empty()) seen.outcome = CallbackError();

  // Not a result that takes JSON, which the script may have broken for itself.
  seen.after = automation.Run("void evalPath", "after").result();
  vnjs::Automation another(folder);
  if (another.Run("1+1", "after").result() != "2") seen.after = "no other environment works";
  return seen;
}

/// In a process of its own, which may end with it.
Seen RunElsewhere(const std::string& self, const std::string& list, size_t index) {
  std::string folder = std::filesystem::temp_directory_path() / "vnjs-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) return {};
  std::ofstream(folder + "/.syscommands") << "sleep\n";
  const std::string command = "timeout -s KILL 90 '" + self + "' '" + list + "' " + std::to_string(index) +
                              " '" + folder + "' 2>/dev/null";
  FILE* const output = popen(command.c_str(), "r");
  std::string text;
  for (int c = 0; (c = fgetc(output)) != EOF;) text += static_cast<char>(c);
  Seen seen;
  char after[80] = "";
  std::filesystem::remove_all(folder);
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

int PrintTable(const std::string& self, const char* path) {
  printf("| script | | what the host saw | seconds | MB |\n|---|---|---|---|---|\n");
  const std::vector<Hostile> list = ReadList(path);
  for (size_t i = 0; i < list.size(); ++i) {
    const Seen seen = RunElsewhere(self, path, i);
    printf("| %s | `` %s `` | %s | %.1f | %ld |\n", list[i].name.c_str(), InTable(list[i].code, 90).c_str(),
           InTable(seen.outcome, 90).c_str(), seen.seconds, seen.megabytes);
    fflush(stdout);
  }
  return 0;
}

int Compare(const std::string& self, const char* path) {
  int wrong = 0;
  const std::vector<Hostile> list = ReadList(path);
  for (size_t i = 0; i < list.size(); ++i) {
    if (list[i].expected == kProcessEnds || list[i].expected == kNothingEnds) continue;
    const Seen seen = RunElsewhere(self, path, i);
    if (seen.outcome == list[i].expected && seen.after == kAlive) continue;
    ++wrong;
    printf("%s\n  expected: %s\n  seen:     %s, and after it: %s\n", list[i].name.c_str(),
           list[i].expected.c_str(), seen.outcome.c_str(), seen.after.c_str());
  }
  printf("%zu scripts, %d wrong\n", list.size(), wrong);
  return wrong == 0 && !list.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2) return Compare(argv[0], argv[1]);
  if (argc == 3 && strcmp(argv[2], "--table") == 0) return PrintTable(argv[0], argv[1]);
  if (argc != 4) return 2;
  const Seen seen = RunOne(ReadList(argv[1]).at(static_cast<size_t>(atoi(argv[2]))), argv[3]);
  std::cout << seen.outcome.substr(0, 300) << '\n'
            << seen.seconds << ' ' << seen.megabytes << ' ' << seen.after << std::endl;
  return 0;
}
