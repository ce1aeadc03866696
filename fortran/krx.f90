! The krx module: the library's exported entries for Fortran hosts. Each procedure has the name of
! its entry in lower case and the entry's arguments without the hidden lengths; the wrappers pass
! the length of every character argument themselves. Integer and real arguments the entry only
! reads are intent(in), so constants may be passed: call krx_create(1000, 20, status).
! Integers are integer(c_int) (32 bits) and reals real(c_double); status is 0 on success, 1 on
! failure. Notes, warnings and errors reach the host's callbacks cwVlxmsg, cwVlxerr and cwIopiqr
! (see krx.h), which a host may also register with krx_register_host_callbacks and c_funloc.
module krx
  use, intrinsic :: iso_c_binding, only: c_int, c_double, c_char, c_funptr, c_ptr, c_int32_t, &
                                         c_int64_t, c_size_t, c_null_char, c_null_ptr, &
                                         c_associated, c_f_pointer
  implicit none
  private

  public :: krx_create, krx_set_header, krx_set_node_coordinates_vec, krx_set_nodal_mass, &
            krx_set_nodal_inertia, krx_set_mode_shape_vec, krx_set_modal_stress_vec, &
            krx_set_modal_strain_vec, krx_set_generalized_mass, krx_set_generalized_stiffness, &
            krx_set_interface_node, krx_set_face, krx_units_si_multipliers, krx_write_krx, &
            krx_write_velox_krx, krx_terminate, krx_register_host_callbacks

  ! The read API (krx_read.h): a file is a type(c_ptr) handle; every function returns KRX_OK (0)
  ! or an error code, arrays are the caller's, mode indices are 0-based as in C.
  public :: krx_open, krx_close, krx_error_message, krx_count, krx_has_block, krx_read_version, &
            krx_read_header, krx_read_node_ids, krx_read_coordinates, krx_read_nodal_masses, &
            krx_read_body_properties, krx_read_eigenvalues, krx_read_generalized_matrix, &
            krx_read_interface_nodes, krx_read_faces, krx_read_mode_node_ids, krx_read_mode
  integer(c_int), parameter, public :: KRX_OK = 0, KRX_ERROR_OPEN = 1, KRX_ERROR_FORMAT = 2, &
      KRX_ERROR_ABSENT = 3, KRX_ERROR_ARGUMENT = 4, KRX_ERROR_MEMORY = 5
  integer(c_int), parameter, public :: KRX_COUNT_NODES = 1, KRX_COUNT_MODES = 2, &
      KRX_COUNT_MODE_SHAPE_NODES = 3, KRX_COUNT_STRESS_NODES = 4, KRX_COUNT_STRAIN_NODES = 5, &
      KRX_COUNT_FACES = 6, KRX_COUNT_FACE_WORDS = 7, KRX_COUNT_INTERFACE_NODES = 8, &
      KRX_COUNT_MASS_NODES = 9, KRX_COUNT_INERTIA_ENTRIES = 10, KRX_COUNT_MATRIX_ORDER = 11, &
      KRX_COUNT_TRANSFORMATION_ORDER = 12, KRX_COUNT_INVARIANT_MODES = 13
  integer(c_int), parameter, public :: KRX_BLOCK_GENERALIZED_STIFFNESS = 12, &
      KRX_BLOCK_GENERALIZED_MASS = 13, KRX_BLOCK_GENERALIZED_DAMPING = 15, &
      KRX_HEADER_TITLE = 0, KRX_MODE_SHAPE = 0, KRX_MODE_STRESS = 1, KRX_MODE_STRAIN = 2

  ! The entries as the library exports them: every argument by reference, then one hidden length
  ! (int, by value) per character argument, in the order of the character arguments.
  interface
    subroutine raw_create(node_capacity, mode_capacity, status) bind(C, name='KRX_CREATE')
      import :: c_int
      integer(c_int), intent(in) :: node_capacity, mode_capacity
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_header(title, input_name, input_type, comment1, comment2, comment3, &
                              status, title_len, input_name_len, input_type_len, comment1_len, &
                              comment2_len, comment3_len) bind(C, name='KRX_SET_HEADER')
      import :: c_int, c_char
      character(kind=c_char), intent(in) :: title(*), input_name(*), input_type(*), &
                                            comment1(*), comment2(*), comment3(*)
      integer(c_int), intent(out) :: status
      integer(c_int), value :: title_len, input_name_len, input_type_len, comment1_len, &
                               comment2_len, comment3_len
    end subroutine

    subroutine raw_set_node_coordinates_vec(node_id, xyz, status) &
        bind(C, name='KRX_SET_NODE_COORDINATES_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: node_id
      real(c_double), intent(in) :: xyz(3)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_nodal_mass(node_id, mass, status) bind(C, name='KRX_SET_NODAL_MASS')
      import :: c_int, c_double
      integer(c_int), intent(in) :: node_id
      real(c_double), intent(in) :: mass
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_nodal_inertia(node_id, i11, i22, i33, i12, i13, i23, status) &
        bind(C, name='KRX_SET_NODAL_INERTIA')
      import :: c_int, c_double
      integer(c_int), intent(in) :: node_id
      real(c_double), intent(in) :: i11, i22, i33, i12, i13, i23
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_mode_shape_vec(mode, node_id, values, status) &
        bind(C, name='KRX_SET_MODE_SHAPE_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: mode, node_id
      real(c_double), intent(in) :: values(6)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_modal_stress_vec(mode, node_id, values, status) &
        bind(C, name='KRX_SET_MODAL_STRESS_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: mode, node_id
      real(c_double), intent(in) :: values(6)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_modal_strain_vec(mode, node_id, values, status) &
        bind(C, name='KRX_SET_MODAL_STRAIN_VEC')
      import :: c_int, c_double
      integer(c_int), intent(in) :: mode, node_id
      real(c_double), intent(in) :: values(6)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_generalized_mass(row_mode, col_mode, value, status) &
        bind(C, name='KRX_SET_GENERALIZED_MASS')
      import :: c_int, c_double
      integer(c_int), intent(in) :: row_mode, col_mode
      real(c_double), intent(in) :: value
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_generalized_stiffness(row_mode, col_mode, value, status) &
        bind(C, name='KRX_SET_GENERALIZED_STIFFNESS')
      import :: c_int, c_double
      integer(c_int), intent(in) :: row_mode, col_mode
      real(c_double), intent(in) :: value
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_interface_node(node_id, status) bind(C, name='KRX_SET_INTERFACE_NODE')
      import :: c_int
      integer(c_int), intent(in) :: node_id
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_set_face(vertex_count, node_ids, status) bind(C, name='KRX_SET_FACE')
      import :: c_int
      integer(c_int), intent(in) :: vertex_count
      integer(c_int), intent(in) :: node_ids(*)
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_units_si_multipliers(mass, length, time, force, status) &
        bind(C, name='KRX_UNITS_SI_MULTIPLIERS')
      import :: c_int, c_double
      real(c_double), intent(in) :: mass, length, time, force
      integer(c_int), intent(out) :: status
    end subroutine

    subroutine raw_write_krx(path, status, path_len) bind(C, name='KRX_WRITE_KRX')
      import :: c_int, c_char
      character(kind=c_char), intent(in) :: path(*)
      integer(c_int), intent(out) :: status
      integer(c_int), value :: path_len
    end subroutine

    subroutine raw_write_velox_krx(path, normal_modes, additional_modes, status, path_len) &
        bind(C, name='KRX_WRITE_VELOX_KRX')
      import :: c_int, c_char
      character(kind=c_char), intent(in) :: path(*)
      integer(c_int), intent(in) :: normal_modes, additional_modes
      integer(c_int), intent(out) :: status
      integer(c_int), value :: path_len
    end subroutine

    subroutine raw_terminate(status) bind(C, name='KRX_TERMINATE')
      import :: c_int
      integer(c_int), intent(out) :: status
    end subroutine

    ! For hosts that cannot export their callbacks: pass c_funloc of bind(C) functions with the
    ! callbacks' interfaces, or c_null_funptr to restore the default of one of them.
    subroutine krx_register_host_callbacks(msg, err, inquiry) &
        bind(C, name='krx_register_host_callbacks')
      import :: c_funptr
      type(c_funptr), value :: msg, err, inquiry
    end subroutine

    ! ---- the read API ----
    function raw_open(path, file) bind(C, name='krx_open') result(code)
      import :: c_int, c_char, c_ptr
      character(kind=c_char), intent(in) :: path(*)
      type(c_ptr), intent(out) :: file
      integer(c_int) :: code
    end function

    subroutine krx_close(file) bind(C, name='krx_close')
      import :: c_ptr
      type(c_ptr), value :: file
    end subroutine

    function raw_error_message(file) bind(C, name='krx_error_message') result(text)
      import :: c_ptr
      type(c_ptr), value :: file
      type(c_ptr) :: text
    end function

    function raw_strlen(text) bind(C, name='strlen') result(n)
      import :: c_ptr, c_size_t
      type(c_ptr), value :: text
      integer(c_size_t) :: n
    end function

    function krx_count(file, which, count) bind(C, name='krx_count') result(code)
      import :: c_int, c_int64_t, c_ptr
      type(c_ptr), value :: file
      integer(c_int), value :: which
      integer(c_int64_t), intent(out) :: count
      integer(c_int) :: code
    end function

    function krx_has_block(file, block) bind(C, name='krx_has_block') result(has)
      import :: c_int, c_ptr
      type(c_ptr), value :: file
      integer(c_int), value :: block
      integer(c_int) :: has
    end function

    function krx_read_version(file, generation, xdr, real_bytes) &
        bind(C, name='krx_read_version') result(code)
      import :: c_int, c_ptr
      type(c_ptr), value :: file
      integer(c_int), intent(out) :: generation, xdr, real_bytes
      integer(c_int) :: code
    end function

    function raw_read_header(file, field, text, size) bind(C, name='krx_read_header') result(code)
      import :: c_int, c_char, c_ptr, c_size_t
      type(c_ptr), value :: file
      integer(c_int), value :: field
      character(kind=c_char), intent(out) :: text(*)
      integer(c_size_t), value :: size
      integer(c_int) :: code
    end function

    function krx_read_node_ids(file, ids) bind(C, name='krx_read_node_ids') result(code)
      import :: c_int, c_int32_t, c_ptr
      type(c_ptr), value :: file
      integer(c_int32_t), intent(out) :: ids(*)
      integer(c_int) :: code
    end function

    function krx_read_coordinates(file, xyz) bind(C, name='krx_read_coordinates') result(code)
      import :: c_int, c_double, c_ptr
      type(c_ptr), value :: file
      real(c_double), intent(out) :: xyz(*)
      integer(c_int) :: code
    end function

    function krx_read_nodal_masses(file, masses) bind(C, name='krx_read_nodal_masses') result(code)
      import :: c_int, c_double, c_ptr
      type(c_ptr), value :: file
      real(c_double), intent(out) :: masses(*)
      integer(c_int) :: code
    end function

    function krx_read_body_properties(file, values) &
        bind(C, name='krx_read_body_properties') result(code)
      import :: c_int, c_double, c_ptr
      type(c_ptr), value :: file
      real(c_double), intent(out) :: values(13)
      integer(c_int) :: code
    end function

    function krx_read_eigenvalues(file, numbers, records) &
        bind(C, name='krx_read_eigenvalues') result(code)
      import :: c_int, c_int32_t, c_double, c_ptr
      type(c_ptr), value :: file
      integer(c_int32_t), intent(out) :: numbers(*)
      real(c_double), intent(out) :: records(*)
      integer(c_int) :: code
    end function

    function krx_read_generalized_matrix(file, block, matrix) &
        bind(C, name='krx_read_generalized_matrix') result(code)
      import :: c_int, c_double, c_ptr
      type(c_ptr), value :: file
      integer(c_int), value :: block
      real(c_double), intent(out) :: matrix(*)
      integer(c_int) :: code
    end function

    function krx_read_interface_nodes(file, ids) &
        bind(C, name='krx_read_interface_nodes') result(code)
      import :: c_int, c_int32_t, c_ptr
      type(c_ptr), value :: file
      integer(c_int32_t), intent(out) :: ids(*)
      integer(c_int) :: code
    end function

    function krx_read_faces(file, words) bind(C, name='krx_read_faces') result(code)
      import :: c_int, c_int32_t, c_ptr
      type(c_ptr), value :: file
      integer(c_int32_t), intent(out) :: words(*)
      integer(c_int) :: code
    end function

    function krx_read_mode_node_ids(file, kind, ids) &
        bind(C, name='krx_read_mode_node_ids') result(code)
      import :: c_int, c_int32_t, c_ptr
      type(c_ptr), value :: file
      integer(c_int), value :: kind
      integer(c_int32_t), intent(out) :: ids(*)
      integer(c_int) :: code
    end function

    function krx_read_mode(file, kind, mode, number, values) bind(C, name='krx_read_mode') &
        result(code)
      import :: c_int, c_int32_t, c_int64_t, c_double, c_ptr
      type(c_ptr), value :: file
      integer(c_int), value :: kind
      integer(c_int64_t), value :: mode
      integer(c_int32_t), intent(out) :: number
      real(c_double), intent(out) :: values(*)
      integer(c_int) :: code
    end function
  end interface

contains

  subroutine krx_create(node_capacity, mode_capacity, status)
    integer(c_int), intent(in) :: node_capacity, mode_capacity
    integer(c_int), intent(out) :: status
    call raw_create(node_capacity, mode_capacity, status)
  end subroutine

  subroutine krx_set_header(title, input_name, input_type, comment1, comment2, comment3, status)
    character(len=*), intent(in) :: title, input_name, input_type, comment1, comment2, comment3
    integer(c_int), intent(out) :: status
    call raw_set_header(title, input_name, input_type, comment1, comment2, comment3, status, &
                        len(title, c_int), len(input_name, c_int), len(input_type, c_int), &
                        len(comment1, c_int), len(comment2, c_int), len(comment3, c_int))
  end subroutine

  subroutine krx_set_node_coordinates_vec(node_id, xyz, status)
    integer(c_int), intent(in) :: node_id
    real(c_double), intent(in) :: xyz(3)
    integer(c_int), intent(out) :: status
    call raw_set_node_coordinates_vec(node_id, xyz, status)
  end subroutine

  subroutine krx_set_nodal_mass(node_id, mass, status)
    integer(c_int), intent(in) :: node_id
    real(c_double), intent(in) :: mass
    integer(c_int), intent(out) :: status
    call raw_set_nodal_mass(node_id, mass, status)
  end subroutine

  subroutine krx_set_nodal_inertia(node_id, i11, i22, i33, i12, i13, i23, status)
    integer(c_int), intent(in) :: node_id
    real(c_double), intent(in) :: i11, i22, i33, i12, i13, i23
    integer(c_int), intent(out) :: status
    call raw_set_nodal_inertia(node_id, i11, i22, i33, i12, i13, i23, status)
  end subroutine

  subroutine krx_set_mode_shape_vec(mode, node_id, values, status)
    integer(c_int), intent(in) :: mode, node_id
    real(c_double), intent(in) :: values(6)
    integer(c_int), intent(out) :: status
    call raw_set_mode_shape_vec(mode, node_id, values, status)
  end subroutine

  subroutine krx_set_modal_stress_vec(mode, node_id, values, status)
    integer(c_int), intent(in) :: mode, node_id
    real(c_double), intent(in) :: values(6)
    integer(c_int), intent(out) :: status
    call raw_set_modal_stress_vec(mode, node_id, values, status)
  end subroutine

  subroutine krx_set_modal_strain_vec(mode, node_id, values, status)
    integer(c_int), intent(in) :: mode, node_id
    real(c_double), intent(in) :: values(6)
    integer(c_int), intent(out) :: status
    call raw_set_modal_strain_vec(mode, node_id, values, status)
  end subroutine

  subroutine krx_set_generalized_mass(row_mode, col_mode, value, status)
    integer(c_int), intent(in) :: row_mode, col_mode
    real(c_double), intent(in) :: value
    integer(c_int), intent(out) :: status
    call raw_set_generalized_mass(row_mode, col_mode, value, status)
  end subroutine

  subroutine krx_set_generalized_stiffness(row_mode, col_mode, value, status)
    integer(c_int), intent(in) :: row_mode, col_mode
    real(c_double), intent(in) :: value
    integer(c_int), intent(out) :: status
    call raw_set_generalized_stiffness(row_mode, col_mode, value, status)
  end subroutine

  subroutine krx_set_interface_node(node_id, status)
    integer(c_int), intent(in) :: node_id
    integer(c_int), intent(out) :: status
    call raw_set_interface_node(node_id, status)
  end subroutine

  subroutine krx_set_face(vertex_count, node_ids, status)
    integer(c_int), intent(in) :: vertex_count
    integer(c_int), intent(in) :: node_ids(*)
    integer(c_int), intent(out) :: status
    call raw_set_face(vertex_count, node_ids, status)
  end subroutine

  subroutine krx_units_si_multipliers(mass, length, time, force, status)
    real(c_double), intent(in) :: mass, length, time, force
    integer(c_int), intent(out) :: status
    call raw_units_si_multipliers(mass, length, time, force, status)
  end subroutine

  subroutine krx_write_krx(path, status)
    character(len=*), intent(in) :: path
    integer(c_int), intent(out) :: status
    call raw_write_krx(path, status, len(path, c_int))
  end subroutine

  subroutine krx_write_velox_krx(path, normal_modes, additional_modes, status)
    character(len=*), intent(in) :: path
    integer(c_int), intent(in) :: normal_modes, additional_modes
    integer(c_int), intent(out) :: status
    call raw_write_velox_krx(path, normal_modes, additional_modes, status, len(path, c_int))
  end subroutine

  subroutine krx_terminate(status)
    integer(c_int), intent(out) :: status
    call raw_terminate(status)
  end subroutine

  ! Opens path (trailing blanks removed); file is a handle even on failure, for the message.
  function krx_open(path, file) result(code)
    character(len=*), intent(in) :: path
    type(c_ptr), intent(out) :: file
    integer(c_int) :: code
    code = raw_open(trim(path) // c_null_char, file)
  end function

  ! The text of the calling thread's last failure on file.
  function krx_error_message(file) result(text)
    type(c_ptr), intent(in) :: file
    character(len=:), allocatable :: text
    type(c_ptr) :: raw
    character(kind=c_char), pointer :: chars(:)
    integer :: i
    raw = raw_error_message(file)
    text = ''
    if (.not. c_associated(raw)) return
    call c_f_pointer(raw, chars, [raw_strlen(raw)])
    allocate(character(len=size(chars)) :: text)
    do i = 1, size(chars)
      text(i:i) = chars(i)
    end do
  end function

  ! A header field, blank-padded to the length of text.
  function krx_read_header(file, field, text) result(code)
    type(c_ptr), intent(in) :: file
    integer(c_int), intent(in) :: field
    character(len=*), intent(out) :: text
    integer(c_int) :: code
    character(kind=c_char) :: chars(129)
    integer :: i
    code = raw_read_header(file, field, chars, int(size(chars), c_size_t))
    text = ''
    if (code /= KRX_OK) return
    do i = 1, min(len(text), size(chars))
      if (chars(i) == c_null_char) exit
      text(i:i) = chars(i)
    end do
  end function

end module krx
