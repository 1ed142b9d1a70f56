// Write faults: the operating system refuses an open (EACCES), runs out of space (ENOSPC), writes
// short and then nothing, or fails a close (EIO). For every writer each fault ends the run through
// the failure handler with a message that names the file and the cause: the default handler exits
// with status 2 after printing it on standard error, and a host's handler that throws gets control
// back with the library usable (the same call, repeated once the fault is gone, writes the file
// whole). The zelm tool never leaves a half-written output under the requested name.
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "gridgen.hpp"
#include "records.hpp"
#include "tecplotgrids.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::char25;
using fortran::char40;
using fortran::farray;
using fortran::index_t;

namespace {

// ---- injected faults --------------------------------------------------------------------------

enum class fault { openaccess, nospace, shortwrite, closeio };
const char* faultname(fault f) {
  switch (f) {
    case fault::openaccess: return "OpenRefused";
    case fault::nospace: return "NoSpace";
    case fault::shortwrite: return "ShortWriteThenFull";
    case fault::closeio: return "CloseFails";
  }
  return "";
}
// What the message says about the cause.
const char* causetext(fault f) {
  switch (f) {
    case fault::openaccess: return "Permission denied";
    case fault::nospace:
    case fault::shortwrite: return "No space left on device";
    case fault::closeio: return "Input/output error";
  }
  return "";
}
const char* actiontext(fault f) {
  switch (f) {
    case fault::openaccess: return "cannot open";
    case fault::nospace:
    case fault::shortwrite: return "cannot write";
    case fault::closeio: return "cannot close";
  }
  return "";
}

std::size_t writebudget = 0;  // short writes: bytes the "disk" still takes

int refuseopen(const char*, int, int) {
  errno = EACCES;
  return -1;
}
long nospace(int, const void*, std::size_t) {
  errno = ENOSPC;
  return -1;
}
long nospacep(int, const void*, std::size_t, std::int64_t) {
  errno = ENOSPC;
  return -1;
}
// Writes at most 7 bytes a call until the budget is spent, then nothing (a disk filling up).
long shortwrite(int fd, const void* b, std::size_t n) {
  const std::size_t take = std::min({n, std::size_t{7}, writebudget});
  if (take == 0) return 0;
  writebudget -= take;
  return io::realsys().write(fd, b, take);
}
int closeio(int fd) {
  io::realsys().close(fd);
  errno = EIO;
  return -1;
}

void inject(fault f) {
  io::sysapi& s = io::sys();
  switch (f) {
    case fault::openaccess: s.open = refuseopen; break;
    case fault::nospace:
      s.write = nospace;
      s.pwrite = nospacep;
      break;
    case fault::shortwrite:
      writebudget = 10;
      s.write = shortwrite;
      break;
    case fault::closeio: s.close = closeio; break;
  }
}
void heal() {
  io::sys() = io::realsys();
}

int openfds() {
  int n = 0;
  if (DIR* d = ::opendir("/proc/self/fd")) {
    while (::readdir(d) != nullptr) ++n;
    ::closedir(d);
  }
  return n;
}

// ---- the writers, each as a host calls it (closing what the routine leaves open) ---------------

struct writercase {
  const char* name;
  const char* file;
  int unit;
  std::function<void(const std::string&)> write;
  std::function<std::string(const std::string&)> readback;  // what the file holds, as the library reads it
};

zelmgen::grid gridof() {
  return zelmgen::quadtri(3, 2, false, 1);
}

farray<float, 2> valuesof(int rows, index_t cols) {
  farray<float, 2> a;
  (void)a.allocate(rows, cols);
  for (index_t i = 0; i < a.size(); ++i) a.data()[i] = static_cast<float>(i) * 0.5f;
  return a;
}
farray<int, 1> countsof(std::initializer_list<int> n) {
  farray<int, 1> a;
  (void)a.allocate(static_cast<index_t>(n.size()));
  index_t i = 1;
  for (int v : n) a(i++) = v;
  return a;
}
std::string dump(const farray<float, 2>& a) {
  std::string s = std::to_string(a.extent(1)) + "x" + std::to_string(a.extent(2)) + ":";
  for (index_t i = 0; i < a.size(); ++i) s += " " + std::to_string(a.data()[i]);
  return s;
}

std::vector<writercase> writers() {
  std::vector<writercase> w;
  w.push_back({"GridWriter", "w.unf", 4,
               [](const std::string& f) {
                 auto g = gridof();
                 writezelmgrid(char40(f), unformatted, 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz,
                               g.nfacesz, g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
                 io::close(4);
               },
               [](const std::string& f) {
                 int ndim = 0, nzones = 0, aux = 0;
                 farray<float, 2> x;
                 farray<int, 1> a, b, c, d, e, npf;
                 farray<int, 2> ifnode, ifcell;
                 readzelmgrid(char40(f), unformatted, 0, ndim, nzones, aux, x, a, b, c, d, e, npf, ifnode,
                              ifcell, 1);
                 return dump(x) + " faces " + std::to_string(npf.extent(1));
               }});
  w.push_back({"RestartWriter", "w.rst", 16,
               [](const std::string& f) {
                 mod_gridvars::numrstrtvar = 2;
                 const auto n = countsof({4, 3});
                 writezelmrstrtfile(char40(f), formatted, 0, 2, n, valuesof(2, 7));
               },
               [](const std::string& f) {
                 mod_gridvars::numrstrtvar = 2;
                 mod_gridvars::readallvars = 1;
                 const auto n = countsof({4, 3});
                 farray<float, 2> q;
                 readzelmrstrtfile(char40(f), formatted, 0, 2, n, q);
                 return dump(q);
               }});
  w.push_back({"RestartNextVariableWriter", "w.rsn", 16,
               [](const std::string& f) {
                 const auto n = countsof({4, 3});
                 const auto q = valuesof(1, 7);
                 for (int v = 1; v <= 2; ++v) writenextzelmrstrtvar(v, char40(f), binary, 1, 2, n, q);
                 io::close(16);
               },
               [](const std::string& f) {
                 mod_gridvars::numrstrtvar = 2;
                 mod_gridvars::readallvars = 1;
                 const auto n = countsof({4, 3});
                 farray<float, 2> q;
                 readzelmrstrtfile(char40(f), binary, 1, 2, n, q);
                 return dump(q);
               }});
  w.push_back({"PixWriter", "w.pix", 14,
               [](const std::string& f) {
                 mod_gridvars::npixvar = 7;
                 mod_zelmgrid::nfree = 1;
                 strfree(1) = char25("entropy");
                 const auto n = countsof({5});
                 writezelmpixfile(char40(f), unformatted, 1, 1, n, valuesof(7, 5));
               },
               [](const std::string& f) {
                 mod_gridvars::readallvars = 1;
                 const auto n = countsof({5});
                 farray<float, 2> p;
                 readzelmpixfile(char40(f), unformatted, 1, 1, n, p);
                 return dump(p) + " " + std::string(strfree(1).view());
               }});
  w.push_back({"PixNextVariableWriter", "w.pxn", 14,
               [](const std::string& f) {
                 const auto n = countsof({5});
                 const auto p = valuesof(1, 5);
                 for (int v = 1; v <= 6; ++v) writenextzelmpixvar(v, char40(f), formatted, 0, 1, n, p);
                 io::close(14);
               },
               [](const std::string& f) {
                 mod_gridvars::readallvars = 1;
                 const auto n = countsof({5});
                 farray<float, 2> p;
                 readzelmpixfile(char40(f), formatted, 0, 1, n, p);
                 return dump(p);
               }});
  w.push_back({"TecplotExport", "w.plt", 10,
               [](const std::string& f) {
                 mod_gridvars::npixvar = 6;
                 mod_gridvars::numrstrtvar = 6;
                 auto g = tt::build(2, {tt::quadstrip()});
                 g.write(char40(f));
               },
               [](const std::string& f) { return zt::readfile(f); }});
  return w;
}

struct faultcase {
  std::size_t writer;
  fault f;
};

class writefaults : public zt::zelmtest, public ::testing::WithParamInterface<faultcase> {
 protected:
  void TearDown() override {
    heal();
    zt::zelmtest::TearDown();
  }
  writercase w = writers()[GetParam().writer];
  fault f = GetParam().f;
  std::string expected() const { return std::string(actiontext(f)) + " \"" + w.file + "\""; }
};

// A host whose handler throws gets control back; the unit is closed, no descriptor is left open,
// and the same call writes the whole file once the fault is gone.
TEST_P(writefaults, HostHandlerGetsControlBackAndTheNextCallWorks) {
  // The file as a run without faults writes it, and what the library reads from it.
  io::setstdout(nullptr);  // progress lines are not what this test is about
  w.write(std::string("ref-") + w.file);
  const std::string reference = zt::readfile(std::string("ref-") + w.file);
  mod_zelmgrid::resetstate();
  io::setstdout(nullptr);

  const int fds = openfds();
  inject(f);
  std::string message;
  try {
    w.write(w.file);
  } catch (const zt::iofailure& e) {
    message = e.what();
  }
  heal();
  ASSERT_FALSE(message.empty()) << "the fault went unnoticed";
  EXPECT_NE(message.find(expected()), std::string::npos) << message;
  EXPECT_NE(message.find(causetext(f)), std::string::npos) << message;
  EXPECT_NE(message.find("unit " + std::to_string(w.unit)), std::string::npos) << message;
  EXPECT_FALSE(io::isconnected(w.unit));
  EXPECT_EQ(openfds(), fds) << "a descriptor was left open";

  // The next call works and writes the same bytes as the run without faults.
  w.write(w.file);
  EXPECT_EQ(zt::readfile(w.file), reference);
  const std::string back = w.readback(w.file);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(back, w.readback(std::string("ref-") + w.file));
}

// With the default handler the run ends with status 2 and the message on standard error.
TEST_P(writefaults, DefaultHandlerEndsTheRunWithStatusTwo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string pattern =
      "zelmgrid: I/O error: " + std::string(actiontext(f)) + " \"" + w.file + "\".*" + causetext(f);
  EXPECT_EXIT(
      {
        io::setfailurehandler(nullptr);
        io::setstophandler(nullptr);
        io::setstdout(nullptr);
        inject(f);
        w.write(w.file);
        std::exit(0);
      },
      ::testing::ExitedWithCode(2), pattern);
}

std::vector<faultcase> allcases() {
  std::vector<faultcase> v;
  for (std::size_t w = 0; w < writers().size(); ++w)
    for (fault f : {fault::openaccess, fault::nospace, fault::shortwrite, fault::closeio})
      v.push_back({w, f});
  return v;
}

INSTANTIATE_TEST_SUITE_P(every, writefaults, ::testing::ValuesIn(allcases()),
                         [](const ::testing::TestParamInfo<faultcase>& i) {
                           return std::string(writers()[i.param.writer].name) + "_" + faultname(i.param.f);
                         });

}  // namespace
