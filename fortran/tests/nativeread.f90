! The family's files read with the compiler's own READ statements, record by record, for the host
! programs to check what the module read. "unformatted" is form='unformatted' sequential, "binary"
! form='unformatted' stream, "formatted" list-directed (A25 for the pix texts). Zone z of a restart
! or pix variable goes where the routines put it: zones 1 and 2 from position 1, zone z >= 3 after
! the counts of zones 1 .. z-2; `set` marks the positions that some record filled.
module nativeread
  implicit none
  private
  public :: gridfile, restartfile, pixfile, readgridnative, readrestartnative, readpixnative, expect, samevalues

  integer, parameter :: u = 31

  type gridfile
    integer :: ndim = 0, nzones = 0, ngridaux = 0
    integer, allocatable :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:), ifnode(:, :), ifcell(:, :)
    real, allocatable :: x(:, :)
  end type gridfile

  type restartfile
    real(8) :: h(6) = 0  ! dtime, dgamma, drgas, dr0, drm0, dp0
    integer :: lastcyc = 0, rstype = 0
    real, allocatable :: q(:, :)
    logical, allocatable :: set(:)
  end type restartfile

  type pixfile
    real(8) :: h(6) = 0  ! dvar, dgamma, drgas, dr0, drm0, dp0
    character(len=25) :: string = ' '
    integer :: nfree = 0
    character(len=25), allocatable :: labels(:)
    real, allocatable :: pix(:, :)
    logical, allocatable :: set(:)
  end type pixfile

contains

  subroutine connect(file, filetype)
    character(len=*), intent(in) :: file
    integer, intent(in) :: filetype
    select case (filetype)
    case (0)
      open (u, file=file, form='unformatted', access='sequential', status='old')
    case (2)
      open (u, file=file, form='unformatted', access='stream', status='old')
    case default
      open (u, file=file, form='formatted', status='old')
    end select
  end subroutine connect

  subroutine expect(ok, what)
    logical, intent(in) :: ok
    character(len=*), intent(in) :: what
    if (.not. ok) then
      write (0, '(a)') 'differs from the native read: ' // what
      error stop 1
    end if
  end subroutine expect

  ! The 4-byte values at the positions that a record filled are bit for bit the same.
  subroutine samevalues(got, want, set, what)
    real, intent(in) :: got(:), want(:)
    logical, intent(in) :: set(:)
    character(len=*), intent(in) :: what
    call expect(size(got) == size(want), what // ': length')
    call expect(all(pack(transfer(got, 0, size(got)), set) == pack(transfer(want, 0, size(want)), set)), what)
  end subroutine samevalues

  subroutine readgridnative(file, filetype, dblprec, g)
    character(len=*), intent(in) :: file
    integer, intent(in) :: filetype
    logical, intent(in) :: dblprec
    type(gridfile), intent(out) :: g
    integer :: k, i, f, node, n
    real(8), allocatable :: x8(:)
    logical :: text
    text = filetype == 1
    call connect(file, filetype)
    if (text) then
      read (u, *) g%ndim, g%nzones, g%ngridaux
    else
      read (u) g%ndim, g%nzones, g%ngridaux
    end if
    n = g%nzones
    allocate (g%nptsz(n), g%nfacesz(n), g%ncellsz(n), g%mnpfz(n), g%mfpcz(n))
    if (text) then
      do k = 1, n
        read (u, *) g%nptsz(k), g%nfacesz(k), g%ncellsz(k), g%mnpfz(k), g%mfpcz(k)
      end do
    else
      read (u) (g%nptsz(k), g%nfacesz(k), g%ncellsz(k), g%mnpfz(k), g%mfpcz(k), k = 1, n)
    end if
    allocate (g%x(g%ndim, sum(g%nptsz)), x8(g%ndim), g%npf(sum(g%nfacesz)))
    allocate (g%ifnode(max(0, maxval(g%mnpfz)), sum(g%nfacesz)), g%ifcell(2, sum(g%nfacesz)))
    node = 0
    f = 0
    do k = 1, n
      do i = 1, g%nptsz(k)
        node = node + 1
        if (text) then
          read (u, *) g%x(:, node)
        else if (dblprec) then
          read (u) x8
          g%x(:, node) = real(x8, 4)
        else
          read (u) g%x(:, node)
        end if
      end do
      do i = 1, g%nfacesz(k)
        f = f + 1
        if (text) then
          read (u, *) g%npf(f), g%ifnode(1:g%npf(f), f), g%ifcell(:, f)
        else
          read (u) g%npf(f), g%ifnode(1:g%npf(f), f), g%ifcell(:, f)
        end if
      end do
    end do
    close (u)
  end subroutine readgridnative

  subroutine readrestartnative(file, filetype, dblprec, numvar, ncellsz, r)
    character(len=*), intent(in) :: file
    integer, intent(in) :: filetype, numvar, ncellsz(:)
    logical, intent(in) :: dblprec
    type(restartfile), intent(out) :: r
    real(4) :: h4(6)
    integer :: v
    call connect(file, filetype)
    if (filetype == 1) then
      read (u, *) r%h(1), r%lastcyc, r%rstype
      read (u, *) r%h(2), r%h(3)
      read (u, *) r%h(4), r%h(5), r%h(6)
    else if (dblprec) then
      read (u) r%h(1), r%lastcyc, r%rstype
      read (u) r%h(2), r%h(3)
      read (u) r%h(4), r%h(5), r%h(6)
    else
      read (u) h4(1), r%lastcyc, r%rstype
      read (u) h4(2), h4(3)
      read (u) h4(4), h4(5), h4(6)
      r%h = real(h4, 8)
    end if
    allocate (r%q(numvar, sum(ncellsz)), r%set(sum(ncellsz)))
    r%set = .false.
    do v = 1, numvar
      call readvariable(filetype, dblprec, ncellsz, r%q(v, :), r%set)
    end do
    close (u)
  end subroutine readrestartnative

  subroutine readpixnative(file, filetype, dblprec, nptsz, p)
    character(len=*), intent(in) :: file
    integer, intent(in) :: filetype, nptsz(:)
    logical, intent(in) :: dblprec
    type(pixfile), intent(out) :: p
    real(4) :: h4(6)
    integer :: ios, k, v
    logical :: wide
    wide = filetype /= 1 .and. dblprec
    call connect(file, filetype)
    if (filetype == 1) then
      read (u, *) p%h(1:3)
      read (u, *) p%h(4:6)
      read (u, '(a25)') p%string
    else if (wide) then
      read (u) p%h(1:3)
      read (u) p%h(4:6)
      read (u) p%string
    else
      read (u) h4(1:3)
      read (u) h4(4:6)
      read (u) p%string
      p%h = real(h4, 8)
    end if
    ! Sized for 20 free variables; the count is known only after the fixed ones.
    allocate (p%pix(26, sum(nptsz)), p%set(sum(nptsz)), p%labels(20))
    p%set = .false.
    do v = 1, 6
      call readvariable(filetype, wide, nptsz, p%pix(v, :), p%set)
    end do
    if (filetype == 1) then
      read (u, *, iostat=ios) p%nfree
    else
      read (u, iostat=ios) p%nfree
    end if
    if (ios /= 0) p%nfree = 0
    do k = 1, p%nfree
      if (filetype == 1) then
        read (u, '(a25)') p%labels(k)
      else
        read (u) p%labels(k)
      end if
    end do
    do v = 7, 6 + p%nfree
      call readvariable(filetype, wide, nptsz, p%pix(v, :), p%set)
    end do
    close (u)
  end subroutine readpixnative

  ! One variable's zone records into its row; 8-byte values (`wide`, not formatted) are rounded.
  subroutine readvariable(filetype, wide, counts, row, set)
    integer, intent(in) :: filetype, counts(:)
    logical, intent(in) :: wide
    real, intent(inout) :: row(:)
    logical, intent(inout) :: set(:)
    real(8), allocatable :: v8(:)
    integer :: z, ioff, before
    ioff = 1
    before = 0
    do z = 1, size(counts)
      associate (n => counts(z))
        if (filetype == 1) then
          read (u, *) row(ioff:ioff + n - 1)
        else if (wide) then
          allocate (v8(n))
          read (u) v8
          row(ioff:ioff + n - 1) = real(v8, 4)
          deallocate (v8)
        else
          read (u) row(ioff:ioff + n - 1)
        end if
        set(ioff:ioff + n - 1) = .true.
        ioff = 1 + before
        before = before + n
      end associate
    end do
  end subroutine readvariable

end module nativeread
