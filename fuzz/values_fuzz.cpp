// Values that an input describes, as the results of scripts and as what natives read, next to scripts that say what
// comes of them.
#include <algorithm>
#include <iterator>

#include "fuzz/support.h"

namespace vnjs::fuzz {
namespace {

/// `v` is the value. The functions at the end say what natives make of it.
constexpr char kPrelude[] = R"js(
  var v, proxies = new WeakSet();

  function proxy(target, handler) {
    const made = new Proxy(Object(target), handler);
    proxies.add(made);
    return made;
  }
  function child(parent, own) {
    return Object.setPrototypeOf(own, Object(parent) === parent ? parent : null);
  }
  function view(type, bytes, at, shared, detached) {
    const buffer = new (shared ? SharedArrayBuffer : ArrayBuffer)(bytes.length);
    new Uint8Array(buffer).set(bytes);
    if (type === ArrayBuffer) return buffer;
    const size = type.BYTES_PER_ELEMENT || 1;
    const length = Math.floor(bytes.length / size);
    const made = new type(buffer, Math.min(at, length) * size, Math.max(length - at, 0));
    if (detached) %ArrayBufferDetach(buffer);
    return made;
  }
  function deep(levels) {
    let made = [];
    while (--levels > 0) made = [made];
    return made;
  }
  function cycle(inner) {
    const made = {inner};
    made.self = [made];
    return made;
  }
  // Becomes another one while it is read.
  function moving(list, how) {
    return Object.defineProperty(list, 0, {get() { how(list); return 7; }, enumerable: true, configurable: true});
  }

  function attempt(f, otherwise) {
    try {
      return f();
    } catch (e) {
      return otherwise;
    }
  }
  function is(type, x) {
    return attempt(() => (type.prototype.valueOf.call(x), true), false);
  }
  const byteLength = Object.getOwnPropertyDescriptor(ArrayBuffer.prototype, 'byteLength').get;

  function result(x) {
    if (x === undefined || x === null) return String(x);
    return attempt(() => typeof x === 'function' ? `${x}` : JSON.stringify(x), '') || '';
  }
  function text(x) {
    return x === undefined || x === null ? '' : attempt(() => `${x}`, '');
  }
  function truth(x, otherwise) {
    if (is(Boolean, x)) return String(typeof x === 'object' || x);
    return String(is(Number, x) ? attempt(() => +x !== 0, otherwise) : otherwise);
  }
  function bytes(x) {
    const integer = n => typeof n === 'number' && !Object.is(n, -0) && (n === n >> 0 || n === n >>> 0);
    if (Array.isArray(x) && !proxies.has(x)) {
      for (let i = 0; i < x.length; ++i) {
        const n = attempt(() => x[i]);
        if (!integer(n)) return 'Element is not a number';
        if (n < 0 || n > 255) return 'Element value out of range';
      }
      return x.join();
    }
    if (is(String, x)) {
      const units = String.prototype.valueOf.call(x).split('').map(c => c.charCodeAt());
      return units.every(unit => unit < 256) ? units.join() : 'String encoding is not one-byte';
    }
    if (ArrayBuffer.isView(x)) return attempt(() => new Uint8Array(x.buffer, x.byteOffset, x.byteLength).join(), '');
    return attempt(() => byteLength.call(x) > 0 ? new Uint8Array(x).join() : '', '');
  }
  function kind(x) {
    return Object(x) === x ? typeof x : typeof x + String(x);
  }
  function real(x, key) {
    return attempt(() => {
      if (proxies.has(x)) return kind();
      const parent = Object.getPrototypeOf(x);
      const inherited = parent === null ? undefined : parent[key];
      return kind(inherited === undefined && Object.prototype.hasOwnProperty.call(x, key) ? x[key] : inherited);
    }, 'threw');
  }
)js";

/// The forms of values. A letter behind an @ stands for what the input has to add: a value, property, key or trap of
/// these tables; a text, a number, bytes, or a small number. Only the forms behind the first nested one have values
/// inside.
constexpr const char* kValues[] = {
    "@t",
    "@n",
    "[@b]",
    "new String(@t)",
    "undefined",
    "null",
    "true",
    "new Boolean(false)",
    "new Number(@n)",
    "NaN",
    "-0",
    "1.5",
    "1e21",
    "4294967295",
    "256",
    "10n ** 40n",
    "Object(1n)",
    "Symbol('s')",
    "Object(Symbol())",
    "/x/g",
    "new Date(NaN)",
    "new Map([[1, 2]])",
    "'x\\u0100'.repeat(5000)",
    "[1,,3]",
    "deep(9)",
    "deep(300)",
    "deep(200000)",
    "Object.create(null)",
    "class A { static a = 1; }",
    "eval",
    "new Array(3000)",
    "(function () { return arguments; })(1, 2)",
    "view(Uint8Array, [@b], @d)",
    "view(Int16Array, [@b], @d)",
    "view(BigInt64Array, [@b], @d)",
    "view(DataView, [@b], @d)",
    "view(ArrayBuffer, [@b])",
    "view(ArrayBuffer, [@b], 0, true)",
    "view(Uint8Array, [@b], @d, true)",
    "view(DataView, [@b], @d, true)",
    "view(Float64Array, [@b], @d, false, true)",
    "[@v]",
    "[@v, @v, @v]",
    "{@p}",
    "{@p, @p, @p}",
    "child(@v, {@p, @p})",
    "proxy(@v, {@h})",
    "proxy(@v, {@h, @h})",
    "cycle(@v)",
    "Object.assign(function () {}, {@p, @p})",
    "moving([0, @v], list => list.length = @d)",
    "moving([0, @v], list => list.push(@v))",
    "moving([0, @v], list => list[1] = @v)",
    "moving([0, @v], list => { v = @v; throw 1; })",
    "moving([@v, @v], list => { list.length = 50000; })",
};
constexpr unsigned kFirstNested = 41;
constexpr const char* kProperties[] = {"@k: @v",
                                       "@k: @v",
                                       "get @k() { return @v; }",
                                       "get @k() { throw @v; }",
                                       "@k() { return @v; }",
                                       "@k() { throw @v; }",
                                       "[@t]: @v"};
constexpr const char* kKeys[] = {
    "a",           "b", "length", "toString",     "valueOf", "toJSON", "[Symbol.toPrimitive]",
    "constructor", "0", "7",      "['__proto__']"};
constexpr const char* kTraps[] = {"",
                                  "get() { return @v; }",
                                  "get() { throw @v; }",
                                  "has() { throw @v; }",
                                  "getPrototypeOf() { return @v; }",
                                  "getOwnPropertyDescriptor() { return @v; }",
                                  "ownKeys() { throw @v; }",
                                  "apply() { return @v; }"};

/// Writes what a form stands for as a script has it.
std::string Write(Reader& reader, std::string_view form, int depth) {
  std::string script;
  for (size_t i = 0; i < form.size(); ++i) {
    if (form[i] != '@') {
      script += form[i];
      continue;
    }
    const auto oneOf = [&](const char* const* table, size_t size) {
      script += Write(reader, table[reader.Below(static_cast<unsigned>(size))], depth + 1);
    };
    switch (form[++i]) {
      case 'v':
        oneOf(kValues, depth < 8 ? std::size(kValues) : kFirstNested);
        break;
      case 'p':
        oneOf(kProperties, std::size(kProperties));
        break;
      case 'k':
        oneOf(kKeys, std::size(kKeys));
        break;
      case 'h':
        oneOf(kTraps, std::size(kTraps));
        break;
      case 't':
        script += Literal(reader.Text());
        break;
      case 'n':
        script += std::to_string(static_cast<int32_t>(reader.Number()));
        break;
      case 'd':
        script += std::to_string(reader.Below(10));
        break;
      default:
        for (const char byte : reader.Bytes())
          script += std::to_string(static_cast<unsigned char>(byte)) + ",";
    }
  }
  return script;
}

/// What natives make of `v`.
class Natives {
 public:
  explicit Natives(Scripts& scripts) : m_scope(scripts.environment()), m_caught(m_scope.isolate()) {
    m_value = Global("v");
  }

  /// Next to what the prelude's functions say. `result` is what the host got.
  void Compare(const std::string& result) {
    IsSame("the result", result, Call("result"));
    IsSame("GetString", GetString(m_value), Call("text"));
    for (const bool otherwise : {false, true}) {
      const v8::Local<v8::Value> argument = v8::Boolean::New(m_scope.isolate(), otherwise);
      IsSame("GetBoolean", GetBoolean(m_value, otherwise) ? "true" : "false",
             Call("truth", m_value, argument));
    }
    IsSame("ByteArray", Bytes(m_value), Call("bytes"));
    for (const char* const key : {"a", "length", "constructor", "toJSON"}) CompareReal(key);
  }

  /// Of values that are never the same.
  void Read() {
    GetString(m_value);
    Bytes(m_value);
    Quiet("reading");
  }

  void CheckJson(const std::string& result, bool steady) {
    v8::Isolate* const isolate = m_scope.isolate();
    const std::string text = GetString(JSON_stringify(isolate, m_value));
    m_caught.Reset();
    if (m_value->IsNullOrUndefined() || m_value->IsFunction()) return;
    if (steady) IsSame("JSON_stringify", text, result);
    if (text.empty()) return;
    const v8::Local<v8::Value> again = JSON_parse(isolate, String(text));
    if (again.IsEmpty()) Break("does not parse: " + text);
    IsSame("JSON, parsed", GetString(JSON_stringify(isolate, again)), text);
  }

 private:
  void Quiet(const std::string& what) const {
    if (m_caught.HasCaught()) Break(what + " leaves an exception");
  }

  void IsSame(const std::string& what, const std::string& actual, const std::string& expected) const {
    if (actual != expected) Break(what + " is " + actual + "\nexpected: " + expected);
    Quiet(what);
  }

  v8::Local<v8::String> String(const std::string& text) {
    v8::Local<v8::String> string;
    if (!v8::String::NewFromUtf8(m_scope.isolate(), text.c_str()).ToLocal(&string)) Break("too long");
    return string;
  }

  v8::Local<v8::Value> Global(const char* name) {
    v8::Local<v8::Value> value;
    if (!m_scope.context()->Global()->Get(m_scope.context(), String(name)).ToLocal(&value))
      Break("no global");
    return value;
  }

  /// A function of the prelude, which gives a string.
  std::string Call(const char* function) { return Call(function, m_value, m_value); }
  std::string Call(const char* function, v8::Local<v8::Value> value, v8::Local<v8::Value> argument) {
    v8::Local<v8::Value> arguments[] = {value, argument};
    v8::Local<v8::Value> result;
    if (!Global(function).As<v8::Function>()->Call(m_scope.context(), value, 2, arguments).ToLocal(&result))
      Break(std::string(function) + " throws");
    const v8::Local<v8::String> string = result.As<v8::String>();
    std::u16string text(static_cast<size_t>(string->Length()), 0);
    string->Write(m_scope.isolate(), reinterpret_cast<uint16_t*>(text.data()), 0, string->Length(),
                  v8::String::NO_NULL_TERMINATION);
    return AsRead(text);
  }

  std::string Bytes(v8::Local<v8::Value> value) {
    try {
      const ByteArray bytes(value);
      const ByteArray again(bytes.toJS(m_scope.isolate()));
      if (bytes.size() != again.size() || !std::equal(bytes.ptr(), bytes.ptr() + bytes.size(), again.ptr()))
        Break("bytes change on their way");
      if (!bytes.empty() && !ByteArray::canBeArray(value)) Break("bytes of what cannot be an array");
      std::string list;
      for (unsigned i = 0; i < bytes.size(); ++i) list += (i > 0 ? "," : "") + std::to_string(bytes.ptr()[i]);
      return list;
    } catch (const VornException& e) {
      return e.msg();
    }
  }

  void CompareReal(const char* key) {
    if (!m_value->IsObject()) return;
    const v8::Local<v8::String> name = String(key);
    v8::Local<v8::Value> found = GetRealValue(m_scope.isolate(), m_value.As<v8::Object>(), name);
    const bool threw = m_caught.HasCaught();
    m_caught.Reset();
    if (found.IsEmpty()) found = v8::Undefined(m_scope.isolate());
    IsSame(std::string("GetRealValue of ") + key, threw ? "threw" : Call("kind", found, found),
           Call("real", m_value, name));
  }

  const Scope m_scope;
  v8::TryCatch m_caught;
  v8::Local<v8::Value> m_value;
};

void RunInput(Scripts& scripts, Reader reader) {
  const std::string code = Write(reader, "v = undefined; v = @v; 0", 0);
  // These may look different each time: the deepest are too deep for some stacks.
  const bool steady = code.find("moving(") == std::string::npos && code.find("deep(2") == std::string::npos;
  if (scripts.Run(code).isException()) return;
  const RunResult result = scripts.Run("v");
  if (result.isException()) Break("the result is an exception: " + result.result());
  {
    Natives natives(scripts);
    if (steady) natives.Compare(result.result());
    natives.Read();
    natives.CheckJson(result.result(), steady);
  }
  scripts.Expect("debugPrint(v)", "undefined");
}

}  // namespace
}  // namespace vnjs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vnjs::fuzz;
  static Scripts scripts("/", kPrelude);
  scripts.NextInput();
  RunInput(scripts, Reader({reinterpret_cast<const char*>(data), size}));
  scripts.Expect("1 + 1", "2");
  return 0;
}
