// Conversions: what each kind of value turns into, refused input, and values that change or throw while they
// are read.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using Info = v8::FunctionCallbackInfo<v8::Value>;

/// The conversions as functions of the script, for which an empty handle is "nothing".
class ValueTest : public ScriptTest {
 protected:
  ValueTest() {
    const Inside inside(environment());
    const auto add = [&](const char* name, v8::FunctionCallback function) {
      const auto key = v8::String::NewFromUtf8(inside.isolate, name).ToLocalChecked();
      const auto value = v8::Function::New(inside.context, function).ToLocalChecked();
      inside.context->Global()->Set(inside.context, key, value).Check();
    };
    add("bytes", [](const Info& info) {
      try {
        const ByteArray array(info[0]);
        EXPECT_EQ(array.ptr() == nullptr, array.empty());
        info.GetReturnValue().Set(array.toJS(info.GetIsolate()));
      } catch (const VornException& e) {
        ThrowException(info.GetIsolate(), e.msg());
      }
    });
    add("canBeBytes", [](const Info& info) { info.GetReturnValue().Set(ByteArray::canBeArray(info[0])); });
    add("boolean",
        [](const Info& info) { info.GetReturnValue().Set(GetBoolean(info[0], info[1]->IsTrue())); });
    add("text", [](const Info& info) {
      const std::string text = GetString(info[0]);
      const NativeString native(info[0]);
      EXPECT_EQ(native.length(), text.size());
      EXPECT_EQ(native.ptr() == nullptr, text.empty());
      NativeString copy(native);
      copy = NativeString(copy);
      EXPECT_STREQ(copy.ptr(), native.ptr());
      Return(info, v8::String::NewFromUtf8(info.GetIsolate(), text.c_str()).ToLocalChecked());
    });
    add("real", [](const Info& info) {
      const auto property = info[1]->IsString() ? info[1].As<v8::String>() : v8::Local<v8::String>();
      const auto object = info[0]->IsObject() ? info[0].As<v8::Object>() : v8::Local<v8::Object>();
      Return(info, GetRealValue(info.GetIsolate(), object, property));
    });
    add("stringify", [](const Info& info) { Return(info, JSON_stringify(info.GetIsolate(), info[0])); });
    add("parse",
        [](const Info& info) { Return(info, JSON_parse(info.GetIsolate(), info[0].As<v8::String>())); });
  }

 private:
  static void Return(const Info& info, v8::Local<v8::Value> value) {
    const auto nothing = v8::String::NewFromUtf8Literal(info.GetIsolate(), "nothing");
    info.GetReturnValue().Set(value.IsEmpty() ? nothing.As<v8::Value>() : value);
  }
};

TEST_F(ValueTest, ByteArrays) {
  RunTable(R"js(
    function list(value) { const buffer = bytes(value); return buffer && Array.from(new Uint8Array(buffer)); }
    function fails(message, values) {
      return values.filter(value => { try { bytes(value); } catch (e) { return e.message !== message; } return true; });
    }
    var Range = 'Element value out of range', Type = 'Element is not a number'; ==> undefined
    [[97, 255, 0], '\u00e4\0b', new String('ab'), new Uint8Array([1, 2]).buffer].map(list)
        ==> [[97,255,0],[228,0,98],[97,98],[1,2]]
    [new Uint8Array([0, 1, 2, 3, 4]).subarray(2, 4), new DataView(new Uint8Array([7, 8, 9]).buffer, 1)].map(list)
        ==> [[2,3],[8,9]]
    [[], '', new ArrayBuffer(0), null, undefined, 42, {length: 1, 0: 1}].map(list)
        ==> [null,null,null,null,null,null,null]
    fails(Range, [[256], [-1], [4294967295], [300, 'x']]) ==> []
    fails(Type, [[1.5], ['1'], [,1], ['x', 300], Object.defineProperty([1], 0, {get() { throw 1; }})]) ==> []
    bytes(new String('\u0100'))                    ==> Uncaught Error: String encoding is not one-byte
    // Those pass the check, then answer differently.
    var n = 0; bytes(Object.defineProperty([1], 0, {get() { return n++ ? 'x' : 1; }}))
        ==> Uncaught Error: Element is not a number
    var a = [1, 2]; bytes(Object.defineProperty(a, 1, {get() { return a.length = 1; }, configurable: true}))
        ==> Uncaught Error: Element is not a number
    var view = new DataView(new ArrayBuffer(1));
    [null, [], 'x', new String('x'), view.buffer, new Int32Array(1), view].every(canBeBytes)
        ==> true
    [undefined, 1, true, {}, function () {}].some(canBeBytes) ==> false
  )js");
  const Inside inside(environment());
  ByteArray first(reinterpret_cast<const unsigned char*>("xyz"), 3);
  const ByteArray second(first);
  ByteArray third;
  third = first;
  *first.ptr() = 'X';
  EXPECT_EQ(*second.ptr(), 'x');
  EXPECT_EQ(*third.ptr(), 'x');
  const ByteArray& alias = third;
  third = alias;
  EXPECT_EQ(third.size(), 3u);
  third = ByteArray(2);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(third.ptr()), 2), std::string(2, '\0'));
  EXPECT_TRUE(ByteArray::toJS(inside.isolate, second.ptr(), 0)->IsArrayBuffer());
  EXPECT_TRUE(ByteArray::canBeArray({}));
}

TEST_F(ValueTest, TextsAndBooleans) {
  RunTable(R"js(
    ['a\0b', '\u00e4\u20ac', 1.5, {}].map(text)    ==> ["a","ä€","1.5","[object Object]"]
    [undefined, null, '', Symbol('s'), Object.create(null), {toString() { throw 1; }}].map(text).join('') ==> ""
    // What comes out with the default false, and with true.
    [true, false, new Boolean(false), -0, NaN, 0.1, new Number(0)].map(v => [boolean(v, false), boolean(v, true)])
        ==> [[true,true],[false,false],[true,true],[false,false],[true,true],[true,true],[false,false]]
    var hostile = new Number(1); hostile.valueOf = function () { throw 1; };
    [hostile, undefined, null, 'true', {}].some(v => boolean(v, false) || !boolean(v, true)) ==> false
  )js");
  const Inside inside(environment());
  EXPECT_EQ(GetString({}), "");
  EXPECT_TRUE(GetBoolean({}, true));
}

TEST_F(ValueTest, RealValuesComeFromThePrototypesFirst) {
  RunTable(R"js(
    [{p: 1, __proto__: {p: 2}}, {p: 1}, {p: 1, __proto__: {p: undefined}}, {__proto__: null}].map(o => real(o, 'p'))
        ==> [2,1,1,"nothing"]
    real({__proto__: {get p() { throw 'mine'; }}}, 'p') ==> Uncaught mine
    real(null, 'p')                                ==> Uncaught Error: Invalid object argument to GetRealValue
    real({}, null)                                 ==> Uncaught Error: Invalid prop argument to GetRealValue
  )js");
}

TEST_F(ValueTest, JsonIsThatOfTheScriptAndItsErrorsStayPending) {
  RunTable(R"js(
    [{a: [1, 'x', null]}, 'undefined', Symbol()].map(v => stringify(v))
        ==> ["{\"a\":[1,\"x\",null]}","\"undefined\"",null]
    stringify(1n)                                  ==> Uncaught TypeError: Do not know how to serialize a BigInt
    parse('[1,2]')                                 ==> [1,2]
    parse('{')                                     ==> Uncaught SyntaxError: Unexpected end of JSON input
    var own = JSON, use = value => { JSON = value; try { return stringify(1); } finally { JSON = own; } };
    use({stringify(v) { return this === JSON && own.stringify(v) + '!'; }}) ==> "1!"
    use({stringify() { throw 'mine'; }})           ==> Uncaught mine
    use({stringify: 5})                            ==> Uncaught Error: No stringify function found in JSON object
    use({get stringify() { throw 1; }})            ==> Uncaught Error: No stringify function found in JSON object
    use(undefined)                                 ==> Uncaught Error: No JSON object found in global scope
  )js");
}

TEST(ReadFileTest, ContentsToTheByteOrTheReason) {
  const TemporaryFolder folder;
  const std::string content("a\0\xff\r\n", 5);
  folder.Write("bytes", content);
  folder.Write("empty", "");
  EXPECT_EQ(ReadFile((folder.path() + "bytes").c_str()), content);
  EXPECT_EQ(ReadFile((folder.path() + "empty").c_str()), "");
  EXPECT_EQ(ReadFile(nullptr), "");
  EXPECT_EQ(ReadFile(""), "");
  EXPECT_EQ(ReadFile(folder.path().c_str()), "");
  for (const auto& [name, reason] :
       {std::pair("none", " No such file or directory"), {"bytes/x", " Not a directory"}}) {
    try {
      ReadFile((folder.path() + name).c_str());
      ADD_FAILURE() << name;
    } catch (const VornException& e) {
      EXPECT_EQ(e.msg(), "Failed to open file: " + folder.path() + name + reason);
    }
  }
}

TEST(ErrorTest, TableAndRaise) {
  EXPECT_EQ(GetVornError(0), nullptr);
  const std::vector<std::pair<int, const char*>> cases = {
      {-1, "Invalid argument"},
      {-2, "Bad allocation"},
      {-3, "Method not implemented"},
      {-4, "Operation not supported"},
      {-5, "Access denied"},
      {-6, "Threading error"},
      {-7, "Invalid operation"},
      {-8, "Internal error"},
      {-9, "Bad data - communication failed"},
      {-10, "Invalid data type"},
      {-11, "Unknown error"},
      {-12, "Object accessed from invalid thread"},
      {-20, "Invalid port"},
      {-21, "Invalid config"},
      {-30, "Job not found"},
      {-31, "Job already queued"},
      {-32, "Duplicate object"},
      {-40, "Packet is too big to be encapsulated"},
      {-41, "Unknown error"},
      {5, "Unknown error"},
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
