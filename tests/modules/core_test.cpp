// Core: exact texts and nested code, scripts that go on after exit(), dictionaries as far as the fuzzer's corpus does not
// ask, and stored objects: wrong file names, values lost, errors in other words, descriptors left open. What happens when
// a save is cut short is the business of storage_faults.
#include <filesystem>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

namespace files = std::filesystem;

class CoreTest : public ScriptTest {};

TEST_F(CoreTest, GlobalsAreFunctionsWithoutPrototype) {
  RunTable(R"js(
    ['exit', 'debugPrint', 'processPendingCallbacks', 'executeJS', 'executeFile', '$vornVersion', 'evalPath', 'system',
     'setTimeout', 'clearTimeout', 'setInterval', 'clearInterval', 'saveObject', 'loadObject'].filter(
      name => typeof this[name] !== 'function' || this[name].name !== name || 'prototype' in this[name]) ==> []
    [global === this, Object.keys(this).indexOf('global')] ==> [true,-1]
    [Object.keys(vornVersion), $vornVersion() !== $vornVersion()] ==> [["release","date","commit"],true]
    [/^v\d+\.\d+\.\d+$/, /^[-\d]{10} [:\d]{8} [-+]\d{4}$/, /^[\da-f]{40}$/].map(
      (form, i) => form.test(Object.values(vornVersion)[i])) ==> [true,true,true]
    var a = {b: {c: 5, zero: 0}}; evalPath('') === this ==> true
    ['a.b.c', '.a..b.c.', 'a.b.zero.x', 'none.x', 'a.b.c.x'].map(evalPath) ==> [5,5,0,null,null]
  )js");
}

TEST_F(CoreTest, DebugPrint) {
  Run("debugPrint(1, 'a', null); debugPrint(); debugPrint(undefined, undefined); debugPrint({}, [1, 2])");
  Run("debugPrint({toString() { throw 1; }}, 'b'); debugPrint(Symbol('s')); debugPrint('50%s %n')");
  EXPECT_THAT(LogLines(), ElementsAre("1 a ", " ", "[object Object] 1,2", " b", "", "50%s %n"));
}

TEST_F(CoreTest, NestedCode) {
  folder.Write("inner.js", "var fromFile = 3; [fromFile]");
  folder.Write("bad.js", "\n throw new Error('bad')");
  RunTable(R"js(
    [executeJS(), executeJS(''), executeFile(), executeFile('')] ==> [null,null,null,null]
    executeJS('\'a\'')                             ==> "\"a\""
    executeJS('undefined')                         ==> "undefined"
    executeJS('var inner = 7'); inner              ==> 7
    executeJS('throw new TypeError(1)', 'mine.js') ==> Uncaught Error: Uncaught TypeError: 1
    executeJS('var #')
        ==> Uncaught Error: JavaScript compilation error: Uncaught SyntaxError: Invalid or unexpected token
    executeFile('inner.js') + fromFile             ==> "[3]3"
    executeFile('storage')                         ==> "undefined"
    executeFile('bad.js')                          ==> Uncaught Error: Uncaught Error: bad
  )js");
  EXPECT_THAT(LogLines(3), Contains(HasSubstr("TypeError: 1\n    at mine.js:1:7")));
  EXPECT_THAT(LogLines(3), Contains(HasSubstr("at " + dir() + "bad.js:2:8")));
}

TEST_F(CoreTest, AScriptGoesOnAfterExit) {
  RunTable(R"js(
    var ran = false; var before = exit(1, 2);
    var ids = [setTimeout(() => { ran = true; }, 0), setTimeout(() => {}, 1), setInterval(() => {}, 1)];
    clearTimeout(ids[1]); clearInterval(ids[2]); clearTimeout(99); processPendingCallbacks();
    [before, ids, executeJS('1'), ran]             ==> [null,[1,1,1],"1",false]
  )js");
  EXPECT_TRUE(automation->IsTerminating());
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  EXPECT_FALSE(automation->HasPendingWork());
  EXPECT_EQ(Run("ran"), "false");
  EXPECT_THAT(LogLines(3), IsEmpty());
}

/// `Native` is the constructor that takes initial entries, `d` a dictionary that it made.
class NameValueDictionaryTest : public ScriptTest {
 protected:
  NameValueDictionaryTest() {
    Run("var Native = NameValueDictionary; var d = new Native({Host: 'a', B: 2})");
  }
};

TEST_F(NameValueDictionaryTest, NamesPrototypesAndOtherReceivers) {
  RunTable(R"js(
    (function () { 'use strict'; return delete d.nothing; })() ==> false
    d[Symbol.iterator] = 5; [d[Symbol.iterator], Object.keys(d)] ==> [5,["Host","B"]]
    Object.prototype.added = 1; NameValueDictionary.prototype.own = 1;
    ['constructor', 'valueOf', '__proto__', 'added', 'own'].filter(name => d[name] !== undefined) ==> []
    [String(d), Object.prototype.toString.call(d)] ==> ["[object NameValueDictionary]","[object NameValueDictionary]"]
    [d instanceof NameValueDictionary, d instanceof Native] ==> [true,false]
    class Sub extends NameValueDictionary { method() {} }; var s = new Sub(); s.X = 1; [s.method, s.x] ==> [null,1]
    var o = Object.create(d); [o.HOST, 'HOST' in o, o.valueOf, Object.keys(o)] ==> ["a",true,null,[]]
    o.host = 1; [o.host, o.HOST, d.HOST, delete o.host] ==> [1,"a","a",true]
    [Reflect.get(d, 'HOST', {}), Reflect.get(d, 'HOST', 5), Reflect.get(d, 'valueOf', {})] ==> ["a","a",null]
    var p = new Proxy(d, {}); p.HOST = 'b'; [p.host, 'hOST' in p, Object.keys(p), delete p.host]
        ==> ["b",true,["toString","B","HOST"],true]
    Object.defineProperty(d, 'Me', {get() { return this; }, enumerable: true});
    [o.Me === d, o.me === d, d.Me === d, d.ME === d] ==> [true,true,true,true]
    Object.defineProperty(d, 'Bad', {get() { throw 'mine'; }, enumerable: true}); d.bad ==> Uncaught mine
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
    d['\ud800'] = 1; d['\ud801'] = 2; d['\ufffd'] = 3; [d['\ud800'], d['\ud801'], d['\ufffd']] ==> [1,2,3]
    d['x'.repeat(2e6)] = 1                         ==> Uncaught Error: Name is too long
  )js");
}

TEST_F(NameValueDictionaryTest, RemembersOnlySoManySpellingsAndIsCollected) {
  Run(R"(d.abcdefghijklmnop = 1;
    function ask(spellings) {
      for (var i = 0; i < spellings; ++i)
        d['abcdefghijklmnop'.replace(/./g, (c, at) => i >> at & 1 ? c.toUpperCase() : c)];
    })");
  Run("ask(10000)");
  const size_t before = UsedHeap();
  Run("ask(60000)");
  EXPECT_LT(UsedHeap(), before + (1 << 20));
  Run("var reference = new WeakRef(d); d = null");
  CollectGarbage(environment());
  EXPECT_EQ(Run("reference.deref()"), "undefined");
}

TEST_F(NameValueDictionaryTest, ConstructorTakesAnyArgument) {
  RunTable(R"js(
    ['text', 5, null, undefined, Symbol()].filter(initial => Object.keys(new Native(initial)).length) ==> []
    [new Native([7, 8]), new Native(new String('hi')), new Native(Object.create({x: 1}, {y: {value: 1}}))]
        ==> [{"0":7,"1":8},{"0":"h","1":"i"},{}]
    new Native({get x() { throw 'getter'; }})      ==> Uncaught getter
    new Native(new Proxy({}, {ownKeys() { throw 'keys'; }})) ==> Uncaught keys
    new Native({get inner() { return new Native({A: 1}); }, x: 2}) ==> {"inner":{"A":1},"x":2}
  )js");
}

TEST_F(NameValueDictionaryTest, TheFirstDictionaryRebindsTheGlobalName) {
  MakeAgain();
  RunTable(R"js(
    NameValueDictionary()                          ==> Uncaught Error: Should be called as constructor
    var Native = NameValueDictionary; var first = new NameValueDictionary({a: 1}) ==> undefined
    [first, new NameValueDictionary({b: 2}), NameValueDictionary === Native, NameValueDictionary.name]
        ==> [{"a":1},{},false,"NameValueDictionary"]
    var Bound = NameValueDictionary; [new Native({c: 3}).C, NameValueDictionary === Bound] ==> [3,true]
  )js");
}

TEST_F(NameValueDictionaryTest, WorksAfterExitAndAfterATermination) {
  Terminate("debugPrint('here'); for (;;) { d.HOST; d.nothing; d.Other = 1; d.OTHER = 2; delete d.other; }");
  EXPECT_EQ(Run("d.Last = 1; [d.last, d.hOST]"), R"([1,"a"])");
  MakeAgain();
  Run("exit(); var Native = NameValueDictionary; var d = new Native({A: 1}), e = new Native({B: 2})");
  CollectGarbage(environment());
  EXPECT_EQ(Run("[d.a, e.b, new Native({D: 4}).d]"), "[1,2,4]");
  const size_t before = UsedHeap();
  Run("for (var i = 0; i < 5000; i++) new Native()");
  EXPECT_LT(UsedHeap(), before + (1 << 20)) << "one template serves them all";
}

constexpr char kState[] = "storage/state-9ed39e2ea931586b6a985a6942ef573e.json";

class ObjectStorageTest : public ScriptTest {};

TEST_F(ObjectStorageTest, KeepsObjectsUnderNamesMadeOfLettersDigitsAndDigest) {
  folder.Write(std::string(kState) + ".tmp",
               "left by a save that was cut short, and longer than what follows");
  RunTable(R"js(
    function back(value) { saveObject('state', value); return loadObject('state'); } ==> undefined
    // A save inside a save is complete before the outer one begins to write.
    back({toJSON() { return [back('inner')]; }})   ==> ["inner"]
    var large = 'x\u20ac'.repeat(4 << 20); back(large) === large ==> true
    saveObject('My lamp, 2nd floor!', 1); saveObject('...', 2); fs.list('storage').length ==> 3
    fs.loadJSON('storage/Mylamp2ndfloor-7f5b2c307b0a60ffce1a54e8fb59d36a.json') ==> 1
    fs.loadJSON('storage/-2f43b42fd833d1e77420a8dae7419000.json') ==> 2
  )js");
}

TEST_F(ObjectStorageTest, EnvironmentsThatShareAFolderNeverSeeHalfAnObject) {
  AtOnce(4, [&](int) {
    Automation other(dir().c_str());
    const std::string code =
        "var text = 'x'.repeat(20000); for (var i = 0; i < 60; i++) {"
        " saveObject('state', {text}); if (loadObject('state').text !== text) throw 1; } 'fine'";
    EXPECT_EQ(other.Run(code.c_str(), "s").result(), "\"fine\"");
  });
}

TEST_F(ObjectStorageTest, RefusesArgumentsAndRemovesWhatJsonDoesNotRepresent) {
  RunTable(R"js(
    function outcome(f, a) { try { return f(...a); } catch (e) { return String(e); } }
    function accepted(f, a) { return outcome(f, a) !== 'Error: Invalid arguments'; }
    [[], ['state'], ['state', 1, 2], [5, 1], ['', 1], [new String('state'), 1], ['\0state', 1]].filter(
      a => accepted(saveObject, a))                ==> []
    [[], [''], ['state', 1], [new String('state')], [null]].filter(a => accepted(loadObject, a)) ==> []
    [null, () => {}, {get broken() { throw 1; }}, {toJSON() { saveObject('state', 'inner'); throw 'out'; }}].map(value => {
      saveObject('state', {}); outcome(saveObject, ['state', value]);
      return outcome(saveObject, ['state', value]); }) ==> [null,null,"1","out"]
    // By the script's own JSON, whose errors stay pending.
    var own = JSON, use = value => { JSON = value; try { return saveObject('state', 1); } finally { JSON = own; } };
    use({stringify() { return this === JSON ? '' : 'wrong'; }}) ==> undefined
    use({get stringify() { throw 1; }})            ==> Uncaught Error: No stringify function found in JSON object
    use(undefined)                                 ==> Uncaught Error: No JSON object found in global scope
    fs.list('storage')                             ==> []
  )js");
}

TEST_F(ObjectStorageTest, FailedSystemCallsReachTheScriptByNameAndLeaveNothingOpen) {
  const std::string state = dir() + kState;
  files::create_directories(state + "/inside");
  const auto before = OpenDescriptors();
  RunTable(R"js(
    saveObject('state', 1)                         ==> Uncaught Error: Is a directory
    loadObject('state')                            ==> Uncaught Error: Is a directory
    saveObject('state', null)                      ==> Uncaught Error: Directory not empty
    saveObject('n'.repeat(300), 1)                 ==> Uncaught Error: File name too long
    saveObject('n'.repeat(300), null)              ==> Uncaught Error: File name too long
    loadObject('n'.repeat(300))                    ==> Uncaught Error: File name too long
    fs.list('storage').length                      ==> 1
  )js");
  files::remove_all(state);
  Run("saveObject('state', 'old')");
  files::create_directory(state + ".tmp");
  EXPECT_EQ(Fail("saveObject('state', 1)"), "Uncaught Error: Is a directory");
  EXPECT_EQ(Run("loadObject('state')"), "\"old\"");
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ObjectStorageTest, WithoutTheFolderSavingOnlyPrintsALine) {
  files::remove(dir() + "storage");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Run("saveObject('state', 1)"), "undefined");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "failed to open " + dir() + kState + ".tmp for writing\n");
  EXPECT_EQ(Run("saveObject('state', null); loadObject('state')"), "null");
  EXPECT_FALSE(files::exists(dir() + "storage"));
  folder.Write("storage", "a file");
  for (const char* call : {"saveObject('state', 1)", "saveObject('state', null)", "loadObject('state')"})
    EXPECT_EQ(Fail(call), "Uncaught Error: Not a directory") << call;
}

TEST_F(ObjectStorageTest, AScriptThatIsEndedWhileItsValueIsReadKeepsTheOldObject) {
  Run("saveObject('state', 'old')");
  Terminate("saveObject('state', {toJSON() { debugPrint('here'); for (;;); }})");
  EXPECT_EQ(Run("loadObject('state')"), "\"old\"");
  MakeAgain();
  Terminate(
      "var own = JSON; JSON = {get stringify() { debugPrint('here'); for (;;); }}; saveObject('state', 1)");
  EXPECT_EQ(Run("JSON = own; loadObject('state')"), "\"old\"");
}

}  // namespace
}  // namespace vnjs::testing
