// What the fuzzer's scripts cannot see of the classes that hold bytes and texts.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

class ValueTest : public ScriptTest {};

TEST_F(ValueTest, BytesAndTextsAreCopied) {
  const Inside inside(environment());
  ByteArray first(reinterpret_cast<const unsigned char*>("xyz"), 3);
  const ByteArray second(first);
  ByteArray third;
  third = first;
  *first.ptr() = 'X';
  EXPECT_EQ(*second.ptr(), 'x');
  EXPECT_EQ(*third.ptr(), 'x');
  EXPECT_EQ(*ByteArray(2).ptr(), '\0');
  EXPECT_TRUE(ByteArray::toJS(inside.isolate, second.ptr(), 0)->IsArrayBuffer());

  const NativeString text(inside.Eval("'a\\0b'"));
  NativeString copy(text);
  copy = NativeString(copy);
  EXPECT_STREQ(copy.ptr(), "a");
  EXPECT_EQ(copy.length(), 1u);
  EXPECT_EQ(NativeString(inside.Eval("''")).ptr(), nullptr);
}

TEST_F(ValueTest, OfWhatScriptsMake) {
  const Inside inside(environment());
  const auto bytes = [&inside](const char* code) {
    try {
      const ByteArray made(inside.Eval(code));
      return std::string(reinterpret_cast<const char*>(made.ptr()), made.size());
    } catch (const VornException& e) {
      return e.msg();
    }
  };
  EXPECT_EQ(bytes("[97, 98]"), "ab");
  EXPECT_EQ(bytes("[256]"), "Element value out of range");
  EXPECT_EQ(bytes("'\u0100'"), "String encoding is not one-byte");
  // Passes the check, then answers differently.
  EXPECT_EQ(bytes("var n = 0; Object.defineProperty([1], 0, {get() { return n++ ? 'x' : 1; }})"),
            "Element is not a number");
  EXPECT_TRUE(GetBoolean(inside.Eval("0.1"), false));
  EXPECT_EQ(ReadFile(nullptr) + ReadFile("") + GetString({}), "");
  EXPECT_TRUE(GetBoolean({}, true));
  EXPECT_TRUE(ByteArray::canBeArray({}));
  for (const char* code : {"null", "[]", "'x'", "new String('x')", "new DataView(new ArrayBuffer(1))"})
    EXPECT_TRUE(ByteArray::canBeArray(inside.Eval(code))) << code;
  for (const char* code : {"undefined", "1", "({})"})
    EXPECT_FALSE(ByteArray::canBeArray(inside.Eval(code))) << code;
  const v8::TryCatch caught(inside.isolate);
  GetRealValue(inside.isolate, {}, inside.Eval("'p'").As<v8::String>());
  EXPECT_EQ(GetString(caught.Exception()), "Error: Invalid object argument to GetRealValue");
  GetRealValue(inside.isolate, inside.context->Global(), {});
  EXPECT_EQ(GetString(caught.Exception()), "Error: Invalid prop argument to GetRealValue");
}

TEST_F(ValueTest, ConvertInALockedIsolateWithoutAContext) {
  Run("var list = [{toString() { return 'text'; }}, 1]");
  v8::Isolate* const isolate = environment()->GetIsolate();
  const v8::Locker locker(isolate);
  const v8::Isolate::Scope isolateScope(isolate);
  const v8::HandleScope handles(isolate);
  v8::Local<v8::Value> list;
  {
    const v8::Context::Scope scope(environment()->GetContext());
    list = environment()
               ->GetGlobal()
               ->Get(environment()->GetContext(), v8::String::NewFromUtf8Literal(isolate, "list"))
               .ToLocalChecked();
  }
  EXPECT_EQ(GetString(list), "text,1");
  EXPECT_EQ(NativeString(list).length(), 6u);
  EXPECT_EQ(GetString(JSON_stringify(isolate, list)), "[{},1]");
  EXPECT_TRUE(JSON_parse(isolate, v8::String::NewFromUtf8Literal(isolate, "[1]"))->IsArray());
  EXPECT_TRUE(GetBoolean(v8::Number::New(isolate, 2), false));
  const auto join = v8::String::NewFromUtf8Literal(isolate, "join");
  EXPECT_TRUE(GetRealValue(isolate, list.As<v8::Object>(), join)->IsFunction());
  EXPECT_THROW(ByteArray{list}, VornException);
  const v8::TryCatch caught(isolate);
  ThrowException(isolate, "thrown");
  EXPECT_EQ(GetString(caught.Exception()), "Error: thrown");
}

}  // namespace
}  // namespace vnjs::testing
