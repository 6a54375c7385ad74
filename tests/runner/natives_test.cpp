// Functions of the host: declarations that lie, arguments that are wrong, whatever natives throw, and natives that call
// their own runner, or end another.
#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/runner/runner_test.h"

namespace vnjs::testing {
namespace {

class NativesTest : public RunnerTest {
 protected:
  template <typename F>
  std::string Refuse(const char* declaration, F function) {
    try {
      runner->Define(declaration, function);
    } catch (const VornException& e) {
      return e.msg();
    }
    return "nothing";
  }
};

double Half(double number) { return number / 2; }

TEST_F(NativesTest, DeclarationsAreChecked) {
  const auto one = [](int) {};
  runner->Define("lamp.set(id)", one).Define("lamp(id)", one);
  const char* const kRefused[][2] = {
      {"", "a name is missing"},
      {"f", "'(' is missing"},
      {"f(a", "')' is missing"},
      {"f(a) x", "something follows the declaration"},
      {"f(a b)", "')' is missing"},
      {"f(a, a)", "two parameters are called 'a'"},
      {"f(class)", "no parameter can be called 'class'"},
      {"1f(a)", "a name is missing"},
      {"f..g(a)", "a name is missing"},
      {"on(a)", "the name 'on' is taken"},
      {"new(a)", "the name 'new' is taken"},
      {"f(a, b)", "the function takes 1 parameters, not 2"},
      {"lamp.set(b)", "it is defined already"},
  };
  for (const auto& [declaration, problem] : kRefused) {
    EXPECT_EQ(Refuse(declaration, one), "Cannot define \"" + std::string(declaration) + "\": " + problem);
  }
  Start("lamp(1); lamp.set(2)");
  EXPECT_EQ(Refuse("late(a)", one), "Functions are defined before the runner starts");
  EXPECT_EQ(Eval("try { new lamp.set(1) } catch (e) { e.message }").Json(),
            R"("lamp.set is not a constructor")");

  Runner other({});
  other.Define("eval2.x.y()", [] {}).Define("Math.PI.x()", [] {});
  EXPECT_EQ(other.StartCode("", "").message, "Cannot define \"Math.PI.x\": something else has its place");
}

TEST_F(NativesTest, ArgumentsAreWhatTheyAreDeclaredOrErrors) {
  runner->Define("lamp.set(id, level)", [](const std::string&, double) {})
      .Define("flag(on)", [](bool on) { return !on; })
      .Define("byte(n)", [](unsigned char n) { return n; })
      .Define("id(n)", [](uint64_t n) { return n; })
      .Define("half(n)", Half)
      .Define("sum(list, more)",
              [](const std::vector<int>& list, std::optional<std::map<std::string, double>> more) {
                double sum = more ? (*more)["x"] : 0;
                for (const int n : list) sum += n;
                return sum;
              })
      .Define("maybe(n, last)", [](std::optional<int> n, bool) -> std::optional<int> { return n; })
      .Define("bytes(data)", [](std::vector<unsigned char> data) { return data; });
  Start("");
  const char* const kTable[][2] = {
      {"lamp.set('a', 'b')", "TypeError: lamp.set: level must be a number, not a string"},
      {"lamp.set(1, 2)", "TypeError: lamp.set: id must be a string, not a number"},
      {"lamp.set(null, 2)", "TypeError: lamp.set: id must be a string, not null"},
      {"lamp.set()", "TypeError: lamp.set: id is missing"},
      {"lamp.set('a')", "TypeError: lamp.set: level is missing"},
      {"lamp.set('a', undefined)", "TypeError: lamp.set: level must be a number, not undefined"},
      {"flag(1)", "TypeError: flag: on must be a boolean, not a number"},
      {"byte(256)", "TypeError: byte: n must be from 0 to 255, not 256"},
      {"byte(-1)", "TypeError: byte: n must be from 0 to 255, not -1"},
      {"byte(1.5)", "TypeError: byte: n must be an integer, not 1.5"},
      {"byte(NaN)", "TypeError: byte: n must be an integer, not NaN"},
      {"byte('1')", "TypeError: byte: n must be an integer, not a string"},
      {"byte(-0)", "0"},
      {"id(2n ** 64n)", "TypeError: id: n must be from 0 to 18446744073709551615, not 18446744073709551616"},
      {"id(2n ** 64n - 1n)", "18446744073709551615"},
      {"id(5)", "5"},
      {"half(NaN)", "NaN"},
      {"sum([1, 2], {x: 0.5})", "3.5"},
      {"sum([1, 2])", "3"},
      {"sum([1, 'x'])", "TypeError: sum: list[1] must be an integer, not a string"},
      {"sum([], {x: []})", "TypeError: sum: more.x must be a number, not an array"},
      {"sum({})", "TypeError: sum: list must be an array, not an object"},
      {"maybe()", "TypeError: maybe: last is missing"},
      {"maybe(null, true)", "undefined"},
      {"maybe(3, true)", "3"},
      {"maybe('3', true)", "TypeError: maybe: n must be an integer, not a string"},
      {"bytes(new Uint8Array([1, 255]))", "1,255"},
      {"bytes([1, 256])", "TypeError: bytes: data[1] must be from 0 to 255, not 256"},
      {"lamp.set('a', 1, {extra: 1})", "undefined"},
  };
  for (const auto& [code, text] : kTable) {
    EXPECT_EQ(Eval("try { String(" + std::string(code) + ") } catch (e) { String(e) }").As<std::string>(),
              text)
        << code;
  }
}

TEST_F(NativesTest, AreDeclaredForEditors) {
  Runner declared({});
  declared.Define("publish(topic, payload)", [](const std::string&, const Value&) {})
      .Define("subscribe(topic)", [](const std::string&) {})
      .Define("lamp.set(room, level)", [](const std::string&, double) {})
      .Define("lamp(on)", [](bool) {})
      .Define("lamp.group.all()", [] { return std::vector<std::map<std::string, int>>(); })
      .Define("readMeter(id)", [](int) { return std::optional<double>(); })
      .Define("serial(id)", [](uint64_t id) { return id; })
      .Define("wait(first, then, last)", [](std::optional<float>, bool, std::optional<std::string>) {})
      .Define("forecast(city)", [](const std::string&) { return Promise(); });
  std::ifstream file(VNJS_TEST_DATA "/../types/declared.d.ts");
  const std::string expected{std::istreambuf_iterator<char>(file), {}};
  EXPECT_EQ(declared.Declarations(), expected);
}

TEST_F(NativesTest, WhateverTheyThrowIsTheScripts) {
  runner->Define("number()", [] { throw 5; })
      .Define("memory()", [] { throw std::bad_alloc(); })
      .Define("standard()", [] { throw std::runtime_error("broken"); })
      .Define("own()", [] { throw VornException("ours"); })
      .Define("value()", [] { Value("x").As<int>(); })
      .Define("place()", [] { throw ScriptError{ErrorKind::kSyntax, "bad rule", "", "rules.json", 7, 3}; })
      .Define("text()", [] { return std::string("\xff"); });
  Start("");
  const char* const kTable[][2] = {{"number()", "Error: number failed in the host"},
                                   {"memory()", "Error: Bad allocation"},
                                   {"standard()", "Error: broken"},
                                   {"own()", "Error: ours"},
                                   {"value()", "Error: a string is not an integer"},
                                   {"place()", "Error: bad rule"},
                                   {"text()", "TypeError: text: its result: a text is not UTF-8"}};
  for (const auto& [code, text] : kTable) {
    EXPECT_EQ(Eval("try { " + std::string(code) + " } catch (e) { String(e) }").As<std::string>(), text);
  }
  // Uncaught, its place is the one that it came with.
  const ScriptError error = Try("place()").second;
  EXPECT_EQ(error.kind, ErrorKind::kThrown);
  EXPECT_EQ(error.source + ':' + std::to_string(error.line) + ':' + std::to_string(error.column),
            "rules.json:7:3");
  EXPECT_THAT(error.stack, HasSubstr("at test:1:1"));

  runner->Post([] { throw 5; });
  runner->Eval("1", "", [](const Value&, const ScriptError&) { throw std::runtime_error("mine"); });
  Eval("0");
  const std::vector<LogLine> lines = Lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].message, "A posted function of the host has thrown: something that is no exception");
  EXPECT_EQ(lines[1].message, "An answer's function of the host has thrown: mine");
}

TEST_F(NativesTest, TheyMayCallTheirOwnRunner) {
  std::vector<std::string> order;
  runner->Define("all()", [&] {
    EXPECT_TRUE(runner->Emit("x", 1));
    EXPECT_TRUE(runner->Post([&] { order.emplace_back("post"); }));
    EXPECT_TRUE(runner->Eval("note('eval')", "",
                             [&](const Value&, const ScriptError&) { order.emplace_back("done"); }));
    EXPECT_EQ(runner->StartCode("", "").message, "The runner runs already");
    order.push_back(std::to_string(runner->GetStatistics().queued));
  });
  runner->Define("again()", [&] { EXPECT_FALSE(runner->Reload(0ms)); });
  runner->Define("stop()", [&] {
    runner->Stop(20s);
    EXPECT_FALSE(runner->Emit("x"));
  });
  Start("note('start'); on('x', () => note('event'));");
  Eval("all(); note('end')");
  Eval("0");
  EXPECT_THAT(Notes(), ElementsAre("start", "end", "event", "eval"));
  EXPECT_THAT(order, ElementsAre("3", "post", "done"));

  // It takes place when the native's script has ended.
  EXPECT_EQ(Try("again(); for (;;) {}").second.kind, ErrorKind::kInterrupted);
  ASSERT_TRUE(WaitUntil([this] { return Notes().size() == 5; }));
  EXPECT_EQ(Eval("stop(); note('after'); 7").As<int>(), 7);
  ASSERT_TRUE(WaitUntil([this] { return runner->GetStatistics().state == State::kStopped; }));
  EXPECT_EQ(Notes().back(), "after");
  runner->Stop(0ms);
}

TEST_F(NativesTest, TheyMayEndAnyRunner) {
  auto other = std::make_unique<Runner>(RunnerOptions());
  ASSERT_FALSE(other->StartCode("setInterval(() => {}, 25)", ""));
  runner->Define("endOther()", [&] { other.reset(); });
  std::atomic<bool> ended{false};
  runner->Define("endSelf()", [&] {
    runner.reset();
    ended = true;
  });
  Start("");
  Eval("endOther()");
  EXPECT_EQ(other, nullptr);
  runner->Eval("endSelf()", "", nullptr);
  ASSERT_TRUE(WaitUntil([&] { return ended.load(); }));
  // Its thread goes on to the end by itself.
  ASSERT_TRUE(WaitUntil([this] { return !Lines(1).empty() && Lines(1).back().message == "Stopped"; }));
}

TEST_F(NativesTest, TheyAreDestroyedOnTheRunnersThreadBeforeStopReturns) {
  struct Witness {
    ~Witness() { destroyedOn = std::this_thread::get_id(); }
    std::thread::id& destroyedOn;
  };
  std::thread::id native;
  std::thread::id queued;
  std::thread::id runs;
  std::atomic<bool> stops{false};
  runner->Define("f()", [witness = std::make_shared<Witness>(Witness{native})] {});
  native = {};
  Start("");
  runner->Post([&, witness = std::make_shared<Witness>(Witness{queued})] {
    runs = std::this_thread::get_id();
    // What comes after it is dropped.
    runner->Post([witness] {});
    runner->Stop(0ms);
    stops = true;
  });
  ASSERT_TRUE(WaitUntil([&] { return stops.load(); }));
  runner->Stop(1s);
  EXPECT_NE(runs, std::this_thread::get_id());
  EXPECT_EQ(native, runs);
  EXPECT_EQ(queued, runs);
  EXPECT_EQ(runner->GetStatistics().dropped, 1U);
}

}  // namespace
}  // namespace vnjs::testing
