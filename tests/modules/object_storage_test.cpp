// Stored objects: wrong file names, values lost or half written, errors that scripts do not see or see in
// other words, and descriptors left open. What happens when a save is cut short is the business of
// storage_faults.
#include <algorithm>
#include <filesystem>
#include <thread>

#include "tests/modules/descriptors.h"
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kState[] = "storage/state-9ed39e2ea931586b6a985a6942ef573e.json";

class ObjectStorageTest : public ScriptTest {
 protected:
  /// The names in the folder, in alphabetical order.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir() + "storage")) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(ObjectStorageTest, KeepsObjectsUnderNamesMadeOfLettersDigitsAndDigest) {
  Run(R"(saveObject('My lamp, 2nd floor!', 1); saveObject('...', 2); saveObject('\u00dcn\u00ef', 3);
         saveObject('state', {b: [1, 'x', null], a: undefined}); saveObject('STATE', '\u00e9\ud83d\ude00'))");
  EXPECT_THAT(Files(), ElementsAre("-2f43b42fd833d1e77420a8dae7419000.json",
                                   "Mylamp2ndfloor-7f5b2c307b0a60ffce1a54e8fb59d36a.json",
                                   "STATE-2b848a8cc886d253d21a77c43cd50aae.json",
                                   "n-4d0f201bd997eaf4ab8a93531b0cf6cf.json",
                                   "state-9ed39e2ea931586b6a985a6942ef573e.json"));
  EXPECT_EQ(folder.Read(kState), R"({"b":[1,"x",null]})");
  RunAll({
      {"loadObject('state')", R"({"b":[1,"x",null]})"},
      {"loadObject('STATE') === '\\u00e9\\ud83d\\ude00'", "true"},
      {"[loadObject('...'), loadObject('My lamp, 2nd floor!'), loadObject('\\u00dcn\\u00ef')]", "[2,1,3]"},
      {"loadObject('State')", "null"},
  });
}

TEST_F(ObjectStorageTest, SavingWhatJsonDoesNotRepresentRemovesTheObject) {
  for (const auto& [value, expected] : std::vector<Case>{
           {"null", "undefined"},
           {"function () {}", "undefined"},
           {"{toJSON() {}}", "undefined"},
           {"{get broken() { throw new RangeError('mine'); }}", "Uncaught RangeError: mine"},
           {"10n", "Uncaught TypeError: Do not know how to serialize a BigInt"},
           {"{toJSON() { saveObject('state', 'inner'); throw 'out'; }}", "Uncaught out"},
       }) {
    Run("saveObject('state', {})");
    for (int i = 0; i < 2; ++i) {
      const std::string save = "saveObject('state', " + std::string(value) + ")";
      EXPECT_EQ(automation->Run(save.c_str(), "").result(), expected) << value;
      EXPECT_THAT(Files(), IsEmpty()) << value;
    }
  }
}

TEST_F(ObjectStorageTest, ValuesComeBackWhole) {
  RunTable(R"js(
    function back(value) { saveObject('state', value); return loadObject('state'); } ==> undefined
    // A save inside a save is complete before the outer one begins to write.
    back({toJSON() { return [back('inner')]; }})   ==> ["inner"]
    ['', 'a\0b\ud800"\\\n', 'x\u20ac'.repeat(4 << 20)].every(text => back(text) === text) ==> true
    Object.keys(back({__proto__: null, ['__proto__']: 1, '': 2})) ==> ["__proto__",""]
  )js");
}

TEST_F(ObjectStorageTest, RefusesOtherArguments) {
  RunTable(R"js(
    function outcome(f, a) { try { return f(...a); } catch (e) { return String(e); } }
    function accepted(f, a) { return outcome(f, a) !== 'Error: Invalid arguments'; }
    [[], ['state'], ['state', 1, 2], [5, 1], ['', 1], [new String('state'), 1], ['\0state', 1]].filter(
      a => accepted(saveObject, a))                ==> []
    [[], [''], ['state', 1], [new String('state')], [null]].filter(a => accepted(loadObject, a)) ==> []
  )js");
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(ObjectStorageTest, LoadsOnlyUpToTheFirstZeroByte) {
  using namespace std::string_literals;
  folder.Write(kState, "");
  EXPECT_EQ(Run("loadObject('state')"), "null");
  folder.Write(kState, "[1]\0,garbage"s);
  EXPECT_EQ(Run("loadObject('state')"), "[1]");
  for (const std::string& text : {"\0[1]"s, "{\"a\":"s, "nonsense"s}) {
    folder.Write(kState, text);
    EXPECT_EQ(Run("try { loadObject('state') } catch (e) { e.constructor === SyntaxError }"), "true");
    EXPECT_EQ(folder.Read(kState), text);
  }
}

TEST_F(ObjectStorageTest, FailedSystemCallsReachTheScriptByName) {
  const std::string state = dir() + kState;
  std::filesystem::create_directories(state + "/inside");
  RunTable(R"js(
    saveObject('state', 1)                         ==> Uncaught Error: Is a directory
    loadObject('state')                            ==> Uncaught Error: Is a directory
    saveObject('state', null)                      ==> Uncaught Error: Directory not empty
    saveObject('n'.repeat(300), 1)                 ==> Uncaught Error: File name too long
    saveObject('n'.repeat(300), null)              ==> Uncaught Error: File name too long
    loadObject('n'.repeat(300))                    ==> Uncaught Error: File name too long
  )js");
  EXPECT_THAT(Files(), ElementsAre(state.substr(state.rfind('/') + 1)));

  std::filesystem::remove_all(state);
  Run("saveObject('state', 'old')");
  std::filesystem::create_directory(state + ".tmp");
  EXPECT_EQ(Fail("saveObject('state', 1)"), "Uncaught Error: Is a directory");
  EXPECT_EQ(Run("loadObject('state')"), "\"old\"");

  std::filesystem::remove_all(dir() + "storage");
  folder.Write("storage", "a file");
  for (const char* call : {"saveObject('state', 1)", "saveObject('state', null)", "loadObject('state')"})
    EXPECT_EQ(Fail(call), "Uncaught Error: Not a directory") << call;
}

TEST_F(ObjectStorageTest, WithoutTheFolderSavingOnlyPrintsALine) {
  std::filesystem::remove(dir() + "storage");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(Run("saveObject('state', 1)"), "undefined");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "failed to open " + dir() + kState + ".tmp for writing\n");
  EXPECT_EQ(Run("saveObject('state', null); loadObject('state')"), "null");
  EXPECT_FALSE(std::filesystem::exists(dir() + "storage"));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ObjectStorageTest, RemainsOfAnInterruptedSaveAreNoHindrance) {
  folder.Write(std::string(kState) + ".tmp", std::string(100000, '{'));
  EXPECT_EQ(Run("[loadObject('state'), saveObject('state', [7]), loadObject('state')]"), "[null,null,[7]]");
  EXPECT_EQ(Files().size(), 1);
}

TEST_F(ObjectStorageTest, AScriptThatIsEndedWhileItsValueIsReadKeepsTheOldObject) {
  Run("saveObject('state', 'old')");
  std::thread other([&] {
    EXPECT_TRUE(WaitUntil([&] { return !LogLines().empty(); }));
    environment()->GetIsolate()->TerminateExecution();
  });
  Fail("saveObject('state', {toJSON() { debugPrint('here'); for (;;); }})");
  other.join();
  EXPECT_EQ(Run("loadObject('state')"), "\"old\"");
}

TEST_F(ObjectStorageTest, LeavesNoDescriptorOpen) {
  const auto useAll = [&] {
    Run(R"(for (var i = 0; i < 20; ++i) {
      saveObject('other', i); loadObject('other'); saveObject('other', null); loadObject('other');
      try { loadObject('state'); } catch (e) {}
      try { saveObject('n'.repeat(300), 1); } catch (e) {}
    })");
    return OpenDescriptors();
  };
  folder.Write(kState, "{");
  const std::ptrdiff_t before = useAll();
  EXPECT_EQ(useAll(), before);
  std::filesystem::remove(dir() + kState);
  std::filesystem::create_directory(dir() + kState);
  EXPECT_EQ(useAll(), before);
}

}  // namespace
}  // namespace vnjs::testing
