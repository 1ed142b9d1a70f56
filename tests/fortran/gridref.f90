! Reference reader and writer of grid files, written with the compiler's own I/O statements.
!
!   gridref write ENCODING PREC NZONES FILE   writes the reference grid of NZONES zones
!   gridref read  ENCODING PREC FILE          reads a grid file and prints it
!
! ENCODING is unformatted (form='unformatted', access='sequential'), binary (form='unformatted',
! access='stream') or formatted (list-directed). PREC is 4 or 8: the width of the coordinates on
! disk (the formatted encoding always holds 4-byte reals).
!
! The reference grid: zone k has 3+k nodes, 2+k faces, k cells, mnpfz 2+k and mfpcz 4+k; node i
! (over the whole grid) has coordinate d = real(1.1*i + d/3, 4); face f of zone k has
! mod(f*f + k, 3 + nzones) nodes, node m of it is 1000*k + 10*f + m, and its cells are f and
! (f odd) -f or (f even) f+1. ngridaux is 77 and ndim 3.
!
! The printout, one item per line, reals as the bit patterns of their bytes:
!   header NDIM NZONES NGRIDAUX
!   zone K NPTSZ NFACESZ NCELLSZ MNPFZ MFPCZ
!   node I BITS...
!   face F N NODE... CELL1 CELL2
program gridref
  implicit none
  character(len=16) :: mode, encoding, arg
  character(len=4096) :: file
  integer :: prec, nzones

  call get_command_argument(1, mode)
  call get_command_argument(2, encoding)
  call get_command_argument(3, arg)
  read (arg, *) prec
  if (mode == 'write') then
    call get_command_argument(4, arg)
    read (arg, *) nzones
    call get_command_argument(5, file)
    call writegrid(trim(file), trim(encoding), prec, nzones)
  else if (mode == 'read') then
    call get_command_argument(4, file)
    call readgrid(trim(file), trim(encoding), prec)
  else
    write (0, *) 'usage: gridref write|read ENCODING PREC ...'
    stop 1
  end if

contains

  subroutine openfile(u, file, encoding, status)
    integer, intent(in) :: u
    character(len=*), intent(in) :: file, encoding, status
    select case (encoding)
    case ('unformatted')
      open (u, file=file, form='unformatted', access='sequential', status=status)
    case ('binary')
      open (u, file=file, form='unformatted', access='stream', status=status)
    case ('formatted')
      open (u, file=file, form='formatted', status=status)
    case default
      write (0, *) 'unknown encoding ', encoding
      stop 1
    end select
  end subroutine openfile

  subroutine writegrid(file, encoding, prec, nzones)
    character(len=*), intent(in) :: file, encoding
    integer, intent(in) :: prec, nzones
    integer, parameter :: u = 21, ndim = 3, ngridaux = 77
    integer :: nptsz(nzones), nfacesz(nzones), ncellsz(nzones), mnpfz(nzones), mfpcz(nzones)
    integer :: k, j, i, d, f, n, node, cells(2)
    integer, allocatable :: nodes(:)
    ! volatile: the optimiser must not skip the rounding to 4 bytes before the widening
    real(4), volatile :: x4(ndim)
    real(8) :: x8(ndim)
    logical :: text

    text = encoding == 'formatted'
    do k = 1, nzones
      nptsz(k) = 3 + k
      nfacesz(k) = 2 + k
      ncellsz(k) = k
      mnpfz(k) = 2 + k
      mfpcz(k) = 4 + k
    end do
    call openfile(u, file, encoding, 'replace')
    if (text) then
      write (u, *) ndim, nzones, ngridaux
      ! one line per zone, as the grid reader reads them
      do k = 1, nzones
        write (u, *) nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k)
      end do
    else
      write (u) ndim, nzones, ngridaux
      write (u) (nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k), k = 1, nzones)
    end if
    node = 0
    f = 0
    do k = 1, nzones
      do j = 1, nptsz(k)
        node = node + 1
        do d = 1, ndim
          x4(d) = real(node*1.1d0 + d/3.0d0, 4)
        end do
        x8 = real(x4, 8)
        if (text) then
          write (u, *) x4
        else if (prec == 8) then
          write (u) x8
        else
          write (u) x4
        end if
      end do
      do j = 1, nfacesz(k)
        f = f + 1
        n = mod(f*f + k, 3 + nzones)
        nodes = [(1000*k + 10*f + i, i = 1, n)]
        cells(1) = f
        cells(2) = merge(-f, f + 1, mod(f, 2) == 1)
        if (text) then
          write (u, *) n, nodes, cells
        else
          write (u) n, nodes, cells
        end if
      end do
    end do
    close (u)
  end subroutine writegrid

  subroutine readgrid(file, encoding, prec)
    character(len=*), intent(in) :: file, encoding
    integer, intent(in) :: prec
    integer, parameter :: u = 22
    integer :: ndim, nzones, ngridaux, k, i, f, n, node, width, nfaces
    integer, allocatable :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:)
    integer, allocatable :: npf(:), ifnode(:, :), ifcell(:, :)
    real(4), allocatable :: x4(:)
    real(8), allocatable :: x8(:)
    logical :: text

    text = encoding == 'formatted'
    call openfile(u, file, encoding, 'old')
    if (text) then
      read (u, *) ndim, nzones, ngridaux
    else
      read (u) ndim, nzones, ngridaux
    end if
    write (*, '(a,*(1x,i0))') 'header', ndim, nzones, ngridaux
    allocate (nptsz(nzones), nfacesz(nzones), ncellsz(nzones), mnpfz(nzones), mfpcz(nzones))
    ! all zones' counts with one statement, crossing lines in the formatted encoding
    if (text) then
      read (u, *) (nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k), k = 1, nzones)
    else
      read (u) (nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k), k = 1, nzones)
    end if
    do k = 1, nzones
      write (*, '(a,*(1x,i0))') 'zone', k, nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k)
    end do
    width = 0
    do k = 1, nzones
      width = max(width, mnpfz(k))
    end do
    nfaces = sum(nfacesz)
    allocate (x4(ndim), x8(ndim), npf(nfaces), ifnode(width, nfaces), ifcell(2, nfaces))
    node = 0
    f = 0
    do k = 1, nzones
      do i = 1, nptsz(k)
        node = node + 1
        if (text) then
          read (u, *) x4
        else if (prec == 8) then
          read (u) x8
        else
          read (u) x4
        end if
        if (prec == 8 .and. .not. text) then
          write (*, '(a,*(1x,i0))') 'node', node, transfer(x8, [0_8], ndim)
        else
          write (*, '(a,*(1x,i0))') 'node', node, transfer(x4, [0], ndim)
        end if
      end do
      do i = 1, nfacesz(k)
        f = f + 1
        if (text) then
          read (u, *) npf(f), (ifnode(n, f), n = 1, npf(f)), ifcell(1, f), ifcell(2, f)
        else
          read (u) npf(f), (ifnode(n, f), n = 1, npf(f)), ifcell(1, f), ifcell(2, f)
        end if
        write (*, '(a,*(1x,i0))') 'face', f, npf(f), ifnode(1:npf(f), f), ifcell(:, f)
      end do
    end do
    close (u)
  end subroutine readgrid

end program gridref
