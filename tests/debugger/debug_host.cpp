#include <vnjs/vnjs.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "tests/support/test_host.h"

// A host that does what the lines of its standard input tell it, so that one test drives several environments of one
// process. A line is [ID, COMMAND, ENVIRONMENT, ARGUMENT...], its answer {"id": ID, "result": ...} or {"id": ID,
// "error": TEXT}. The commands are carried out one after the other, all on the thread that has turned debugging on.
namespace {

using nlohmann::json;
using vnjs::Automation;

class Host {
 public:
  json Do(const json& line) {
    const std::string command = line.at(1);
    if (command == "threads") return Threads();
    const std::string name = line.at(2);
    if (command == "make") return Make(name, line.at(3), line.at(4));
    if (command == "destroy") return m_environments.erase(name);
    Automation& automation = *m_environments.at(name);
    if (command == "run")
      return Result(
          automation.Run(line.at(3).get<std::string>().c_str(), line.at(4).get<std::string>().c_str()));
    if (command == "runFile") return Result(automation.RunFile(line.at(3).get<std::string>().c_str()));
    if (command == "pump") return Pump(automation, std::chrono::milliseconds(line.at(3)));
    if (command == "log") return LogLines();
    throw std::invalid_argument("no such command");
  }

 private:
  /// The names of the process's threads.
  static json Threads() {
    json names = json::array();
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::string name;
      std::getline(std::ifstream(task.path() / "comm"), name);
      if (!name.empty()) names.push_back(name);
    }
    return names;
  }

  static json Result(const vnjs::RunResult& result) {
    return {{"text", result.result()},
            {"failed", result.isException()},
            {"at", result.position().source + ":" + std::to_string(result.position().line)}};
  }

  static json Pump(Automation& automation, std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end && !automation.IsTerminating())
      automation.ProcessPendingCallbacks();
    return nullptr;
  }

  /// Of the environment that was last the first to log.
  static json LogLines() {
    json lines = json::array();
    for (const auto& line : vnjs::testing::LinesOf("default")) lines.push_back({line.level, line.text});
    return lines;
  }

  /// Tells whether the environment has the thread's current isolate.
  json Make(const std::string& name, const std::string& folder, bool threaded) {
    auto& automation = m_environments[name] = std::make_unique<Automation>(folder.c_str());
    if (threaded) automation->StartThread();
    return automation->GetEnvironment()->GetIsolate() == v8::Isolate::TryGetCurrent();
  }

  std::map<std::string, std::unique_ptr<Automation>> m_environments;
};

/// Opens some free port, and says which.
void EnableDebug() {
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<unsigned short> ports(20000, 32000);
  for (int tries = 0; tries < 100; ++tries) {
    const unsigned short port = ports(random);
    Automation::EnableDebug(port);
    if (!Automation::m_debug) continue;
    std::cout << json{{"port", port}} << std::endl;
    return;
  }
}

}  // namespace

int main() try {
  EnableDebug();
  Host host;
  for (std::string text; std::getline(std::cin, text);) {
    const json line = json::parse(text);
    json answer = {{"id", line.at(0)}};
    try {
      answer["result"] = host.Do(line);
    } catch (const vnjs::VornException& e) {
      answer["error"] = e.msg();
    } catch (const std::exception& e) {
      answer["error"] = e.what();
    }
    std::cout << answer.dump(-1, ' ', false, json::error_handler_t::replace) << std::endl;
  }
  return Automation::m_debug ? 0 : 1;
} catch (...) {
  return 1;
}
