! The bundled mod_gridvars, for Fortran hosts that have none of their own: the services and shared
! variables that mod_zelmgrid requires, with the same messages as the library's C++ default.
module mod_gridvars
  use, intrinsic :: iso_fortran_env, only: error_unit, output_unit
  use zelmgrid_extras, only: zelmlastreaderror
  implicit none
  private
  public :: numrstrtvar, readallvars, npixvar
  public :: dispreadwrite, dispfilereaderror, checkallocationerror

  ! Number of solution variables of a restart file.
  integer :: numrstrtvar = 0
  ! When true, the solution readers read every variable of a file at once.
  logical :: readallvars = .false.
  ! Number of variables of a pix file (set when a pix file is read).
  integer :: npixvar = 0

  ! The last announcement, so that a failure can say which file it concerns.
  logical :: announced = .false.
  integer :: lastiop = 0, lastkind = 0
  character(len=40) :: lastfile = ' '

contains

  function kindname(ikind) result(name)
    integer, intent(in) :: ikind
    character(len=:), allocatable :: name
    select case (ikind)
    case (10)
      name = 'grid'
    case (20)
      name = 'restart'
    case (30)
      name = 'pix'
    case default
      name = 'data'
    end select
  end function kindname

  function encodingname(filetype, dblprec) result(name)
    integer, intent(in) :: filetype
    logical, intent(in) :: dblprec
    character(len=:), allocatable :: name
    character(len=12) :: num
    select case (filetype)
    case (0)
      name = 'unformatted, ' // merge('8', '4', dblprec) // '-byte reals'
    case (1)
      name = 'formatted'
    case (2)
      name = 'binary, ' // merge('8', '4', dblprec) // '-byte reals'
    case default
      write (num, '(i0)') filetype
      name = 'unknown encoding code ' // trim(num)
    end select
  end function encodingname

  ! Announces that a file is about to be read (iop 1) or written (iop 2); ikind is 10 for a grid,
  ! 20 for a restart and 30 for a pix file. ivar comes from the routines that transfer one
  ! variable per call.
  subroutine dispreadwrite(iop, ikind, ilevel, filename, filetype, dblprec, ivar, iarg1, iarg2, iarg3, iarg4)
    integer, intent(in) :: iop, ikind, ilevel, filetype
    character(len=40), intent(in) :: filename
    logical, intent(in) :: dblprec
    integer, intent(in), optional :: ivar, iarg1, iarg2, iarg3, iarg4
    character(len=12) :: num
    logical :: wide
    wide = btest(transfer(dblprec, 0), 0)
    announced = .true.
    lastiop = iop
    lastkind = ikind
    lastfile = filename
    if (present(ivar)) then
      write (num, '(i0)') ivar
      write (output_unit, '(a)') merge(' Writing ', ' Reading ', iop == 2) // kindname(ikind) // ' file "' // &
          trim(filename) // '" (' // encodingname(filetype, wide) // '), variable ' // trim(num)
    else
      write (output_unit, '(a)') merge(' Writing ', ' Reading ', iop == 2) // kindname(ikind) // ' file "' // &
          trim(filename) // '" (' // encodingname(filetype, wide) // ')'
    end if
  end subroutine dispreadwrite

  ! Reports that a read failed, with the library's account of it.
  subroutine dispfilereaderror()
    character(len=:), allocatable :: detail, msg
    detail = zelmlastreaderror()
    flush (output_unit)
    msg = 'zelmgrid: cannot read '
    ! The account names the file itself; the announcement adds what kind of file it is.
    if (announced .and. len_trim(lastfile) > 0) then
      if (index(detail, '"' // trim(lastfile) // '"') > 0) msg = msg // kindname(lastkind) // ' file '
    end if
    if (len(detail) == 0) then
      msg = msg // 'file: read failed'
    else
      msg = msg // detail
    end if
    write (error_unit, '(a)') msg
  end subroutine dispfilereaderror

  ! Reports a non-zero allocation status and returns; returns quietly for 0.
  subroutine checkallocationerror(istat)
    integer, intent(in) :: istat
    character(len=:), allocatable :: where, why
    character(len=12) :: num
    if (istat == 0) return
    where = ''
    if (announced) where = ' while ' // merge('writing ', 'reading ', lastiop == 2) // kindname(lastkind) // &
        ' file "' // trim(lastfile) // '"'
    flush (output_unit)
    if (istat == 1) then
      ! The array is already allocated and keeps its storage; the Tecplot export asks for some of its
      ! saved arrays again on every call, so this is a note, not an error.
      write (output_unit, '(a)') ' note: allocation status 1 (the array is already allocated and kept)' // where
      return
    end if
    select case (istat)
    case (2)
      why = 'out of memory'
    case (3)
      why = 'the array is not allocated'
    case default
      why = 'allocation failed'
    end select
    write (num, '(i0)') istat
    write (error_unit, '(a)') 'zelmgrid: allocation status ' // trim(num) // ' (' // why // ')' // where
  end subroutine checkallocationerror

end module mod_gridvars
