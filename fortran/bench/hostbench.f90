! A Fortran host timing the grid routines through mod_zelmgrid, to set beside the same host's native
! READ and WRITE statements (bench/fortranpath.f90, ops gridread and gridwrite):
!
!   zelmbench_fortranhost read ENC DBL FILE REPS        readzelmgrid, REPS calls
!   zelmbench_fortranhost write ENC DBL FILE OUT REPS   writezelmgrid of FILE's grid to OUT
!
! Prints "RESULT wall_seconds_per_call cpu_seconds_per_call".
program hostbench
  use mod_zelmgrid
  use mod_gridvars
  use zelmgrid_extras, only: zelmclose
  implicit none
  character(len=16) :: op, arg
  character(len=40) :: fin, fout
  integer :: filetype, reps, rep, ndim, nzones, ngridaux
  logical :: dblprec
  integer, allocatable :: nptsz(:), nfacesz(:), ncellsz(:), mnpfz(:), mfpcz(:), npf(:), ifnode(:, :), ifcell(:, :)
  real, allocatable :: x(:, :)
  integer(8) :: c0, c1, rate
  real :: t0, t1

  call get_command_argument(1, op)
  call get_command_argument(2, arg)
  read (arg, *) filetype
  call get_command_argument(3, arg)
  dblprec = arg /= '0'
  call get_command_argument(4, fin)
  call get_command_argument(command_argument_count(), arg)
  read (arg, *) reps
  if (op == 'write') then
    call get_command_argument(5, fout)
    call readgrid(fin, 0, .false.)
  end if
  call system_clock(c0, rate)
  call cpu_time(t0)
  do rep = 1, reps
    if (op == 'read') then
      if (allocated(x)) deallocate (x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell)
      call readgrid(fin, filetype, dblprec)
    else
      call writezelmgrid(fout, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, &
          npf, ifnode, ifcell)
      call zelmclose(4)  ! the writer leaves unit 4 connected; the baseline closes it too
    end if
  end do
  call cpu_time(t1)
  call system_clock(c1)
  write (0, '(a,2(1x,es12.5))') 'RESULT', real(c1 - c0, 8) / real(rate, 8) / reps, real(t1 - t0, 8) / reps

contains

  subroutine readgrid(file, enc, dbl)
    character(len=40), intent(in) :: file
    integer, intent(in) :: enc
    logical, intent(in) :: dbl
    call readzelmgrid(file, enc, dbl, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, &
        ifcell, .true.)
  end subroutine readgrid

end program hostbench
