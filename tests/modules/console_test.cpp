#include <gmock/gmock.h>

#include <string>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

using ConsoleTest = ScriptTest;

TEST_F(ConsoleTest, WritesToTheLogWhatPeopleCanRead) {
  Run("var begin = 'here';"
      "console.log('a text', 1, -0, 12n, true, null, undefined, Symbol('s')); console.info(); "
      "console.debug([]);"
      "console.warn('warning'); console.error(begin, {}, 'x');");
  EXPECT_THAT(LogLines(),
              ElementsAre("a text 1 -0 12n true null undefined Symbol(s)", "", "[]", "warning", "here {} x"));
  EXPECT_THAT(LogLines(3), ElementsAre("warning", "here {} x"));
}

TEST_F(ConsoleTest, DescribesObjectsWithoutRunningThem) {
  const char* const rows[][2] = {
      {"{a: 1, 'x y': ['it\\'s', , 'two\\nlines'], f() {}, get g() { throw 1; }, n: null}",
       R"({a: 1, 'x y': ['it\'s', <empty>, 'two\nlines'], f: [Function: f], g: [Getter], n: null})"},
      {"{a: {b: {c: {d: 1}, e: [1]}}}", "{a: {b: {c: [Object], e: [Array]}}}"},
      {"new (class P { constructor() { this.me = this; } })", "P {me: [Circular]}"},
      {"new Map([[{k: 1}, 'v'], [2, new Set([0, undefined])]])",
       "Map {{k: 1} => 'v', 2 => Set {0, undefined}}"},
      {"[new Date(0), new Date(NaN), new Date(-1), /a+/dgi]",
       "[1970-01-01T00:00:00.000Z, Invalid Date, 1969-12-31T23:59:59.999Z, /a+/dgi]"},
      {"new (class extends TypeError { get stack() { throw 1; } })('mine')",
       "TypeError: mine\n    at test.js:1:13"},
      {"[Promise.resolve(4), new Promise(() => {}), new ArrayBuffer(8), new Uint8Array(2)]",
       "[Promise {4}, Promise {<pending>}, ArrayBuffer {}, Uint8Array [0, 0]]"},
      {"[1, 2, 3].reduce(p => { p = Promise.reject(p); p.catch(() => 0); return p; }, 0)",
       "Promise {<rejected> Promise {<rejected> Promise {<rejected> 0}}}"},
      {"[1, 2, 3, 4].reduce(p => { p = Promise.reject(p); p.catch(() => 0); return p; }, 0)",
       "Promise {<rejected> Promise {<rejected> Promise {<rejected> [Promise]}}}"},
      {"[new Proxy({}, {ownKeys() { throw 1; }, getPrototypeOf() { throw 1; }}), Object.create(null)]",
       "[[Proxy], {}]"},
      {"[new Number(-0), new Boolean(false), Object(1n), Object(Symbol('q')), new String('s')]",
       "[[Number: -0], [Boolean: false], [BigInt: 1n], [Symbol: Symbol(q)], [String: 's']]"},
      {"Object.assign(new RangeError('x'), {stack: {toString() { throw 1; }}})", "RangeError: x"},
      {"Object.assign(Array(101), {extra: 1}).slice(99)", "[<empty>, <empty>]"},
      {"new NameValueDictionary({Key: 1})", "NameValueDictionary {Key: 1}"},
      {"(Object.defineProperty(Object.prototype, 'value', {get() { throw 1; }, configurable: true}), {get "
       "a() {}})",
       "{a: [Getter]}"},
  };
  for (const auto& [code, text] : rows) {
    Run("console.log(" + std::string(code) + ")");
    EXPECT_EQ(LogLines().back(), text);
  }
  Run("console.log(Array.from({length: 1e5}), 'end')");
  EXPECT_THAT(LogLines().back(), EndsWith("undefined, … 99900 more] end"));
  Run("console.log({text: 'ä'.repeat(6000)}, 'end')");
  EXPECT_THAT(LogLines().back(), EndsWith("ää… end"));
  Run("Error.prepareStackTrace = () => { for (;;) throw 1; }; console.log(new Error('x'))");
  EXPECT_EQ(Run("'alive'"), "\"alive\"");
}

}  // namespace
}  // namespace vnjs::testing
