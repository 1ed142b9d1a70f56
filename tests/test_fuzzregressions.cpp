// Replays, through the fuzz targets' own entry points, every input saved under tests/fuzz/regressions
// (each a crash, hang, leak or sanitizer report that a campaign found and that is now fixed) and
// the seed inputs that the library's writers produce. Runs in the default and the sanitizer builds.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fuzzentries.hpp"
#include "seeds.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"

namespace fs = std::filesystem;

namespace {

const fs::path regressions = fs::path(ZELM_SOURCE_DIR) / "tests" / "fuzz" / "regressions";

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void replay(const zelmfuzz::entry& e, const std::string& input) {
  e.run(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

class fuzzreplay : public ::testing::TestWithParam<std::string> {
 protected:
  void TearDown() override {
    mod_zelmgrid::resetstate();
    mod_zelmgrid::io::setfailurehandler(nullptr);
    mod_zelmgrid::io::setstophandler(nullptr);
    fortran::allocationlimit = SIZE_MAX;
  }
};

}  // namespace

TEST(fuzzregressions, EveryDirectoryNamesATarget) {
  ASSERT_TRUE(fs::is_directory(regressions));
  int files = 0;
  for (const auto& dir : fs::directory_iterator(regressions)) {
    if (!dir.is_directory()) continue;
    EXPECT_NE(zelmfuzz::findentry(dir.path().filename().string()), nullptr) << dir.path();
    for (const auto& f : fs::directory_iterator(dir.path())) files += f.is_regular_file();
  }
  EXPECT_GT(files, 0);
}

TEST_P(fuzzreplay, SavedInputsRunToTheEndQuickly) {
  const zelmfuzz::entry* e = zelmfuzz::findentry(GetParam());
  ASSERT_NE(e, nullptr);
  const fs::path dir = regressions / GetParam();
  if (!fs::is_directory(dir)) GTEST_SKIP() << "no saved inputs for " << GetParam();
  for (const auto& f : fs::directory_iterator(dir)) {
    SCOPED_TRACE(f.path().string());
    const auto t0 = std::chrono::steady_clock::now();
    replay(*e, slurp(f.path()));  // a crash, sanitizer report or failed account check aborts
    const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(seconds, 5.0) << "an input that once hung the reader";
  }
}

TEST_P(fuzzreplay, SeedsReadBackWithoutAFailure) {
  const zelmfuzz::entry* e = zelmfuzz::findentry(GetParam());
  ASSERT_NE(e, nullptr);
  const auto seeds = zelmfuzz::seeds(GetParam());
  ASSERT_FALSE(seeds.empty());
  for (const auto& [name, input] : seeds) {
    SCOPED_TRACE(name);
    replay(*e, input);
  }
}

INSTANTIATE_TEST_SUITE_P(targets, fuzzreplay,
                         ::testing::Values("gridheader", "grid", "restart", "pix", "listdirected"));
