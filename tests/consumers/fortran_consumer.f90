! A Fortran program built against an installed krxlib through `use krx` and
! `pkg-config krxlib-fortran` only. It writes a four-node plate with two modes to the file named by
! its argument, passing constants where the entries only read.
program fortran_consumer
  use krx
  implicit none
  character(len=1024) :: path
  real(8) :: corners(3, 4), shapes(6, 2)
  integer :: status, node, mode
  logical :: ok

  if (command_argument_count() /= 1) then
    print '(a)', 'usage: fortran_consumer <out.krx>'
    error stop 2
  end if
  call get_command_argument(1, path)
  corners = reshape([1d0, 1d0, 0d0, 2d0, 1d0, 0d0, 2d0, 2d0, 0d0, 1d0, 2d0, 0d0], [3, 4])
  shapes = reshape([1d0, 0d0, 0d0, 0d0, 0d0, 0d0, 0d0, 1d0, 0d0, 0d0, 0d0, 0d0], [6, 2])

  call krx_create(4, 2, status)
  if (status /= 0) error stop 1
  call krx_set_header('Fortran consumer', 'plate.f90', 'VELOX', 'made through the module', &
                      '', '', status)
  ok = status == 0
  do node = 1, 4
    call krx_set_node_coordinates_vec(node, corners(:, node), status)
    ok = ok .and. status == 0
    call krx_set_nodal_mass(node, 1d0, status)
    ok = ok .and. status == 0
    call krx_set_nodal_inertia(node, 1d-2, 1d-2, 2d-2, 0d0, 0d0, 0d0, status)
    ok = ok .and. status == 0
    do mode = 1, 2
      call krx_set_mode_shape_vec(mode, node, shapes(:, mode), status)
      ok = ok .and. status == 0
      call krx_set_modal_stress_vec(mode, node, 1d3 * shapes(:, mode), status)
      ok = ok .and. status == 0
      call krx_set_modal_strain_vec(mode, node, 1d-3 * shapes(:, mode), status)
      ok = ok .and. status == 0
    end do
  end do
  call krx_set_interface_node(1, status)
  ok = ok .and. status == 0
  call krx_set_generalized_mass(1, 1, 4d0, status)
  ok = ok .and. status == 0
  call krx_set_generalized_mass(2, 2, 4d0, status)
  ok = ok .and. status == 0
  call krx_set_generalized_stiffness(2, 2, 100d0, status)
  ok = ok .and. status == 0
  call krx_set_face(4, [1, 2, 3, 4], status)
  ok = ok .and. status == 0
  call krx_units_si_multipliers(1d0, 1d0, 1d0, 1d0, status)
  ok = ok .and. status == 0
  call krx_write_krx(path, status)
  ok = ok .and. status == 0
  call krx_terminate(status)
  ok = ok .and. status == 0
  if (.not. ok) then
    print '(a)', 'fortran consumer: an entry failed'
    error stop 1
  end if
  call read_back(trim(path))

contains

  ! The file just written, through the read API: counts, title, coordinates and a mode.
  subroutine read_back(name)
    use, intrinsic :: iso_c_binding, only: c_ptr, c_int, c_int32_t, c_int64_t
    character(len=*), intent(in) :: name
    type(c_ptr) :: file
    integer(c_int64_t) :: nodes, modes
    integer(c_int32_t) :: number
    real(8) :: values(6, 4)
    character(len=64) :: title
    integer(c_int) :: codes(4)
    if (krx_open(name, file) /= KRX_OK) then
      print '(a)', 'fortran consumer: ' // krx_error_message(file)
      error stop 1
    end if
    ! Functions are called one by one: inside .and. the compiler may skip one.
    codes(1) = krx_count(file, KRX_COUNT_NODES, nodes)
    codes(2) = krx_count(file, KRX_COUNT_MODES, modes)
    codes(3) = krx_read_header(file, KRX_HEADER_TITLE, title)
    codes(4) = krx_read_mode(file, KRX_MODE_SHAPE, 1_c_int64_t, number, values)
    ok = all(codes == KRX_OK) .and. nodes == 4 .and. modes == 2 .and. title == 'Fortran consumer'
    ok = ok .and. number == 2
    call krx_close(file)
    if (.not. ok) then
      print '(a)', 'fortran consumer: the file does not read back'
      error stop 1
    end if
  end subroutine
end program
