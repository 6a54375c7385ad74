#include "host/check.h"

#include <v8.h>
#include <vnjs/automation.h>
#include <vnjs/environment.h>
#include <vnjs/error.h>
#include <vnjs/host.h>
#include <vnjs/value.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "host/excerpt.h"
#include "host/host_functions.h"

namespace vnjs::host {
namespace {

std::string ReadWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file) throw VornException(path + ": cannot be read");
  return text;
}

/// Up to the first NUL, as scripts are run.
v8::MaybeLocal<v8::String> NewText(v8::Isolate* isolate, const std::string& text) {
  return v8::String::NewFromUtf8(isolate, text.data(), v8::NewStringType::kNormal,
                                 static_cast<int>(strlen(text.c_str())));
}

/// The error's text behind its place, or nothing.
std::string SyntaxErrorOf(v8::Isolate* isolate, v8::Local<v8::Context> context, const std::string& path,
                          const std::string& code) {
  const v8::TryCatch caught(isolate);
  v8::Local<v8::String> name;
  v8::Local<v8::String> text;
  if (!NewText(isolate, path).ToLocal(&name) || !NewText(isolate, code).ToLocal(&text))
    return path + ": too large for a script";
  v8::ScriptOrigin origin(isolate, name);
  if (!v8::Script::Compile(context, text, &origin).IsEmpty()) return {};
  const v8::Local<v8::Message> message = caught.Message();
  // What is nested too deeply is so nowhere.
  const int line = message->GetLineNumber(context).FromMaybe(0);
  const int column = message->GetStartColumn(context).FromMaybe(0) + 1;
  const std::string place = line == 0 ? "" : ':' + std::to_string(line) + ':' + std::to_string(column);
  return path + place + ": " + GetString(message->Get());
}

}  // namespace

bool CheckSyntax(const std::string& path) {
  const std::string code = ReadWhole(path);
  Automation automation("./");
  automation.SetLogger(vlog_create(stderr, kNone));
  v8::Isolate* const isolate = automation.GetEnvironment()->GetIsolate();
  const v8::Locker locker(isolate);
  const v8::Isolate::Scope isolateScope(isolate);
  const v8::HandleScope handles(isolate);
  const v8::Local<v8::Context> context = automation.GetEnvironment()->GetContext();
  const v8::Context::Scope contextScope(context);

  std::string error = SyntaxErrorOf(isolate, context, path, code);
  if (error.empty()) return true;
  error = Visible(error + '\n' + Excerpt(error));
  fwrite(error.data(), 1, error.size(), stderr);
  return false;
}

}  // namespace vnjs::host
