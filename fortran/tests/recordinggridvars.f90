! A host's own mod_gridvars, as a solver tool has it: its services write what they are called with
! on standard output, one line a call, so that the tests see every call the routines make.
module mod_gridvars
  implicit none
  integer :: numrstrtvar = 0
  logical :: readallvars = .false.
  integer :: npixvar = 0
  ! Something of the host's own besides what mod_zelmgrid needs.
  integer :: readerrors = 0

contains

  subroutine dispreadwrite(iop, ikind, ilevel, filename, filetype, dblprec, ivar, iopt1, iopt2, iopt3, iopt4)
    integer, intent(in) :: iop, ikind, ilevel, filetype
    character(len=*), intent(in) :: filename
    logical, intent(in) :: dblprec
    integer, intent(in), optional :: ivar, iopt1, iopt2, iopt3, iopt4
    character(len=12) :: v
    v = 'absent'
    if (present(ivar)) write (v, '(i0)') ivar
    write (*, '(a,3(1x,i0),1x,a,1x,i0,1x,l1,1x,a,1x,i0,4(1x,l1))') 'dispreadwrite', iop, ikind, ilevel, &
        '[' // filename // ']', filetype, dblprec, trim(v), len(filename), present(iopt1), present(iopt2), &
        present(iopt3), present(iopt4)
  end subroutine dispreadwrite

  subroutine dispfilereaderror()
    readerrors = readerrors + 1
    write (*, '(a,1x,i0)') 'dispfilereaderror', readerrors
  end subroutine dispfilereaderror

  subroutine checkallocationerror(istat)
    integer, intent(in) :: istat
    write (*, '(a,1x,i0)') 'checkallocationerror', istat
  end subroutine checkallocationerror

end module mod_gridvars
