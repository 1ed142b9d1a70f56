// A framed record of more than 2 GiB, written and read back with the default largest sub-record
// of 2147483639 bytes (2 GiB - 9): it is split into a sub-record of that length and one of the
// rest. The markers sit where gfortran's documentation of unformatted sequential files puts them:
// the absolute value of each marker is the sub-record's data length; a negative leading marker
// says that another sub-record follows, a negative trailing marker that one precedes.
#include <fcntl.h>
#include <unistd.h>

#include "records.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;
using io::rstat;

namespace {

class largerecord : public zt::zelmtest {};

constexpr std::int64_t maxsub = 2147483639;
constexpr std::int64_t count = 536870914;  // 4-byte items: 2147483656 bytes, 17 past the split
constexpr std::int64_t bytes = count * 4;

std::int32_t pattern(std::int64_t i) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(i) * 2654435761u);
}

std::int32_t wordat(int fd, std::int64_t offset) {
  std::int32_t v = 0;
  EXPECT_EQ(::pread(fd, &v, 4, offset), 4) << offset;
  return v;
}

// Removes the file however the test ends: it is 2 GiB.
struct removefile {
  std::filesystem::path p;
  ~removefile() { std::filesystem::remove(p); }
};

}  // namespace

TEST_F(largerecord, ARecordOverTwoGibIsSplitAtTheDefaultSubrecordLength) {
  ASSERT_EQ(io::maxsubrecord(), maxsub);
  ASSERT_GT(bytes, maxsub);
  const removefile cleanup{path("big.dat")};

  fortran::farray<std::int32_t, 1> a;
  ASSERT_EQ(a.allocate(count), 0);
  std::int32_t* p = a.data();
  for (std::int64_t i = 0; i < count; ++i) p[i] = pattern(i);

  constexpr int u = 31;
  io::open(u, "big.dat", "unformatted", "unknown");
  io::rawwrite(io::getunit(u), 7);
  io::rawwrite(io::getunit(u), io::items(p, count));
  io::rawwrite(io::getunit(u), 9);
  io::close(u);

  // Record 1 (12 bytes), record 2 in two sub-records, record 3 (12 bytes).
  const std::int64_t lead1 = 12;
  const std::int64_t trail1 = lead1 + 4 + maxsub;
  const std::int64_t lead2 = trail1 + 4;
  const std::int64_t rest = bytes - maxsub;
  const std::int64_t trail2 = lead2 + 4 + rest;
  ASSERT_EQ(std::filesystem::file_size("big.dat"), static_cast<std::uintmax_t>(trail2 + 4 + 12));
  const int fd = ::open("big.dat", O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(wordat(fd, 0), 4);
  EXPECT_EQ(wordat(fd, 8), 4);
  EXPECT_EQ(wordat(fd, lead1), -maxsub);  // data follow in a further sub-record
  EXPECT_EQ(wordat(fd, trail1), maxsub);  // the first sub-record: nothing precedes it
  EXPECT_EQ(wordat(fd, lead2), rest);     // the last sub-record
  EXPECT_EQ(rest, 17);
  EXPECT_EQ(wordat(fd, trail2), -rest);  // a sub-record precedes it
  EXPECT_EQ(wordat(fd, trail2 + 4), 4);
  EXPECT_EQ(wordat(fd, trail2 + 8), 9);
  // The item that straddles the split: 3 bytes before it, 1 after.
  const std::int64_t straddle = maxsub / 4;
  const std::int32_t expect = pattern(straddle);
  char got[4];
  ASSERT_EQ(::pread(fd, got, 3, trail1 - 3), 3);
  ASSERT_EQ(::pread(fd, got + 3, 1, lead2 + 4), 1);
  EXPECT_EQ(std::memcmp(got, &expect, 4), 0);
  ::close(fd);

  // Read back whole, into a second array.
  fortran::farray<std::int32_t, 1> b;
  ASSERT_EQ(b.allocate(count), 0);
  std::memset(b.data(), 0, static_cast<std::size_t>(bytes));
  io::open(u, "big.dat", "unformatted", "old");
  auto& in = io::getunit(u);
  int first = 0, last = 0;
  EXPECT_EQ(io::rawread(in, first), rstat::ok);
  EXPECT_EQ(io::rawread(in, io::items(b.data(), count)), rstat::ok) << io::lastreaderror();
  EXPECT_EQ(io::rawread(in, last), rstat::ok);
  EXPECT_EQ(first, 7);
  EXPECT_EQ(last, 9);
  EXPECT_EQ(std::memcmp(a.data(), b.data(), static_cast<std::size_t>(bytes)), 0);
  EXPECT_EQ(b(straddle + 1), expect);
  EXPECT_EQ(b(count), pattern(count - 1));

  // Read in part: the rest of both sub-records is skipped.
  io::rewind(u);
  int head[2] = {};
  EXPECT_EQ(io::rawread(in, first), rstat::ok);
  EXPECT_EQ(io::rawread(in, io::items(head, 2)), rstat::ok);
  last = 0;
  EXPECT_EQ(io::rawread(in, last), rstat::ok) << io::lastreaderror();
  EXPECT_EQ(head[1], pattern(1));
  EXPECT_EQ(last, 9);
  EXPECT_EQ(io::rawread(in, last), rstat::end);
  io::close(u);
}
