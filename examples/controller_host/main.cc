// A controller with automations that publish, subscribe, switch lamps and wait for answers. Its operator types
//   publish TOPIC JSON | table | eval NAME CODE | reload NAME | quit
// Called as controller_host FOLDER, which has the automations' scripts.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vnjs/runner.h>

#include <cstdio>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;
using vnjs::Runner;
using vnjs::Value;

/// Messages by topic, the last of each kept, in place of a broker.
class Bus {
 public:
  void Subscribe(Runner* runner, const std::string& topic) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_subscribers[topic].insert(runner);
    if (m_last.count(topic) != 0) runner->Emit(topic, m_last[topic]);
  }
  void Publish(const std::string& topic, const Value& payload) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    printf("%s %s\n", topic.c_str(), payload.Json().c_str());
    m_last[topic] = payload;
    // Emit never waits for a script, so the lock may be held.
    for (Runner* const runner : m_subscribers[topic]) runner->Emit(topic, payload);
  }

 private:
  std::mutex m_mutex;
  std::map<std::string, std::set<Runner*>> m_subscribers;
  std::map<std::string, Value> m_last;
};

struct Controller {
  explicit Controller(const std::string& folder) {
    for (const char* const name : {"hall", "heating", "guard"}) {
      vnjs::RunnerOptions options;
      options.name = name;
      options.storageDir = folder;
      options.callbackLimit = milliseconds(500);
      auto& runner = *(runners[name] = std::make_unique<Runner>(options));
      runner
          .Define("publish(topic, payload)",
                  [this](const std::string& t, const Value& p) { bus.Publish(t, p); })
          .Define("subscribe(topic)",
                  [this, &runner](const std::string& topic) { bus.Subscribe(&runner, topic); })
          .Define("lamp.set(room, level)",
                  [this](const std::string& room, double level) {
                    if (level < 0 || level > 100)
                      throw vnjs::ScriptError{vnjs::ErrorKind::kHost, "no such level", "", ""};
                    bus.Publish("lamp/" + room, level);
                  })
          .Define("readMeter(id)",
                  [](int id) { return id == 1 ? std::optional<double>(20.5) : std::nullopt; })
          // What takes long is done elsewhere, and awaited where the function is destroyed.
          .Define("forecast(city)",
                  [answers = std::vector<std::future<void>>()](const std::string& city) mutable {
                    vnjs::Promise promise;
                    answers.push_back(std::async(std::launch::async, [promise, city] {
                      promise.Resolve(Value::Object().Set("city", city).Set("low", -3));
                    }));
                    return promise;
                  });
      if (const auto error = runner.Start((folder + '/' + name + ".js").c_str())) {
        fprintf(stderr, "%s does not start: %s\n", name, error.message.c_str());
      }
    }
  }
  ~Controller() {
    for (auto& [name, runner] : runners) runner->Stop(milliseconds(500));
  }

  void PrintTable() const {
    constexpr const char* kStates[] = {"stopped", "starting", "running", "failed", "ended"};
    printf("%-8s %-8s %7s %6s %6s %9s %8s %11s  %s\n", "name", "state", "heap kB", "queued", "timers",
           "callbacks", "failures", "interrupted", "last error");
    for (const auto& [name, runner] : runners) {
      const vnjs::Statistics now = runner->GetStatistics();
      printf("%-8s %-8s %7zu %6zu %6zu %9llu %8llu %11llu  %s\n", name.c_str(),
             kStates[static_cast<int>(now.state)], now.heapBytes / 1024, now.queued, now.timers,
             static_cast<unsigned long long>(now.callbacks), static_cast<unsigned long long>(now.failures),
             static_cast<unsigned long long>(now.interrupted), now.lastError.message.c_str());
    }
  }

  /// False when the operator wants to go.
  bool Obey(const std::string& line) {
    std::istringstream words(line);
    std::string command, name, rest;
    std::getline(words >> command >> name >> std::ws, rest);
    if (command == "quit") return false;
    if (command == "table") PrintTable();
    if (command == "publish") bus.Publish(name, Value::FromJson(rest));
    if (runners.count(name) == 0) return true;
    if (command == "reload")
      printf("reloaded: %s\n", runners[name]->Reload(milliseconds(500)).message.c_str());
    if (command == "eval") {
      runners[name]->Eval(rest, "operator", [](const Value& value, const vnjs::ScriptError& error) {
        printf("%s\n", error ? error.message.c_str() : value.Json().c_str());
      });
    }
    return true;
  }

  Bus bus;
  std::map<std::string, std::unique_ptr<Runner>> runners;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  // For all threads to come, so that the signal waits here.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  pollfd inputs[] = {{signalfd(-1, &signals, SFD_CLOEXEC), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  setvbuf(stdout, nullptr, _IOLBF, 0);

  Controller controller(argv[1]);
  for (std::string text; poll(inputs, 2, -1) >= 0 && inputs[0].revents == 0;) {
    char part[256];
    const ssize_t size = read(STDIN_FILENO, part, sizeof part);
    if (size <= 0) inputs[1].fd = -1;
    for (ssize_t i = 0; i < size; ++i) {
      if (part[i] != '\n') text += part[i];
      if (part[i] == '\n' && !controller.Obey(std::exchange(text, {}))) return 0;
    }
  }
  puts("terminated");
  return 0;
}
