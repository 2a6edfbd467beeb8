// The simulator's JSON reader/writer and its atomic state-file writer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "json.h"
#include "statefile.h"

using tqsim::Json;

namespace {

// Input text -> the compact text it is written back as.
TEST(Json, RoundTrips) {
  struct Row {
    std::string in, out;
  } rows[] = {
      {" {\"b\" : [true,false,null] ,\"a\":{}}\r\n", R"({"b":[true,false,null],"a":{}})"},
      {"[0,-0,1,-1,4294967295,-2147483648]", "[0,0,1,-1,4294967295,-2147483648]"},
      {"[18446744073709551615,-9223372036854775808]", "[18446744073709551615,-9223372036854775808]"},
      {"[1.5,1E2,-2.5e-3,1.0]", "[1.5,100.0,-0.0025,1.0]"},
      {R"("\"\\\/\b\f\n\r\t\u0000\u001F")", R"("\"\\/\u0008\u000c\u000a\u000d\u0009\u0000\u001f")"},
      {R"(["\u00e9\u20AC","\ud83d\ude00","é"])", "[\"\xc3\xa9\xe2\x82\xac\",\"\xf0\x9f\x98\x80\",\"é\"]"},
      {"\"\xff\x80\x7f\"", "\"\xff\x80\x7f\""},
      {"[[],[[{}]]]", "[[],[[{}]]]"},
  };
  for (const auto &r : rows) {
    Json v, again;
    std::string why;
    ASSERT_TRUE(tqsim::parse(r.in, v, why)) << r.in << ": " << why;
    EXPECT_EQ(tqsim::dump(v, false), r.out) << r.in;
    ASSERT_TRUE(tqsim::parse(tqsim::dump(v, true), again, why)) << why;
    EXPECT_EQ(again, v) << tqsim::dump(v, true);
  }
}

// Bad input -> the start of the reason (with its place).
TEST(Json, RefusesBadInput) {
  struct Row {
    std::string in, why;
  } rows[] = {
      {"", "line 1, column 1: unexpected end of input, expected a value"},
      {"{\n  \"a\": 1,\n  \"b\" 2}", "line 3, column 7: expected ':'"},
      {R"({"a":1 "b":2})", "line 1, column 8: expected ',' or '}'"},
      {"[1 2]", "line 1, column 4: expected ',' or ']'"},
      {"[1,]", "line 1, column 4: expected a value"},
      {"{,}", "line 1, column 2: expected a string key"},
      {"{1:2}", "line 1, column 2: expected a string key"},
      {R"({"a":1,"a":2})", "line 1, column 8: duplicate key \"a\""},
      {"[1] x", "line 1, column 5: unexpected text after the value"},
      {"'a'", "expected a value"},
      {"tru", "line 1, column 1: invalid literal"},
      {"nulL", "invalid literal"},
      {"[01]", "line 1, column 2: invalid number (leading zero)"},
      {"-", "unexpected end of input, invalid number"},
      {"1.", "invalid number"},
      {"1e+", "invalid number"},
      {"+1", "expected a value"},
      {"18446744073709551616", "line 1, column 1: integer out of range"},
      {"-9223372036854775809", "integer out of range"},
      {"1e999", "number out of range"},
      {"\"a\tb\"", "line 1, column 3: control character in string"},
      {R"("\q")", "line 1, column 2: invalid escape"},
      {R"("\u12G4")", "invalid \\u escape"},
      {R"("\udc00")", "line 1, column 2: unpaired surrogate"},
      {R"("\ud800")", "unpaired surrogate"},
      {R"("\ud800\u0041")", "unpaired surrogate"},
      {"\"abc", "unexpected end of input, unterminated string"},
      {"\"abc\\", "unterminated string"},
      {"\xef\xbb\xbf{}", "expected a value"},
  };
  for (const auto &r : rows) {
    Json v = 7;
    std::string why;
    EXPECT_FALSE(tqsim::parse(r.in, v, why)) << r.in;
    EXPECT_NE(why.find(r.why), std::string::npos) << r.in << " -> " << why;
    EXPECT_TRUE(v.is_null()) << r.in;
  }
}

TEST(Json, BuiltValueSurvivesAndReadsBackTyped) {
  Json v;
  v["u32"] = std::numeric_limits<uint32_t>::max();
  v["i32"] = std::numeric_limits<int32_t>::min();
  v["u64"] = std::numeric_limits<uint64_t>::max();
  v["text"] = "q\"b\\s/\x01\x1f\n\x7f é \xff";
  v["list"].push_back(true);
  v["list"].push_back(Json::object());
  v["list"].push_back(-1);
  for (const bool pretty : {true, false}) {
    Json back;
    std::string why;
    ASSERT_TRUE(tqsim::parse(tqsim::dump(v, pretty), back, why)) << why;
    EXPECT_EQ(back, v);
  }
  EXPECT_EQ(v.find("u32")->as_u32(), std::numeric_limits<uint32_t>::max());
  EXPECT_EQ(v.find("u32")->as_i32(), std::nullopt);
  EXPECT_EQ(v.find("i32")->as_i32(), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(v.find("i32")->as_u64(), std::nullopt);
  EXPECT_EQ(v.find("u64")->as_i64(), std::nullopt);
  EXPECT_EQ(v.find("text")->as_u32(), std::nullopt);
  EXPECT_EQ(v.find("missing"), nullptr);
  EXPECT_EQ(v.find("list")->find("x"), nullptr);
  EXPECT_EQ(std::vector<std::string>({"u32", "i32", "u64", "text", "list"}),
            [&] {
              std::vector<std::string> keys;
              for (const auto &m : *v.as_object()) keys.push_back(m.first);
              return keys;
            }());
}

TEST(Json, NestingIsLimited) {
  const auto nested = [](int n) { return std::string(n, '[') + std::string(n, ']'); };
  Json v;
  std::string why;
  EXPECT_TRUE(tqsim::parse(nested(tqsim::kJsonMaxDepth), v, why)) << why;
  EXPECT_FALSE(tqsim::parse(nested(tqsim::kJsonMaxDepth + 1), v, why));
  EXPECT_EQ(why, "line 1, column 65: nesting deeper than 64 levels");
  EXPECT_FALSE(tqsim::parse(std::string(1'000'000, '{'), v, why));
}

TEST(Json, EveryCutOfADocumentFails) {
  const std::string doc =
      R"({"rules": [{"id": 4294967295, "name": "a\"\u00e9\ud83d\ude00", "on": true,)"
      R"( "n": null, "x": -12, "r": 2.5e1}]})";
  Json v;
  std::string why;
  ASSERT_TRUE(tqsim::parse(doc, v, why)) << why;
  for (std::size_t n = 0; n < doc.size(); ++n) {
    EXPECT_FALSE(tqsim::parse(std::string_view(doc).substr(0, n), v, why)) << n;
    EXPECT_EQ(why.rfind("line 1, column ", 0), 0u) << n << ": " << why;
  }
}

class StateFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/json_test.XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir_)) names.push_back(e.path().filename());
    return names;
  }
  std::string dir_;
};

TEST_F(StateFile, SaveReplacesAndLeavesNoTemporary) {
  const std::string path = dir_ + "/state.json";
  std::string got, why;
  bool missing = false;
  ASSERT_TRUE(tqsim::load_file(path, got, missing, why)) << why;
  EXPECT_TRUE(missing);
  ASSERT_TRUE(tqsim::save_atomically(path, "first, and longer", why)) << why;
  ASSERT_TRUE(tqsim::save_atomically(path, "second", why)) << why;
  ASSERT_TRUE(tqsim::load_file(path, got, missing, why)) << why;
  EXPECT_FALSE(missing);
  EXPECT_EQ(got, "second");
  EXPECT_EQ(entries(), std::vector<std::string>{"state.json"});
}

TEST_F(StateFile, FailuresSayWhy) {
  std::string got, why;
  bool missing = false;
  EXPECT_FALSE(tqsim::save_atomically(dir_ + "/no/state.json", "x", why));
  EXPECT_EQ(why.rfind("cannot create " + dir_ + "/no/state.json.tmp.", 0), 0u) << why;
  EXPECT_NE(why.find("No such file or directory"), std::string::npos) << why;
  // A directory where the file should be: written, but the rename fails.
  ASSERT_EQ(::mkdir((dir_ + "/busy").c_str(), 0700), 0);
  EXPECT_FALSE(tqsim::save_atomically(dir_ + "/busy", "x", why));
  EXPECT_EQ(why.rfind("cannot rename ", 0), 0u) << why;
  EXPECT_EQ(entries(), std::vector<std::string>{"busy"});
  EXPECT_FALSE(tqsim::load_file(dir_ + "/busy", got, missing, why));
  EXPECT_NE(why.find("busy: Is a directory"), std::string::npos) << why;
}

}  // namespace
