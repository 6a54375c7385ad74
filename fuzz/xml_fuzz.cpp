// Documents that scripts parse, walk, edit and query in the order that an input gives, with garbage collected and the
// environment ended in between. What an input means stands in xml/operations.js; this file runs it.
#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/support.h"

namespace {

using vnjs::fuzz::Break;

/// A file under a name that documents can give, so that it is seen when anybody opens it.
class ForbiddenFile {
 public:
  ForbiddenFile() : m_watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    constexpr std::string_view kContent = "<!ENTITY found 'found'>";
    const int file = memfd_create("forbidden", MFD_CLOEXEC);
    if (write(file, kContent.data(), kContent.size()) < 0 || dup3(file, kNumber, O_CLOEXEC) < 0 ||
        inotify_add_watch(m_watch, kPath, IN_OPEN) < 0 || !IsWatched()) {
      Break("cannot watch a file");
    }
    close(file);
  }

  /// Since the last call.
  bool WasOpened() const {
    char events[4096];
    return read(m_watch, events, sizeof events) > 0;
  }

 private:
  /// No other descriptor of the process gets there. The inputs and the dictionary have the path.
  static constexpr int kNumber = 500;
  static constexpr char kPath[] = "/proc/self/fd/500";

  bool IsWatched() const {
    close(open(kPath, O_RDONLY | O_CLOEXEC));
    return WasOpened();
  }

  const int m_watch;
};

/// How many blocks of memory libxml2 has: what is kept for longer than it should be is no leak until the end.
int64_t xmlBlocks = 0;

void* XmlMalloc(size_t size) {
  ++xmlBlocks;
  return malloc(size);
}

void* XmlRealloc(void* block, size_t size) {
  if (block == nullptr) ++xmlBlocks;
  return realloc(block, size);
}

char* XmlStrdup(const char* text) {
  ++xmlBlocks;
  return strdup(text);
}

void XmlFree(void* block) {
  if (block != nullptr) --xmlBlocks;
  free(block);
}

void DropError(void*, const char*, ...) {}

/// The input that the scripts ask for.
std::string_view input;

v8::Local<v8::String> ToScript(v8::Isolate* isolate, v8::MaybeLocal<v8::String> text) {
  return text.FromMaybe(v8::String::Empty(isolate));
}

/// The text in front of the first zero byte, and the bytes behind it as characters.
void FuzzInput(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const std::string_view text = input.substr(0, input.find('\0'));
  std::string_view bytes = input;
  bytes.remove_prefix(std::min(text.size() + 1, bytes.size()));
  v8::Local<v8::Value> parts[] = {
      ToScript(isolate, v8::String::NewFromUtf8(isolate, text.data(), v8::NewStringType::kNormal,
                                                static_cast<int>(text.size()))),
      ToScript(isolate,
               v8::String::NewFromOneByte(isolate, reinterpret_cast<const uint8_t*>(bytes.data()),
                                          v8::NewStringType::kNormal, static_cast<int>(bytes.size()))),
  };
  info.GetReturnValue().Set(v8::Array::New(isolate, parts, std::size(parts)));
}

void FuzzBroken(const v8::FunctionCallbackInfo<v8::Value>& info) {
  Break(*v8::String::Utf8Value(info.GetIsolate(), info[0]));
}

/// What the scripts have beside the module under test.
class ScriptModule : public vnjs::Module {
 public:
  ScriptModule()
      : Module("fuzz/xml", "native function fuzzInput();\nnative function fuzzBroken();\n", 0, nullptr, -1) {}

  v8::Local<v8::FunctionTemplate> GetFunction(vnjs::Environment*, v8::Isolate* isolate,
                                              std::string name) override {
    return v8::FunctionTemplate::New(isolate, name == "fuzzInput" ? FuzzInput : FuzzBroken);
  }
};

/// One environment for many inputs, and another one after an input that has ended it.
class Fuzzer {
 public:
  Fuzzer() {
    // Threads of the engine would make a finding hard to repeat.
    v8::V8::SetFlagsFromString("--expose-gc --single-threaded");
    v8::RegisterExtension(std::make_unique<ScriptModule>());
    xmlMemSetup(XmlFree, XmlMalloc, XmlRealloc, XmlStrdup);
    // XPath errors would otherwise fill the log.
    xmlSetGenericErrorFunc(nullptr, DropError);
    xmlInitParser();
    m_blocks = xmlBlocks;
  }

  ~Fuzzer() { EndEnvironment(); }

  void Run(std::string_view bytes) {
    if (m_automation == nullptr) StartEnvironment();
    input = bytes;
    const vnjs::RunResult result = m_automation->Run("fuzz()", "input");
    if (result.isException() && !m_automation->IsTerminating()) Break(result.result());
    if (m_forbidden.WasOpened()) Break("a file was opened that only the document names");
    if (m_automation->IsTerminating() || ++m_inputs == kMostInputs) EndEnvironment();
  }

 private:
  /// An environment is ended after so many inputs at the latest, to see that nothing is left of them.
  static constexpr int kMostInputs = 1000;

  void StartEnvironment() {
    m_inputs = 0;
    m_automation = std::make_unique<vnjs::Automation>("/");
    for (const char* const script : {"values.js", "checks.js", "operations.js"}) {
      const std::string path = std::string(VNJS_FUZZ_SCRIPTS "/") + script;
      const vnjs::RunResult result = m_automation->RunFile(path.c_str());
      if (result.isException()) Break(result.result());
    }
  }

  void EndEnvironment() {
    m_automation.reset();
    xmlResetLastError();
    if (xmlBlocks != m_blocks) Break(std::to_string(xmlBlocks - m_blocks) + " blocks of libxml2 are left");
  }

  const ForbiddenFile m_forbidden;
  int64_t m_blocks = 0;
  int m_inputs = 0;
  std::unique_ptr<vnjs::Automation> m_automation;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fuzzer fuzzer;
  fuzzer.Run({reinterpret_cast<const char*>(data), size});
  return 0;
}
