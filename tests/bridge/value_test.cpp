// Conversions: what each kind of value turns into, refused input, and values that change or throw while they
// are read.
#include <fstream>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::StartsWith;

/// Evaluates script expressions to handles, inside one environment.
class ValueTest : public ScriptTest {
 protected:
  ValueTest()
      : isolate(environment()->GetIsolate()),
        m_locker(isolate),
        m_isolateScope(isolate),
        m_handleScope(isolate),
        context(environment()->GetContext()),
        m_contextScope(context) {}

  v8::Local<v8::Value> Eval(const std::string& code) {
    const v8::Local<v8::String> text = v8::String::NewFromUtf8(isolate, code.c_str()).ToLocalChecked();
    return v8::Script::Compile(context, text).ToLocalChecked()->Run(context).ToLocalChecked();
  }

  std::string Bytes(const std::string& code) {
    try {
      const ByteArray array(Eval(code));
      EXPECT_EQ(array.ptr() == nullptr, array.empty());
      return std::string(reinterpret_cast<const char*>(array.ptr()), array.size());
    } catch (const VornException& e) {
      return "throws " + e.msg();
    }
  }

  v8::Isolate* const isolate;

 private:
  const v8::Locker m_locker;
  const v8::Isolate::Scope m_isolateScope;
  const v8::HandleScope m_handleScope;

 protected:
  const v8::Local<v8::Context> context;

 private:
  const v8::Context::Scope m_contextScope;
};

TEST_F(ValueTest, ByteArrayFromScriptValues) {
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"[0x61, 0xff]", "a\xff"},
      {"[]", ""},
      {"[256]", "throws Element value out of range"},
      {"[-1]", "throws Element value out of range"},
      {"[4294967295]", "throws Element value out of range"},
      {"[1.5]", "throws Element is not a number"},
      {"['1']", "throws Element is not a number"},
      {"[,1]", "throws Element is not a number"},
      {"[300, 'x']", "throws Element value out of range"},
      {"['x', 300]", "throws Element is not a number"},
      {"Object.defineProperty([1], 0, {get() { throw 1; }})", "throws Element is not a number"},
      // Passes the check, then answers differently.
      {"var n = 0; Object.defineProperty([1], 0, {get() { return n++ ? 'x' : 1; }})",
       "throws Element is not a number"},
      {"var a = [1, 2]; Object.defineProperty(a, 1, {get() { a.length = 1; return 2; }, configurable: "
       "true}); a",
       "throws Element is not a number"},
      {"'abc'", "abc"},
      {"''", ""},
      {"'\\u00e4\\0b'", std::string("\xe4\0b", 3)},
      {"'\\u0100'", "throws String encoding is not one-byte"},
      {"new String('abc')", "abc"},
      {"new String('\\u0100')", "throws String encoding is not one-byte"},
      {"new Uint8Array([1, 2, 3]).buffer", "\x01\x02\x03"},
      {"new Uint8Array([0, 1, 2, 3, 4, 5, 6]).subarray(2, 6)", "\x02\x03\x04\x05"},
      {"new DataView(new Uint8Array([7, 8, 9]).buffer, 1)", "\x08\x09"},
      {"new Uint16Array([0x6261, 0x6463])", "abcd"},
      {"new ArrayBuffer(0)", ""},
      {"null", ""},
      {"undefined", ""},
      {"42", ""},
      {"({length: 1, 0: 1})", ""},
  };
  for (const auto& [code, expected] : cases) EXPECT_EQ(Bytes(code), expected) << code;
}

TEST_F(ValueTest, ByteArrayCopiesAreDeepAndReachScriptsAsBuffers) {
  ByteArray first(reinterpret_cast<const unsigned char*>("xyz"), 3);
  ByteArray second(first);
  ByteArray third;
  third = first;
  *first.ptr() = 'X';
  EXPECT_EQ(*second.ptr(), 'x');
  EXPECT_EQ(*third.ptr(), 'x');
  const ByteArray& alias = third;
  third = alias;
  EXPECT_EQ(third.size(), 3u);
  third = ByteArray();
  EXPECT_TRUE(third.empty());
  EXPECT_EQ(third.ptr(), nullptr);
  const ByteArray zeroes(4);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(zeroes.ptr()), 4), std::string(4, '\0'));

  EXPECT_TRUE(third.toJS(isolate)->IsNull());
  const v8::Local<v8::Value> buffer = second.toJS(isolate);
  ASSERT_TRUE(buffer->IsArrayBuffer());
  EXPECT_EQ(ByteArray(buffer).size(), 3u);
  ASSERT_TRUE(ByteArray::toJS(isolate, second.ptr(), 0)->IsArrayBuffer());
  EXPECT_TRUE(ByteArray::toJS(isolate, nullptr, 3)->IsNull());
}

TEST_F(ValueTest, KindsThatCanBeArrays) {
  EXPECT_TRUE(ByteArray::canBeArray({}));
  for (const char* code : {"null", "[]", "'x'", "new String('x')", "new ArrayBuffer(1)", "new Int32Array(1)",
                           "new DataView(new ArrayBuffer(1))"}) {
    EXPECT_TRUE(ByteArray::canBeArray(Eval(code))) << code;
  }
  for (const char* code : {"undefined", "1", "true", "({})", "(function () {})"}) {
    EXPECT_FALSE(ByteArray::canBeArray(Eval(code))) << code;
  }
}

TEST_F(ValueTest, Texts) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"undefined", ""},
      {"null", ""},
      {"''", ""},
      {"'a\\0b'", "a"},
      {"'\\u00e4\\u20ac'", "\xc3\xa4\xe2\x82\xac"},
      {"1.5", "1.5"},
      {"({})", "[object Object]"},
      {"Symbol('s')", ""},
      {"Object.create(null)", ""},
      {"({toString() { throw 1; }})", ""},
      {"new Proxy({}, {get() { throw 1; }})", ""},
  };
  for (const auto& [code, expected] : cases) {
    EXPECT_EQ(GetString(Eval(code)), expected) << code;
    const NativeString text(Eval(code));
    EXPECT_EQ(text.length(), strlen(expected)) << code;
    EXPECT_EQ(text.ptr() == nullptr, *expected == '\0') << code;
    NativeString copy(text);
    copy = NativeString(copy);
    EXPECT_STREQ(copy.ptr(), text.ptr());
  }
  EXPECT_EQ(GetString({}), "");
}

TEST_F(ValueTest, Booleans) {
  struct BooleanCase {
    const char* code;
    bool withFalse;
    bool withTrue;
  };
  const BooleanCase cases[] = {
      {"true", true, true},
      {"false", false, false},
      {"new Boolean(false)", true, true},
      {"0", false, false},
      {"-0.0", false, false},
      {"NaN", true, true},
      {"0.1", true, true},
      {"new Number(0)", false, false},
      {"var o = new Number(1); o.valueOf = function () { throw 1; }; o", false, true},
      {"undefined", false, true},
      {"null", false, true},
      {"'true'", false, true},
      {"'false'", false, true},
      {"({})", false, true},
  };
  for (const BooleanCase& test : cases) {
    EXPECT_EQ(GetBoolean(Eval(test.code), false), test.withFalse) << test.code;
    EXPECT_EQ(GetBoolean(Eval(test.code), true), test.withTrue) << test.code;
  }
  EXPECT_TRUE(GetBoolean({}, true));
}

TEST_F(ValueTest, RealValuesComeFromThePrototypesFirst) {
  const auto read = [&](const char* code) {
    const v8::TryCatch caught(isolate);
    const v8::Local<v8::Value> value =
        GetRealValue(isolate, Eval(code).As<v8::Object>(), v8::String::NewFromUtf8Literal(isolate, "p"));
    if (caught.HasCaught()) return std::string("throws ") + GetString(caught.Exception());
    return value.IsEmpty() ? std::string("nothing") : GetString(value);
  };
  EXPECT_EQ(read("({p: 1, __proto__: {p: 2}})"), "2");
  EXPECT_EQ(read("({p: 1})"), "1");
  EXPECT_EQ(read("({p: 1, __proto__: {p: undefined}})"), "1");
  EXPECT_EQ(read("({__proto__: null})"), "nothing");
  EXPECT_EQ(read("({__proto__: {get p() { throw 'mine'; }}})"), "throws mine");
  v8::TryCatch caught(isolate);
  GetRealValue(isolate, {}, v8::String::NewFromUtf8Literal(isolate, "p"));
  EXPECT_EQ(GetString(caught.Exception()), "Error: Invalid object argument to GetRealValue");
  caught.Reset();
  GetRealValue(isolate, v8::Object::New(isolate), {});
  EXPECT_EQ(GetString(caught.Exception()), "Error: Invalid prop argument to GetRealValue");
}

TEST_F(ValueTest, StringifyUsesWhatTheScriptHasMadeOfJSON) {
  const auto stringify = [&](const char* setUp, const char* code) {
    Eval(setUp);
    const v8::TryCatch caught(isolate);
    const v8::Local<v8::Value> text = JSON_stringify(isolate, Eval(code));
    if (caught.HasCaught()) return std::string("throws ") + GetString(caught.Exception());
    return text.IsEmpty()        ? std::string("nothing")
           : text->IsUndefined() ? std::string("undefined")
                                 : GetString(text);
  };
  EXPECT_EQ(stringify("0", "({a: [1, 'x', null]})"), R"({"a":[1,"x",null]})");
  EXPECT_EQ(stringify("0", "(function () {})"), "undefined");
  EXPECT_EQ(stringify("0", "Symbol()"), "undefined");
  EXPECT_EQ(stringify("0", "'undefined'"), "\"undefined\"");
  EXPECT_THAT(stringify("0", "var c = {}; c.c = c; c"), StartsWith("throws TypeError: Converting circular"));
  EXPECT_THAT(stringify("0", "1n"), StartsWith("throws TypeError"));
  EXPECT_EQ(stringify("Number.prototype.toJSON = function () { return 'n'; }", "new Number(1)"), "\"n\"");
  EXPECT_EQ(stringify("var real = JSON.stringify; JSON.stringify = function (v) { return this === JSON && "
                      "real(v) + '!'; }",
                      "1"),
            "1!");
  EXPECT_EQ(stringify("JSON.stringify = 5", "1"), "throws Error: No stringify function found in JSON object");
  EXPECT_EQ(stringify("Object.defineProperty(JSON, 'stringify', {get() { throw 1; }})", "1"),
            "throws Error: No stringify function found in JSON object");
  EXPECT_EQ(stringify("JSON = undefined", "1"), "throws Error: No JSON object found in global scope");
  EXPECT_EQ(stringify("JSON = {stringify() { throw 'own'; }}", "1"), "throws own");
}

TEST_F(ValueTest, ParseLeavesTheSyntaxErrorPending) {
  EXPECT_EQ(GetString(JSON_parse(isolate, Eval("'[1,2]'").As<v8::String>())), "1,2");
  const v8::TryCatch caught(isolate);
  EXPECT_TRUE(JSON_parse(isolate, Eval("'{'").As<v8::String>()).IsEmpty());
  EXPECT_THAT(GetString(caught.Exception()), StartsWith("SyntaxError"));
}

std::string ReadFailure(const std::string& path) {
  try {
    ReadFile(path.c_str());
    return "none";
  } catch (const VornException& e) {
    return e.msg();
  }
}

TEST(ReadFileTest, ContentsToTheByteOrTheReason) {
  const TemporaryFolder folder;
  const std::string content("a\0\xff\r\n", 5);
  folder.Write("bytes", content);
  EXPECT_EQ(ReadFile((folder.path() + "bytes").c_str()), content);
  folder.Write("empty", "");
  EXPECT_EQ(ReadFile((folder.path() + "empty").c_str()), "");
  EXPECT_EQ(ReadFile(nullptr), "");
  EXPECT_EQ(ReadFile(""), "");
  EXPECT_EQ(ReadFile(folder.path().c_str()), "");
  EXPECT_EQ(ReadFailure(folder.path() + "none"),
            "Failed to open file: " + folder.path() + "none No such file or directory");
  EXPECT_EQ(ReadFailure(folder.path() + "bytes/x"),
            "Failed to open file: " + folder.path() + "bytes/x Not a directory");
}

TEST(ErrorTest, TableAndRaise) {
  EXPECT_EQ(GetVornError(0), nullptr);
  const std::vector<std::pair<int, const char*>> cases = {
      {-1, "Invalid argument"},        {-2, "Bad allocation"}, {-3, "Method not implemented"},
      {-4, "Operation not supported"}, {-5, "Access denied"},  {-6, "Threading error"},
      {-7, "Invalid operation"},       {-8, "Internal error"}, {-9, "Bad data - communication failed"},
      {-10, "Invalid data type"},      {-11, "Unknown error"}, {-12, "Object accessed from invalid thread"},
      {-13, "Unknown error"},          {-20, "Invalid port"},  {-21, "Invalid config"},
      {-22, "Unknown error"},          {-30, "Job not found"}, {-31, "Job already queued"},
      {-32, "Duplicate object"},       {-33, "Unknown error"}, {-40, "Packet is too big to be encapsulated"},
      {-41, "Unknown error"},          {5, "Unknown error"},
  };
  for (const auto& [code, message] : cases) EXPECT_STREQ(GetVornError(code), message) << code;
  VornException error("m");
  try {
    error.raise();
  } catch (const VornException& e) {
    EXPECT_EQ(e.msg(), "m");
  }
}

}  // namespace
}  // namespace vnjs::testing
