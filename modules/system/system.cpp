#include "modules/system/system.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/process.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>

#include "bridge/c_resource.h"
#include "bridge/descriptor.h"
#include "bridge/memory_budget.h"
#include "bridge/native.h"
#include "engine/registration.h"

namespace vnjs {

bool System::m_registered = false;

const char System::kSource[] = "native function system();\n";

namespace {

constexpr time_t kLimitSeconds = 20;
constexpr size_t kChunk = 256;

[[noreturn]] void ThrowSystemError(int error) { throw VornException(strerror(error)); }

/// A buffer for getline.
struct Line {
  char* text = nullptr;
  size_t capacity = 0;

  ~Line() { free(text); }
};

/// Whether the policy file has a line that `command` begins with. A line of blanks alone is a beginning of
/// every command. Throws when the file is missing or cannot be read.
bool IsAllowed(const std::string& policy, const std::string& command) {
  struct stat status {};
  if (stat(policy.c_str(), &status) != 0) {
    if (errno == ENOENT) throw VornException("System commands are not configured");
    ThrowSystemError(errno);
  }
  if (status.st_size <= 0) return false;

  const FilePointer file = OpenForReading(policy.c_str());
  if (!file) ThrowSystemError(errno);
  Line line;
  for (;;) {
    const ssize_t read = getline(&line.text, &line.capacity, file.get());
    if (read < 0) return false;
    if (line.text[0] == '#') continue;
    const std::string_view whole(line.text, static_cast<size_t>(read));
    const size_t length = whole.find_last_not_of("\r\n \t") + 1;
    if (strncmp(command.c_str(), line.text, length) == 0) return true;
  }
}

/// An argument as it stands on the command line. One with a blank goes between double quotes; a double quote
/// at position p of it becomes a backslash and a quote and swallows the p characters behind it. Scripts rely
/// on what that gives, so it stays.
std::string Quoted(std::string text) {
  if (text.find(' ') == std::string::npos) return text;
  for (size_t p = text.find('"'); p != std::string::npos; p = text.find('"', p + 2)) {
    text.replace(p, p + 1, "\\\"");
  }
  return '"' + text + '"';
}

/// Appends what can be read now, at most a chunk. Returns as `read` does, but never because of a signal.
ssize_t ReadChunk(int fd, std::string& output) {
  char buffer[kChunk];
  ssize_t count;
  do {
    count = read(fd, buffer, sizeof(buffer));
  } while (count < 0 && errno == EINTR);
  if (count > 0) output.append(buffer, static_cast<size_t>(count));
  return count;
}

struct Outcome {
  /// As `waitpid` gave it; 0 when it never did.
  int status = 0;
  bool timedOut = false;
  bool interrupted = false;
  bool waitedFor = false;
  std::string output;
};

/// Ends a command and waits for its end. What its shell has started goes on, with nobody to read its output.
void Kill(pid_t pid) {
  int status = 0;
  kill(pid, SIGKILL);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

/// Reads the output of a command until it has ended. There is no pause between two looks at it, and the limit
/// is looked at only when output came or ended: a command that is silent runs on past it, and is late once it
/// writes or closes its output. Both are kept for the scripts that depend on it.
void Collect(Environment* environment, pid_t pid, int out, Outcome& outcome) {
  const time_t start = time(nullptr);
  for (;;) {
    const ssize_t count = ReadChunk(out, outcome.output);
    if (count < 0 && errno != EAGAIN) break;
    if (count >= 0 && time(nullptr) - start > kLimitSeconds) {
      outcome.timedOut = true;
      break;
    }
    outcome.waitedFor = waitpid(pid, &outcome.status, WNOHANG) != 0;
    if (outcome.waitedFor) break;
    outcome.interrupted = IsInterrupted(environment);
    if (outcome.interrupted) {
      Kill(pid);
      return;
    }
    // Not a pause: where command and caller share a processor, the command comes to its turn.
    if (count <= 0) sched_yield();
  }
  // Something that the command has left running may write faster than it is read.
  while (!outcome.interrupted && ReadChunk(out, outcome.output) > 0)
    outcome.interrupted = IsInterrupted(environment);
}

/// Throws when the command cannot be started.
Outcome RunCommand(Environment* environment, const std::string& command) {
  int fd = -1;
  const pid_t pid = popen2(command.c_str(), nullptr, &fd);
  if (pid < 0) ThrowSystemError(errno);
  Descriptor out(fd);
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    const int error = errno;
    pkill2(pid);
    pclose2(pid, 0, out.Release());
    ThrowSystemError(error);
  }
  Outcome outcome;
  try {
    Collect(environment, pid, fd, outcome);
  } catch (const std::bad_alloc&) {
    // There is no memory for its output.
    if (!outcome.waitedFor) Kill(pid);
    throw;
  }
  // The command leads no group, so this reaches it only if it made one of its own. Nobody waits for it either
  // way.
  if (outcome.timedOut) pkill2(pid);
  return outcome;
}

}  // namespace

System::System() : Module("vorn/system", kSource, 0, nullptr, -1) {}

void System::Register() { RegisterOnce<System>(m_registered); }

void System::SystemCall(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  std::string command = info[0]->IsString() ? GetText(info[0]) : std::string();
  if (command.empty()) throw VornException("Invalid arguments");
  Environment* const environment = GetEnvironment(isolate);
  if (!IsAllowed(environment->StorageDir() + ".syscommands", command)) {
    throw VornException("This command is denied by policy");
  }
  for (int i = 1; i < info.Length(); ++i) {
    const std::string argument = Quoted(GetText(info[i]));
    RequireMemoryBriefly(environment, command.size() + argument.size());
    command += ' ' + argument;
  }
  // A script that was terminated inside an argument's toString has no complete command.
  if (isolate->IsExecutionTerminating()) return;

  Outcome outcome = RunCommand(environment, command);
  if (outcome.timedOut) throw VornException("Command timeout");
  if (outcome.interrupted) return;
  outcome.output.resize(strlen(outcome.output.c_str()));
  v8::Local<v8::String> output;
  if (!NewString(isolate, outcome.output).ToLocal(&output)) return;
  v8::Local<v8::Value> result[] = {v8::Integer::New(isolate, outcome.status), output};
  info.GetReturnValue().Set(v8::Array::New(isolate, result, 2));
}

const NativeEntry System::kNatives[] = {{"system", Native<&System::SystemCall>}};

v8::Local<v8::FunctionTemplate> System::GetFunction(Environment* env, v8::Isolate* isolate,
                                                    std::string name) {
  return FindNative(isolate, kNatives, name);
}

}  // namespace vnjs
