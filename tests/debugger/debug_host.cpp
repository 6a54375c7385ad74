#include <vnjs/runner.h>
#include <vnjs/vnjs.h>

#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

// A host that does what the lines of its standard input tell it, so that one test drives several environments of one
// process. A line is [COMMAND, ENVIRONMENT, ARGUMENT...] and is answered by a line. The commands are carried out one
// after the other, all on the thread that has turned debugging on; the first line of all says on which port.
namespace {

using nlohmann::json;
using vnjs::Automation;
using Clock = std::chrono::steady_clock;

std::map<std::string, std::unique_ptr<Automation>> environments;

std::map<std::string, std::unique_ptr<vnjs::Runner>> runners;

/// A runner whose callbacks may take a third of a second each.
json MakeRunner(const std::string& name, const json& line) {
  vnjs::RunnerOptions options;
  options.name = name;
  options.storageDir = line.at(2).get<std::string>();
  options.callbackLimit = std::chrono::milliseconds(300);
  auto runner = std::make_unique<vnjs::Runner>(options);
  const vnjs::ScriptError error = runner->StartCode(line.at(3).get<std::string>().c_str(), "runner.js");
  runners[name] = std::move(runner);
  return error.message;
}

json Do(const std::string& command, const std::string& name, const json& line) {
  if (command == "make_runner") return MakeRunner(name, line);
  if (command == "emit") return runners.at(name)->Emit(line.at(2).get<std::string>());
  if (command == "figures") {
    const vnjs::Statistics now = runners.at(name)->GetStatistics();
    return {now.callbacks, now.interrupted, now.failures};
  }
  std::unique_ptr<Automation>& automation = environments[name];
  if (command == "make") {
    automation = std::make_unique<Automation>(line.at(2).get<std::string>().c_str());
    if (line.at(3)) automation->StartThread();
    // Whether the environment has the thread's current isolate.
    return automation->GetEnvironment()->GetIsolate() == v8::Isolate::TryGetCurrent();
  }
  if (command == "interrupt") return automation->Interrupt(), nullptr;
  if (command == "destroy") return environments.erase(name);
  if (command == "run") {
    return automation->Run(line.at(2).get<std::string>().c_str(), line.at(3).get<std::string>().c_str())
        .result();
  }
  // For so long, callbacks have their turn.
  const auto end = Clock::now() + std::chrono::milliseconds(line.at(2));
  while (Clock::now() < end) automation->ProcessPendingCallbacks();
  return nullptr;
}

}  // namespace

int main() try {
  // Small, so that a heap is full soon.
  Automation::SetLimits(64 << 20, 64 << 20);
  std::mt19937 random(std::random_device{}());
  unsigned short port = 0;
  while (!Automation::m_debug) {
    port = static_cast<unsigned short>(20000 + random() % 12000);
    Automation::EnableDebug(port);
  }
  std::cout << port << std::endl;
  for (std::string text; std::getline(std::cin, text);) {
    const json line = json::parse(text);
    const json answer = Do(line.at(0), line.at(1), line);
    std::cout << answer.dump(-1, ' ', false, json::error_handler_t::replace) << std::endl;
  }
  // They log their end, which the log of this program does not outlive.
  runners.clear();
  return 0;
} catch (...) {
  return 1;
}
