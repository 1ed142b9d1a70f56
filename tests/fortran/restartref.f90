! Reference reader and writer of restart files, written with the compiler's own I/O statements.
!
! "unformatted" is form='unformatted', access='sequential' (records framed by 4-byte lengths),
! "binary" is form='unformatted', access='stream' (the same items unframed) and "formatted" is
! list-directed text. The C++ suites run this program to check the library against it.
!
! Usage:
!   fortran_restartref write FILE ENC DBL NUMVAR FORMULA DTIME LASTCYC RSTYPE DGAMMA DRGAS DR0 DRM0 DP0 NZONES N1 .. Nk
!       writes a restart file: the header from the eight values, then for each variable v and
!       zone z the N(z) values of the formula (DBL 1: 8-byte reals, 0: 4-byte reals rounded
!       from them). FORMULA "cell": value i of zone z of variable v is
!       (-1)**(v+z+i) * (1000 v + 100 z + i) / 7. FORMULA "pos": the value depends on the
!       position p that the value takes in a row of the solution array, (-1)**(v+p) * (10000 v + p) / 8
!       (exact as a 4-byte real),
!       where zones 1 and 2 start at position 1 and zone z >= 3 after the cells of zones 1 .. z-2.
!   fortran_restartref read FILE ENC DBL NUMVAR NZONES N1 .. Nk
!       reads a restart file and prints, one per line, "H1 dtime lastcyc rstype", "H2 dgamma drgas",
!       "H3 dr0 drm0 dp0" and "V v z i value", every real as the 64-bit pattern of its 8-byte value
!       (4-byte reals widened), then "END"; "ERR iostat" when a read fails.
!   fortran_restartref progress NUMVAR NZONES
!       prints the lines "Reading Variable v in Zone z..." and "Writing Variable v in Zone z..."
!       as list-directed output.
program restartref
  use iso_fortran_env, only: int64, real32, real64
  implicit none
  integer, parameter :: lun = 21
  character(len=512) :: mode, fname, enc, formula, arg
  integer :: dbl, numvar, nzones, lastcyc, rstype, k, next
  integer, allocatable :: ncells(:)
  real(real64) :: hdr(6)

  call get_command_argument(1, mode)
  select case (trim(mode))
  case ('write')
    call get_command_argument(2, fname)
    call get_command_argument(3, enc)
    dbl = intarg(4)
    numvar = intarg(5)
    call get_command_argument(6, formula)
    hdr(1) = realarg(7)
    lastcyc = intarg(8)
    rstype = intarg(9)
    do k = 2, 6
      hdr(k) = realarg(8 + k)
    end do
    nzones = intarg(15)
    next = 16
  case ('read')
    call get_command_argument(2, fname)
    call get_command_argument(3, enc)
    dbl = intarg(4)
    numvar = intarg(5)
    nzones = intarg(6)
    next = 7
  case ('progress')
    numvar = intarg(2)
    nzones = intarg(3)
    call progress(numvar, nzones)
    stop
  case default
    write (*, '(A)') 'usage: restartref write|read|progress ...'
    stop 2
  end select

  allocate (ncells(max(nzones, 0)))
  do k = 1, nzones
    ncells(k) = intarg(next + k - 1)
  end do

  if (trim(mode) == 'write') then
    call writefile()
  else
    call readfile()
  end if
  deallocate (ncells)

contains

  integer function intarg(i)
    integer, intent(in) :: i
    call get_command_argument(i, arg)
    read (arg, *) intarg
  end function intarg

  real(real64) function realarg(i)
    integer, intent(in) :: i
    call get_command_argument(i, arg)
    read (arg, *) realarg
  end function realarg

  subroutine openfile(status)
    character(len=*), intent(in) :: status
    select case (trim(enc))
    case ('unformatted')
      open (unit=lun, file=trim(fname), form='unformatted', access='sequential', status=status)
    case ('binary')
      open (unit=lun, file=trim(fname), form='unformatted', access='stream', status=status)
    case ('formatted')
      open (unit=lun, file=trim(fname), form='formatted', access='sequential', status=status)
    case default
      write (*, '(A)') 'unknown encoding ' // trim(enc)
      stop 2
    end select
  end subroutine openfile

  real(real64) function cellvalue(v, z, i)
    integer, intent(in) :: v, z, i
    cellvalue = real((-1)**(v + z + i) * (1000 * v + 100 * z + i), real64) / 7.0_real64
  end function cellvalue

  real(real64) function posvalue(v, p)
    integer, intent(in) :: v, p
    posvalue = real((-1)**(v + p) * (10000 * v + p), real64) / 8.0_real64
  end function posvalue

  subroutine writefile()
    real(real64), allocatable :: vals(:)
    integer :: v, z, i, istart
    call openfile('replace')
    if (trim(enc) == 'formatted') then
      write (lun, *) hdr(1), lastcyc, rstype
      write (lun, *) hdr(2), hdr(3)
      write (lun, *) hdr(4), hdr(5), hdr(6)
    else if (dbl /= 0) then
      write (lun) hdr(1), lastcyc, rstype
      write (lun) hdr(2), hdr(3)
      write (lun) hdr(4), hdr(5), hdr(6)
    else
      write (lun) real(hdr(1), real32), lastcyc, rstype
      write (lun) real(hdr(2), real32), real(hdr(3), real32)
      write (lun) real(hdr(4), real32), real(hdr(5), real32), real(hdr(6), real32)
    end if
    do v = 1, numvar
      istart = 1
      do z = 1, nzones
        allocate (vals(max(ncells(z), 0)))
        do i = 1, ncells(z)
          if (trim(formula) == 'pos') then
            vals(i) = posvalue(v, istart + i - 1)
          else
            vals(i) = cellvalue(v, z, i)
          end if
        end do
        if (trim(enc) == 'formatted') then
          write (lun, *) real(vals, real32)
        else if (dbl /= 0) then
          write (lun) vals
        else
          write (lun) real(vals, real32)
        end if
        deallocate (vals)
        if (z >= 2) istart = istart + ncells(z - 1)
      end do
    end do
    close (lun)
  end subroutine writefile

  subroutine readfile()
    real(real64) :: d(3)
    real(real32) :: s(3)
    real(real64), allocatable :: vals(:)
    real(real32), allocatable :: vals4(:)
    integer :: v, z, i, ios
    call openfile('old')
    if (trim(enc) == 'formatted') then
      read (lun, *, iostat=ios) d(1), lastcyc, rstype
      call check(ios)
      call printreals('H1', d(1:1), lastcyc, rstype)
      read (lun, *, iostat=ios) d(1), d(2)
      call check(ios)
      call printreals('H2', d(1:2))
      read (lun, *, iostat=ios) d(1), d(2), d(3)
      call check(ios)
      call printreals('H3', d(1:3))
    else if (dbl /= 0) then
      read (lun, iostat=ios) d(1), lastcyc, rstype
      call check(ios)
      call printreals('H1', d(1:1), lastcyc, rstype)
      read (lun, iostat=ios) d(1), d(2)
      call check(ios)
      call printreals('H2', d(1:2))
      read (lun, iostat=ios) d(1), d(2), d(3)
      call check(ios)
      call printreals('H3', d(1:3))
    else
      read (lun, iostat=ios) s(1), lastcyc, rstype
      call check(ios)
      call printreals('H1', real(s(1:1), real64), lastcyc, rstype)
      read (lun, iostat=ios) s(1), s(2)
      call check(ios)
      call printreals('H2', real(s(1:2), real64))
      read (lun, iostat=ios) s(1), s(2), s(3)
      call check(ios)
      call printreals('H3', real(s(1:3), real64))
    end if
    do v = 1, numvar
      do z = 1, nzones
        allocate (vals(max(ncells(z), 0)), vals4(max(ncells(z), 0)))
        if (trim(enc) == 'formatted') then
          read (lun, *, iostat=ios) vals4
          vals = real(vals4, real64)
        else if (dbl /= 0) then
          read (lun, iostat=ios) vals
        else
          read (lun, iostat=ios) vals4
          vals = real(vals4, real64)
        end if
        call check(ios)
        do i = 1, ncells(z)
          write (*, '(A,3(1X,I0),1X,I0)') 'V', v, z, i, transfer(vals(i), 0_int64)
        end do
        deallocate (vals, vals4)
      end do
    end do
    close (lun)
    write (*, '(A)') 'END'
  end subroutine readfile

  subroutine check(ios)
    integer, intent(in) :: ios
    if (ios /= 0) then
      write (*, '(A,1X,I0)') 'ERR', ios
      stop 1
    end if
  end subroutine check

  subroutine printreals(tag, r, i1, i2)
    character(len=*), intent(in) :: tag
    real(real64), intent(in) :: r(:)
    integer, intent(in), optional :: i1, i2
    character(len=400) :: line
    integer :: j
    line = tag
    do j = 1, size(r)
      write (line, '(A,1X,I0)') trim(line), transfer(r(j), 0_int64)
    end do
    if (present(i1)) write (line, '(A,1X,I0,1X,I0)') trim(line), i1, i2
    write (*, '(A)') trim(line)
  end subroutine printreals

  subroutine progress(nv, nz)
    integer, intent(in) :: nv, nz
    integer :: v, z
    do v = 1, nv
      do z = 1, nz
        print *, "Reading Variable ", v, " in Zone ", z, "..."
      end do
    end do
    do v = 1, nv
      do z = 1, nz
        print *, "Writing Variable ", v, " in Zone ", z, "..."
      end do
    end do
  end subroutine progress

end program restartref
