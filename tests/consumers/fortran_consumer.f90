! A Fortran program built against an installed krxlib through `use krx` and
! `pkg-config krxlib-fortran` only. It writes a four-node plate with two modes to the file named by
! its argument, passing constants where the entries only read, and reads it back.
program fortran_consumer
  use krx
  use, intrinsic :: iso_c_binding, only: c_ptr, c_int, c_int32_t, c_int64_t
  implicit none
  character(len=1024) :: path
  character(len=64) :: title
  real(8) :: corners(3, 4), shapes(6, 2), values(6, 4)
  integer :: status, node, mode, failed = 0
  type(c_ptr) :: file
  integer(c_int64_t) :: nodes, modes
  integer(c_int32_t) :: number
  integer(c_int) :: codes(4)

  if (command_argument_count() /= 1) error stop 2
  call get_command_argument(1, path)
  corners = reshape([1d0, 1d0, 0d0, 2d0, 1d0, 0d0, 2d0, 2d0, 0d0, 1d0, 2d0, 0d0], [3, 4])
  shapes = reshape([1d0, 0d0, 0d0, 0d0, 0d0, 0d0, 0d0, 1d0, 0d0, 0d0, 0d0, 0d0], [6, 2])

  call krx_create(4, 2, status); call tally
  call krx_set_header('Fortran consumer', 'plate.f90', 'VELOX', 'made through the module', &
                      '', '', status); call tally
  do node = 1, 4
    call krx_set_node_coordinates_vec(node, corners(:, node), status); call tally
    call krx_set_nodal_mass(node, 1d0, status); call tally
    call krx_set_nodal_inertia(node, 1d-2, 1d-2, 2d-2, 0d0, 0d0, 0d0, status); call tally
    do mode = 1, 2
      call krx_set_mode_shape_vec(mode, node, shapes(:, mode), status); call tally
      call krx_set_modal_stress_vec(mode, node, 1d3 * shapes(:, mode), status); call tally
      call krx_set_modal_strain_vec(mode, node, 1d-3 * shapes(:, mode), status); call tally
    end do
  end do
  call krx_set_interface_node(1, status); call tally
  call krx_set_generalized_mass(1, 1, 4d0, status); call tally
  call krx_set_generalized_mass(2, 2, 4d0, status); call tally
  call krx_set_generalized_stiffness(2, 2, 100d0, status); call tally
  call krx_set_face(4, [1, 2, 3, 4], status); call tally
  call krx_units_si_multipliers(1d0, 1d0, 1d0, 1d0, status); call tally
  call krx_write_krx(path, status); call tally
  call krx_terminate(status); call tally
  if (failed /= 0) error stop 'fortran consumer: an entry failed'

  ! The file just written, through the read API: counts, title and a mode. Functions are called
  ! one by one: inside .and. the compiler may skip one.
  if (krx_open(trim(path), file) /= KRX_OK) error stop 'fortran consumer: the file does not open'
  codes(1) = krx_count(file, KRX_COUNT_NODES, nodes)
  codes(2) = krx_count(file, KRX_COUNT_MODES, modes)
  codes(3) = krx_read_header(file, KRX_HEADER_TITLE, title)
  codes(4) = krx_read_mode(file, KRX_MODE_SHAPE, 1_c_int64_t, number, values)
  call krx_close(file)
  if (any(codes /= KRX_OK) .or. nodes /= 4 .or. modes /= 2 .or. title /= 'Fortran consumer' &
      .or. number /= 2) error stop 'fortran consumer: the file does not read back'

contains
  subroutine tally
    if (status /= 0) failed = failed + 1
  end subroutine
end program
