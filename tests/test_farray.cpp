// The array type and the fixed-length texts.
#include "testsupport.hpp"

using fortran::char40;
using fortran::farray;

TEST(farray, StartsUnallocatedAndAllocatesColumnMajorFromOne) {
  farray<int, 2> a;
  EXPECT_FALSE(a.allocated());
  EXPECT_EQ(a.size(), 0);
  ASSERT_EQ(a.allocate(3, 4), 0);
  EXPECT_TRUE(a.allocated());
  EXPECT_EQ(a.extent(1), 3);
  EXPECT_EQ(a.extent(2), 4);
  for (int j = 1; j <= 4; ++j)
    for (int i = 1; i <= 3; ++i) a(i, j) = 10 * j + i;
  // First index fastest.
  EXPECT_EQ(a.data()[0], 11);
  EXPECT_EQ(a.data()[1], 12);
  EXPECT_EQ(a.data()[3], 21);
  EXPECT_EQ(a.data()[11], 43);
}

TEST(farray, AllocatingAnAllocatedArrayFailsAndKeepsIt) {
  farray<float, 1> a;
  ASSERT_EQ(a.allocate(5), 0);
  a(5) = 2.5f;
  EXPECT_EQ(a.allocate(9), fortran::stat_already_allocated);
  EXPECT_EQ(a.extent(1), 5);
  EXPECT_EQ(a(5), 2.5f);
}

TEST(farray, NegativeExtentsCountAsZero) {
  farray<double, 2> a;
  ASSERT_EQ(a.allocate(-3, 7), 0);
  EXPECT_TRUE(a.allocated());
  EXPECT_EQ(a.extent(1), 0);
  EXPECT_EQ(a.extent(2), 7);
  EXPECT_EQ(a.size(), 0);
}

TEST(farray, ImpossibleAllocationReturnsAStatusInsteadOfThrowing) {
  farray<double, 2> a;
  EXPECT_EQ(a.allocate(std::int64_t{1} << 40, std::int64_t{1} << 30), fortran::stat_no_memory);
  EXPECT_FALSE(a.allocated());
  farray<int, 1> b;
  EXPECT_NE(b.allocate(std::int64_t{1} << 62), 0);
  EXPECT_FALSE(b.allocated());
}

TEST(farray, DeallocateReleasesAndReportsWhenNothingToRelease) {
  farray<int, 1> a;
  EXPECT_EQ(a.deallocate(), fortran::stat_not_allocated);
  ASSERT_EQ(a.allocate(2), 0);
  EXPECT_EQ(a.deallocate(), 0);
  EXPECT_FALSE(a.allocated());
  EXPECT_EQ(a.allocate(4), 0);  // can be allocated again
}

TEST(farray, MovesTransferOwnership) {
  farray<int, 1> a;
  a.allocate(3);
  a(2) = 7;
  farray<int, 1> b = std::move(a);
  EXPECT_FALSE(a.allocated());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(b(2), 7);
}

TEST(farray, LargeArraysAreUsable) {
  farray<float, 1> a;  // above the huge-page threshold
  ASSERT_EQ(a.allocate(3'000'000), 0);
  a(1) = 1;
  a(3'000'000) = 2;
  EXPECT_EQ(a(1) + a(3'000'000), 3);
}

TEST(farray, LargeArraysStartOnAHugePageUnlessSwitchedOff) {
  ASSERT_TRUE(fortran::hugepages);  // the default
  farray<int, 1> a;
  ASSERT_EQ(a.allocate(4'000'000), 0);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(a.data()) % (std::uintptr_t{2} << 20), 0u);
  fortran::hugepages = false;
  farray<int, 1> b;
  const int st = b.allocate(4'000'000);
  fortran::hugepages = true;
  ASSERT_EQ(st, 0);
  b(1) = 3;
  b(4'000'000) = 4;
  EXPECT_EQ(b(1) + b(4'000'000), 7);
}

TEST(farray, FillByteMarksFreshStorage) {
  fortran::allocationfill = 0x7f;
  farray<int, 1> a;
  a.allocate(4);
  fortran::allocationfill = -1;
  EXPECT_EQ(a(3), 0x7f7f7f7f);
}

TEST(ftext, PadsWithBlanksAndTrimsTrailingBlanks) {
  char40 n("grid.dat");
  EXPECT_EQ(n.view().size(), 40u);
  EXPECT_EQ(n.view().substr(8), std::string(32, ' '));
  EXPECT_EQ(n.trimmed(), "grid.dat");
  char40 full(std::string(45, 'a'));
  EXPECT_EQ(full.trimmed(), std::string(40, 'a'));  // longer texts are cut at 40
  EXPECT_EQ(char40().trimmed(), "");
  EXPECT_EQ(char40("a b  ").trimmed(), "a b");  // inner blanks stay
}
