! The Fortran-runtime path of the benchmark: the file routines' record sequences performed with the
! compiler's own READ and WRITE statements, one statement per record, the way these files have
! always been written and read by the solver tools.
!
! "unformatted" is form='unformatted', access='sequential' (records framed by 4-byte lengths),
! "binary" is form='unformatted', access='stream' (the same items unframed), "formatted" is
! list-directed text (and A25 for the pix texts).
!
! Usage:
!   zelmbench_fortran OP ENC DBL FILE SRC NVAR REPS
!     OP    gridheader gridread gridnodes gridwrite rstread rstnext rstwrite rstwritenext
!           pixread pixnext pixwrite pixwritenext tecplot
!     ENC   0 unformatted, 1 formatted, 2 binary;  DBL 1 for 8-byte reals on disk
!     FILE  the file read or written;  SRC a directory holding g.u4, r.u4 and p.u4 (the benchmark's
!           grid, restart and pix files, "unformatted" with 4-byte reals), from which the writers
!           take their data, untimed
!     NVAR  variables of a restart file;  REPS calls timed together (their mean is reported)
! Prints "RESULT wall cpu peak_kib base_kib checksum ok": wall seconds (system_clock) and CPU
! seconds (cpu_time) per call, the peak resident memory during the calls and the resident memory
! before them, and a checksum of what was read that the benchmark compares with its own.
module benchstate
  use iso_fortran_env, only: int32, int64, real32, real64
  implicit none
  integer :: ndim = 0, nzones = 0, ngridaux = 0
  integer, allocatable :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:)
  integer, allocatable :: npf(:), ifnode(:, :), ifcell(:, :)
  real(real32), allocatable :: x(:, :), q(:, :), pix(:, :)
  real(real32), allocatable :: rows(:, :, :)  ! one-row arrays of the one-variable-per-call writers
  real(real64), allocatable :: x8(:, :), qnode(:, :)
  integer :: rstype = 0, lastcyc = 0, nfree = 0, npixvar = 0, numrstrtvar = 0
  logical :: readallvars = .true.
  real(real64) :: dtime = 0, dgamma = 0, drgas = 0, dr0 = 0, drm0 = 0, dp0 = 0, dvar = 0
  character(len=25) :: string = ' ', strfree(20) = ' '
  ! Tecplot export: shared block values and saved work arrays
  integer :: formt(5) = 0, const(8) = 0
  integer, allocatable :: mfpc(:), ibf(:), ipf(:), iface(:, :), ipbf(:)
end module benchstate

module checksum
  use iso_fortran_env, only: int32, int64, real32, real64
  implicit none
  integer(int64), parameter :: mask32 = 4294967295_int64
contains
  ! One 32-bit pattern at linear position i (from 0) folded into h.
  subroutine hashadd(h, p, i)
    integer(int64), intent(inout) :: h
    integer(int32), intent(in) :: p
    integer(int64), intent(in) :: i
    integer(int64) :: t, rot
    integer :: r
    t = iand(iand(int(p, int64), mask32) + mod(i, 65536_int64) * 40503_int64, mask32)
    r = int(mod(i, 31_int64))
    rot = iand(ior(ishft(t, r), ishft(t, r - 32)), mask32)
    h = ieor(h, rot)
  end subroutine hashadd

  subroutine hashints(h, a, n)
    integer(int64), intent(inout) :: h
    integer, intent(in) :: n
    integer, intent(in) :: a(n)
    integer(int64) :: i
    do i = 1, n
      call hashadd(h, a(i), i - 1)
    end do
  end subroutine hashints

  subroutine hashdoubles(h, a, n)
    integer(int64), intent(inout) :: h
    integer, intent(in) :: n
    real(real64), intent(in) :: a(n)
    integer(int64) :: i, b
    do i = 1, n
      b = transfer(a(i), 0_int64)
      call hashadd(h, signed32(iand(b, mask32)), 2 * (i - 1))
      call hashadd(h, signed32(iand(ishft(b, -32), mask32)), 2 * (i - 1) + 1)
    end do
  end subroutine hashdoubles

  ! The 32-bit pattern u (0 .. 2**32-1) as a 4-byte integer.
  integer(int32) function signed32(u)
    integer(int64), intent(in) :: u
    if (u > 2147483647_int64) then
      signed32 = int(u - 4294967296_int64, int32)
    else
      signed32 = int(u, int32)
    end if
  end function signed32
end module checksum

program fortranpath
  use iso_fortran_env, only: int32, int64, real32, real64
  use benchstate
  use checksum
  implicit none
  character(len=512) :: op, fname, src, arg
  integer :: enc, dbl, reps, rep, ok
  integer(int64) :: c0, c1, rate, h, basekb, peakkb
  real :: t0, t1

  call get_command_argument(1, op)
  enc = intarg(2)
  dbl = intarg(3)
  call get_command_argument(4, fname)
  call get_command_argument(5, src)
  numrstrtvar = intarg(6)
  reps = max(intarg(7), 1)

  call prepare()
  call resetpeak(basekb)
  ok = 1
  call system_clock(c0, rate)
  call cpu_time(t0)
  do rep = 1, reps
    call runop(rep == reps)
  end do
  call cpu_time(t1)
  call system_clock(c1)
  peakkb = statuskb('VmHWM:')
  h = 0
  if (ok == 1) h = summary()
  write (*, '(A,1X,ES16.9,1X,ES16.9,1X,I0,1X,I0,1X,I0,1X,I0)') 'RESULT', real(c1 - c0, real64) / real(rate, real64) / reps, &
      real(t1 - t0, real64) / reps, peakkb, basekb, h, ok

contains

  integer function intarg(i)
    integer, intent(in) :: i
    call get_command_argument(i, arg)
    read (arg, *) intarg
  end function intarg

  ! The writers' data, read untimed from the "unformatted" 4-byte files of the benchmark.
  subroutine prepare()
    integer :: v
    logical :: good
    select case (trim(op))
    case ('rstread', 'rstnext', 'pixread', 'pixnext', 'gridwrite', 'rstwrite', 'rstwritenext', 'pixwrite', &
          'pixwritenext', 'tecplot')
      call readgrid(trim(src) // '/g.u4', 0, 0, .true., good)
      if (.not. good) stop 'cannot read the source grid'
    end select
    select case (trim(op))
    case ('rstwrite', 'rstwritenext')
      readallvars = .true.
      call readrestart(trim(src) // '/r.u4', 0, 0, good)
      if (.not. good) stop 'cannot read the source restart file'
      if (trim(op) == 'rstwritenext') then
        allocate (rows(1, size(q, 2), numrstrtvar))
        do v = 1, numrstrtvar
          rows(1, :, v) = q(v, :)
        end do
      end if
    case ('pixwrite', 'pixwritenext', 'tecplot')
      readallvars = .true.
      call readpix(trim(src) // '/p.u4', 0, 0, good)
      if (.not. good) stop 'cannot read the source pix file'
      if (trim(op) == 'pixwritenext') then
        allocate (rows(1, size(pix, 2), npixvar))
        do v = 1, npixvar
          rows(1, :, v) = pix(v, :)
        end do
      end if
      if (trim(op) == 'tecplot') then
        allocate (x8(ndim, size(x, 2)), qnode(6, size(pix, 2)))
        x8 = real(x, real64)
        qnode = real(pix(1:6, :), real64)
        npixvar = 6
        numrstrtvar = 6
      end if
    end select
  end subroutine prepare

  ! One timed call of the routine (or sequence of calls) that OP names.
  subroutine runop(last)
    logical, intent(in) :: last
    logical :: good
    integer :: v
    good = .true.
    select case (trim(op))
    case ('gridheader')
      call readgridheader(trim(fname), enc, good)
      if (.not. last) deallocate (nptsz, ncellsz)
    case ('gridread')
      call readgrid(trim(fname), enc, dbl, .true., good)
      if (.not. last) call releasegrid()
    case ('gridnodes')
      call readgrid(trim(fname), enc, dbl, .false., good)
      if (.not. last) call releasegrid()
    case ('gridwrite')
      call writegrid(trim(fname), enc, dbl)
      close (4)
    case ('rstread')
      readallvars = .true.
      call readrestart(trim(fname), enc, dbl, good)
      if (.not. last) deallocate (q)
    case ('rstnext')
      readallvars = .false.
      call readrestart(trim(fname), enc, dbl, good)
      do v = 1, numrstrtvar
        if (good) call readnextrestart(v, enc, dbl, good)
      end do
      close (15)
      if (.not. last) deallocate (q)
    case ('rstwrite')
      call writerestart(trim(fname), enc, dbl)
    case ('rstwritenext')
      do v = 1, numrstrtvar
        call writenextrestart(v, trim(fname), enc, dbl, rows(:, :, v))
      end do
      close (16)
    case ('pixread')
      readallvars = .true.
      call readpix(trim(fname), enc, dbl, good)
      if (.not. last) deallocate (pix)
    case ('pixnext')
      readallvars = .false.
      call readpix(trim(fname), enc, dbl, good)
      if (good .and. enc /= 1) call skippixheader(dbl, good)
      do v = 1, npixvar
        if (good) call readnextpix(v, enc, dbl, good)
      end do
      close (13)
      if (.not. last) deallocate (pix)
    case ('pixwrite')
      call writepix(trim(fname), enc, dbl)
    case ('pixwritenext')
      do v = 1, npixvar
        call writenextpix(v, trim(fname), enc, dbl, rows(:, :, v))
      end do
      close (14)
    case ('tecplot')
      call writetecplot(trim(fname))
    case default
      write (*, '(A)') 'unknown operation ' // trim(op)
      stop 2
    end select
    if (.not. good) ok = 0
  end subroutine runop

  subroutine releasegrid()
    if (allocated(x)) deallocate (x)
    if (allocated(nptsz)) deallocate (nptsz)
    if (allocated(nfacesz)) deallocate (nfacesz)
    if (allocated(ncellsz)) deallocate (ncellsz)
    if (allocated(mnpfz)) deallocate (mnpfz)
    if (allocated(mfpcz)) deallocate (mfpcz)
    if (allocated(npf)) deallocate (npf)
    if (allocated(ifnode)) deallocate (ifnode)
    if (allocated(ifcell)) deallocate (ifcell)
  end subroutine releasegrid

  subroutine openfile(u, file, code, status)
    integer, intent(in) :: u, code
    character(len=*), intent(in) :: file, status
    select case (code)
    case (0)
      open (unit=u, file=file, form='unformatted', access='sequential', status=status)
    case (2)
      open (unit=u, file=file, form='unformatted', access='stream', status=status)
    case default
      open (unit=u, file=file, form='formatted', status=status)
    end select
  end subroutine openfile

  ! ---- resident memory ---------------------------------------------------------------------

  subroutine resetpeak(kb)
    integer(int64), intent(out) :: kb
    integer :: u, ios
    open (newunit=u, file='/proc/self/clear_refs', action='write', iostat=ios)
    if (ios == 0) then
      write (u, '(A)', iostat=ios) '5'
      close (u)
    end if
    kb = statuskb('VmRSS:')
  end subroutine resetpeak

  integer(int64) function statuskb(key)
    character(len=*), intent(in) :: key
    character(len=256) :: line
    integer :: u, ios
    statuskb = -1
    open (newunit=u, file='/proc/self/status', action='read', iostat=ios)
    if (ios /= 0) return
    do
      read (u, '(A)', iostat=ios) line
      if (ios /= 0) exit
      if (line(1:len(key)) == key) then
        read (line(len(key) + 1:), *) statuskb
        exit
      end if
    end do
    close (u)
  end function statuskb

  ! ---- what was read, as the benchmark checks it ------------------------------------------

  ! The positions that the zone placement gives each zone's n(z) values; upper(z) is the last.
  subroutine placement(n, upperbyzone, first, upper)
    integer, intent(in) :: n(:)
    logical, intent(in) :: upperbyzone  ! the last position is n(z) itself (formatted free variables)
    integer(int64), intent(out) :: first(:), upper(:)
    integer(int64) :: ioff
    integer :: z
    ioff = 1
    do z = 1, size(first)
      first(z) = ioff
      if (upperbyzone) then
        upper(z) = n(z)
      else
        upper(z) = ioff + n(z) - 1
      end if
      if (z >= 2) ioff = ioff + n(z - 1)
    end do
  end subroutine placement

  ! Row `row` of a, at the positions of each zone in turn.
  subroutine hashrow(h, a, row, n, upperbyzone)
    integer(int64), intent(inout) :: h
    real(real32), intent(in) :: a(:, :)
    integer, intent(in) :: row, n(:)
    logical, intent(in) :: upperbyzone
    integer(int64) :: first(nzones), upper(nzones), i
    integer :: z
    call placement(n, upperbyzone, first, upper)
    do z = 1, nzones
      do i = first(z), upper(z)
        call hashadd(h, transfer(a(row, i), 0_int32), (row - 1) + (i - 1) * size(a, 1))
      end do
    end do
  end subroutine hashrow

  integer(int64) function summary()
    integer(int64) :: h(8), i, j, w, n1
    integer :: v, k
    h = 0
    select case (trim(op))
    case ('gridheader')
      call hashints(h(1), [ndim, nzones, ngridaux], 3)
      call hashints(h(2), nptsz, size(nptsz))
      call hashints(h(3), ncellsz, size(ncellsz))
    case ('gridread', 'gridnodes')
      call hashints(h(1), [ndim, nzones, ngridaux], 3)
      call hashints(h(2), nptsz, size(nptsz))
      n1 = size(x, 2)
      if (trim(op) == 'gridnodes') then
        n1 = 0
        if (nzones >= 1) n1 = nptsz(1)
      else
        call hashints(h(3), nfacesz, size(nfacesz))
        call hashints(h(3), ncellsz, size(ncellsz))
        call hashints(h(3), mnpfz, size(mnpfz))
        call hashints(h(3), mfpcz, size(mfpcz))
        call hashints(h(5), npf, size(npf))
        w = size(ifnode, 1)
        do j = 1, size(npf)
          do i = 1, npf(j)
            call hashadd(h(6), ifnode(i, j), (i - 1) + (j - 1) * w)
          end do
        end do
        call hashints(h(7), ifcell, size(ifcell))
      end if
      do j = 1, n1
        do i = 1, ndim
          call hashadd(h(4), transfer(x(i, j), 0_int32), (i - 1) + (j - 1) * ndim)
        end do
      end do
    case ('rstread', 'rstnext')
      call hashdoubles(h(1), [dtime, dgamma, drgas, dr0, drm0, dp0], 6)
      call hashints(h(1), [lastcyc, rstype], 2)
      if (trim(op) == 'rstread') then
        do v = 1, numrstrtvar
          call hashrow(h(2), q, v, ncellsz, .false.)
        end do
      else
        call hashrow(h(2), q, 1, ncellsz, .false.)
      end if
    case ('pixread', 'pixnext')
      call hashdoubles(h(1), [dvar, dgamma, drgas, dr0, drm0, dp0], 6)
      call hashints(h(1), [nfree, npixvar], 2)
      if (trim(op) == 'pixread') then
        do v = 1, npixvar
          call hashrow(h(2), pix, v, nptsz, enc == 1 .and. v > 6)
        end do
      else
        call hashrow(h(2), pix, 1, nptsz, .false.)
      end if
    end select
    summary = 0
    do k = 1, 8
      summary = summary + k * h(k)
    end do
  end function summary

  ! ---- grid files --------------------------------------------------------------------------

  subroutine readgridheader(file, code, good)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code
    logical, intent(out) :: good
    integer, allocatable :: t1(:), t2(:), t3(:)
    integer :: k
    good = .false.
    call openfile(14, file, code, 'old')
    if (code == 1) then
      read (14, *, err=90, end=90) ndim, nzones, ngridaux
    else
      read (14, err=90, end=90) ndim, nzones, ngridaux
    end if
    allocate (nptsz(max(nzones, 0)), t1(max(nzones, 0)), ncellsz(max(nzones, 0)), t2(max(nzones, 0)), t3(max(nzones, 0)))
    if (code == 1) then
      read (14, *, err=90, end=90) (nptsz(k), t1(k), ncellsz(k), t2(k), t3(k), k=1, nzones)
    else
      read (14, err=90, end=90) (nptsz(k), t1(k), ncellsz(k), t2(k), t3(k), k=1, nzones)
    end if
    close (14)
    good = .true.
90  continue
  end subroutine readgridheader

  subroutine readgrid(file, code, dblp, conn, good)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code, dblp
    logical, intent(in) :: conn
    logical, intent(out) :: good
    logical :: wide
    integer :: k, i, j, f, node, face, width
    integer(int64) :: nnodes, nfaces
    good = .false.
    wide = code /= 1 .and. dblp /= 0
    call openfile(13, file, code, 'old')
    if (code == 1) then
      read (13, *, err=90, end=90) ndim, nzones, ngridaux
    else
      read (13, err=90, end=90) ndim, nzones, ngridaux
    end if
    allocate (nptsz(max(nzones, 0)), nfacesz(max(nzones, 0)), ncellsz(max(nzones, 0)), mnpfz(max(nzones, 0)), &
              mfpcz(max(nzones, 0)))
    if (code == 1) then
      do k = 1, nzones
        read (13, *, err=90, end=90) nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k)
      end do
    else
      read (13, err=90, end=90) (nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k), k=1, nzones)
    end if
    nfaces = sum(int(nfacesz, int64))
    width = -huge(1) - 1
    do k = 1, nzones
      width = max(width, mnpfz(k))
    end do
    width = max(width, 0)
    if (code == 1 .or. conn) allocate (npf(nfaces), ifnode(width, nfaces), ifcell(2, nfaces))
    nnodes = sum(int(nptsz, int64))
    if (wide) then
      allocate (x8(ndim, nnodes))
    else
      allocate (x(ndim, nnodes))
    end if
    node = 1
    face = 1
    do k = 1, nzones
      print *, 'Reading Grid Points in Zone ', k, '...'
      if (code == 1) then
        do i = node, node + nptsz(k) - 1
          read (13, *, err=90, end=90) (x(j, i), j=1, ndim)
        end do
      else if (wide) then
        do i = node, node + nptsz(k) - 1
          read (13, err=90, end=90) (x8(j, i), j=1, ndim)
        end do
      else
        do i = node, node + nptsz(k) - 1
          read (13, err=90, end=90) (x(j, i), j=1, ndim)
        end do
      end if
      if (conn) then
        print *, 'Reading Connectivity Information in Zone ', k, '...'
        if (code == 1) then
          do f = face, face + nfacesz(k) - 1
            read (13, *, err=90, end=90) npf(f), (ifnode(j, f), j=1, npf(f)), ifcell(1, f), ifcell(2, f)
          end do
        else
          do f = face, face + nfacesz(k) - 1
            read (13, err=90, end=90) npf(f), (ifnode(j, f), j=1, npf(f)), ifcell(1, f), ifcell(2, f)
          end do
        end if
        face = face + nfacesz(k)
      else
        print *, 'Skipping Connectivity Information in Zone ', k, '...'
        if (k == 1) exit
      end if
      node = node + nptsz(k)
    end do
    if (wide) then
      allocate (x(size(x8, 1), size(x8, 2)))
      x = real(x8, real32)
      deallocate (x8)
    end if
    close (13)
    if (.not. conn) deallocate (nfacesz, ncellsz, mnpfz, mfpcz)
    good = .true.
90  continue
    if (allocated(x8)) deallocate (x8)
  end subroutine readgrid

  subroutine writegrid(file, code, dblp)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code, dblp
    logical :: wide
    integer :: k, i, f, node, face
    wide = code /= 1 .and. dblp /= 0
    if (wide) then
      allocate (x8(size(x, 1), size(x, 2)))
      x8 = real(x, real64)
    end if
    call openfile(4, file, code, 'unknown')
    if (code == 1) then
      write (4, *) ndim, nzones, ngridaux
      write (4, *) (nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k), k=1, nzones)
    else
      write (4) ndim, nzones, ngridaux
      write (4) (nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k), k=1, nzones)
    end if
    node = 1
    face = 1
    do k = 1, nzones
      print *, 'Writing Grid Points in Zone ', k, '...'
      if (code == 1) then
        do i = node, node + nptsz(k) - 1
          write (4, *) x(1:ndim, i)
        end do
      else if (wide) then
        do i = node, node + nptsz(k) - 1
          write (4) x8(1:ndim, i)
        end do
      else
        do i = node, node + nptsz(k) - 1
          write (4) x(1:ndim, i)
        end do
      end if
      print *, 'Writing Connectivity in Zone ', k, '...'
      if (code == 1) then
        do f = face, face + nfacesz(k) - 1
          write (4, *) npf(f), ifnode(1:npf(f), f), ifcell(1:2, f)
        end do
      else
        do f = face, face + nfacesz(k) - 1
          write (4) npf(f), ifnode(1:npf(f), f), ifcell(1:2, f)
        end do
      end if
      node = node + nptsz(k)
      face = face + nfacesz(k)
    end do
    if (allocated(x8)) deallocate (x8)
  end subroutine writegrid

  ! ---- restart files -----------------------------------------------------------------------

  subroutine readrestart(file, code, dblp, good)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code, dblp
    logical, intent(out) :: good
    logical :: wide
    real(real32) :: s1, s2, s3, s4, s5, s6
    real(real64), allocatable :: q8(:, :)
    integer :: v, z, i, ioff
    integer(int64) :: ntotal
    good = .false.
    wide = code /= 1 .and. dblp /= 0
    call openfile(15, file, code, 'old')
    if (code == 1) then
      read (15, *, err=90, end=90) dtime, lastcyc, rstype
      read (15, *, err=90, end=90) dgamma, drgas
      read (15, *, err=90, end=90) dr0, drm0, dp0
    else if (wide) then
      read (15, err=90, end=90) dtime, lastcyc, rstype
      read (15, err=90, end=90) dgamma, drgas
      read (15, err=90, end=90) dr0, drm0, dp0
    else
      read (15, err=90, end=90) s1, lastcyc, rstype
      read (15, err=90, end=90) s2, s3
      read (15, err=90, end=90) s4, s5, s6
      dtime = s1
      dgamma = s2
      drgas = s3
      dr0 = s4
      drm0 = s5
      dp0 = s6
    end if
    ntotal = sum(int(ncellsz, int64))
    if (.not. readallvars) then
      allocate (q(1, ntotal))
      good = .true.
      return
    end if
    allocate (q(numrstrtvar, ntotal))
    if (wide) allocate (q8(numrstrtvar, ntotal))
    do v = 1, numrstrtvar
      ioff = 1
      do z = 1, nzones
        print *, 'Reading Variable ', v, ' in Zone ', z, '...'
        if (code == 1) then
          read (15, *, err=90, end=90) (q(v, i), i=ioff, ioff + ncellsz(z) - 1)
        else if (wide) then
          read (15, err=90, end=90) (q8(v, i), i=ioff, ioff + ncellsz(z) - 1)
        else
          read (15, err=90, end=90) (q(v, i), i=ioff, ioff + ncellsz(z) - 1)
        end if
        if (z >= 2) ioff = ioff + ncellsz(z - 1)
      end do
    end do
    if (wide) then
      q = real(q8, real32)
      deallocate (q8)
    end if
    close (15)
    good = .true.
90  continue
  end subroutine readrestart

  subroutine readnextrestart(ivar, code, dblp, good)
    integer, intent(in) :: ivar, code, dblp
    logical, intent(out) :: good
    real(real64), allocatable :: q8(:)
    integer :: z, i, ioff
    good = .false.
    allocate (q8(sum(int(ncellsz, int64))))
    ioff = 1
    do z = 1, nzones
      if (code /= 0) then
        read (15, *, err=90, end=90) (q(1, i), i=ioff, ioff + ncellsz(z) - 1)
      else if (dblp == 0) then
        read (15, err=90, end=90) (q(1, i), i=ioff, ioff + ncellsz(z) - 1)
      else
        read (15, err=90, end=90) (q8(i), i=ioff, ioff + ncellsz(z) - 1)
      end if
      if (z >= 2) ioff = ioff + ncellsz(z - 1)
    end do
    if (code == 0 .and. dblp /= 0) q(1, :) = real(q8, real32)
    good = .true.
90  continue
    deallocate (q8)
  end subroutine readnextrestart

  subroutine writerestart(file, code, dblp)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code, dblp
    logical :: wide
    real(real64), allocatable :: q8(:, :)
    integer :: v, z, i, ioff
    wide = code /= 1 .and. dblp /= 0
    call openfile(16, file, code, 'unknown')
    if (code == 1) then
      write (16, *) dtime, lastcyc, rstype
      write (16, *) dgamma, drgas
      write (16, *) dr0, drm0, dp0
    else if (wide) then
      write (16) dtime, lastcyc, rstype
      write (16) dgamma, drgas
      write (16) dr0, drm0, dp0
    else
      write (16) real(dtime, real32), lastcyc, rstype
      write (16) real(dgamma, real32), real(drgas, real32)
      write (16) real(dr0, real32), real(drm0, real32), real(dp0, real32)
    end if
    if (wide) then
      allocate (q8(size(q, 1), size(q, 2)))
      q8 = real(q, real64)
    end if
    do v = 1, numrstrtvar
      ioff = 1
      do z = 1, nzones
        print *, 'Writing Variable ', v, ' in Zone ', z, '...'
        if (code == 1) then
          write (16, *) (q(v, i), i=ioff, ioff + ncellsz(z) - 1)
        else if (wide) then
          write (16) (q8(v, i), i=ioff, ioff + ncellsz(z) - 1)
        else
          write (16) (q(v, i), i=ioff, ioff + ncellsz(z) - 1)
        end if
        if (z >= 2) ioff = ioff + ncellsz(z - 1)
      end do
    end do
    if (wide) deallocate (q8)
    close (16)
  end subroutine writerestart

  subroutine writenextrestart(ivar, file, code, dblp, qrow)
    integer, intent(in) :: ivar, code, dblp
    character(len=*), intent(in) :: file
    real(real32), intent(in) :: qrow(:, :)
    real(real64), allocatable :: q8(:)
    integer :: z, i, ioff
    if (code == 1) then
      if (ivar == 1) then
        call openfile(16, file, code, 'unknown')
        write (16, *) dtime, lastcyc, rstype
        write (16, *) dgamma, drgas
        write (16, *) dr0, drm0, dp0
      end if
      ioff = 1
      do z = 1, nzones
        write (16, *) (qrow(1, i), i=ioff, ioff + ncellsz(z) - 1)
        if (z >= 2) ioff = ioff + ncellsz(z - 1)
      end do
      return
    end if
    call openfile(16, file, code, 'unknown')
    if (ivar == 1) then
      if (dblp /= 0) then
        write (16) dtime, lastcyc, rstype
        write (16) dgamma, drgas
        write (16) dr0, drm0, dp0
      else
        write (16) real(dtime, real32), lastcyc, rstype
        write (16) real(dgamma, real32), real(drgas, real32)
        write (16) real(dr0, real32), real(drm0, real32), real(dp0, real32)
      end if
    end if
    ioff = 1
    if (dblp == 0) then
      do z = 1, nzones
        write (16) (qrow(1, i), i=ioff, ioff + ncellsz(z) - 1)
        if (z >= 2) ioff = ioff + ncellsz(z - 1)
      end do
    else
      allocate (q8(sum(int(ncellsz, int64))))
      q8 = real(qrow(1, 1:size(q8)), real64)
      do z = 1, nzones
        write (16) (q8(i), i=ioff, ioff + ncellsz(z) - 1)
        if (z >= 2) ioff = ioff + ncellsz(z - 1)
      end do
      deallocate (q8)
    end if
  end subroutine writenextrestart

  ! ---- pix files ---------------------------------------------------------------------------

  subroutine readpix(file, code, dblp, good)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code, dblp
    logical, intent(out) :: good
    logical :: raw, wide
    real(real32) :: s4, a4, b4, c4, d4, e4, f4
    real(real64) :: s8
    real(real64), allocatable :: work(:, :)
    integer :: iv, iz, i, ioff, k
    integer(int64) :: nptot
    good = .false.
    raw = code /= 1
    wide = raw .and. dblp /= 0
    call openfile(13, file, code, 'old')
    ! pass 1: the header, then the six fixed variables skipped value by value, then the free count
    if (.not. raw) then
      read (13, *, err=90, end=90) dvar, dgamma, drgas
      read (13, *, err=90, end=90) dr0, drm0, dp0
      read (13, '(A25)', err=90, end=90) string
    else if (wide) then
      read (13, err=90, end=90) dvar, dgamma, drgas
      read (13, err=90, end=90) dr0, drm0, dp0
      read (13, err=90, end=90) string
    else
      read (13, err=90, end=90) a4, b4, c4
      read (13, err=90, end=90) d4, e4, f4
      read (13, err=90, end=90) string
    end if
    do iv = 1, 6
      do iz = 1, nzones
        if (.not. raw) then
          read (13, *, err=90, end=90) (s8, i=1, nptsz(iz))
        else if (wide) then
          read (13, err=90, end=90) (s8, i=1, nptsz(iz))
        else
          read (13, err=90, end=90) (s4, i=1, nptsz(iz))
        end if
      end do
    end do
    if (.not. raw) then
      read (13, *, err=10, end=10) nfree
    else
      read (13, err=10, end=10) nfree
    end if
    goto 11
10  nfree = 0
11  npixvar = nfree + 6
    nptot = sum(int(nptsz, int64))
    if (readallvars) then
      allocate (pix(npixvar, nptot))
    else
      allocate (pix(1, nptot))
    end if
    rewind (13)
    if (.not. readallvars) then
      if (.not. raw) then
        read (13, *, err=90, end=90) dvar, dgamma, drgas
        read (13, *, err=90, end=90) dr0, drm0, dp0
        read (13, '(A25)', err=90, end=90) string
      end if
      good = .true.
      return
    end if
    ! pass 2
    if (.not. raw) then
      read (13, *, err=90, end=90) dvar, dgamma, drgas
      read (13, *, err=90, end=90) dr0, drm0, dp0
      read (13, '(A25)', err=90, end=90) string
    else if (wide) then
      read (13, err=90, end=90) dvar, dgamma, drgas
      read (13, err=90, end=90) dr0, drm0, dp0
      read (13, err=90, end=90) string
    else
      read (13, err=90, end=90) a4, b4, c4
      read (13, err=90, end=90) d4, e4, f4
      read (13, err=90, end=90) string
      dvar = a4
      dgamma = b4
      drgas = c4
      dr0 = d4
      drm0 = e4
      dp0 = f4
    end if
    if (wide) allocate (work(npixvar, nptot))
    do iv = 1, 6
      ioff = 1
      do iz = 1, nzones
        print *, 'Reading Pix Variable ', iv, ' in Zone ', iz, '...'
        if (.not. raw) then
          read (13, *, err=90, end=90) (pix(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        else if (wide) then
          read (13, err=90, end=90) (work(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        else
          read (13, err=90, end=90) (pix(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        end if
        if (iz >= 2) ioff = ioff + nptsz(iz - 1)
      end do
    end do
    if (.not. raw) then
      read (13, *, err=20, end=20) nfree
    else
      read (13, err=20, end=20) nfree
    end if
    do k = 1, nfree
      if (.not. raw) then
        read (13, '(A25)', err=90, end=90) strfree(k)
      else
        read (13, err=90, end=90) strfree(k)
      end if
    end do
    do iv = 7, 6 + nfree
      ioff = 1
      do iz = 1, nzones
        print *, 'Reading Pix Variable ', iv, ' in Zone ', iz, '...'
        if (.not. raw) then
          read (13, *, err=90, end=90) (pix(iv, i), i=ioff, nptsz(iz))
        else if (wide) then
          read (13, err=90, end=90) (work(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        else
          read (13, err=90, end=90) (pix(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        end if
        if (iz >= 2) ioff = ioff + nptsz(iz - 1)
      end do
    end do
    goto 30
20  if (.not. wide) then
      close (13)
      good = .true.
      return
    end if
30  if (wide) then
      pix = real(work, real32)
      deallocate (work)
    end if
    close (13)
    good = .true.
    return
90  if (allocated(work)) deallocate (work)
  end subroutine readpix

  ! The caller's part in the one-variable mode of "unformatted" and "binary" files: step over
  ! the three header records that readpix left in front of the unit.
  subroutine skippixheader(dblp, good)
    integer, intent(in) :: dblp
    logical, intent(out) :: good
    real(real64) :: a8, b8, c8
    real(real32) :: a4, b4, c4
    character(len=25) :: t
    good = .false.
    if (dblp /= 0) then
      read (13, err=90, end=90) a8, b8, c8
      read (13, err=90, end=90) a8, b8, c8
    else
      read (13, err=90, end=90) a4, b4, c4
      read (13, err=90, end=90) a4, b4, c4
    end if
    read (13, err=90, end=90) t
    good = .true.
90  continue
  end subroutine skippixheader

  subroutine readnextpix(ivar, code, dblp, good)
    integer, intent(in) :: ivar, code, dblp
    logical, intent(out) :: good
    logical :: raw
    real(real32), allocatable :: work(:, :)
    integer :: iz, i, ioff, k
    good = .false.
    raw = code == 0 .or. code == 2
    if (ivar == 7) then
      if (raw) then
        read (13, err=90, end=90) nfree
        do k = 1, nfree
          read (13, err=90, end=90) strfree(k)
        end do
      else
        read (13, *, err=90, end=90) nfree
        do k = 1, nfree
          read (13, '(A25)', err=90, end=90) strfree(k)
        end do
      end if
    end if
    if (raw .and. dblp /= 0) allocate (work(1, size(pix, 2)))
    ioff = 1
    do iz = 1, nzones
      if (.not. raw) then
        read (13, *, err=90, end=90) (pix(1, i), i=ioff, ioff + nptsz(iz) - 1)
      else if (dblp == 0) then
        read (13, err=90, end=90) (pix(1, i), i=ioff, ioff + nptsz(iz) - 1)
      else
        read (13, err=90, end=90) (work(1, i), i=ioff, ioff + nptsz(iz) - 1)
      end if
      if (iz >= 2) ioff = ioff + nptsz(iz - 1)
    end do
    if (allocated(work)) pix(1, :) = work(1, :)
    good = .true.
90  if (allocated(work)) deallocate (work)
  end subroutine readnextpix

  subroutine writepixheader(code, dblp)
    integer, intent(in) :: code, dblp
    if (code == 1) then
      write (14, *) dvar, dgamma, drgas
      write (14, *) dr0, drm0, dp0
      write (14, '(A25)') string
    else if (dblp /= 0) then
      write (14) dvar, dgamma, drgas
      write (14) dr0, drm0, dp0
      write (14) string
    else
      write (14) real(dvar, real32), real(dgamma, real32), real(drgas, real32)
      write (14) real(dr0, real32), real(drm0, real32), real(dp0, real32)
      write (14) string
    end if
  end subroutine writepixheader

  subroutine writepixlabels(code)
    integer, intent(in) :: code
    integer :: k
    if (code == 1) then
      write (14, *) nfree
      do k = 1, nfree
        write (14, '(A25)') strfree(k)
      end do
    else
      write (14) nfree
      do k = 1, nfree
        write (14) strfree(k)
      end do
    end if
  end subroutine writepixlabels

  subroutine writepix(file, code, dblp)
    character(len=*), intent(in) :: file
    integer, intent(in) :: code, dblp
    logical :: wide
    real(real64), allocatable :: work(:, :)
    integer :: iv, iz, i, ioff
    wide = code /= 1 .and. dblp /= 0
    call openfile(14, file, code, 'unknown')
    call writepixheader(code, dblp)
    if (wide) then
      allocate (work(npixvar, size(pix, 2)))
      work = real(pix(1:npixvar, :), real64)
    end if
    do iv = 1, 6 + nfree
      if (iv == 7) call writepixlabels(code)
      ioff = 1
      do iz = 1, nzones
        if (code == 1) then
          write (14, *) (pix(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        else if (wide) then
          write (14) (work(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        else
          write (14) (pix(iv, i), i=ioff, ioff + nptsz(iz) - 1)
        end if
        if (iz >= 2) ioff = ioff + nptsz(iz - 1)
      end do
    end do
    if (allocated(work)) deallocate (work)
    close (14)
  end subroutine writepix

  subroutine writenextpix(ivar, file, code, dblp, prow)
    integer, intent(in) :: ivar, code, dblp
    character(len=*), intent(in) :: file
    real(real32), intent(in) :: prow(:, :)
    real(real64), allocatable :: work(:, :)
    integer :: iz, i, ioff
    if (code == 1) then
      if (ivar == 1) then
        call openfile(14, file, code, 'unknown')
        call writepixheader(code, dblp)
      end if
      if (ivar == 7) call writepixlabels(code)
      ioff = 1
      do iz = 1, nzones
        write (14, *) (prow(1, i), i=ioff, ioff + nptsz(iz) - 1)
        if (iz >= 2) ioff = ioff + nptsz(iz - 1)
      end do
      return
    end if
    call openfile(14, file, code, 'unknown')
    if (ivar == 7) call writepixlabels(code)
    if (ivar == 1) call writepixheader(code, dblp)
    ioff = 1
    if (dblp == 0) then
      do iz = 1, nzones
        write (14) (prow(1, i), i=ioff, ioff + nptsz(iz) - 1)
        if (iz >= 2) ioff = ioff + nptsz(iz - 1)
      end do
    else
      allocate (work(1, size(prow, 2)))
      work = real(prow, real64)
      do iz = 1, nzones
        write (14) (work(1, i), i=ioff, ioff + nptsz(iz) - 1)
        if (iz >= 2) ioff = ioff + nptsz(iz - 1)
      end do
      deallocate (work)
    end if
  end subroutine writenextpix

  ! ---- Tecplot export ---------------------------------------------------------------------

  ! The driver: cell-to-face relations from the face-to-cell table (which it consumes), cell types
  ! and node-use codes in three dimensions, then each zone through the zone writer.
  subroutine writetecplot(file)
    character(len=*), intent(in) :: file
    integer :: iz, s, f, ic, k, j, n, nbound, ncells, slots, nbf, most, m, np, visit
    integer :: tets, prisms, tetnodes, prismnodes
    formt(3) = 2
    formt(4) = 1
    formt(5) = 3
    const(3) = -huge(1) - 1
    do iz = 1, nzones
      const(3) = max(const(3), mnpfz(iz))
    end do
    print *, 'Writing to Tecplot file...'
    open (10, file=file, form='formatted', status='unknown')
    nbound = count(ifcell(1, :) < 0) + count(ifcell(2, :) < 0)
    ncells = sum(ncellsz)
    slots = 0
    do iz = 1, nzones
      slots = max(slots, mfpcz(iz))
    end do
    allocate (mfpc(ncells), ibf(nbound), ipf(sum(nptsz)), iface(ncells, slots))
    mfpc = 0
    ipf = 0
    iface = 0
    do iz = 1, nzones
      print *
      write (*, '(1X,''generating face/cell relationships for zone: '',I3)') iz
      nbf = 0
      most = 0
      do s = 1, 2
        do f = 1, nfacesz(iz)
          ic = ifcell(s, f)
          if (ic > 0) then
            mfpc(ic) = mfpc(ic) + 1
            iface(ic, mfpc(ic)) = f
            most = max(most, mfpc(ic))
          else if (ic < 0) then
            nbf = nbf + 1
            ibf(nbf) = f
            ipf(ifnode(1, f)) = -1
            ipf(ifnode(2, f)) = -1
            if (ndim == 3) ipf(ifnode(3, f)) = -1
          end if
          ifcell(s, f) = 0
        end do
      end do
      const(4) = most
      const(2) = nbf
      print *, 'done with face/cell relationships'
      if (ndim == 3) then
        tets = 0
        prisms = 0
        tetnodes = 0
        prismnodes = 0
        do ic = 1, ncellsz(iz)
          m = mfpc(ic)
          if (m < 4 .or. m > 6) cycle
          if (m == 4) then
            tets = tets + 1
            ifcell(1, ic) = 1
            visit = 4
          else
            prisms = prisms + 1
            ifcell(1, ic) = 2
            visit = 5
          end if
          do k = 1, visit
            f = iface(ic, k)
            np = npf(f)
            do j = 1, np
              n = ifnode(j, f)
              if (m == 4) then
                if (ifcell(2, n) == 0) then
                  ifcell(2, n) = 1
                  tetnodes = tetnodes + 1
                end if
              else
                if (ifcell(2, n) == 0) then
                  ifcell(2, n) = 2
                  prismnodes = prismnodes + 1
                end if
                if (m == 5 .and. ifcell(2, n) == 1) then
                  ifcell(2, n) = 3
                  prismnodes = prismnodes + 1
                end if
              end if
            end do
          end do
        end do
        const(5) = tets
        const(6) = prisms
        const(7) = tetnodes
        const(8) = prismnodes
        print *
        print *, 'total number of tetrahedra,pts: ', const(5), const(7)
        if (const(6) > 0) print *, 'total number of prisms,pts: ', const(6), const(8)
      end if
      call writer(iz)
    end do
    close (10)
    deallocate (mfpc, ibf, ipf, iface)
    if (allocated(ipbf)) deallocate (ipbf)
  end subroutine writetecplot

  ! One zone: title and variables (zone 1), the two-dimensional cell zone or the three-dimensional
  ! element zones, then the body surface.
  subroutine writer(iz)
    integer, intent(in) :: iz
    integer :: n, k, j, f
    if (.not. allocated(ipbf)) allocate (ipbf(sum(nptsz)))
    if (iz == 1) then
      write (10, *) 'TITLE = "TAVREN Unstructured Grid Result" '
      if (ndim == 3) then
        write (10, *) 'VARIABLES = "X","Y","Z","RHO","U","V","W","P","FREE"'
      else
        write (10, *) 'VARIABLES = "X","Y","RHO","U","V","W","P","FREE"'
      end if
    end if
    print *
    write (*, '(1X,''writing info for zone: '',I3)') iz
    if (ndim == 2) then
      if (mfpcz(iz) == 3) write (10, 100) iz, nptsz(iz), ncellsz(iz)
      if (mfpcz(iz) == 4) write (10, 101) iz, nptsz(iz), ncellsz(iz)
      const(1) = 0
      do n = 1, nptsz(iz)
        if (ipf(n) < 0) then
          const(1) = const(1) + 1
          ipbf(const(1)) = n
        end if
        write (10, *) x8(1:ndim, n), qnode(1:npixvar, n)
      end do
      print *, 'done writing title and node info.......'
      print *, 'NDOTS', mfpcz(iz)
      if (mfpcz(iz) == 4) call quapts(iz)
      if (mfpcz(iz) == 3) call tripts(iz)
    else if (ndim == 3) then
      call tetpts(iz)
      if (const(3) == 4) call prsmpts(iz)
    end if
    print *
    print *, 'writing info for body surfaces.......'
    print *, ' # of boundary faces: ', const(2)
    print *, ' # of boundary nodes for those faces: ', const(1)
    if (ndim /= 3) then
      write (10, *) 'ZONE  T= "Body ', iz, '" F=POINT, I= ', const(1)
    else if (mfpcz(iz) == 4) then
      write (10, *) 'ZONE  T= "Body ', iz, '"  N= ', const(1), ' , E= ', const(2), ' ,', ' F=FEPOINT, ET=QUADRILATERAL'
    else if (mfpcz(iz) == 3) then
      write (10, *) 'ZONE  T= "Body ', iz, '"  N= ', const(1), ' , E= ', const(2), ' ,', ' F=FEPOINT, ET=TRIANGLE'
    end if
    do k = 1, const(1)
      n = ipbf(k)
      ipf(n) = k
      write (10, *) x8(1:ndim, n), qnode(1:npixvar, n)
    end do
    if (ndim == 3) then
      do j = 1, const(2)
        f = ibf(j)
        write (10, *) ipf(ifnode(1, f)), ipf(ifnode(2, f)), ipf(ifnode(3, f))
      end do
    end if
    print *, 'done writing info for body surfaces......'
100 format(1X, 'ZONE  T= "Zone ', I3, '"  N= ', I9, ' , E= ', I9, ' ,', ' F=FEPOINT, ET=TRIANGLE')
101 format(1X, 'ZONE  T= "Zone ', I3, '"  N= ', I9, ' , E= ', I9, ' ,', ' F=FEPOINT, ET=QUADRILATERAL')
  end subroutine writer

  subroutine quapts(iz)
    integer, intent(in) :: iz
    integer :: ic, k, f, na, nb, nc, nd, e1, e2
    print *, 'writing cell/node connectivity info for quads'
    do ic = 1, ncellsz(iz)
      na = ifnode(1, iface(ic, 1))
      nb = ifnode(2, iface(ic, 1))
      nc = 0
      nd = 0
      do k = 2, 4
        f = iface(ic, k)
        e1 = ifnode(1, f)
        e2 = ifnode(2, f)
        if (e1 == na) nd = e2
        if (e2 == na) nd = e1
        if (e1 == nb) nc = e2
        if (e2 == nb) nc = e1
      end do
      if (nc == 0) then
        print *, ' error: in subroutine tripts: ifc3.eq.0 '
        stop
      end if
      write (10, '(4(1X,I6))') na, nb, nc, nd
    end do
    print *, 'done writing quad cell/node info.......'
  end subroutine quapts

  subroutine tripts(iz)
    integer, intent(in) :: iz
    integer :: ic, k, j, f, na, nb, nc, n
    print *, 'writing cell/node connectivity info for triangles'
    do ic = 1, ncellsz(iz)
      na = ifnode(1, iface(ic, 1))
      nb = ifnode(2, iface(ic, 1))
      nc = 0
      do k = 2, 3
        f = iface(ic, k)
        do j = 1, 2
          n = ifnode(j, f)
          if (nc == 0 .and. n /= na .and. n /= nb) nc = n
        end do
      end do
      if (nc == 0) then
        print *, ' error: in subroutine tripts: ifc3.eq.0 '
        stop
      end if
      write (10, *) na, nb, nc
    end do
    print *, 'done writing tri cell/node info.......'
  end subroutine tripts

  ! The nodes of an element zone (codes `code` and 3): boundary nodes join ipbf, each node gets its
  ! number in the zone, and its record is written. Returns the count.
  integer function zonenodes(iz, code)
    integer, intent(in) :: iz, code
    integer :: n
    const(1) = 0
    zonenodes = 0
    do n = 1, nptsz(iz)
      if (ifcell(2, n) /= code .and. ifcell(2, n) /= 3) cycle
      if (ipf(n) < 0) then
        const(1) = const(1) + 1
        ipbf(const(1)) = n
      end if
      zonenodes = zonenodes + 1
      ipf(n) = zonenodes
      write (10, *) x8(1:ndim, n), qnode(1:numrstrtvar, n)
    end do
  end function zonenodes

  subroutine tetpts(iz)
    integer, intent(in) :: iz
    integer :: counted, ic, k, j, f, na, nb, nc, nd, n, tets
    write (10, 100) iz, const(7), const(5)
    print *, 'writing node & connectivity info for tetrahedra'
    counted = zonenodes(iz, 1)
    print *, 'done writing tet node info.......'
    print *, ' number of nodes (known,counted): ', const(7), counted
    tets = 0
    do ic = 1, ncellsz(iz)
      if (ifcell(1, ic) /= 1) cycle
      tets = tets + 1
      f = iface(ic, 1)
      na = ifnode(1, f)
      nb = ifnode(2, f)
      nc = ifnode(3, f)
      nd = 0
      do k = 2, 4
        f = iface(ic, k)
        do j = 1, 3
          n = ifnode(j, f)
          if (n /= na .and. n /= nb .and. n /= nc) nd = n
        end do
      end do
      if (nd == 0) then
        print *, ' error: in subroutine tetpts: ifc4.eq.0 '
        stop
      end if
      write (10, *) ipf(na), ipf(nb), ipf(nc), ipf(nd)
    end do
    print *, 'done writing tet connectivity info......'
    print *, ' number of tets (known,counted):  ', const(5), tets
100 format(1X, 'ZONE  T= "Tet-Zone ', I3, '"  N= ', I9, ' , E= ', I9, ' ,', ' F=FEPOINT, ET=TETRAHEDRON')
  end subroutine tetpts

  subroutine prsmpts(iz)
    integer, intent(in) :: iz
    integer, save :: nfscr(5), npscr(6), itmp(8)
    integer :: counted, ic, k, f, t, i, tri, quad, pos1, pos2, a1, a2, b1, b2, apexa, apexb, c1, c2, c3, visited
    integer :: p(4)
    logical :: same
    write (10, 100) iz, const(8), const(6)
    print *, 'writing node & connectivity info for prisms'
    counted = zonenodes(iz, 2)
    print *, 'done writing prism node info.......'
    print *, ' number of nodes (known,counted): ', const(8), counted
    visited = 0
    do ic = 1, ncellsz(iz)
      if (ifcell(1, ic) /= 2) cycle
      visited = visited + 1
      tri = 0
      do k = 1, 5
        f = iface(ic, k)
        if (npf(f) == 3) then
          nfscr(k) = f
          if (tri < 2) npscr(3 * tri + 1:3 * tri + 3) = ifnode(1:3, f)
          tri = tri + 1
        else
          nfscr(k) = -f
        end if
      end do
      quad = 0
      do k = 1, 5
        if (nfscr(k) < 0) then
          quad = -nfscr(k)
          exit
        end if
      end do
      p = ifnode(1:4, quad)
      pos1 = 0
      pos2 = 0
      do i = 1, 6
        if (npscr(i) == p(1)) pos1 = i
        if (npscr(i) == p(2)) pos2 = i
      end do
      same = (pos1 >= 1 .and. pos1 <= 3 .and. pos2 >= 1 .and. pos2 <= 3) .or. (pos1 >= 4 .and. pos2 >= 4)
      a1 = p(1)
      b2 = p(3)
      if (same) then
        a2 = p(2)
        b1 = p(4)
      else
        a2 = p(4)
        b1 = p(2)
      end if
      apexa = 0
      apexb = 0
      do t = 0, 1
        do k = 1, 3
          c1 = npscr(3 * t + k)
          c2 = npscr(3 * t + mod(k, 3) + 1)
          c3 = npscr(3 * t + mod(k + 1, 3) + 1)
          if ((c1 == a1 .and. c2 == a2) .or. (c1 == a2 .and. c2 == a1)) apexa = c3
          if ((c1 == b1 .and. c2 == b2) .or. (c1 == b2 .and. c2 == b1)) apexb = c3
        end do
      end do
      itmp = [ipf(apexa), ipf(apexa), ipf(apexb), ipf(apexb), ipf(a1), ipf(a2), ipf(b2), ipf(b1)]
      write (10, *) itmp
    end do
    print *, 'done writing prism connectivity info......'
    print *, ' number of prisms (known,counted):', const(6), visited
100 format(1X, 'ZONE  T= "Prism-Zone ', I3, '"  N= ', I9, ' , E= ', I9, ' ,', ' F=FEPOINT, ET=BRICK')
  end subroutine prsmpts

end program fortranpath
