#include <unistd.h>
#include <vnjs/error.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "host/check.h"
#include "host/file_watch.h"
#include "host/repl.h"
#include "host/runner.h"

namespace vnjs::host {
namespace {

enum ExitStatus { kFine = 0, kFailed = 1, kWrongUsage = 2 };

/// What the command line asks for cannot be done: a missing file, a folder that cannot be made.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  std::vector<std::string> files;
  std::string code;
  std::string storageDir;
  std::string logLevel = "info";
  double seconds = std::numeric_limits<double>::infinity();
  double timeout = std::numeric_limits<double>::infinity();

  /// In megabytes; 0 for what the machine suggests.
  size_t memory = 0;
  bool threaded = false;
  bool watch = false;
  bool quiet = false;

  /// Ports for debuggers; empty when not asked for.
  std::string debugPort;
  std::string debugBreakPort;
};

const std::map<std::string, LogLevel> kLogLevels = {
    {"trace", kTrace}, {"info", kInfo}, {"warning", kWarning}, {"error", kError}, {"none", kNone}};

const CLI::Validator kIsLogLevel(
    [](std::string& text) {
      return kLogLevels.count(text) != 0 ? "" : "'" + text + "' is none of trace, info, warning, error, none";
    },
    "");

const CLI::Validator kIsNotEmpty([](std::string& text) { return text.empty() ? "must not be empty" : ""; },
                                 "");

const CLI::Validator kIsSeconds(
    [](std::string& text) {
      char* end = nullptr;
      const double seconds = strtod(text.c_str(), &end);
      const bool valid = !text.empty() && *end == '\0' && seconds >= 0;
      return valid ? "" : "'" + text + "' is not a number of seconds";
    },
    "");

const CLI::Validator kIsMegabytes(
    [](std::string& text) {
      char* end = nullptr;
      const long megabytes = strtol(text.c_str(), &end, 10);
      const bool valid = !text.empty() && *end == '\0' && megabytes >= 8 && megabytes <= 1000000;
      return valid ? "" : "'" + text + "' is not a number of megabytes from 8 on";
    },
    "");

/// The port that an option names, 0 if the option is not given. Newer CLI11 has validators look at what a flag is
/// before it is given, so this is not one.
int ReadPort(const char* option, const std::string& text) {
  if (text.empty()) return 0;
  char* end = nullptr;
  const long port = strtol(text.c_str(), &end, 10);
  if (*end != '\0' || port < 1 || port > 65535) {
    throw CLI::ValidationError(option, "'" + text + "' is not a port");
  }
  return static_cast<int>(port);
}

/// Shows an option that may have a port as the manual page does, not by what it is without one.
class HelpFormatter : public CLI::Formatter {
  std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
    std::string name = CLI::Formatter::make_option_name(option, isPositional);
    const size_t port = name.find('{');
    return port == std::string::npos ? name : name.substr(0, port) + "[=PORT]";
  }
};

const char kVersion[] = "vnjs " VNJS_VERSION;
const char kVersionHelp[] = "Print the version and end";

void AddCommonOptions(CLI::App* command, Options& options) {
  command->add_option("--storage", options.storageDir, "Folder for all that scripts reach")
      ->type_name("DIR")
      ->check(kIsNotEmpty);
  command->add_flag("--threaded", options.threaded, "Run scripts on a worker thread");
  command->add_option("--timeout", options.timeout, "Interrupt what is not done after this time")
      ->type_name("SECONDS")
      ->check(kIsSeconds);
  command->add_option("--memory", options.memory, "For objects, and the same for buffers and texts")
      ->type_name("MB")
      ->check(kIsMegabytes);
  command->add_option("--log", options.logLevel, "trace, info (the default), warning, error or none")
      ->type_name("LEVEL")
      ->check(kIsLogLevel);
  command->add_flag("--quiet", options.quiet, "No log lines, whatever --log says");
  command->set_version_flag("--version", kVersion, kVersionHelp);
}

void DescribeCommandLine(CLI::App& app, Options& options) {
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_help_flag("--help", "Print this help and end");
  app.set_version_flag("--version", kVersion, kVersionHelp);
  app.require_subcommand(0, 1);
  app.get_formatter()->label("REQUIRED", "");
  app.footer("Exit status: 0 fine, 1 a script failed, 2 wrong usage or missing file.");

  CLI::App* const run = app.add_subcommand("run", "Run script files, then their timers");
  run->add_option("FILE", options.files, "Scripts, run in this order")->type_name("")->required();
  run->add_option("--for", options.seconds, "End after this time, though timers are left")
      ->type_name("SECONDS")
      ->check(kIsSeconds);
  run->add_flag("--watch", options.watch, "Run again, from nothing, when a file has changed");
  run->add_flag("--debug{9229}", options.debugPort, "Let debuggers attach, at port 9229 or this one");
  run->add_flag("--debug-brk{9229}", options.debugBreakPort,
                "The same, and wait for one before the first line");
  AddCommonOptions(run, options);
  run->footer(
      "DIR is the first file's folder when not given; DIR/storage is made.\n"
      "Ends when no timer is left, on exit() and on Ctrl-C, which gives a script\n"
      "that is busy a second; a second Ctrl-C interrupts it at once.");

  CLI::App* const check = app.add_subcommand("check", "Look for syntax errors and run nothing");
  check->add_option("FILE", options.files, "Scripts")->type_name("")->required();

  CLI::App* const eval = app.add_subcommand("eval", "Run code, print its result and end");
  eval->add_option("CODE", options.code, "The code, put after -- when it begins with a dash")
      ->type_name("")
      ->required();
  AddCommonOptions(eval, options);
  eval->footer("DIR is the current folder when not given; DIR/storage is made.");

  CLI::App* const repl = app.add_subcommand("repl", "Run what is typed, line by line");
  AddCommonOptions(repl, options);
  repl->remove_option(repl->get_option("--timeout"));
  repl->footer("DIR is the current folder when not given; DIR/storage is made.\nType .help for the rest.");
}

/// Whether every file can be read is asked before the first one runs.
void CheckFile(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) throw UsageError(path + ": " + strerror(EISDIR));
  if (access(path.c_str(), R_OK) != 0) throw UsageError(path + ": " + strerror(errno));
}

std::string PrepareStorage(const Options& options) {
  std::filesystem::path folder = options.storageDir;
  if (folder.empty() && !options.files.empty())
    folder = std::filesystem::path(options.files[0]).parent_path();
  if (folder.empty()) folder = ".";
  const std::filesystem::path storage = folder / "storage";
  std::error_code error;
  std::filesystem::create_directories(storage, error);
  if (error) throw UsageError("cannot make the folder " + storage.string() + ": " + error.message());
  return folder.string();
}

/// Before there is an environment.
void ListenForDebuggers(int port) {
  Automation::EnableDebug(static_cast<unsigned short>(port));
  if (!Automation::m_debug) throw UsageError("cannot open port " + std::to_string(port) + " for debuggers");
  fprintf(stderr,
          "vnjs: debuggers find this at 127.0.0.1:%d: chrome://inspect, or `node inspect 127.0.0.1:%d`\n",
          port, port);
}

ExitStatus RunFiles(Runner& runner, const Options& options) {
  for (const std::string& path : options.files) {
    if (runner.IsStopped()) break;
    try {
      if (!runner.RunFile(path)) return kFailed;
    } catch (const VornException& e) {
      if (!options.watch) throw UsageError(e.msg());
      // Somebody is about to change it.
      fprintf(stderr, "vnjs: %s\n", e.msg().c_str());
      return kFailed;
    }
  }
  runner.Pump(options.seconds);
  return kFine;
}

ExitStatus CheckFiles(const Options& options) {
  ExitStatus status = kFine;
  for (const std::string& path : options.files) {
    if (!CheckSyntax(path)) status = kFailed;
  }
  return status;
}

ExitStatus Execute(const CLI::App& app, const Options& options) {
  const int debugPort = ReadPort("--debug", options.debugPort);
  const int debugBreakPort = ReadPort("--debug-brk", options.debugBreakPort);
  for (const std::string& path : options.files) CheckFile(path);
  if (app.got_subcommand("check")) return CheckFiles(options);
  const bool run = app.got_subcommand("run");
  const std::string storageDir = PrepareStorage(options);
  if (options.memory != 0) Automation::SetLimits(options.memory << 20, options.memory << 20);
  if (debugPort != 0 || debugBreakPort != 0)
    ListenForDebuggers(debugBreakPort != 0 ? debugBreakPort : debugPort);
  const LogLevel level = options.quiet ? kNone : kLogLevels.at(options.logLevel);
  if (app.got_subcommand("repl")) return Repl(storageDir, level, options.threaded).Run() ? kFine : kFailed;
  if (run) Runner::StopOnSignals();
  for (;;) {
    FileWatch files(options.watch ? options.files : std::vector<std::string>());
    Runner runner(storageDir, level, options.threaded, options.timeout, files);
    ExitStatus status = kFine;
    if (run) {
      if (debugBreakPort != 0) runner.WaitForDebugger();
      status = RunFiles(runner, options);
    } else {
      status = runner.Evaluate(options.code) ? kFine : kFailed;
    }
    if (runner.IsTimedOut()) {
      fprintf(stderr, "vnjs: not done after %g s\n", options.timeout);
      status = kFailed;
    }
    if (runner.IsFull()) {
      fprintf(stderr, "vnjs: the scripts have filled their memory for good; --memory gives them more\n");
      status = kFailed;
    }
    if (!options.watch || !runner.WaitForChange()) return status;
    fprintf(stderr, "vnjs: %s has changed\n", files.Changed().c_str());
  }
}

ExitStatus Main(int argc, char** argv) {
  CLI::App app("Runs automations written in JavaScript.", "vnjs");
  Options options;
  DescribeCommandLine(app, options);
  try {
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) throw CLI::RequiredError("run, repl, check or eval");
    return Execute(app, options);
  } catch (const CLI::ParseError& e) {
    std::ostringstream asked;
    std::ostringstream wrong;
    if (app.exit(e, asked, wrong) == 0) return PrintText(asked.str()) ? kFine : kFailed;
    std::string text = wrong.str();
    while (!text.empty() && text.back() == '\n') text.pop_back();
    throw UsageError(text);
  }
}

}  // namespace
}  // namespace vnjs::host

int main(int argc, char** argv) {
  using namespace vnjs::host;
  try {
    return Main(argc, argv);
  } catch (const UsageError& e) {
    fprintf(stderr, "vnjs: %s\n", e.what());
    return kWrongUsage;
  } catch (const vnjs::VornException& e) {
    fprintf(stderr, "vnjs: %s\n", e.msg().c_str());
  } catch (const std::exception& e) {
    fprintf(stderr, "vnjs: %s\n", e.what());
  }
  return kFailed;
}
