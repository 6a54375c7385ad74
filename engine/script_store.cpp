#include "engine/script_store.h"

#include <cstring>
#include <functional>

#include "bridge/native.h"

namespace vnjs {

namespace {

v8::MaybeLocal<v8::Script> CompileNow(v8::Local<v8::Context> context, const std::string& text,
                                      const std::string& source) {
  v8::Isolate* const isolate = context->GetIsolate();
  const size_t length = strlen(text.c_str());
  v8::Local<v8::String> code;
  if (length > static_cast<size_t>(v8::String::kMaxLength) ||
      !v8::String::NewFromUtf8(isolate, text.c_str(), v8::NewStringType::kNormal, static_cast<int>(length))
           .ToLocal(&code)) {
    return {};
  }
  v8::ScriptOrigin origin(isolate, NewName(isolate, source.c_str()));
  return v8::Script::Compile(context, code, &origin);
}

/// A script that declares with `let`, `const` or `class` may be run once: the engine makes what it declares a
/// part of the compiled script, and crashes when it runs again. No text without these words can do so.
bool CanRunAgain(const std::string& text) {
  for (const char* word : {"let", "const", "class"}) {
    if (text.find(word) != std::string::npos) return false;
  }
  return true;
}

}  // namespace

v8::MaybeLocal<v8::Script> ScriptStore::Compile(v8::Local<v8::Context> context, const std::string& text,
                                                const std::string& source) {
  if (text.size() + source.size() > kLongestText) return CompileNow(context, text, source);

  const std::hash<std::string> hashOf;
  const size_t hash = hashOf(text) + 31 * hashOf(source);
  Entry* place = &m_entries[0];
  ++m_uses;
  for (Entry& entry : m_entries) {
    if (entry.hash == hash && entry.lastUse != 0) {
      entry.lastUse = m_uses;
      if (!entry.script.IsEmpty() && entry.text == text && entry.source == source) {
        return entry.script.Get(context->GetIsolate());
      }
      place = &entry;
      break;
    }
    if (entry.lastUse < place->lastUse) place = &entry;
  }

  const bool seenBefore = place->hash == hash && place->lastUse == m_uses;
  place->hash = hash;
  place->lastUse = m_uses;
  place->script.Reset();
  v8::Local<v8::Script> script;
  if (!CompileNow(context, text, source).ToLocal(&script)) return {};
  if (seenBefore && CanRunAgain(text)) {
    place->text = text;
    place->source = source;
    place->script.Reset(context->GetIsolate(), script);
  }
  return script;
}

void ScriptStore::Clear() {
  for (Entry& entry : m_entries) entry = Entry();
}

}  // namespace vnjs
