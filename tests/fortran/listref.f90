! Reference for list-directed output: values written with the compiler's own WRITE (u, *).
!
!   fortran_listref VALUES OUT [stdout]
!
! VALUES is a stream file of 4-byte integers and reals: ne4 n4 ne8 n8 nei ni, then n4 4-byte reals,
! n8 8-byte reals and ni integers. Of each kind in turn, the first ne values are edge cases,
! written one to a record; then all n values again in records of 1, 10, 100 and 100000 values and
! one record of the rest. Last come records that mix texts, integers and reals, built from the
! integer edge cases.
! With "stdout", the mixed records and records of the first 100000 4-byte and 8-byte reals go to
! standard output instead, and OUT is not written.
program listref
  use iso_fortran_env, only: output_unit
  implicit none
  integer, parameter :: uin = 20, u = 21
  character(len=4096) :: valuesfile, outfile, where
  integer :: ne4, n4, ne8, n8, nei, ni, i, s, b(6)
  real(4), allocatable :: x4(:)
  real(8), allocatable :: x8(:)
  integer, allocatable :: k(:)

  call get_command_argument(1, valuesfile)
  call get_command_argument(2, outfile)
  call get_command_argument(3, where)
  open (uin, file=trim(valuesfile), form='unformatted', access='stream', status='old')
  read (uin) ne4, n4, ne8, n8, nei, ni
  allocate (x4(n4), x8(n8), k(ni))
  read (uin) x4, x8, k
  close (uin)

  if (where == 'stdout') then
    call mixed(output_unit)
    write (*, *) x4(1:100000)
    write (*, *) x8(1:100000)
    stop
  end if
  open (u, file=trim(outfile), form='formatted', status='replace')
  do i = 1, ne4
    write (u, *) x4(i)
  end do
  b = starts(n4)
  do s = 1, 5
    write (u, *) x4(b(s):b(s + 1) - 1)
  end do
  do i = 1, ne8
    write (u, *) x8(i)
  end do
  b = starts(n8)
  do s = 1, 5
    write (u, *) x8(b(s):b(s + 1) - 1)
  end do
  do i = 1, nei
    write (u, *) k(i)
  end do
  b = starts(ni)
  do s = 1, 5
    write (u, *) k(b(s):b(s + 1) - 1)
  end do

  call mixed(u)
  close (u)

contains

  ! Records that mix texts, integers and reals.
  subroutine mixed(v)
    integer, intent(in) :: v
    character(len=25) :: padded
    integer :: i
    padded = 'Mach 0.5 run'
    do i = 1, nei
      write (v, *) 'Reading Grid Points in Zone ', k(i), '...'
    end do
    write (v, *) 'abc', 'def'
    write (v, *) 'abc', 'def', 'ghi', k(1), k(2), 'jkl', k(3), 'mno', 'pqr'
    write (v, *) k(1), 'text'
    write (v, *) 'text', 1.5, 'x', 2.5d0, 'y', -0.0, 'z', 1e20, 1d-5, 'w'
    write (v, *) 1.5, 'a', k(1), 2.5d0, 'b', 'c'
    write (v, *) ''
    write (v, *) '', ''
    write (v, *) '', k(1)
    write (v, *)
    write (v, *) padded
    write (v, *) padded, padded, k(2), padded
    write (v, *) 'NDOTS', k(3)
    write (v, *) ' # of boundary faces: ', k(4)
  end subroutine mixed

  ! Where the records of 1, 10, 100 and 100000 values and the rest start, for n values; the
  ! last entry is one past the end.
  function starts(n)
    integer, intent(in) :: n
    integer :: starts(6), sizes(5), s
    sizes = [1, 10, 100, 100000, n]
    starts(1) = 1
    do s = 1, 5
      starts(s + 1) = starts(s) + min(sizes(s), n - starts(s) + 1)
    end do
  end function starts

end program listref
