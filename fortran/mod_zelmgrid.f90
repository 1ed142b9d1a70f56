! mod_zelmgrid for Fortran hosts: the file routines and module variables of the module, running on
! the zelmgrid library through its C functions (zelmgrid/zelmgrid.h).
!
! A host uses it as it always has: `use mod_zelmgrid`, its own allocatable arrays, the routines by
! their names and argument lists. The readers allocate the host's arrays themselves; the module
! variables are the storage that the routines read and write; the routines call the services of
! the host's mod_gridvars and read its variables.
!
! Arguments that a routine returns are intent(inout): on some paths a routine leaves them as they
! were, and it must see an array that the caller passes already allocated (intent(out) would
! release it on entry). Inputs are intent(in).
module mod_zelmgrid
  use, intrinsic :: iso_c_binding, only: c_char, c_double, c_float, c_int, c_int64_t
  use, intrinsic :: iso_fortran_env, only: output_unit
  implicit none
  private

  public :: readzelmgridheader, readzelmgrid, writezelmgrid
  public :: readzelmrstrtfile, readnextzelmrstrtvar, writezelmrstrtfile, writenextzelmrstrtvar
  public :: readzelmpixfile, readnextzelmpixvar, writezelmpixfile, writenextzelmpixvar
  public :: writetecplotfile
  public :: rstype, lastcyc, dtime, dgamma, drgas, dr0, drm0, dp0, dvar, string, nfree, strfree, mfpc

  ! Module variables: the library's own objects.
  integer(c_int), bind(C, name='zelm_rstype') :: rstype
  integer(c_int), bind(C, name='zelm_lastcyc') :: lastcyc
  real(c_double), bind(C, name='zelm_dtime') :: dtime
  real(c_double), bind(C, name='zelm_dgamma') :: dgamma
  real(c_double), bind(C, name='zelm_drgas') :: drgas
  real(c_double), bind(C, name='zelm_dr0') :: dr0
  real(c_double), bind(C, name='zelm_drm0') :: drm0
  real(c_double), bind(C, name='zelm_dp0') :: dp0
  real(c_double), bind(C, name='zelm_dvar') :: dvar
  integer(c_int), bind(C, name='zelm_nfree') :: nfree
  ! Texts longer than one character cannot carry BIND(C); they live in a common block instead.
  character(len=25) :: string
  character(len=25) :: strfree(20)
  common /zelm_pixtext/ string, strfree
  ! Exported for users of the module; no routine touches it.
  integer, allocatable :: mfpc(:)
  ! The Tecplot export's shared blocks are the common blocks /const/ (8 integers) and /formt/
  ! (5 integers): a program unit that declares them shares them with the routines.

  interface
    subroutine c_readzelmgridheader(filename, filetype, ndim, nzones, ngridaux, nptsz, ncellsz) &
        bind(C, name='zelm_readzelmgridheader')
      import :: c_char, c_int
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype
      integer(c_int), intent(inout) :: ndim, nzones, ngridaux
      integer(c_int), allocatable, intent(inout) :: nptsz(:), ncellsz(:)
    end subroutine c_readzelmgridheader

    subroutine c_readzelmgrid(filename, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, &
        mnpfz, mfpcz, npf, ifnode, ifcell, readconn) bind(C, name='zelm_readzelmgrid')
      import :: c_char, c_float, c_int
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, readconn
      integer(c_int), intent(inout) :: ndim, nzones, ngridaux
      real(c_float), allocatable, intent(inout) :: x(:, :)
      integer(c_int), allocatable, intent(inout) :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:)
      integer(c_int), allocatable, intent(inout) :: ifnode(:, :), ifcell(:, :)
    end subroutine c_readzelmgrid

    subroutine c_writezelmgrid(filename, filetype, dblprec, ndim, nzones, ngridaux, x, x1, x2, nptsz, nptsz1, &
        nfacesz, nfacesz1, ncellsz, ncellsz1, mnpfz, mnpfz1, mfpcz, mfpcz1, npf, npf1, ifnode, ifnode1, ifnode2, &
        ifcell, ifcell1, ifcell2) bind(C, name='zelm_writezelmgrid')
      import :: c_char, c_float, c_int, c_int64_t
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, ndim, nzones, ngridaux
      real(c_float), intent(in) :: x(*)
      integer(c_int), intent(in) :: nptsz(*), nfacesz(*), ncellsz(*), mnpfz(*), mfpcz(*), npf(*), ifnode(*), ifcell(*)
      integer(c_int64_t), value :: x1, x2, nptsz1, nfacesz1, ncellsz1, mnpfz1, mfpcz1, npf1, ifnode1, ifnode2, &
          ifcell1, ifcell2
    end subroutine c_writezelmgrid

    subroutine c_readzelmrstrtfile(filename, filetype, dblprec, nzones, ncellsz, ncellsz1, q) &
        bind(C, name='zelm_readzelmrstrtfile')
      import :: c_char, c_float, c_int, c_int64_t
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, ncellsz(*)
      integer(c_int64_t), value :: ncellsz1
      real(c_float), allocatable, intent(inout) :: q(:, :)
    end subroutine c_readzelmrstrtfile

    subroutine c_readnextzelmrstrtvar(ivar, filename, filetype, dblprec, nzones, ncellsz, ncellsz1, q) &
        bind(C, name='zelm_readnextzelmrstrtvar')
      import :: c_char, c_float, c_int, c_int64_t
      integer(c_int), intent(in) :: ivar
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, ncellsz(*)
      integer(c_int64_t), value :: ncellsz1
      real(c_float), allocatable, intent(inout) :: q(:, :)
    end subroutine c_readnextzelmrstrtvar

    subroutine c_writezelmrstrtfile(filename, filetype, dblprec, nzones, ncellsz, ncellsz1, q, q1, q2) &
        bind(C, name='zelm_writezelmrstrtfile')
      import :: c_char, c_float, c_int, c_int64_t
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, ncellsz(*)
      real(c_float), intent(in) :: q(*)
      integer(c_int64_t), value :: ncellsz1, q1, q2
    end subroutine c_writezelmrstrtfile

    subroutine c_writenextzelmrstrtvar(ivar, filename, filetype, dblprec, nzones, ncellsz, ncellsz1, q, q1, q2) &
        bind(C, name='zelm_writenextzelmrstrtvar')
      import :: c_char, c_float, c_int, c_int64_t
      integer(c_int), intent(in) :: ivar
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, ncellsz(*)
      real(c_float), intent(in) :: q(*)
      integer(c_int64_t), value :: ncellsz1, q1, q2
    end subroutine c_writenextzelmrstrtvar

    subroutine c_readzelmpixfile(filename, filetype, dblprec, nzones, nptsz, nptsz1, pix) &
        bind(C, name='zelm_readzelmpixfile')
      import :: c_char, c_float, c_int, c_int64_t
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, nptsz(*)
      integer(c_int64_t), value :: nptsz1
      real(c_float), allocatable, intent(inout) :: pix(:, :)
    end subroutine c_readzelmpixfile

    subroutine c_readnextzelmpixvar(ivar, filename, filetype, dblprec, nzones, nptsz, nptsz1, pix) &
        bind(C, name='zelm_readnextzelmpixvar')
      import :: c_char, c_float, c_int, c_int64_t
      integer(c_int), intent(in) :: ivar
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, nptsz(*)
      integer(c_int64_t), value :: nptsz1
      real(c_float), allocatable, intent(inout) :: pix(:, :)
    end subroutine c_readnextzelmpixvar

    subroutine c_writezelmpixfile(filename, filetype, dblprec, nzones, nptsz, nptsz1, pix, pix1, pix2) &
        bind(C, name='zelm_writezelmpixfile')
      import :: c_char, c_float, c_int, c_int64_t
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, nptsz(*)
      real(c_float), intent(in) :: pix(*)
      integer(c_int64_t), value :: nptsz1, pix1, pix2
    end subroutine c_writezelmpixfile

    subroutine c_writenextzelmpixvar(ivar, filename, filetype, dblprec, nzones, nptsz, nptsz1, pix, pix1, pix2) &
        bind(C, name='zelm_writenextzelmpixvar')
      import :: c_char, c_float, c_int, c_int64_t
      integer(c_int), intent(in) :: ivar
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: filetype, dblprec, nzones, nptsz(*)
      real(c_float), intent(in) :: pix(*)
      integer(c_int64_t), value :: nptsz1, pix1, pix2
    end subroutine c_writenextzelmpixvar

    subroutine c_writetecplotfile(filename, ndim, nzones, x, x1, x2, nptsz, nptsz1, nfacesz, nfacesz1, ncellsz, &
        ncellsz1, mnpfz, mnpfz1, mfpcz, mfpcz1, npf, npf1, ifnode, ifnode1, ifnode2, ifcell, ifcell1, ifcell2, &
        qnode, qnode1, qnode2) bind(C, name='zelm_writetecplotfile')
      import :: c_char, c_double, c_int, c_int64_t
      character(kind=c_char), intent(in) :: filename(*)
      integer(c_int), intent(in) :: ndim, nzones
      real(c_double), intent(in) :: x(*), qnode(*)
      integer(c_int), intent(in) :: nptsz(*), nfacesz(*), ncellsz(*), mnpfz(*), mfpcz(*), npf(*), ifnode(*)
      integer(c_int), intent(inout) :: ifcell(*)
      integer(c_int64_t), value :: x1, x2, nptsz1, nfacesz1, ncellsz1, mnpfz1, mfpcz1, npf1, ifnode1, ifnode2, &
          ifcell1, ifcell2, qnode1, qnode2
    end subroutine c_writetecplotfile
  end interface

contains

  ! A logical as the routines take it: its bits, of which they test the lowest.
  integer(c_int) function bits(l)
    logical, intent(in) :: l
    bits = transfer(l, 0_c_int)
  end function bits

  ! Extent of dimension d of an array, as the C functions take it.
  integer(c_int64_t) function ext(n)
    integer, intent(in) :: n
    ext = int(n, c_int64_t)
  end function ext

  ! The routines print on the C library's standard output; the host's lines written so far go first.
  subroutine zelm_flushfortranoutput() bind(C, name='zelm_flushfortranoutput')
    flush (output_unit)
  end subroutine zelm_flushfortranoutput

  ! ---- grid files ----------------------------------------------------------------------------

  subroutine readzelmgridheader(filename, filetype, ndim, nzones, ngridaux, nptsz, ncellsz)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype
    integer, intent(inout) :: ndim, nzones, ngridaux
    integer, allocatable, intent(inout) :: nptsz(:), ncellsz(:)
    flush (output_unit)
    call c_readzelmgridheader(filename, filetype, ndim, nzones, ngridaux, nptsz, ncellsz)
  end subroutine readzelmgridheader

  subroutine readzelmgrid(filename, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, &
      mfpcz, npf, ifnode, ifcell, readconn)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype
    logical, intent(in) :: dblprec, readconn
    integer, intent(inout) :: ndim, nzones, ngridaux
    real, allocatable, intent(inout) :: x(:, :)
    integer, allocatable, intent(inout) :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:)
    integer, allocatable, intent(inout) :: ifnode(:, :), ifcell(:, :)
    flush (output_unit)
    call c_readzelmgrid(filename, filetype, bits(dblprec), ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, &
        mnpfz, mfpcz, npf, ifnode, ifcell, bits(readconn))
  end subroutine readzelmgrid

  subroutine writezelmgrid(filename, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, &
      mfpcz, npf, ifnode, ifcell)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, ndim, nzones, ngridaux
    logical, intent(in) :: dblprec
    real, intent(in) :: x(:, :)
    integer, intent(in) :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:), ifnode(:, :), ifcell(:, :)
    flush (output_unit)
    call c_writezelmgrid(filename, filetype, bits(dblprec), ndim, nzones, ngridaux, x, ext(size(x, 1)), &
        ext(size(x, 2)), nptsz, ext(size(nptsz)), nfacesz, ext(size(nfacesz)), ncellsz, ext(size(ncellsz)), mnpfz, &
        ext(size(mnpfz)), mfpcz, ext(size(mfpcz)), npf, ext(size(npf)), ifnode, ext(size(ifnode, 1)), &
        ext(size(ifnode, 2)), ifcell, ext(size(ifcell, 1)), ext(size(ifcell, 2)))
  end subroutine writezelmgrid

  ! ---- restart files -------------------------------------------------------------------------

  subroutine readzelmrstrtfile(filename, filetype, dblprec, nzones, ncellsz, q)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: ncellsz(:)
    real, allocatable, intent(inout) :: q(:, :)
    flush (output_unit)
    call c_readzelmrstrtfile(filename, filetype, bits(dblprec), nzones, ncellsz, ext(size(ncellsz)), q)
  end subroutine readzelmrstrtfile

  subroutine readnextzelmrstrtvar(ivar, filename, filetype, dblprec, nzones, ncellsz, q)
    integer, intent(in) :: ivar
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: ncellsz(:)
    real, allocatable, intent(inout) :: q(:, :)
    flush (output_unit)
    call c_readnextzelmrstrtvar(ivar, filename, filetype, bits(dblprec), nzones, ncellsz, ext(size(ncellsz)), q)
  end subroutine readnextzelmrstrtvar

  subroutine writezelmrstrtfile(filename, filetype, dblprec, nzones, ncellsz, q)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: ncellsz(:)
    real, intent(in) :: q(:, :)
    flush (output_unit)
    call c_writezelmrstrtfile(filename, filetype, bits(dblprec), nzones, ncellsz, ext(size(ncellsz)), q, &
        ext(size(q, 1)), ext(size(q, 2)))
  end subroutine writezelmrstrtfile

  subroutine writenextzelmrstrtvar(ivar, filename, filetype, dblprec, nzones, ncellsz, q)
    integer, intent(in) :: ivar
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: ncellsz(:)
    real, intent(in) :: q(:, :)
    flush (output_unit)
    call c_writenextzelmrstrtvar(ivar, filename, filetype, bits(dblprec), nzones, ncellsz, ext(size(ncellsz)), q, &
        ext(size(q, 1)), ext(size(q, 2)))
  end subroutine writenextzelmrstrtvar

  ! ---- pix files -----------------------------------------------------------------------------

  subroutine readzelmpixfile(filename, filetype, dblprec, nzones, nptsz, pix)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: nptsz(:)
    real, allocatable, intent(inout) :: pix(:, :)
    flush (output_unit)
    call c_readzelmpixfile(filename, filetype, bits(dblprec), nzones, nptsz, ext(size(nptsz)), pix)
  end subroutine readzelmpixfile

  subroutine readnextzelmpixvar(ivar, filename, filetype, dblprec, nzones, nptsz, pix)
    integer, intent(in) :: ivar
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: nptsz(:)
    real, allocatable, intent(inout) :: pix(:, :)
    flush (output_unit)
    call c_readnextzelmpixvar(ivar, filename, filetype, bits(dblprec), nzones, nptsz, ext(size(nptsz)), pix)
  end subroutine readnextzelmpixvar

  subroutine writezelmpixfile(filename, filetype, dblprec, nzones, nptsz, pix)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: nptsz(:)
    real, intent(in) :: pix(:, :)
    flush (output_unit)
    call c_writezelmpixfile(filename, filetype, bits(dblprec), nzones, nptsz, ext(size(nptsz)), pix, &
        ext(size(pix, 1)), ext(size(pix, 2)))
  end subroutine writezelmpixfile

  subroutine writenextzelmpixvar(ivar, filename, filetype, dblprec, nzones, nptsz, pix)
    integer, intent(in) :: ivar
    character(len=40), intent(in) :: filename
    integer, intent(in) :: filetype, nzones
    logical, intent(in) :: dblprec
    integer, intent(in) :: nptsz(:)
    real, intent(in) :: pix(:, :)
    flush (output_unit)
    call c_writenextzelmpixvar(ivar, filename, filetype, bits(dblprec), nzones, nptsz, ext(size(nptsz)), pix, &
        ext(size(pix, 1)), ext(size(pix, 2)))
  end subroutine writenextzelmpixvar

  ! ---- Tecplot export ------------------------------------------------------------------------

  subroutine writetecplotfile(filename, ndim, nzones, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell, &
      qnode)
    character(len=40), intent(in) :: filename
    integer, intent(in) :: ndim, nzones
    real(8), intent(in) :: x(:, :), qnode(:, :)
    integer, intent(in) :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:), ifnode(:, :)
    integer, intent(inout) :: ifcell(:, :)
    flush (output_unit)
    call c_writetecplotfile(filename, ndim, nzones, x, ext(size(x, 1)), ext(size(x, 2)), nptsz, ext(size(nptsz)), &
        nfacesz, ext(size(nfacesz)), ncellsz, ext(size(ncellsz)), mnpfz, ext(size(mnpfz)), mfpcz, ext(size(mfpcz)), &
        npf, ext(size(npf)), ifnode, ext(size(ifnode, 1)), ext(size(ifnode, 2)), ifcell, ext(size(ifcell, 1)), &
        ext(size(ifcell, 2)), qnode, ext(size(qnode, 1)), ext(size(qnode, 2)))
  end subroutine writetecplotfile

end module mod_zelmgrid

! What the library offers beyond the module's routines, for hosts that want it.
module zelmgrid_extras
  use, intrinsic :: iso_c_binding, only: c_char, c_funptr, c_int, c_size_t
  implicit none
  private
  public :: zelmclose, zelmlastreaderror, zelmsetfailurehandler, zelmsetallocationlimit

  interface
    ! Closes one of the routines' units: a Fortran CLOSE statement reaches only the runtime's own.
    subroutine zelmclose(unit) bind(C, name='zelm_close')
      import :: c_int
      integer(c_int), intent(in) :: unit
    end subroutine zelmclose

    ! The failure handler, a BIND(C) subroutine handler(message, length) with message a
    ! character(kind=c_char) array and length an integer(c_size_t) passed by value; it must end
    ! the run (STOP). c_null_funptr restores the default.
    subroutine zelmsetfailurehandler(handler) bind(C, name='zelm_setfailurehandler')
      import :: c_funptr
      type(c_funptr), value :: handler
    end subroutine zelmsetfailurehandler

    ! Largest allocation in bytes: larger requests fail as if memory had run out.
    subroutine zelmsetallocationlimit(bytes) bind(C, name='zelm_setallocationlimit')
      import :: c_size_t
      integer(c_size_t), intent(in) :: bytes
    end subroutine zelmsetallocationlimit

    integer(c_size_t) function c_lastreaderror(buf, len) bind(C, name='zelm_lastreaderror')
      import :: c_char, c_size_t
      character(kind=c_char), intent(out) :: buf(*)
      integer(c_size_t), value :: len
    end function c_lastreaderror
  end interface

contains

  ! The account of the last failed read: file, encoding, record, byte offset and cause.
  function zelmlastreaderror() result(text)
    character(len=:), allocatable :: text
    character(len=1) :: probe(1)
    integer(c_size_t) :: n
    n = c_lastreaderror(probe, 0_c_size_t)
    allocate (character(len=n) :: text)
    if (n > 0) n = c_lastreaderror(text, n)
  end function zelmlastreaderror

end module zelmgrid_extras
