// Values without an engine: numbers that lose digits, text that changes on its way through JSON, copies that are not
// independent, nesting that overflows the stack.
#include <gtest/gtest.h>
#include <vnjs/runner.h>

#include <cmath>
#include <limits>

namespace {
struct Room {
  std::string name;
  int floor;
};
}  // namespace

template <>
struct vnjs::Convert<Room> {
  static Value To(const Room& room) {
    return Value::Object().Set("name", room.name).Set("floor", room.floor);
  }
  static Room From(const Value& value) { return {value["name"].As<std::string>(), value["floor"].As<int>()}; }
};

namespace vnjs::testing {
namespace {

template <typename Function>
std::string ErrorOf(Function function) {
  try {
    function();
  } catch (const ScriptError& error) {
    return error.line == 0
               ? error.message
               : error.message + '@' + std::to_string(error.line) + ':' + std::to_string(error.column);
  }
  return "nothing";
}

TEST(RunnerValueTest, NumbersAreExactOrRefused) {
  constexpr int64_t kLarge = (int64_t{1} << 53) + 1;
  EXPECT_EQ(Value(kLarge - 1).type(), Value::Type::kNumber);
  EXPECT_EQ(Value(kLarge).type(), Value::Type::kBigInt);
  EXPECT_EQ(Value(kLarge).As<int64_t>(), kLarge);
  constexpr auto kLeast = std::numeric_limits<int64_t>::min();
  EXPECT_EQ(Value(kLeast).As<int64_t>(), kLeast);
  EXPECT_EQ(Value(kLeast).Json(), "-9223372036854775808");
  EXPECT_EQ(Value(UINT64_MAX).As<uint64_t>(), UINT64_MAX);
  EXPECT_TRUE(std::signbit(Value(-0.0).As<double>()));
  EXPECT_TRUE(std::isnan(Value(std::nan("")).As<double>()));

  EXPECT_EQ(ErrorOf([] { Value(300).As<signed char>(); }), "300 is not from -128 to 127");
  EXPECT_EQ(ErrorOf([] { Value(-1).As<unsigned>(); }), "-1 is not from 0 to 4294967295");
  EXPECT_EQ(ErrorOf([] { Value(1.5).As<int>(); }), "1.5 is not an integer");
  EXPECT_EQ(ErrorOf([] { Value(std::nan("")).As<int>(); }), "NaN is not an integer");
  EXPECT_EQ(ErrorOf([] { Value(1e300).As<float>(); }),
            "1e+300 is not from -3.4028234663852886e+38 to 3.4028234663852886e+38");
  EXPECT_EQ(ErrorOf([] { Value(UINT64_MAX).As<int64_t>(); }),
            "18446744073709551615 is not from -9223372036854775808 to 9223372036854775807");
  EXPECT_EQ(ErrorOf([] { Value(1e19).As<int64_t>(); }),
            "10000000000000000000 is not from -9223372036854775808 to 9223372036854775807");
  EXPECT_EQ(ErrorOf([] { Value("1").As<double>(); }), "a string is not a number");
}

TEST(RunnerValueTest, ContainersTellWhichPartIsWrong) {
  const Value rooms = Value::FromJson(R"([{"name":"hall","floor":0},{"name":"attic","floor":"two"}])");
  EXPECT_EQ(ErrorOf([&] { rooms.As<std::vector<std::map<std::string, std::string>>>(); }),
            "[0].floor: a number is not a string");
  EXPECT_EQ(rooms[0].As<Room>().name, "hall");
  EXPECT_EQ(ErrorOf([&] { rooms.As<std::vector<Room>>(); }), "a string is not an integer");
  EXPECT_EQ(rooms[1]["floor"].Get(7), 7);
  EXPECT_STREQ(rooms[1]["floor"].Get("none").c_str(), "two");
  EXPECT_EQ(rooms[9]["x"][3].Get(2.5), 2.5);
  EXPECT_FALSE(rooms[9].As<std::optional<int>>().has_value());
  EXPECT_EQ(ErrorOf([&] { Value(rooms).Set("a", 1); }), "an array is not an object");

  // Copies share what is inside until one of them changes it.
  Value copy = rooms;
  copy.Add(copy);
  EXPECT_EQ(rooms.size(), 2U);
  EXPECT_EQ(copy[2].size(), 2U);

  Value many;
  for (int i = 0; i < 100; ++i) many.Set("n" + std::to_string(i % 50), i);
  EXPECT_EQ(many.size(), 50U);
  EXPECT_EQ(many["n49"].As<int>(), 99);
  EXPECT_EQ(many.Names()[49], "n49");
}

TEST(RunnerValueTest, JsonKeepsWhatJsonCanSay) {
  for (const std::string text :
       {R"({"b":[1,-0,1e+21,1e-7,0.000001,123456789012345680000,2.5,"x"],"a":{},"":null})",
        R"("\ud800\u0000\"\\\b\t\u001f€😀")", "18446744073709551616", "-9007199254740993",
        R"(["\udc00\ud800"])", "100000"}) {
    const Value value = Value::FromJson(text);
    // Large integers are big integers, which have all their digits.
    EXPECT_EQ(value.Json(), text);
  }
  EXPECT_EQ(Value::FromJson("9007199254740993").type(), Value::Type::kBigInt);
  EXPECT_EQ(Value::FromJson(R"("\ud83d\ude00")").As<std::string>(), "😀");
  EXPECT_EQ(Value::FromJson(R"({"a":1,"a":2})").Json(), R"({"a":2})");
  EXPECT_EQ(
      Value::Object().Set("u", Value()).Set("n", std::nan("")).Set("b", Value::Bytes("\0\xff", 2)).Json(),
      R"({"n":null,"b":[0,255]})");
  EXPECT_EQ(Value().Json(), "");

  const char* const kRefused[][2] = {
      {"", "JSON: the text ends too early@1:1"},
      {"{\n \"a\" 1}", "JSON: ':' is missing@2:6"},
      {"[1,]", "JSON: a value is missing@1:4"},
      {"01", "JSON: a number begins with 0@1:3"},
      {"1e999", "JSON: a number is too large@1:6"},
      {"\"a\nb\"", "JSON: a text has a control character@1:3"},
      {"\"\\x\"", "JSON: no such escape in a text@1:3"},
      {"1 2", "JSON: something follows the value@1:3"},
      {"\"\xff\"", "JSON: the text is not UTF-8@1:1"},
      {"nul", "JSON: a value is missing@1:1"},
  };
  for (const auto& [text, error] : kRefused)
    EXPECT_EQ(ErrorOf([t = text] { Value::FromJson(t); }), error) << text;
  EXPECT_EQ(ErrorOf([] { Value("\xed\xa0\xbd\xed\xb8\x80").Json(); }), "a text is not UTF-8");
}

TEST(RunnerValueTest, DepthIsAnErrorAndNoCrash) {
  EXPECT_EQ(ErrorOf([] { Value::FromJson(std::string(100000, '[')); }),
            "JSON: it is nested too deeply@1:1002");
  Value deep;
  for (int i = 0; i < 100000; ++i) {
    Value outer;
    outer.Add(std::move(deep));
    deep = std::move(outer);
  }
  EXPECT_EQ(ErrorOf([&] { deep.Json(); }), "a value is nested too deeply for JSON");
}

}  // namespace
}  // namespace vnjs::testing
