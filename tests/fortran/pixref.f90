! Reference for pix files, written with the Fortran runtime's own I/O statements.
!
!   fortran_pixref write FILE FILETYPE DBLPREC NFREE NZONES N1 .. Nnzones
!       writes a pix file of known values: variable ivar at node column k holds
!       real(ivar) * 1000 + real(k) / 7 in 4-byte arithmetic;
!   fortran_pixref read FILE FILETYPE DBLPREC NZONES N1 .. Nnzones
!       reads a pix file and prints what it read, one item a line, reals as their bit patterns:
!         H <bits>          the six header reals (16 hex digits for 8-byte reals, 8 for 4-byte)
!         S [text]          header record 3
!         V ivar iz k <bits> value k of variable ivar in zone iz
!         N nfree           the free count (0 when the file has none)
!         L [text]          a label
!
! FILETYPE 0 is form='unformatted', access='sequential'; 2 is form='unformatted', access='stream';
! 1 is form='formatted' with list-directed records and (A25) for the texts. DBLPREC 1 selects
! 8-byte reals in the unformatted forms. Zone iz of a variable takes node columns ioff ..
! ioff + nptsz(iz) - 1, where ioff is 1 for zones 1 and 2 and 1 + nptsz(1) + .. + nptsz(iz-2) after.
program pixref
  implicit none
  integer, parameter :: u = 20
  character(len=16) :: mode
  character(len=512) :: fname
  integer :: filetype, dblprec, nfree, nzones, iz, ivar, k, nptot, npixvar, ios, first, maxn
  integer, allocatable :: nptsz(:)
  real(4), allocatable :: pix(:,:), buf4(:)
  real(8), allocatable :: buf8(:)
  real(8) :: hd(6)
  real(4) :: h4(6)
  character(len=25) :: string, label
  character(len=25) :: labels(2)
  logical :: wide, text

  call get_command_argument(1, mode)
  call get_command_argument(2, fname)
  filetype = intarg(3)
  dblprec = intarg(4)
  first = 5
  nfree = 0
  if (mode == 'write') then
    nfree = intarg(5)
    first = 6
  end if
  nzones = intarg(first)
  allocate(nptsz(nzones))
  do iz = 1, nzones
    nptsz(iz) = intarg(first + iz)
  end do
  text = filetype == 1
  wide = .not. text .and. dblprec /= 0
  maxn = max(1, maxval(nptsz))
  allocate(buf4(maxn), buf8(maxn))

  if (mode == 'write') then
    call connect('replace')
    nptot = sum(nptsz)
    npixvar = 6 + nfree
    allocate(pix(npixvar, nptot))
    do k = 1, nptot
      do ivar = 1, npixvar
        pix(ivar, k) = real(ivar, 4) * 1000.0 + real(k, 4) / 7.0
      end do
    end do
    hd = [1.0d0 / 3.0d0, 1.4d0, 287.05287d0, 1.225d0, 0.3d0, 101325.0d0 / 7.0d0]
    string = 'Mach 0.5 run, cycle 1200'
    labels(1) = 'pressure coefficient'
    labels(2) = '0123456789abcdefghijklmno'
    if (text) then
      write(u, *) hd(1), hd(2), hd(3)
      write(u, *) hd(4), hd(5), hd(6)
      write(u, '(A25)') string
    else if (wide) then
      write(u) hd(1), hd(2), hd(3)
      write(u) hd(4), hd(5), hd(6)
      write(u) string
    else
      write(u) real(hd(1), 4), real(hd(2), 4), real(hd(3), 4)
      write(u) real(hd(4), 4), real(hd(5), 4), real(hd(6), 4)
      write(u) string
    end if
    do ivar = 1, 6
      call writevariable(ivar)
    end do
    if (nfree > 0) then
      if (text) then
        write(u, *) nfree
      else
        write(u) nfree
      end if
    end if
    do k = 1, nfree
      label = labels(mod(k - 1, 2) + 1)
      if (text) then
        write(u, '(A25)') label
      else
        write(u) label
      end if
    end do
    do ivar = 7, 6 + nfree
      call writevariable(ivar)
    end do
    close(u)
  else
    call connect('old')
    if (text) then
      read(u, *, iostat=ios) hd(1), hd(2), hd(3)
      call check('header record 1')
      read(u, *, iostat=ios) hd(4), hd(5), hd(6)
      call check('header record 2')
      read(u, '(A25)', iostat=ios) string
      call check('header record 3')
    else if (wide) then
      read(u, iostat=ios) hd(1), hd(2), hd(3)
      call check('header record 1')
      read(u, iostat=ios) hd(4), hd(5), hd(6)
      call check('header record 2')
      read(u, iostat=ios) string
      call check('header record 3')
    else
      read(u, iostat=ios) h4(1), h4(2), h4(3)
      call check('header record 1')
      read(u, iostat=ios) h4(4), h4(5), h4(6)
      call check('header record 2')
      read(u, iostat=ios) string
      call check('header record 3')
    end if
    do k = 1, 6
      if (text .or. wide) then
        write(*, '(A,Z16.16)') 'H ', transfer(hd(k), 0_8)
      else
        write(*, '(A,Z8.8)') 'H ', transfer(h4(k), 0)
      end if
    end do
    write(*, '(3A)') 'S [', string, ']'
    do ivar = 1, 6
      call readvariable(ivar)
    end do
    if (text) then
      read(u, *, iostat=ios) nfree
    else
      read(u, iostat=ios) nfree
    end if
    if (ios /= 0) nfree = 0
    write(*, '(A,I0)') 'N ', nfree
    do k = 1, nfree
      if (text) then
        read(u, '(A25)', iostat=ios) label
      else
        read(u, iostat=ios) label
      end if
      call check('label')
      write(*, '(3A)') 'L [', label, ']'
    end do
    do ivar = 7, 6 + nfree
      call readvariable(ivar)
    end do
    close(u)
  end if
  ! Released explicitly: in the sanitizer build the program runs under the leak checker.
  deallocate(nptsz, buf4, buf8)
  if (allocated(pix)) deallocate(pix)

contains

  integer function intarg(i)
    integer, intent(in) :: i
    character(len=32) :: a
    call get_command_argument(i, a)
    read(a, *) intarg
  end function intarg

  subroutine connect(status)
    character(len=*), intent(in) :: status
    select case (filetype)
    case (0)
      open(u, file=trim(fname), form='unformatted', access='sequential', status=status)
    case (2)
      open(u, file=trim(fname), form='unformatted', access='stream', status=status)
    case default
      open(u, file=trim(fname), form='formatted', status=status)
    end select
  end subroutine connect

  subroutine check(what)
    character(len=*), intent(in) :: what
    if (ios /= 0) then
      write(*, '(3A,I0)') 'ERROR reading ', what, ': iostat ', ios
      stop 1
    end if
  end subroutine check

  subroutine writevariable(iv)
    integer, intent(in) :: iv
    integer :: z, j, ioff, before, n
    ioff = 1
    before = 0
    do z = 1, nzones
      n = nptsz(z)
      if (text) then
        write(u, *) (pix(iv, ioff + j - 1), j = 1, n)
      else if (wide) then
        write(u) (dble(pix(iv, ioff + j - 1)), j = 1, n)
      else
        write(u) (pix(iv, ioff + j - 1), j = 1, n)
      end if
      ioff = 1 + before
      before = before + n
    end do
  end subroutine writevariable

  subroutine readvariable(iv)
    integer, intent(in) :: iv
    integer :: z, j, n
    do z = 1, nzones
      n = nptsz(z)
      if (text) then
        read(u, *, iostat=ios) (buf4(j), j = 1, n)
      else if (wide) then
        read(u, iostat=ios) (buf8(j), j = 1, n)
      else
        read(u, iostat=ios) (buf4(j), j = 1, n)
      end if
      call check('values')
      do j = 1, n
        if (wide) then
          write(*, '(A,I0,A,I0,A,I0,A,Z16.16)') 'V ', iv, ' ', z, ' ', j, ' ', transfer(buf8(j), 0_8)
        else
          write(*, '(A,I0,A,I0,A,I0,A,Z8.8)') 'V ', iv, ' ', z, ' ', j, ' ', transfer(buf4(j), 0)
        end if
      end do
    end do
  end subroutine readvariable

end program pixref
