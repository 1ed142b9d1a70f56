! A host tool of the solver family, as such tools are written: it uses mod_zelmgrid and
! mod_gridvars, keeps its grid and solution in allocatable arrays and calls the routines by name.
! Built twice: with the bundled mod_gridvars (zelmhost) and with a mod_gridvars of its own
! (zelmhost_own, recordinggridvars.f90).
!
! Each verb reads a file through the module, checks what it read against the same file read with
! the compiler's own READ statements record by record (a difference ends the run with status 1
! and a line on standard error), and writes it back through the module:
!
!   zelmhost grid ENC DBL IN OUT                          grid header reader, reader and writer
!   zelmhost restart ENC DBL NUMVAR NZONES N.. IN OUT     whole-file restart reader and writer
!   zelmhost restartnext ENC DBL NUMVAR NZONES N.. IN OUT one variable per call (ENC 0 or 1)
!   zelmhost pix ENC DBL NZONES N.. IN OUT                whole-file pix reader and writer
!   zelmhost pixnext ENC DBL NZONES N.. IN OUT            pix read whole (formatted: one variable
!                                                         per call), written one variable per call
!   zelmhost tecplot GRID PIX OUT                         Tecplot export of an unformatted grid
!                                                         and pix file (4-byte reals)
!   zelmhost failread ENC DBL IN                          a grid that cannot be read: what is
!                                                         allocated afterwards
!   zelmhost alloclimit BYTES ENC DBL IN                  the same with allocations over BYTES
!                                                         failing
!   zelmhost failwrite OUT                                a grid written where no file can be
!                                                         made, with a failure handler
!
! ENC is the file-type code (0 unformatted, 1 formatted, 2 binary), DBL 1 for 8-byte reals.
program zelmhost
  use mod_zelmgrid
  use mod_gridvars
  use nativeread
  use zelmgrid_extras, only: zelmsetfailurehandler, zelmsetallocationlimit, zelmlastreaderror
  use, intrinsic :: iso_c_binding, only: c_funloc, c_size_t
  implicit none
  character(len=16) :: verb
  character(len=40) :: fin, fout
  integer :: filetype, ndim, nzones, ngridaux, numvar, k, nargs
  logical :: dblprec
  integer, allocatable :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:), ifnode(:, :), ifcell(:, :)
  integer, allocatable :: counts(:)
  real, allocatable :: x(:, :), q(:, :), pix(:, :)

  nargs = command_argument_count()
  call get_command_argument(1, verb)
  select case (trim(verb))
  case ('grid')
    call encoding(2)
    call get_command_argument(4, fin)
    call get_command_argument(5, fout)
    call gridroundtrip()
  case ('restart', 'restartnext')
    call encoding(2)
    numvar = intarg(4)
    call zonecounts(5)
    call restartroundtrip(trim(verb) == 'restartnext')
  case ('pix', 'pixnext')
    call encoding(2)
    call zonecounts(4)
    call pixroundtrip(trim(verb) == 'pixnext')
  case ('tecplot')
    call get_command_argument(2, fin)
    call get_command_argument(4, fout)
    call export()
  case ('failread')
    call encoding(2)
    call get_command_argument(4, fin)
    call readgridonly()
  case ('alloclimit')
    call zelmsetallocationlimit(int(intarg(2), c_size_t))
    call encoding(3)
    call get_command_argument(5, fin)
    call readgridonly()
  case ('failwrite')
    call get_command_argument(2, fout)
    call zelmsetfailurehandler(c_funloc(onfailure))
    allocate (x(2, 0), nptsz(0), nfacesz(0), ncellsz(0), mnpfz(0), mfpcz(0), npf(0), ifnode(0, 0), ifcell(2, 0))
    call writezelmgrid(fout, 0, .false., 2, 0, 0, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell)
    write (*, '(a)') 'the write returned'
  case default
    write (0, '(a)') 'usage: zelmhost grid|restart|restartnext|pix|pixnext|tecplot|failread|alloclimit|failwrite ...'
    stop 2
  end select

contains

  integer function intarg(i)
    integer, intent(in) :: i
    character(len=32) :: a
    call get_command_argument(i, a)
    read (a, *) intarg
  end function intarg

  subroutine encoding(first)
    integer, intent(in) :: first
    filetype = intarg(first)
    dblprec = intarg(first + 1) /= 0
  end subroutine encoding

  ! NZONES N1 .. Nk at argument `first`, then IN and OUT.
  subroutine zonecounts(first)
    integer, intent(in) :: first
    nzones = intarg(first)
    allocate (counts(nzones))
    do k = 1, nzones
      counts(k) = intarg(first + k)
    end do
    call get_command_argument(first + nzones + 1, fin)
    call get_command_argument(first + nzones + 2, fout)
  end subroutine zonecounts

  subroutine gridroundtrip()
    integer :: hndim, hnzones, hngridaux
    integer, allocatable :: hnptsz(:), hncellsz(:)
    type(gridfile) :: ref
    call readzelmgridheader(fin, filetype, hndim, hnzones, hngridaux, hnptsz, hncellsz)
    call readzelmgrid(fin, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, &
        ifnode, ifcell, .true.)
    call readgridnative(trim(fin), filetype, dblprec, ref)
    call expect(hndim == ref%ndim .and. hnzones == ref%nzones .and. hngridaux == ref%ngridaux, 'header reader: header')
    call expect(all(hnptsz == ref%nptsz) .and. all(hncellsz == ref%ncellsz), 'header reader: zone counts')
    call expect(ndim == ref%ndim .and. nzones == ref%nzones .and. ngridaux == ref%ngridaux, 'header')
    call expect(all(nptsz == ref%nptsz) .and. all(nfacesz == ref%nfacesz) .and. all(ncellsz == ref%ncellsz) .and. &
        all(mnpfz == ref%mnpfz) .and. all(mfpcz == ref%mfpcz), 'zone counts')
    call expect(all(shape(x) == shape(ref%x)), 'shape of x')
    call expect(all(transfer(x, 0, size(x)) == transfer(ref%x, 0, size(ref%x))), 'coordinates')
    call expect(all(npf == ref%npf) .and. all(ifcell == ref%ifcell), 'face counts and cells')
    do k = 1, size(npf)
      call expect(all(ifnode(1:npf(k), k) == ref%ifnode(1:npf(k), k)), 'face nodes')
    end do
    call writezelmgrid(fout, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, &
        npf, ifnode, ifcell)
  end subroutine gridroundtrip

  subroutine restartroundtrip(onebyone)
    logical, intent(in) :: onebyone
    type(restartfile) :: ref
    integer :: v
    numrstrtvar = numvar
    readallvars = .not. onebyone
    call readrestartnative(trim(fin), filetype, dblprec, numvar, counts, ref)
    call readzelmrstrtfile(fin, filetype, dblprec, nzones, counts, q)
    call expect(transfer(dtime, 0_8) == transfer(ref%h(1), 0_8) .and. lastcyc == ref%lastcyc .and. &
        rstype == ref%rstype, 'header record 1')
    call expect(all(transfer([dgamma, drgas, dr0, drm0, dp0], 0_8, 5) == transfer(ref%h(2:6), 0_8, 5)), &
        'header records 2 and 3')
    if (onebyone) then
      call expect(all(shape(q) == [1, sum(counts)]), 'shape of q')
      do v = 1, numvar
        call readnextzelmrstrtvar(v, fin, filetype, dblprec, nzones, counts, q)
        call samevalues(q(1, :), ref%q(v, :), ref%set, 'variable')
        call writenextzelmrstrtvar(v, fout, filetype, dblprec, nzones, counts, q)
      end do
    else
      call expect(all(shape(q) == [numvar, sum(counts)]), 'shape of q')
      do v = 1, numvar
        call samevalues(q(v, :), ref%q(v, :), ref%set, 'variable')
      end do
      call writezelmrstrtfile(fout, filetype, dblprec, nzones, counts, q)
    end if
  end subroutine restartroundtrip

  subroutine pixroundtrip(onebyone)
    logical, intent(in) :: onebyone
    type(pixfile) :: ref
    real, allocatable :: row(:, :)
    integer :: v
    call readpixnative(trim(fin), filetype, dblprec, counts, ref)
    ! Variables one per call can be read from a formatted file only: an unformatted or binary one is
    ! left at its start.
    readallvars = .not. (onebyone .and. filetype == 1)
    call readzelmpixfile(fin, filetype, dblprec, nzones, counts, pix)
    call expect(npixvar == 6 + ref%nfree .and. nfree == ref%nfree, 'npixvar and nfree')
    call expect(all(transfer([dvar, dgamma, drgas, dr0, drm0, dp0], 0_8, 6) == transfer(ref%h, 0_8, 6)), 'header')
    call expect(string == ref%string, 'header text')
    allocate (row(1, sum(counts)))
    do v = 1, npixvar
      if (readallvars) then
        call samevalues(pix(v, :), ref%pix(v, :), ref%set, 'pix variable')
        row(1, :) = pix(v, :)
      else
        call readnextzelmpixvar(v, fin, filetype, dblprec, nzones, counts, pix)
        call samevalues(pix(1, :), ref%pix(v, :), ref%set, 'pix variable')
        row(1, :) = pix(1, :)
      end if
      if (onebyone) call writenextzelmpixvar(v, fout, filetype, dblprec, nzones, counts, row)
    end do
    if (nfree > 0) call expect(all(strfree(1:nfree) == ref%labels(1:nfree)), 'labels')
    if (.not. onebyone) call writezelmpixfile(fout, filetype, dblprec, nzones, counts, pix)
  end subroutine pixroundtrip

  subroutine export()
    character(len=40) :: fpix
    real(8), allocatable :: x8(:, :), qnode(:, :)
    integer :: iconst(8), iformt(5)
    common /const/ iconst
    common /formt/ iformt
    call get_command_argument(3, fpix)
    call readzelmgrid(fin, 0, .false., ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, &
        ifcell, .true.)
    readallvars = .true.
    call readzelmpixfile(fpix, 0, .false., nzones, nptsz, pix)
    x8 = real(x, 8)
    qnode = real(pix, 8)
    numrstrtvar = npixvar
    call writetecplotfile(fout, ndim, nzones, x8, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell, qnode)
    ! What the export leaves behind in its shared blocks and in the face-to-cell table it consumed.
    write (*, '(a,*(1x,i0))') 'const', iconst
    write (*, '(a,*(1x,i0))') 'formt', iformt
    write (*, '(a,*(1x,i0))') 'ifcell', sum(int(ifcell, 8)), count(ifcell /= 0)
  end subroutine export

  ! Reads a grid and tells what the reader left allocated, with the shapes.
  subroutine readgridonly()
    call readzelmgrid(fin, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, &
        ifnode, ifcell, .true.)
    if (allocated(x)) then
      write (*, '(a,*(1x,i0))') 'x allocated', shape(x)
    else
      write (*, '(a)') 'x unallocated'
    end if
    call report1('nptsz', nptsz)
    call report1('nfacesz', nfacesz)
    call report1('ncellsz', ncellsz)
    call report1('mnpfz', mnpfz)
    call report1('mfpcz', mfpcz)
    call report1('npf', npf)
    call report2('ifnode', ifnode)
    call report2('ifcell', ifcell)
    write (0, '(a)') 'last read error: ' // zelmlastreaderror()
  end subroutine readgridonly

  subroutine report1(name, a)
    character(len=*), intent(in) :: name
    integer, allocatable, intent(in) :: a(:)
    if (allocated(a)) then
      write (*, '(a,*(1x,i0))') name // ' allocated', shape(a), lbound(a)
    else
      write (*, '(a)') name // ' unallocated'
    end if
  end subroutine report1

  subroutine report2(name, a)
    character(len=*), intent(in) :: name
    integer, allocatable, intent(in) :: a(:, :)
    if (allocated(a)) then
      write (*, '(a,*(1x,i0))') name // ' allocated', shape(a), lbound(a)
    else
      write (*, '(a)') name // ' unallocated'
    end if
  end subroutine report2

  ! The host's failure handler: reports the message and ends the run with a status of its own.
  subroutine onfailure(message, length) bind(C)
    use, intrinsic :: iso_c_binding, only: c_char, c_size_t
    character(kind=c_char), intent(in) :: message(*)
    integer(c_size_t), value :: length
    integer :: i
    write (*, '(a)', advance='no') 'host failure handler: '
    write (*, '(*(a))') (message(i), i = 1, int(length))
    stop 3
  end subroutine onfailure

end program zelmhost
