#include "input/input_list.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/scratch_directory.h"

namespace quilmrun {
namespace {

using Strings = std::vector<std::string>;

Strings ReadListWith(const std::string& directory, const std::string& text) {
  const std::string path = directory + "/list.txt";
  std::ofstream(path, std::ios::binary) << text;
  return ReadInputList(path);
}

TEST(ReadInputList, PutsTheDirectoryIntoEveryEntry) {
  const ScratchDirectory directory;
  const std::string& d = directory.Path();
  const std::pair<const char*, Strings> rows[] = {
      {"", {}},
      {"\n\n", {}},
      {"a.bin", {d + "/a.bin"}},
      {"a.bin\n", {d + "/a.bin"}},
      {"a.bin\n\n\nsub/b.bin\n", {d + "/a.bin", d + "/sub/b.bin"}},
      {"/x.bin", {d + "//x.bin"}},
      {"in1:c.bin", {"in1:" + d + "/c.bin"}},
      {":c.bin", {d + "/:c.bin"}},
      {"c.bin:", {d + "/c.bin:"}},
      {":", {d + "/:"}},
      {"x:y:z.bin", {"x:" + d + "/y:z.bin"}},
      {"x::z.bin", {"x:" + d + "/:z.bin"}},
      {"a.bin\r\n", {d + "/a.bin\r"}},
      {" a.bin \n#b\n", {d + "/ a.bin ", d + "/#b"}},
  };
  for (const auto& [text, entries] : rows) {
    EXPECT_EQ(ReadListWith(d, text), entries) << text;
  }
}

// The text is read in chunks. These lines end at the end of one, lie across two, or span several.
TEST(ReadInputList, TakesLinesOfAnyLength) {
  const ScratchDirectory directory;
  const std::string& d = directory.Path();
  std::string text;
  Strings entries;
  for (const size_t length : std::initializer_list<size_t>{3, 65532, 65535, 65536, 1, 200000, 7}) {
    const std::string line(length, static_cast<char>('a' + entries.size()));
    text += line + "\n";
    entries.emplace_back(d).append("/").append(line);
    EXPECT_EQ(ReadListWith(d, text), entries);
    EXPECT_EQ(ReadListWith(d, text.substr(0, text.size() - 1)), entries) << "no final newline";
  }
}

TEST(SplitString, KeepsEmptyItemsExceptAfterAFinalComma) {
  const std::pair<const char*, Strings> rows[] = {
      {"", {}},
      {"a", {"a"}},
      {"a,b", {"a", "b"}},
      {"a,,b", {"a", "", "b"}},
      {"a,", {"a"}},
      {",a", {"", "a"}},
      {",", {""}},
      {"a,,", {"a", ""}},
      {" a , b", {" a ", " b"}},
  };
  for (const auto& [text, items] : rows) {
    EXPECT_EQ(SplitString(text), items) << text;
  }
}

TEST(GroupInputsByName, SortsWithinBlocksOrLeavesTheListAlone) {
  struct Row {
    Strings names;
    Strings before;
    Strings after;
  };
  const Row rows[] = {
      {{"x", "y"}, {"y:D/b", "x:D/a", "y:D/d", "x:D/c"}, {"D/a", "D/b", "D/c", "D/d"}},
      {{"x", "y", "z"}, {"z:3", "x:1", "y:2:2"}, {"1", "2:2", "3"}},
      {{"x"}, {"x:b", "x:a"}, {"b", "a"}},
      {{"x", "y"}, {}, {}},
      {{}, {"x:a"}, {"x:a"}},
      {{"x", "y"}, {"x:a", "y:b", "x:c"}, {"x:a", "y:b", "x:c"}},
      {{"x", "y"}, {"x:a", "b"}, {"x:a", "b"}},
      {{"x", "y"}, {"x:a", "z:b"}, {"x:a", "z:b"}},
      {{"x", "y"}, {"y:b", "X:a"}, {"y:b", "X:a"}},
      {{"x", "x"}, {"x:a", "x:a"}, {"a", "a"}},
      // When a name occurs twice, its later position counts.
      {{"x", "y", "x"}, {"x:a", "y:b", "y:b"}, {"b", "b", "a"}},
      // A model with an RPN input "r": entries are sorted in pairs and then used one by one.
      {{"x", "r"}, {"r:b", "x:a"}, {"a", "b"}},
  };
  for (const Row& row : rows) {
    Strings entries = row.before;
    GroupInputsByName(entries, row.names);
    EXPECT_EQ(entries, row.after) << testing::PrintToString(row.before);
  }
}

}  // namespace
}  // namespace quilmrun
