! A host program written the way a Fortran finite-element code calls the library: every argument
! by reference, the hidden lengths of character arguments after all others, and the three
! callbacks defined here. Exits with a nonzero code on the first unexpected result.
module host_callbacks
  use iso_c_binding
  implicit none
  integer :: notes = 0, warnings = 0, errors = 0, inquiries = 0
  logical :: saw_title = .false., saw_face_error = .false.
contains
  function c_text(text) result(out)
    type(c_ptr), value :: text
    character(len=:), allocatable :: out
    character(kind=c_char), pointer :: chars(:)
    integer :: n
    call c_f_pointer(text, chars, [4096])
    n = 0
    do while (chars(n + 1) /= c_null_char)
      n = n + 1
    end do
    allocate(character(len=n) :: out)
    out = transfer(chars(1:n), out)
  end function

  integer(c_int) function cw_vlxmsg(text) bind(C, name='cwVlxmsg')
    type(c_ptr), value :: text
    notes = notes + 1
    if (c_text(text) == 'Title: Beam model') saw_title = .true.
    cw_vlxmsg = 0
  end function

  integer(c_int) function cw_vlxerr(level, text) bind(C, name='cwVlxerr')
    integer(c_int), value :: level
    type(c_ptr), value :: text
    character(len=:), allocatable :: message
    message = c_text(text)
    if (level == 2) warnings = warnings + 1
    if (level == 3) errors = errors + 1
    if (level == 3 .and. message == 'Unable to create a face with 9 vertices') &
      saw_face_error = .true.
    cw_vlxerr = 0
  end function

  integer(c_int) function cw_iopiqr(key) bind(C, name='cwIopiqr')
    integer(c_int) :: key
    inquiries = inquiries + 1
    cw_iopiqr = 0
    if (key /= 4) cw_iopiqr = -1
  end function
end module

module krx_interfaces
  use iso_c_binding
  implicit none
  interface
    subroutine krx_create(nodes, modes, status) bind(C, name='KRX_CREATE')
      import :: c_int
      integer(c_int) :: nodes, modes, status
    end subroutine
    subroutine krx_set_header(title, name, type, c1, c2, c3, status, l1, l2, l3, l4, l5, l6) &
        bind(C, name='KRX_SET_HEADER')
      import :: c_int, c_char
      character(kind=c_char), dimension(*) :: title, name, type, c1, c2, c3
      integer(c_int) :: status
      integer(c_int), value :: l1, l2, l3, l4, l5, l6
    end subroutine
    subroutine krx_set_node_coordinates_vec(id, xyz, status) &
        bind(C, name='KRX_SET_NODE_COORDINATES_VEC')
      import :: c_int, c_double
      integer(c_int) :: id, status
      real(c_double) :: xyz(3)
    end subroutine
    subroutine krx_set_nodal_mass(id, mass, status) bind(C, name='KRX_SET_NODAL_MASS')
      import :: c_int, c_double
      integer(c_int) :: id, status
      real(c_double) :: mass
    end subroutine
    subroutine krx_set_nodal_inertia(id, i11, i22, i33, i12, i13, i23, status) &
        bind(C, name='KRX_SET_NODAL_INERTIA')
      import :: c_int, c_double
      integer(c_int) :: id, status
      real(c_double) :: i11, i22, i33, i12, i13, i23
    end subroutine
    subroutine krx_set_mode_shape_vec(mode, id, values, status) &
        bind(C, name='KRX_SET_MODE_SHAPE_VEC')
      import :: c_int, c_double
      integer(c_int) :: mode, id, status
      real(c_double) :: values(6)
    end subroutine
    subroutine krx_set_generalized_mass(row, col, value, status) &
        bind(C, name='KRX_SET_GENERALIZED_MASS')
      import :: c_int, c_double
      integer(c_int) :: row, col, status
      real(c_double) :: value
    end subroutine
    subroutine krx_set_generalized_stiffness(row, col, value, status) &
        bind(C, name='KRX_SET_GENERALIZED_STIFFNESS')
      import :: c_int, c_double
      integer(c_int) :: row, col, status
      real(c_double) :: value
    end subroutine
    subroutine krx_set_interface_node(id, status) bind(C, name='KRX_SET_INTERFACE_NODE')
      import :: c_int
      integer(c_int) :: id, status
    end subroutine
    subroutine krx_set_face(count, ids, status) bind(C, name='KRX_SET_FACE')
      import :: c_int
      integer(c_int) :: count, ids(*), status
    end subroutine
    subroutine krx_units_si_multipliers(mass, length, time, force, status) &
        bind(C, name='KRX_UNITS_SI_MULTIPLIERS')
      import :: c_int, c_double
      real(c_double) :: mass, length, time, force
      integer(c_int) :: status
    end subroutine
    subroutine krx_terminate(status) bind(C, name='KRX_TERMINATE')
      import :: c_int
      integer(c_int) :: status
    end subroutine
  end interface
end module

program fortran_host
  use iso_c_binding
  use host_callbacks
  use krx_interfaces
  implicit none
  character(len=127) :: title
  character(len=127) :: input_name
  character(len=15) :: input_type
  character(len=79) :: comment
  integer(c_int) :: status, nodes, modes, node, mode, count, ids(9)
  real(c_double) :: xyz(3), values(6), mass, one, zero, stiffness

  nodes = 100
  modes = 4
  call krx_create(nodes, modes, status)
  call expect(status == 0, 'KRX_CREATE')

  title = 'Beam model'
  input_name = 'beam.fem'
  input_type = 'VELOX'
  comment = 'made by the Fortran host'
  call krx_set_header(title, input_name, input_type, comment, comment, comment, status, &
                      len(title), len(input_name), len(input_type), len(comment), &
                      len(comment), len(comment))
  call expect(status == 0, 'KRX_SET_HEADER')
  call expect(saw_title, 'the title note')

  mass = 0.5d0
  one = 1.0d0
  zero = 0.0d0
  do node = 1, 9
    xyz = [dble(node), 0.0d0, 0.0d0]
    call krx_set_node_coordinates_vec(node, xyz, status)
    call expect(status == 0, 'KRX_SET_NODE_COORDINATES_VEC')
    call krx_set_nodal_mass(node, mass, status)
    call expect(status == 0, 'KRX_SET_NODAL_MASS')
    call krx_set_nodal_inertia(node, one, one, one, zero, zero, zero, status)
    call expect(status == 0, 'KRX_SET_NODAL_INERTIA')
    do mode = 1, 2
      values = 0.0d0
      values(mode) = 1.0d0
      call krx_set_mode_shape_vec(mode, node, values, status)
      call expect(status == 0, 'KRX_SET_MODE_SHAPE_VEC')
    end do
  end do

  do mode = 1, 2
    call krx_set_generalized_mass(mode, mode, one, status)
    call expect(status == 0, 'KRX_SET_GENERALIZED_MASS')
    stiffness = 100.0d0 * mode
    call krx_set_generalized_stiffness(mode, mode, stiffness, status)
    call expect(status == 0, 'KRX_SET_GENERALIZED_STIFFNESS')
  end do

  node = 1
  call krx_set_interface_node(node, status)
  call expect(status == 0, 'KRX_SET_INTERFACE_NODE')

  ids = [1, 2, 3, 4, 5, 6, 7, 8, 9]
  count = 9
  call krx_set_face(count, ids, status)
  call expect(status == 0 .and. saw_face_error, 'KRX_SET_FACE with 9 vertices')
  count = 4
  call krx_set_face(count, ids, status)
  call expect(status == 0, 'KRX_SET_FACE with 4 vertices')

  call krx_units_si_multipliers(one, one, one, one, status)
  call expect(status == 0, 'KRX_UNITS_SI_MULTIPLIERS')

  call krx_terminate(status)
  call expect(status == 0, 'KRX_TERMINATE')

  call expect(errors == 1, 'one error (the face)')
  call expect(warnings == 0, 'no warnings')
  call expect(notes >= 6, 'the six header notes')
  print '(a, 3i4)', 'fortran host: notes, warnings, errors =', notes, warnings, errors

contains
  subroutine expect(condition, what)
    logical, intent(in) :: condition
    character(len=*), intent(in) :: what
    if (.not. condition) then
      print '(2a)', 'fortran host: unexpected result: ', what
      error stop 1
    end if
  end subroutine
end program
