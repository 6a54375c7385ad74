// Values on their way to scripts and back: what changes in silence, what a script's own code does meanwhile, what never
// ends, and functions that outlive what they belong to.
#include "tests/runner/runner_test.h"

namespace vnjs::testing {
namespace {

class ConversionTest : public RunnerTest {
 protected:
  ConversionTest() {
    runner->Define("echo(value)", [](const Value& value) { return value; });
    runner->Define("keep(value)", [this](const Value& value) { kept = value; });
  }
  ~ConversionTest() override { runner.reset(); }

  Value kept;
};

TEST_F(ConversionTest, WhatComesBackIsWhatWasGiven) {
  Start("function same(value) { return Object.is(echo(value), value); }");
  for (const char* const value : {"undefined",
                                  "null",
                                  "true",
                                  "-0",
                                  "NaN",
                                  "-Infinity",
                                  "2 ** 53 + 2",
                                  "5e-324",
                                  "2n ** 200n",
                                  "-(2n ** 64n)",
                                  "0n",
                                  "''",
                                  "'a\\0b'",
                                  "'\\ud800'",
                                  "'x\\udc00\\ud800y'",
                                  "'\\ud83d\\ude00'",
                                  "'\\xff\\x80'",
                                  "'€'",
                                  "'x'.repeat(1e7)",
                                  "'€'.repeat(1e6)",
                                  "(() => {})",
                                  "same",
                                  "new Proxy(same, {})"}) {
    EXPECT_EQ(Eval("same(" + std::string(value) + ")").Json(), "true") << value;
  }
  const char* const kJson[][2] = {
      {"({a: 1, '': [], 'k\\0': {'\\ud800': 1}, __proto__: null})",
       R"({"a":1,"":[],"k\u0000":{"\ud800":1}})"},
      {"({['__proto__']: {polluted: 1}})", R"({"__proto__":{"polluted":1}})"},
      {"Object.create({inherited: 1}, {hidden: {value: 1}})", "{}"},
      {"({b: 1, 2: 'x', a: new Number(5), s: new String('t'), [Symbol()]: 1, u: undefined})",
       R"({"2":"x","b":1,"a":5,"s":"t"})"},
      {"[1, , undefined, [3]]", "[1,null,null,[3]]"},
      {"new Date(86400000)", R"("1970-01-02T00:00:00.000Z")"},
      {"new Date(NaN)", "null"},
      {"new Uint16Array([1, 258]).subarray(1)", "[2,1]"},
      {"new DataView(new ArrayBuffer(4), 1, 2)", "[0,0]"},
      {"new ArrayBuffer(0)", "[]"},
      {"new Proxy({a: 1}, {get: () => 7})", R"({"a":7})"},
      {"new Proxy([1, 2], {})", "[1,2]"},
      {"(function () { return arguments; })(1, 2)", R"({"0":1,"1":2})"},
  };
  for (const auto& [code, json] : kJson) EXPECT_EQ(Eval(code).Json(), json) << code;
  EXPECT_EQ(Eval("echo(new Uint8Array([1, 2])) instanceof Uint8Array").Json(), "true");
  EXPECT_EQ(Eval("Object.keys(echo({z: 1, y: 2, ['__proto__']: 3}))").Json(), R"(["z","y","__proto__"])");
  EXPECT_EQ(Eval("new TypeError('t')")["name"].As<std::string>(), "TypeError");
}

TEST_F(ConversionTest, WhatCannotCrossIsRefused) {
  Start(
      "var cycle = {a: [{}]}; cycle.a[0].b = cycle; var deep = []; for (let i = 0; i < 1e5; ++i) deep = "
      "[deep];");
  const char* const kRefused[][2] = {
      {"echo({list: [Symbol()]})", "echo: value.list[0]: a symbol cannot be given to the host"},
      {"echo(new Map)", "echo: value: a Map cannot be given to the host"},
      {"echo(cycle)", "echo: value.a[0].b: it contains itself"},
      {"var holes = []; holes[4294967294] = 1; echo(holes)",
       "echo: value: it is larger than all that buffers may take (bufferBytes)"},
      {"echo({get a() { throw new Error('mine') }})", "mine"},
      {"echo(new Proxy({}, {ownKeys() { throw 5 }}))", "5"},
      {"echo({get a() { return echo(Symbol()) }})", "echo: value: a symbol cannot be given to the host"},
  };
  for (const auto& [code, message] : kRefused) EXPECT_EQ(Fail(code), message) << code;
  EXPECT_THAT(Fail("echo(deep)"), HasSubstr("it is nested too deeply"));
  EXPECT_THAT(Fail("echo(new Proxy([], {get: (t, k) => k === 'length' ? 2 ** 40 : 0}))"),
              HasSubstr("larger than all"));

  // The other way.
  Value endless;
  for (int i = 0; i < 100000; ++i) endless = Value::Array().Add(endless);
  const std::string kBad[] = {"\xff", "\xed\xa0\xbd\xed\xb8\x80", "\xc0\x80", "\xf5\x80\x80\x80", "\xe2\x82"};
  runner->Emit("x", endless);
  for (const std::string& text : kBad) runner->Emit("x", text);
  Eval("on('x', () => note('never'))");
  runner->Emit("x", endless);
  for (const std::string& text : kBad) runner->Emit("x", std::map<std::string, std::string>{{"k", text}});
  Eval("0");
  EXPECT_THAT(Notes(), IsEmpty());
  const std::vector<LogLine> lines = Lines();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_THAT(lines[0].message, HasSubstr("Event 'x': [0][0]"));
  EXPECT_EQ(lines[5].message, "Event 'x': .k: a text is not UTF-8");
}

TEST_F(ConversionTest, AGetterMayEndTheEnvironment) {
  Start("");
  Eval("keep({get a() { exit(); return 1; }, b: 2})");
  ASSERT_TRUE(WaitUntil([this] { return runner->GetStatistics().state == State::kEnded; }));
  EXPECT_EQ(kept.Json(), R"({"a":1,"b":2})");
  EXPECT_FALSE(runner->Emit("x"));
}

TEST_F(ConversionTest, FunctionsAreCalledLaterFromAnyThread) {
  Start(
      "var n = 0; keep(function (a, b) { 'use strict'; n += a; note(String(this) + b.k + arguments.length); "
      "return n; })");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([function = kept] {
      for (int j = 0; j < 100; ++j) EXPECT_TRUE(function.Post(1, std::map<std::string, int>{{"k", 5}}));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Eval("n").As<int>(), 400);
  EXPECT_EQ(Notes().back(), "undefined52");
  EXPECT_FALSE(Value("no function").Post(1));

  Runner other({});
  EXPECT_FALSE(other.Define("give()", [this] { return kept; })
                   .StartCode("var r; try { give() } catch (e) { r = e.message }", ""));
  std::promise<std::string> answer;
  other.Eval("r", "",
             [&](const Value& value, const ScriptError&) { answer.set_value(value.As<std::string>()); });
  EXPECT_EQ(answer.get_future().get(), "give: its result: a function belongs to another script");

  EXPECT_FALSE(runner->Reload(1s));
  // The new script has given another one.
  const Value newer = kept;
  EXPECT_TRUE(newer.Post(1, Value::Object()));
  runner->Stop(1s);
  EXPECT_FALSE(newer.Post(1, Value::Object()));
  runner.reset();
  EXPECT_FALSE(newer.Post(1, Value::Object()));
  kept = {};
}

}  // namespace
}  // namespace vnjs::testing
