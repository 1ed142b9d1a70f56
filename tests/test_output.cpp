// The zelm command's output sets: a set whose commit fails part-way leaves every destination as
// it was, and no temporary or second name behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli.hpp"
#include "output.hpp"

namespace fs = std::filesystem;
using zelmtool::outputset;

namespace {

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> names(const fs::path& dir) {
  std::vector<std::string> v;
  for (const auto& e : fs::directory_iterator(dir)) v.push_back(e.path().filename().string());
  std::sort(v.begin(), v.end());
  return v;
}

class outputsets : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("zelm-outputs-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    saved = zelmtool::committingrename();
  }
  void TearDown() override {
    zelmtool::committingrename() = saved;
    fs::remove_all(dir);
  }
  std::string at(const char* leaf) const { return (dir / leaf).string(); }
  fs::path dir;
  zelmtool::renamecall saved = nullptr;
};

int renames = 0;
int failingthird(const char* from, const char* to, bool replace) {
  if (++renames == 3) {
    errno = EIO;
    return -1;
  }
  return replace ? std::rename(from, to) : (fs::exists(to) ? -1 : std::rename(from, to));
}

TEST_F(outputsets, AFailedRenameLaterInTheSetPutsBackTheFilesBeforeIt) {
  put(at("b"), "old b");
  put(at("c"), "old c");
  zelmtool::committingrename() = failingthird;
  renames = 0;
  try {
    outputset set(outputset::existing::replace);
    for (const char* leaf : {"a", "b", "c"}) put(set.add(at(leaf)), std::string("new ") + leaf);
    set.commit();
    FAIL() << "the commit went through";
  } catch (const zelmtool::failure& f) {
    EXPECT_EQ(f.status, zelmtool::status::environment);
    EXPECT_NE(f.message.find("every output was left as it was"), std::string::npos) << f.message;
  }
  EXPECT_EQ(renames, 3);
  EXPECT_EQ(names(dir), (std::vector<std::string>{"b", "c"}));  // "a" did not exist before
  EXPECT_EQ(slurp(at("b")), "old b");
  EXPECT_EQ(slurp(at("c")), "old c");
}

TEST_F(outputsets, ACommittedSetReplacesEveryFileAndLeavesNothingElse) {
  put(at("b"), "old b");
  outputset set(outputset::existing::replace);
  for (const char* leaf : {"a", "b"}) put(set.add(at(leaf)), std::string("new ") + leaf);
  set.commit();
  EXPECT_EQ(names(dir), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(slurp(at("a")), "new a");
  EXPECT_EQ(slurp(at("b")), "new b");
}

TEST_F(outputsets, ASetNotCommittedRemovesItsTemporaries) {
  put(at("b"), "old b");
  {
    outputset set(outputset::existing::replace);
    for (const char* leaf : {"a", "b"}) put(set.add(at(leaf)), "half");
    EXPECT_EQ(names(dir).size(), 3u);
  }
  EXPECT_EQ(names(dir), (std::vector<std::string>{"b"}));
  EXPECT_EQ(slurp(at("b")), "old b");
}

TEST_F(outputsets, AFileThatAppearsWhileTheSetIsWrittenIsNotReplacedWithoutForce) {
  outputset set(outputset::existing::refuse);
  put(set.add(at("a")), "new a");
  put(at("a"), "someone else's");
  EXPECT_THROW(set.commit(), zelmtool::failure);
  EXPECT_EQ(slurp(at("a")), "someone else's");
}

}  // namespace
