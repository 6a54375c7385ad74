// Dictionaries: entries found, lost or doubled against the rule on letter case, wrong answers from what
// look-ups remember, arguments that crash the constructor, and what the rebinding of the global name leads
// to.
#include <regex>
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
  RunAll({
      {"[d.host, d.HOST, d.Host, d['hOsT'], d.nothing]", R"(["a","a","a","a",null])"},
      {"['hOsT' in d, 'nothing' in d, Object.prototype.hasOwnProperty.call(d, 'b')]", "[true,false,true]"},
      {"d.HOST = 'b'; [d, Object.keys(d)]", R"([{"B":2,"HOST":"b"},["B","HOST"]])"},
      {"d.HOST = 'c'; d.b = 3; [d, d.host]", R"([{"HOST":"c","b":3},"c"])"},
      {"[delete d.host, delete d.nothing, (function () { 'use strict'; return delete d.nothing; })(), d]",
       R"([true,false,false,{"b":3}])"},
      {"[d.host, 'host' in d, delete d.b, d]", "[null,false,true,{}]"},
      {"d[1] = 'one'; [d[1], d['1'], 1 in d, 2 in d, delete d[1], d[1]]",
       R"(["one","one",true,false,true,null])"},
      {"d[7] = 'seven'; [d.nothing, d['7\\0'], '7\\0' in d]", R"([null,"seven",true])"},
      {"d[Symbol.iterator] = 5; [d[Symbol.iterator], Object.keys(d)]", R"([5,["7"]])"},
  });
}

TEST_F(NameValueDictionaryTest, OnlyAsciiLettersFold) {
  RunAll({
      {"d['\\u00c4'] = 1; [d['\\u00e4'], d['\\u00c4']]", "[null,1]"},
      {"d['\\u212a'] = 1; d.k === undefined", "true"},
      {"d['x[@`{'] = 1; [d['X[@`{'], d['x{`@[']]", "[1,null]"},
      {"d['\\u20acuro'] = 1; d['\\u20acURO']", "1"},
      {"var long = 'Name'.repeat(1000); d[long] = 1; d[long.toUpperCase()]", "1"},
      // As everywhere, a name's text ends at its first zero character, and a lone surrogate has no own text.
      {"d['Zero\\0one'] = 1; [d['ZERO\\0two'], d.zero]", "[1,1]"},
      {"d['\\ud800'] = 1; [d['\\udc00'], d['\\ufffd']]", "[1,1]"},
  });
}

TEST_F(NameValueDictionaryTest, NamesOfThePrototypeChainReadAsUndefined) {
  RunAll({
      {"Object.prototype.added = 1; NameValueDictionary.prototype.own = 1; ['hasOwnProperty', 'constructor', "
       "'valueOf',"
       "'__proto__', 'added', 'own'].filter(name => d[name] !== undefined)",
       "[]"},
      {"[String(d), `${d}`, d.toString(), Object.prototype.toString.call(d)].every("
       "text => text === '[object NameValueDictionary]')",
       "true"},
      {"[d instanceof NameValueDictionary, d instanceof Object, d instanceof Native]", "[true,true,false]"},
      {"Object.setPrototypeOf(d, {x: 1}); [d.x, d.host]", R"([null,"a"])"},
      {"class Sub extends NameValueDictionary { method() {} }; var s = new Sub(); s.X = 1; [s.method, s.x]",
       "[null,1]"},
      {"d.ToString = 1; [d.tostring, d.toString(), Object.keys(d)]",
       R"([1,"[object NameValueDictionary]",["Host","B","ToString"]])"},
      {"delete d.toString; d.toString", "1"},
  });
}

TEST_F(NameValueDictionaryTest, OtherReceiversReadTheDictionaryAndLeaveItAlone) {
  RunAll({
      {"var o = Object.create(d); [o.HOST, 'HOST' in o, o.valueOf, Object.keys(o)]", R"(["a",true,null,[]])"},
      {"o.host = 1; [o.host, o.HOST, d.HOST, delete o.host]", R"([1,"a","a",true])"},
      {"[Reflect.get(d, 'HOST', {}), Reflect.get(d, 'HOST', 5), Reflect.get(d, 'hasOwnProperty', {})]",
       R"(["a","a",null])"},
      {"var p = new Proxy(d, {}); p.HOST = 'b'; [p.host, 'hOST' in p, Object.keys(p), delete p.host]",
       R"(["b",true,["toString","B","HOST"],true])"},
      {"Object.defineProperty(d, 'Me', {get() { return this; }, enumerable: true});"
       "[o.Me === d, o.me === d, d.Me === d, d.ME === d]",
       "[true,true,true,true]"},
      {"Object.defineProperty(d, 'Bad', {get() { throw 'mine'; }, enumerable: true});"
       "['Bad', 'bad'].map(name => { try { return d[name]; } catch (e) { return e; } })",
       R"(["mine","mine"])"},
  });
}

TEST_F(NameValueDictionaryTest, ThePropertiesThatScriptsDefine) {
  RunAll({
      {"d.HOST; Object.defineProperty(d, 'Host', {enumerable: false}); [d.Host, d.HOST]", R"(["a",null])"},
      {"Object.defineProperty(d, 'Host', {value: 'b', enumerable: true}); d.HOST", "\"b\""},
      {"Object.defineProperty(d, 'HOST', {value: 'c', enumerable: true}); [d.host, d.Host, Object.keys(d)]",
       R"(["c","c",["B","HOST"]])"},
      {"Object.defineProperty(d, 'Fixed', {value: 1, enumerable: true}); d.FIXED = 2; [d.FIXED, d.fixed, "
       "d.Fixed]",
       "[2,1,1]"},
      {"[delete d.Fixed, delete d.fixed, d.fixed]", "[false,false,1]"},
      // The engine adds these without asking for leave.
      {"Reflect.set({}, 'Late', 1, d); [d.late, d.LATE]", "[1,1]"},
      {"new class extends (function () { return d; }) { ['Later'] = 2 }; d.LATER", "2"},
  });
}

/// What a dictionary does, written down as a list of entries; then many random steps of both.
TEST_F(NameValueDictionaryTest, BehavesAsAListOfEntries) {
  EXPECT_EQ(Run(R"js(
    var list = [];
    const exact = name => list.find(e => e.name === name);
    const find = name => exact(name) ||
        list.find(e => e.enumerable && e.name.toLowerCase() === name.toLowerCase());
    const remove = name => {
      const entry = find(name);
      if (entry && entry.configurable) list = list.filter(e => e !== entry);
      return !!entry && entry.configurable;
    };
    const steps = {
      set(name, value) {
        if (!exact(name)) remove(name);
        if (exact(name)) exact(name).value = value;
        else list.push({name, value, enumerable: true, configurable: true});
        d[name] = value;
      },
      remove(name) {
        if (delete d[name] !== remove(name)) throw 'delete ' + name;
      },
      define(name, value) {
        const entry = exact(name);
        // Two enumerable spellings of one name, both removable, are beyond the rules.
        if (entry && !(entry.configurable && entry.enumerable)) return;
        const enumerable = value % 3 > 0, configurable = value % 5 > 0;
        if (!entry) remove(name);
        if (entry) Object.assign(entry, {value, enumerable, configurable});
        else list.push({name, value, enumerable, configurable});
        Object.defineProperty(d, name, {value, enumerable, configurable, writable: true});
      },
      unseen(name, value) {
        if (find(name)) return;
        list.push({name, value, enumerable: true, configurable: true});
        Reflect.set({}, name, value, d);
      },
    };
    const names = [];
    for (const base of ['Host', 'Accept', 'Cache-Control', 'x'])
      names.push(base, base.toUpperCase(), base.toLowerCase());
    let seed = 1;
    const random = n => (seed = (seed * 48271) % 2147483647) % n;
    const kinds = ['set', 'set', 'set', 'remove', 'remove', 'unseen', 'define'];
    for (let round = 0; round < 150; ++round) {
      list = [];
      d = new Native();
      for (let step = 0; step < 40; ++step) {
        const kind = kinds[random(round % 2 ? 7 : 6)], name = names[random(names.length)];
        steps[kind](name, round * 100 + step);
        for (const other of names) {
          const entry = find(other);
          if (d[other] !== (entry && entry.value) || (other in d) !== !!entry)
            throw [round, step, kind, name, other, d[other], entry && entry.value].join();
        }
        if (Object.keys(d).join() !== list.filter(e => e.enumerable).map(e => e.name).join()) throw 'keys';
      }
    }
    'same')js"),
            "\"same\"");
}

TEST_F(NameValueDictionaryTest, RemembersOnlySoManySpellings) {
  const auto heapSize = [&] {
    CollectGarbage(environment());
    v8::HeapStatistics statistics;
    const v8::Locker locker(environment()->GetIsolate());
    environment()->GetIsolate()->GetHeapStatistics(&statistics);
    return statistics.used_heap_size();
  };
  const std::string code = R"(d.abcdefghijklmnop = 1;
    var sum = 0;
    for (var i = 0; i < SPELLINGS; ++i)
      sum += d['abcdefghijklmnop'.replace(/./g, (c, at) => i >> at & 1 ? c.toUpperCase() : c)];
    sum)";
  const auto ask = [&](const std::string& spellings) {
    EXPECT_EQ(Run(std::regex_replace(code, std::regex("SPELLINGS"), spellings)), spellings);
  };
  ask("10000");
  const size_t before = heapSize();
  ask("60000");
  EXPECT_LT(heapSize(), before + (1 << 20));
}

TEST_F(NameValueDictionaryTest, ConstructorTakesAnyArgument) {
  RunAll({
      {"['text', 5, null, undefined, true, Symbol()].map(initial => Object.keys(new Native(initial)).length)",
       "[0,0,0,0,0,0]"},
      {"[new Native(), new Native([7, 8]), new Native(new String('hi')), new Native(d)]",
       R"([{},{"0":7,"1":8},{"0":"h","1":"i"},{"Host":"a","B":2}])"},
      {"[new Native({A: 1, a: 2, [Symbol()]: 3}), new Native(Object.create({x: 1}, {y: {value: 1}}))]",
       R"([{"a":2},{}])"},
      {"new Native(new Proxy({A: 1, b: 2}, {get: (target, name) => name + target[name]}))",
       R"({"A":"A1","b":"b2"})"},
      {"[{get x() { throw 'getter'; }}, new Proxy({}, {ownKeys() { throw 'keys'; }}),"
       " new Proxy({x: 1}, {get() { throw 'get'; }})].map("
       "initial => { try { return new Native(initial); } catch (e) { return e; } })",
       R"(["getter","keys","get"])"},
      {"new Native({get inner() { return new Native({A: 1}); }, x: 2})", R"({"inner":{"A":1},"x":2})"},
      {"var depth = 0; try { (function make() { ++depth; return new Native({get x() { return make(); }}); "
       "})() }"
       "catch (e) { e instanceof RangeError }",
       "true"},
  });
}

TEST_F(NameValueDictionaryTest, TheFirstDictionaryRebindsTheGlobalName) {
  Automation other(dir().c_str());
  const auto run = [&](const char* code) { return other.Run(code, "").result(); };
  EXPECT_EQ(run("try { NameValueDictionary() } catch (e) { e.message }"),
            "\"Should be called as constructor\"");
  EXPECT_EQ(run("'prototype' in NameValueDictionary"), "true");
  EXPECT_EQ(run("var Native = NameValueDictionary; var first = new NameValueDictionary({a: 1})"),
            "undefined");
  EXPECT_EQ(run("[first, new NameValueDictionary({b: 2}), NameValueDictionary === Native, "
                "NameValueDictionary.name]"),
            R"([{"a":1},{},false,"NameValueDictionary"])");
  EXPECT_EQ(run("NameValueDictionary() === this"), "true");
  EXPECT_EQ(run("var Bound = NameValueDictionary; new Native({c: 3})"), R"({"c":3})");
  EXPECT_EQ(run("NameValueDictionary === Bound"), "true");
  EXPECT_EQ(run("var e = new Bound(); e.Key = 1; e.KEY"), "1");
}

TEST_F(NameValueDictionaryTest, AGlobalNameThatCannotBeAssigned) {
  Automation other(dir().c_str());
  EXPECT_EQ(other
                .Run("var Native = NameValueDictionary;"
                     "Object.defineProperty(this, 'NameValueDictionary', {writable: false});"
                     "[new Native({A: 1}).a, new NameValueDictionary({B: 2}).b]",
                     "")
                .result(),
            "[1,2]");
}

TEST_F(NameValueDictionaryTest, WorksAfterExit) {
  Automation other(dir().c_str());
  EXPECT_EQ(
      other
          .Run("exit(); var Native = NameValueDictionary; var d = new Native({A: 1});"
               "var e = new Native({B: 2}); var f = new NameValueDictionary(); f.C = 3; [d.a, e.b, f.c]",
               "")
          .result(),
      "[1,2,3]");
  CollectGarbage(other.GetEnvironment());
  EXPECT_EQ(other.Run("[d.a, e.b, f.c, new Native({D: 4}).d]", "").result(), "[1,2,3,4]");
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
