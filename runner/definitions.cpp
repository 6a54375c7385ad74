#include "runner/definitions.h"

#include <vnjs/error.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

#include "bridge/native.h"
#include "runner/native_call.h"
#include "runner/text.h"

namespace vnjs {

namespace {

/// Words that no function or parameter can be called.
constexpr const char* kReserved[] = {
    "arguments",  "await",     "break",   "case",  "catch",    "class",   "const",   "continue",
    "debugger",   "default",   "delete",  "do",    "else",     "enum",    "eval",    "export",
    "extends",    "false",     "finally", "for",   "function", "if",      "import",  "in",
    "instanceof", "interface", "let",     "new",   "null",     "package", "private", "protected",
    "public",     "return",    "static",  "super", "switch",   "this",    "throw",   "true",
    "try",        "typeof",    "var",     "void",  "while",    "with",    "yield",   "implements",
};

constexpr const char* kTaken[] = {"on", "off", "once", "onStop", "global", "globalThis", "undefined"};

bool IsAmong(const std::string& name, const char* const* first, const char* const* last) {
  return std::any_of(first, last, [&](const char* word) { return name == word; });
}

bool IsReserved(const std::string& name) { return IsAmong(name, std::begin(kReserved), std::end(kReserved)); }

bool IsNamePart(char c, bool isFirst) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x80 || c == '_' || c == '$' || (isFirst ? isalpha(byte) : isalnum(byte)) != 0;
}

/// Reads "lamp.set(id, level)".
class Reader {
 public:
  explicit Reader(const char* text) : m_text(text == nullptr ? "" : text), m_at(m_text) {}

  void Read(Definition* definition) {
    do definition->path.push_back(ReadName());
    while (Accept('.'));
    if (!Accept('(')) Fail("'(' is missing");
    if (!Accept(')')) {
      do {
        std::string name = ReadName();
        if (IsReserved(name)) Fail("no parameter can be called '" + name + "'");
        auto& names = definition->parameters;
        if (std::find(names.begin(), names.end(), name) != names.end())
          Fail("two parameters are called '" + name + "'");
        names.push_back(std::move(name));
      } while (Accept(','));
      if (!Accept(')')) Fail("')' is missing");
    }
    SkipBlanks();
    if (*m_at != 0) Fail("something follows the declaration");
  }

  [[noreturn]] void Fail(const std::string& problem) const {
    throw VornException("Cannot define \"" + std::string(m_text) + "\": " + problem);
  }

 private:
  void SkipBlanks() {
    while (*m_at == ' ') ++m_at;
  }

  bool Accept(char c) {
    SkipBlanks();
    if (*m_at != c) return false;
    ++m_at;
    return true;
  }

  std::string ReadName() {
    SkipBlanks();
    const char* const start = m_at;
    while (IsNamePart(*m_at, m_at == start)) ++m_at;
    if (m_at == start) Fail("a name is missing");
    std::string name(start, m_at);
    if (KindOf(name) == TextKind::kInvalid) Fail("it is not UTF-8");
    return name;
  }

  const char* const m_text;
  const char* m_at;
};

v8::Local<v8::String> Key(v8::Isolate* isolate, const std::string& name) {
  return v8::String::NewFromUtf8(isolate, name.c_str(), v8::NewStringType::kInternalized)
      .FromMaybe(v8::String::Empty(isolate));
}

/// What a path stands for: a function, an object with members, or both.
struct Node {
  const Definition* definition = nullptr;
  std::map<std::string, Node> members;
};

std::string DeclareSignature(const Definition& definition, const char* arrow) {
  std::string text = "(";
  size_t required = definition.parameters.size();
  while (required > 0 && definition.signature.parameters[required - 1].isOptional) --required;
  for (size_t i = 0; i < definition.parameters.size(); ++i) {
    if (i > 0) text += ", ";
    const auto& [type, isOptional] = definition.signature.parameters[i];
    text += definition.parameters[i] + (i >= required ? "?: " : ": ") + type + (isOptional ? " | null" : "");
  }
  return text + ')' + arrow + definition.signature.result;
}

std::string DeclareMembers(const Node& node, const std::string& indent) {
  std::string text = "{\n";
  if (node.definition != nullptr) text += indent + "  " + DeclareSignature(*node.definition, ": ") + ";\n";
  for (const auto& [name, member] : node.members) {
    text += indent + "  ";
    if (member.members.empty()) {
      text += name + DeclareSignature(*member.definition, ": ") + ";\n";
    } else {
      text += "readonly " + name + ": " + DeclareMembers(member, indent + "  ") + ";\n";
    }
  }
  return text + indent + '}';
}

}  // namespace

void Definitions::Add(const char* declaration, detail::NativeSignature signature,
                      std::unique_ptr<detail::NativeFunction> function) {
  auto definition = std::make_unique<Definition>();
  const Reader reader(declaration);
  Reader(declaration).Read(definition.get());
  for (const std::string& part : definition->path)
    definition->name += (definition->name.empty() ? "" : ".") + part;
  const std::string& first = definition->path.front();
  if (IsReserved(first) || IsAmong(first, std::begin(kTaken), std::end(kTaken))) {
    reader.Fail("the name '" + first + "' is taken");
  }
  for (const auto& other : m_definitions) {
    if (other->name == definition->name) reader.Fail("it is defined already");
  }
  if (definition->parameters.size() != signature.parameters.size()) {
    reader.Fail("the function takes " + std::to_string(signature.parameters.size()) + " parameters, not " +
                std::to_string(definition->parameters.size()));
  }
  definition->signature = std::move(signature);
  definition->function = std::move(function);
  // Those that make objects come after those that are one.
  const auto place = std::find_if(m_definitions.begin(), m_definitions.end(), [&](const auto& other) {
    return other->path.size() > definition->path.size();
  });
  m_definitions.insert(place, std::move(definition));
}

void Definitions::Install(v8::Local<v8::Context> context, RunnerEnvironment* environment) {
  v8::Isolate* const isolate = context->GetIsolate();
  for (const auto& definition : m_definitions) {
    const v8::HandleScope scope(isolate);
    definition->environment = environment;
    v8::Local<v8::Object> object = context->Global();
    bool isDefined = true;
    for (size_t i = 0; isDefined && i + 1 < definition->path.size(); ++i) {
      const v8::Local<v8::String> key = Key(isolate, definition->path[i]);
      v8::Local<v8::Value> member;
      isDefined = object->Get(context, key).ToLocal(&member);
      if (isDefined && member->IsUndefined()) {
        member = v8::Object::New(isolate);
        isDefined = object->CreateDataProperty(context, key, member).FromMaybe(false);
      }
      isDefined = isDefined && member->IsObject();
      if (isDefined) object = member.As<v8::Object>();
    }
    v8::Local<v8::Function> function;
    const v8::Local<v8::String> key = Key(isolate, definition->path.back());
    if (!isDefined ||
        !v8::Function::New(context, CallNative, v8::External::New(isolate, definition.get()),
                           static_cast<int>(definition->parameters.size()), v8::ConstructorBehavior::kThrow)
             .ToLocal(&function) ||
        !object->CreateDataProperty(context, key, function).FromMaybe(false)) {
      throw VornException("Cannot define \"" + definition->name + "\": something else has its place");
    }
    function->SetName(key);
  }
}

std::string Definitions::Declare() const {
  Node root;
  for (const auto& definition : m_definitions) {
    Node* node = &root;
    for (const std::string& part : definition->path) node = &node->members[part];
    node->definition = definition.get();
  }
  std::string text;
  for (const auto& [name, node] : root.members) {
    if (node.members.empty()) {
      text += "declare function " + name + DeclareSignature(*node.definition, ": ") + ";\n";
    } else {
      text += "declare const " + name + ": " + DeclareMembers(node, "") + ";\n";
    }
  }
  return text;
}

}  // namespace vnjs
