// The zelm tool under write faults: a conversion that cannot be written whole (the file size limit
// of the process stands in for a full disk; a missing folder for a refused open) is an error of the
// environment: it ends with status 2 and a message naming the requested output, and leaves nothing under that
// name - neither a half-written file nor a temporary beside it - and an existing output as it was.
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "gridgen.hpp"
#include "testsupport.hpp"

namespace fs = std::filesystem;
using namespace mod_zelmgrid;
using fortran::char40;

namespace {

const std::string zelm = std::string(ZELM_BINARY_DIR) + "/tools/zelm";

struct result {
  int status = -1;
  std::string output;
};

// Runs a shell command line (stderr joined to stdout) and returns its exit status and output.
result sh(const std::string& line) {
  result r;
  std::FILE* p = ::popen(("bash -c '" + line + "' 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
  const int st = ::pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

// A limit of 8 KiB on the size of any file the command writes, with the signal that would kill it
// ignored, so that its writes fail with EFBIG as on a full disk.
std::string limited(const std::string& command) {
  return "trap \"\" XFSZ; ulimit -f 8; exec " + command;
}

class zelmfaults : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    io::setstdout(nullptr);
    auto g = zelmgen::quadtri(20, 20, false, 1);  // about 40 KiB as text
    writezelmgrid(char40("in.unf"), unformatted, 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz,
                  g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
    io::close(4);
  }
  bool leftovers() const {
    for (const auto& e : fs::directory_iterator(dir_))
      if (e.path().filename().string().find(".zelm-") != std::string::npos) return true;
    return false;
  }
};

TEST_F(zelmfaults, ConvertOnAFullDiskLeavesNoOutputAndNoTemporary) {
  const result r = sh(limited(zelm + " convert in.unf out.txt --encoding formatted --precision double"));
  EXPECT_EQ(r.status, 2) << r.output;
  EXPECT_NE(r.output.find("zelm: cannot write \"out.txt\" (left as it was): "), std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("File too large"), std::string::npos) << r.output;
  EXPECT_FALSE(fs::exists("out.txt"));
  EXPECT_FALSE(leftovers());
}

TEST_F(zelmfaults, ConvertOnAFullDiskKeepsTheExistingOutput) {
  zt::writefile("out.txt", "the previous conversion\n");
  const result r =
      sh(limited(zelm + " convert in.unf out.txt --encoding formatted --precision double --force"));
  EXPECT_EQ(r.status, 2) << r.output;
  EXPECT_EQ(zt::readfile("out.txt"), "the previous conversion\n");
  EXPECT_FALSE(leftovers());
}

TEST_F(zelmfaults, ConvertIntoAMissingFolderFailsWithoutAnOutput) {
  const result r = sh(zelm + " convert in.unf nowhere/out.bin --encoding binary --precision single");
  EXPECT_EQ(r.status, 2) << r.output;
  EXPECT_NE(r.output.find("cannot write \"nowhere/out.bin\""), std::string::npos) << r.output;
  EXPECT_FALSE(fs::exists("nowhere"));
}

TEST_F(zelmfaults, ConvertWithoutTheFaultWritesTheWholeFile) {
  ASSERT_EQ(sh(limited(zelm + " convert in.unf out.txt --encoding formatted --precision double")).status, 2);
  const result r = sh(zelm + " convert in.unf out.txt --encoding formatted --precision double");
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_FALSE(leftovers());
  // The text grid reads back whole through the library's reader.
  const result back = sh(zelm + " info out.txt");
  EXPECT_EQ(back.status, 0) << back.output;
  EXPECT_NE(back.output.find("grid"), std::string::npos) << back.output;
}

}  // namespace
