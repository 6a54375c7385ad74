// Dictionaries: entries found, lost or doubled against the rule on letter case, wrong answers from what
// look-ups remember, arguments that crash the constructor, and what the rebinding of the global name leads
// to.
#include <thread>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

/// `Native` is the constructor that takes initial entries, `d` a dictionary that it made.
class NameValueDictionaryTest : public ScriptTest {
 protected:
  NameValueDictionaryTest() {
    Run("var Native = NameValueDictionary; var d = new Native({Host: 'a', B: 2})");
  }
};

TEST_F(NameValueDictionaryTest, FindsEntriesWithoutRegardToCase) {
  RunTable(R"js(
    [d.host, d.HOST, d['hOsT'], d.nothing]         ==> ["a","a","a",null]
    ['hOsT' in d, 'nothing' in d, Object.prototype.hasOwnProperty.call(d, 'b')] ==> [true,false,true]
    d.HOST = 'b'; [d, Object.keys(d)]              ==> [{"B":2,"HOST":"b"},["B","HOST"]]
    d.HOST = 'c'; d.b = 3; [d, d.host]             ==> [{"HOST":"c","b":3},"c"]
    [delete d.host, delete d.nothing, (function () { 'use strict'; return delete d.nothing; })(), d]
        ==> [true,false,false,{"b":3}]
    [d.host, 'host' in d, delete d.b, d]           ==> [null,false,true,{}]
    d[1] = 'one'; [d[1], d['1'], 1 in d, 2 in d, delete d[1], d[1]] ==> ["one","one",true,false,true,null]
    d[7] = 'seven'; [d.nothing, d['7\0'], '7\0' in d] ==> [null,"seven",true]
    d[Symbol.iterator] = 5; [d[Symbol.iterator], Object.keys(d)] ==> [5,["7"]]
    // Only ASCII letters fold.
    d['\u00c4'] = 1; [d['\u00e4'], d['\u00c4']]    ==> [null,1]
    d['\u212a'] = 1; d.k                           ==> undefined
    d['x[@`{'] = 1; ['X[@`{', 'x[``{', 'x[@@{', 'x{@`{', 'x[@`['].map(name => d[name]) ==> [1,null,null,null,null]
    d['\u20acuro'] = 1; d['\u20acURO']             ==> 1
    var long = 'Name'.repeat(1000); d[long] = 1; d[long.toUpperCase()] ==> 1
    // As everywhere, a name's text ends at its first zero character, and a lone surrogate has no own text.
    d['Zero\0one'] = 1; [d['ZERO\0two'], d.zero]   ==> [1,1]
    d['\ud800'] = 1; [d['\udc00'], d['\ufffd']]    ==> [1,1]
  )js");
}

TEST_F(NameValueDictionaryTest, NamesOfThePrototypeChainReadAsUndefined) {
  RunTable(R"js(
    Object.prototype.added = 1; NameValueDictionary.prototype.own = 1;
    ['hasOwnProperty', 'constructor', 'valueOf', '__proto__', 'added', 'own'].filter(name => d[name] !== undefined)
        ==> []
    [String(d), Object.prototype.toString.call(d)] ==> ["[object NameValueDictionary]","[object NameValueDictionary]"]
    [d instanceof NameValueDictionary, d instanceof Native] ==> [true,false]
    Object.setPrototypeOf(d, {x: 1}); [d.x, d.host] ==> [null,"a"]
    class Sub extends NameValueDictionary { method() {} }; var s = new Sub(); s.X = 1; [s.method, s.x] ==> [null,1]
    d.ToString = 1; [d.tostring, d.toString(), Object.keys(d)]
        ==> [1,"[object NameValueDictionary]",["Host","B","ToString"]]
    delete d.toString; d.toString                  ==> 1
  )js");
}

TEST_F(NameValueDictionaryTest, OtherReceiversReadTheDictionaryAndLeaveItAlone) {
  RunTable(R"js(
    var o = Object.create(d); [o.HOST, 'HOST' in o, o.valueOf, Object.keys(o)] ==> ["a",true,null,[]]
    o.host = 1; [o.host, o.HOST, d.HOST, delete o.host] ==> [1,"a","a",true]
    [Reflect.get(d, 'HOST', {}), Reflect.get(d, 'HOST', 5), Reflect.get(d, 'hasOwnProperty', {})] ==> ["a","a",null]
    var p = new Proxy(d, {}); p.HOST = 'b'; [p.host, 'hOST' in p, Object.keys(p), delete p.host]
        ==> ["b",true,["toString","B","HOST"],true]
    Object.defineProperty(d, 'Me', {get() { return this; }, enumerable: true});
    [o.Me === d, o.me === d, d.Me === d, d.ME === d] ==> [true,true,true,true]
    Object.defineProperty(d, 'Bad', {get() { throw 'mine'; }, enumerable: true}); d.bad ==> Uncaught mine
    d.Bad                                          ==> Uncaught mine
  )js");
}

TEST_F(NameValueDictionaryTest, ThePropertiesThatScriptsDefine) {
  RunTable(R"js(
    var define = (name, how) => { Object.defineProperty(d, name, how); }; ==> undefined
    d.HOST; define('Host', {enumerable: false}); [d.Host, d.HOST] ==> ["a",null]
    define('Host', {value: 'b', enumerable: true}); d.HOST ==> "b"
    define('HOST', {value: 'c', enumerable: true}); [d.host, d.Host, Object.keys(d)] ==> ["c","c",["B","HOST"]]
    define('Fixed', {value: 1, enumerable: true}); d.FIXED = 2; [d.FIXED, d.fixed, d.Fixed] ==> [2,1,1]
    [delete d.Fixed, delete d.fixed, d.fixed]      ==> [false,false,1]
    // The engine adds these without asking for leave.
    Reflect.set({}, 'Late', 1, d); [d.late, d.LATE] ==> [1,1]
    new class extends (function () { return d; }) { ['Later'] = 2 }; d.LATER ==> 2
  )js");
}

TEST_F(NameValueDictionaryTest, RemembersOnlySoManySpellings) {
  Run(R"(d.abcdefghijklmnop = 1;
    function ask(spellings) {
      var sum = 0;
      for (var i = 0; i < spellings; ++i)
        sum += d['abcdefghijklmnop'.replace(/./g, (c, at) => i >> at & 1 ? c.toUpperCase() : c)];
      return sum;
    })");
  const auto heapSize = [&] {
    CollectGarbage(environment());
    v8::HeapStatistics statistics;
    Inside(environment()).isolate->GetHeapStatistics(&statistics);
    return statistics.used_heap_size();
  };
  EXPECT_EQ(Run("ask(10000)"), "10000");
  const size_t before = heapSize();
  EXPECT_EQ(Run("ask(60000)"), "60000");
  EXPECT_LT(heapSize(), before + (1 << 20));
}

TEST_F(NameValueDictionaryTest, ConstructorTakesAnyArgument) {
  RunTable(R"js(
    ['text', 5, null, undefined, true, Symbol()].filter(initial => Object.keys(new Native(initial)).length) ==> []
    [new Native(), new Native([7, 8]), new Native(new String('hi')), new Native(d)]
        ==> [{},{"0":7,"1":8},{"0":"h","1":"i"},{"Host":"a","B":2}]
    [new Native({A: 1, a: 2, [Symbol()]: 3}), new Native(Object.create({x: 1}, {y: {value: 1}}))] ==> [{"a":2},{}]
    new Native(new Proxy({A: 1, b: 2}, {get: (target, name) => name + target[name]})) ==> {"A":"A1","b":"b2"}
    new Native({get x() { throw 'getter'; }})      ==> Uncaught getter
    new Native(new Proxy({}, {ownKeys() { throw 'keys'; }})) ==> Uncaught keys
    new Native({get inner() { return new Native({A: 1}); }, x: 2}) ==> {"inner":{"A":1},"x":2}
    (function make() { return new Native({get x() { return make(); }}); })()
        ==> Uncaught RangeError: Maximum call stack size exceeded
  )js");
}

TEST_F(NameValueDictionaryTest, TheFirstDictionaryRebindsTheGlobalName) {
  automation = std::make_unique<Automation>(dir().c_str());
  RunTable(R"js(
    NameValueDictionary()                          ==> Uncaught Error: Should be called as constructor
    'prototype' in NameValueDictionary             ==> true
    var Native = NameValueDictionary; var first = new NameValueDictionary({a: 1}) ==> undefined
    [first, new NameValueDictionary({b: 2}), NameValueDictionary === Native, NameValueDictionary.name]
        ==> [{"a":1},{},false,"NameValueDictionary"]
    NameValueDictionary() === this                 ==> true
    var Bound = NameValueDictionary; new Native({c: 3}) ==> {"c":3}
    NameValueDictionary === Bound                  ==> true
    var e = new Bound(); e.Key = 1; e.KEY          ==> 1
  )js");
  automation = std::make_unique<Automation>(dir().c_str());
  RunTable(R"js(
    var Native = NameValueDictionary; Object.defineProperty(this, 'NameValueDictionary', {writable: false});
    [new Native({A: 1}).a, new NameValueDictionary({B: 2}).b] ==> [1,2]
  )js");
}

TEST_F(NameValueDictionaryTest, WorksAfterExit) {
  automation = std::make_unique<Automation>(dir().c_str());
  EXPECT_EQ(
      Run("exit(); var Native = NameValueDictionary; var d = new Native({A: 1}), e = new Native({B: 2});"
          "var f = new NameValueDictionary(); f.C = 3; [d.a, e.b, f.c]"),
      "[1,2,3]");
  CollectGarbage(environment());
  EXPECT_EQ(Run("[d.a, e.b, f.c, new Native({D: 4}).d]"), "[1,2,3,4]");
}

TEST_F(NameValueDictionaryTest, DictionariesAreCollected) {
  Run("var references = []; for (var i = 0; i < 100; ++i) {"
      "  var each = new Native({Host: i}); each.HOST; references.push(new WeakRef(each)); } each = null");
  CollectGarbage(environment());
  EXPECT_EQ(Run("references.filter(reference => reference.deref()).length"), "0");
}

TEST_F(NameValueDictionaryTest, AScriptThatIsEndedInsideALookUp) {
  std::thread other([&] {
    EXPECT_TRUE(WaitUntil([&] { return !LogLines().empty(); }));
    environment()->GetIsolate()->TerminateExecution();
  });
  Fail("debugPrint('here'); for (;;) { d.HOST; d.nothing; d.Other = 1; d.OTHER = 2; delete d.other; }");
  other.join();
  EXPECT_EQ(Run("d.Last = 1; [d.last, d.hOST]"), R"([1,"a"])");
}

}  // namespace
}  // namespace vnjs::testing
